// The edge-aware weighted guided filters and their tiled form.
//
// Weight map W (one float per pixel) from the guidance I:
//   var1 = mean1(I * I) - mean1(I)^2 over the 3 x 3 window (clamp to edge); an rgb
//   guidance contributes the mean of its three channels' variances;
//   v = var1 + epsW, epsW = 2e-6;
//   W = v * (mean over the image of 1 / v), the image mean taken with the factor
//   (1 / height) / width over per-row double sums added in row order (the same on any
//   number of threads); then W is box-smoothed with radius (int)(width * fraction).
// Filter: the guided filter with a = cov / (var + epsilon / W), epsilon itself, not its
// square. src == guidance runs the fused self-guided passes, otherwise the nine steps of
// the two-image filter with the built-in box mean.
//
// Tiling (rgb, above 4,194,304 pixels): tiles from integer divisions of the image into
// ceil(width / 2048) x ceil(height / 2048), widened by (int)(2 * radius) on each side and
// clipped to the image; each widened tile is copied out (source, guidance unless it is
// the source, and its part of the whole-image weight map), filtered, and its own
// rectangle copied into dst. Tiles run one after the other, each parallel inside, so the
// working set stays at one tile. Outputs at least 2r from a tile's clipped edge do not
// see the edge, so tiles differ from the whole-image result only by float rounding.

#include <imageprocessing/guided_filter.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <vector>

#include <zorl/common/managed_memory.h>

#include "core/error_log.h"
#include "imageprocessing/guided_filter/band_window.h"
#include "imageprocessing/guided_filter/guided_kernels.h"

using namespace grfx;
using namespace grfx::guided;

namespace {

constexpr float kWeightEpsilon = 2e-6f;          // keeps the weight of flat regions finite
constexpr int kWeightVarianceRadius = 1;         // the 3 x 3 local variance
constexpr std::size_t kTilingThreshold = 0x400000;  // 4,194,304 pixels: above, the rgb filter tiles
constexpr int kTileShift = 11;                   // tiles of at most 2048 pixels a side
constexpr int kTileSpan = (1 << kTileShift) - 1;

template <class P>
void computeWeightMap(const float* pixelsSrc, float* pixelsDst, std::size_t width, std::size_t height,
                      int smoothRadius) {
    ZORL_ASSERT_REPORT(pixelsSrc != pixelsDst);
    constexpr int C = kChannels<P>;
    constexpr int r = kWeightVarianceRadius;
    Plane<pixel_gray_t> scratch(width, height);
    float* v = scratch.get();

    // var1 + epsW, by the running sums of I and I^2 over 3 x 3 windows.
    const Bands bands = splitBands(width);
    BandScratch lines(bands, r, C);
    const float scale = windowScale(r);
    zorl::parallelFor(0, bands.count, [&](int first, int last) {
        for (int i = first; i < last; ++i) {
            const Band band = bands.band[i];
            const std::size_t line = lineFloats(band, r, C);
            float* sumLine = lines.at(i);
            float* sqLine = sumLine + line;
            float* ms = sqLine + line;
            float* mq = ms + band.width() * C;
            BandWindow<P, true> window(pixelsSrc, width, height, r, band, sumLine, sqLine);
            for (std::size_t y = 0; y < height; ++y) {
                window.moveTo(y);
                window.means(scale, ms, mq);
                float* out = v + y * width + band.x0;
                for (std::size_t x = 0; x < band.width(); ++x) {
                    float var = 0.0f;
                    for (int c = 0; c < C; ++c) {
                        const float m = ms[x * C + c];
                        var += mq[x * C + c] - m * m;
                    }
                    out[x] = var * (1.0f / C) + kWeightEpsilon;
                }
            }
        }
    });

    // The image mean of 1 / v.
    zorl::ManagedBuffer<double> rowSums(height);
    zorl::parallelFor(std::size_t(0), height, [&](std::size_t first, std::size_t last) {
        for (std::size_t y = first; y < last; ++y) {
            double s = 0.0;
            for (std::size_t x = 0; x < width; ++x) s += 1.0 / v[y * width + x];
            rowSums[y] = s;
        }
    });
    double total = 0.0;
    for (std::size_t y = 0; y < height; ++y) total += rowSums[y];
    const float meanReciprocal =
        static_cast<float>(total) * ((1.0f / static_cast<float>(height)) / static_cast<float>(width));
    forRows(height, width, [&](std::size_t b, std::size_t e) {
        for (std::size_t i = b; i < e; ++i) v[i] *= meanReciprocal;
    });
    boxMeanOf<pixel_gray_t>(v, pixelsDst, width, height, smoothRadius);
}

template <class P>
void weightedWithMap(const float* src, const float* guidance, float* dst, std::size_t width, std::size_t height, int r,
                     float epsilon, const float* weight) {
    const Regulariser reg{0.0f, weight, epsilon};
    if (src == guidance) {
        selfGuided<P>(src, dst, width, height, r, reg);
        return;
    }
    const MeanFn mean = [&](float* d, const float* s) { boxMeanOf<P>(s, d, width, height, r); };
    twoImage<P>(src, guidance, dst, width, height, reg, mean);
}

struct TileRect {
    std::size_t x0, y0, x1, y1;
};

// Copies the rectangle t of a plane with rowFloats floats per row into a packed plane.
void copyRect(const float* from, std::size_t rowFloats, const TileRect& t, int channels, float* to) {
    const std::size_t n = (t.x1 - t.x0) * channels;
    for (std::size_t y = t.y0; y < t.y1; ++y)
        std::memcpy(to + (y - t.y0) * n, from + y * rowFloats + t.x0 * channels, n * sizeof(float));
}

void weightedTiled(const float* src, const float* guidance, float* dst, std::size_t width, std::size_t height,
                   float radius, float epsilon, int smoothRadius) {
    constexpr int C = 3;
    const int r = truncateRadius(radius);
    Plane<pixel_gray_t> weight(width, height);
    computeWeightMap<pixel_rgb_t>(guidance, weight.get(), width, height, smoothRadius);
    if (width * height <= kTilingThreshold) {
        weightedWithMap<pixel_rgb_t>(src, guidance, dst, width, height, r, epsilon, weight.get());
        return;
    }
    const int numTilesX = (static_cast<int>(width) + kTileSpan) >> kTileShift;
    const int numTilesY = (static_cast<int>(height) + kTileSpan) >> kTileShift;
    ZORL_ASSERT_REPORT(numTilesX > 0 && numTilesY > 0);
    std::vector<TileRect> tiles;
    for (int i = 0; i < numTilesY; ++i)
        for (int j = 0; j < numTilesX; ++j)
            tiles.push_back({width * j / numTilesX, height * i / numTilesY, width * (j + 1) / numTilesX,
                             height * (i + 1) / numTilesY});

    // A tile reads around its rectangle what earlier tiles have written when dst is the
    // source or the guidance: such calls filter from a copy.
    const bool sameGuidance = src == guidance;
    std::optional<Plane<pixel_rgb_t>> srcCopy, guidanceCopy;
    if (dst == src || dst == guidance) {
        srcCopy.emplace(width, height);
        std::memcpy(srcCopy->get(), src, width * height * C * sizeof(float));
        src = srcCopy->get();
        if (sameGuidance) {
            guidance = src;
        } else {
            guidanceCopy.emplace(width, height);
            std::memcpy(guidanceCopy->get(), guidance, width * height * C * sizeof(float));
            guidance = guidanceCopy->get();
        }
    }

    const std::size_t border = radius + radius >= 1.0f ? static_cast<std::size_t>(static_cast<int>(radius + radius)) : 0;
    for (const TileRect& tile : tiles) {
        const TileRect wide{tile.x0 > border ? tile.x0 - border : 0, tile.y0 > border ? tile.y0 - border : 0,
                            std::min(width, tile.x1 + border), std::min(height, tile.y1 + border)};
        const std::size_t tw = wide.x1 - wide.x0, th = wide.y1 - wide.y0;
        Plane<pixel_rgb_t> tileSrc(tw, th), tileOut(tw, th);
        Plane<pixel_gray_t> tileWeight(tw, th);
        std::optional<Plane<pixel_rgb_t>> tileGuidance;
        copyRect(src, width * C, wide, C, tileSrc.get());
        copyRect(weight.get(), width, wide, 1, tileWeight.get());
        const float* tileI = tileSrc.get();
        if (!sameGuidance) {
            tileGuidance.emplace(tw, th);
            copyRect(guidance, width * C, wide, C, tileGuidance->get());
            tileI = tileGuidance->get();
        }
        weightedWithMap<pixel_rgb_t>(tileSrc.get(), tileI, tileOut.get(), tw, th, r, epsilon, tileWeight.get());
        const std::size_t n = (tile.x1 - tile.x0) * C;
        for (std::size_t y = tile.y0; y < tile.y1; ++y)
            std::memcpy(dst + (y * width + tile.x0) * C, tileOut.get() + ((y - wide.y0) * tw + (tile.x0 - wide.x0)) * C,
                        n * sizeof(float));
    }
}

const char* const kWeightedParameters =
    "const float *,const float *,float *,unsigned __int64,unsigned __int64,float,float,float";

// The checks of the weighted entry points; on success the smoothing radius of the map.
bool checkWeighted(const std::string& signature, const float* src, const float* guidance, const float* dst,
                   std::size_t width, std::size_t height, float radius, float fraction, int& smoothRadius) {
    if (!checkBuffers(signature, src, guidance, true, dst) || !checkSizeAndRadius(signature, width, height, radius))
        return false;
    const float smooth = static_cast<float>(std::max<std::size_t>(width, 1)) * fraction;
    if (!zorl::checkThat(radiusInRange(smooth), signature, "weight radius is too large")) return false;
    smoothRadius = truncateRadius(smooth);
    return true;
}

template <class P>
void runWeighted(const char* name, const float* src, const float* guidance, float* dst, std::size_t width,
                 std::size_t height, float radius, float epsilon, float fraction) {
    int smoothRadius = 0;
    if (!checkWeighted(signatureOf(name, kWeightedParameters), src, guidance, dst, width, height, radius, fraction,
                       smoothRadius))
        return;
    width = std::max<std::size_t>(width, 1);
    height = std::max<std::size_t>(height, 1);
    Plane<pixel_gray_t> weight(width, height);
    computeWeightMap<P>(guidance, weight.get(), width, height, smoothRadius);
    weightedWithMap<P>(src, guidance, dst, width, height, truncateRadius(radius), epsilon, weight.get());
}

}  // namespace

void grfx_weighted_guided_filter_gray(const float* src, const float* guidance, float* dst, size_t width, size_t height,
                                      float radius, float epsilon, float weightRadiusFraction) {
    runWeighted<pixel_gray_t>("grfx_weighted_guided_filter_gray", src, guidance, dst, width, height, radius, epsilon,
                              weightRadiusFraction);
}

void grfx_weighted_guided_filter_rgb(const float* src, const float* guidance, float* dst, size_t width, size_t height,
                                     float radius, float epsilon, float weightRadiusFraction) {
    runWeighted<pixel_rgb_t>("grfx_weighted_guided_filter_rgb", src, guidance, dst, width, height, radius, epsilon,
                             weightRadiusFraction);
}

void grfx_weighted_guided_filter_rgb_tiled(const float* src, const float* guidance, float* dst, size_t width,
                                           size_t height, float radius, float epsilon, float weightRadiusFraction) {
    int smoothRadius = 0;
    if (!checkWeighted(signatureOf("grfx_weighted_guided_filter_rgb_tiled", kWeightedParameters), src, guidance, dst,
                       width, height, radius, weightRadiusFraction, smoothRadius))
        return;
    weightedTiled(src, guidance, dst, std::max<std::size_t>(width, 1), std::max<std::size_t>(height, 1), radius,
                  epsilon, smoothRadius);
}
