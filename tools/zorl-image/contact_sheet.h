#pragma once
// The demo's contact sheet: rows of labelled pictures stacked into one PNG.

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "registry.h"

namespace Magick {
class Image;
}

namespace zorl::cli {

using SheetRow = std::pair<std::string, std::vector<SheetCell>>;

// Each row: its title above, then its pictures side by side, each scaled to fit a
// kCellWidth x kCellHeight box with its label below. Written atomically as PNG.
void writeContactSheet(const std::filesystem::path& path, const std::vector<SheetRow>& rows);

// A float RGB image as an 8- or 16-bit Magick++ image, through the library's
// float-to-integer rule (image_io.cpp).
Magick::Image toMagick(const RgbImage& image, int depth);

// Writes a Magick++ image in the format its extension names (.png, .jpg, .tif) through a
// temporary file renamed into place; throws UsageError with a one-line reason.
void writeMagick(Magick::Image& image, const std::filesystem::path& path);

}  // namespace zorl::cli
