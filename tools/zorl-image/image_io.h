#pragma once
// Reading and writing image files for zorl-image, through Magick++ (PNG, JPEG, TIFF;
// 8 and 16 bit). Every failure throws UsageError with a one-line reason; a file is
// written to a temporary name and renamed, so nothing is left half-written.

#include <filesystem>
#include <memory>
#include <string>

#include <zorl/core/image_data.h>
#include <zorl/core/mask_image.h>

#include "registry.h"

namespace zorl::cli {

// Any readable image as float RGB in 0..1 with the sRGB profile.
RgbImagePtr readImageRGB(const std::filesystem::path& path);
// Any readable image as a single-channel float mask (its luminance) in 0..1.
std::shared_ptr<MaskImage> readMask(const std::filesystem::path& path);

// Writes float RGB with the given bit depth (8 or 16); the format follows the extension.
void writeImageRGB(const std::filesystem::path& path, const RgbImage& image, int depth = 8);
// Writes a single-channel float image as gray.
void writeImageGray(const std::filesystem::path& path, const _ImageData<float>& image, int depth = 8);

// Writes a text file (a report, parameters) the same way: whole, or not at all.
void writeTextFile(const std::filesystem::path& path, const std::string& text);

// The demo photo: an image built into Magick++ converted to float RGB.
RgbImagePtr builtinPhoto();

}  // namespace zorl::cli
