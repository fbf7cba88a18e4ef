#include "contact_sheet.h"

#include <Magick++.h>

#include <algorithm>
#include <cmath>
#include <system_error>

#include "image_io.h"

namespace zorl::cli {
namespace {

constexpr int kCellWidth = 256;   // a 640 x 480 photo becomes 256 x 192
constexpr int kCellHeight = 192;
constexpr int kGap = 12;          // between pictures and around the sheet
constexpr int kTitleHeight = 30;  // one line of 18-point text
constexpr int kLabelHeight = 22;  // one line of 13-point text
constexpr double kTitlePoints = 18;
constexpr double kLabelPoints = 13;
const char* const kBackground = "#262626";
const char* const kText = "#f0f0f0";
// A font file that a Debian machine with Magick++ has (fontconfig pulls it in); without
// it Magick++ falls back to its default font.
const char* const kFontFile = "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf";

// The picture scaled to fit the cell box, never enlarged.
std::shared_ptr<const RgbImage> fitCell(const std::shared_ptr<const RgbImage>& image) {
    const double scale = std::min({1.0, double(kCellWidth) / image->width(), double(kCellHeight) / image->height()});
    if (scale >= 1.0) return image;
    const _Size<int> size(std::max(1, int(std::lround(image->width() * scale))),
                          std::max(1, int(std::lround(image->height() * scale))));
    return image->resize(size, kNoRegion, true);
}

void annotate(Magick::Image& canvas, const std::string& text, double points, int x, int y, int w, int h) {
    if (text.empty()) return;
    canvas.fontPointsize(points);
    try {
        canvas.annotate(text, Magick::Geometry(w, h, x, y), MagickCore::WestGravity);
    } catch (const Magick::Warning&) {
        // A missing font is not worth losing the sheet for.
    }
}

}  // namespace

void writeContactSheet(const std::filesystem::path& path, const std::vector<SheetRow>& rows) {
    // Scale every picture first: the sheet's size follows from them.
    std::vector<std::vector<std::shared_ptr<const RgbImage>>> cells;
    int width = 2 * kGap + kCellWidth, height = kGap;
    for (const auto& [title, row] : rows) {
        auto& scaled = cells.emplace_back();
        int rowWidth = kGap, rowHeight = 0;
        for (const SheetCell& cell : row) {
            if (!cell.image || cell.image->empty()) {
                scaled.push_back(nullptr);
                rowWidth += kCellWidth + kGap;
                continue;
            }
            scaled.push_back(fitCell(cell.image));
            rowWidth += kCellWidth + kGap;
            rowHeight = std::max(rowHeight, scaled.back()->height());
        }
        width = std::max(width, rowWidth);
        height += kTitleHeight + rowHeight + kLabelHeight + kGap;
    }

    Magick::Image canvas(Magick::Geometry(width, height), Magick::Color(kBackground));
    canvas.quiet(true);
    canvas.fillColor(Magick::Color(kText));
    canvas.strokeColor(Magick::Color());  // no outline around glyphs
    std::error_code ec;
    if (std::filesystem::exists(kFontFile, ec)) canvas.font(kFontFile);

    int y = kGap;
    for (std::size_t r = 0; r < rows.size(); ++r) {
        annotate(canvas, rows[r].first, kTitlePoints, kGap, y, width - 2 * kGap, kTitleHeight);
        y += kTitleHeight;
        int rowHeight = 0;
        for (const auto& c : cells[r]) rowHeight = c ? std::max(rowHeight, c->height()) : rowHeight;
        int x = kGap;
        for (std::size_t i = 0; i < cells[r].size(); ++i) {
            if (const auto& img = cells[r][i]) {
                // Centred in its cell box.
                const int ox = x + (kCellWidth - img->width()) / 2;
                canvas.composite(toMagick(*img, 8), ox, y, MagickCore::OverCompositeOp);
            }
            annotate(canvas, rows[r].second[i].label, kLabelPoints, x, y + rowHeight + 2, kCellWidth, kLabelHeight - 2);
            x += kCellWidth + kGap;
        }
        y += rowHeight + kLabelHeight + kGap;
    }

    canvas.depth(8);
    writeMagick(canvas, path);
}

}  // namespace zorl::cli
