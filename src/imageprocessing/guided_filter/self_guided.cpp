// The self-guided filter (I = p = src), the nine steps of the two-image filter fused into
// three band-parallel passes:
//   1. coefficients: the window sums of I and I^2 (two line buffers per band) give
//      m = sum(I) / N and var = sum(I^2) / N - m^2, then a = var / (var + regulariser) and
//      b = m - a * m; a goes to dst (used as scratch) or, in place, to a third plane;
//      b goes to plane B;
//   2. A = mean(a) into plane A (the built-in box mean);
//   3. dst = A * src + mean(B), the mean of B summed on the fly in the same band order.
// Two scratch planes out of place, three in place; an in-place call does the same
// arithmetic on the same values, so its result is identical. Each band forms its output
// rows in row buffers and copies them out (streaming for large planes).

#include <algorithm>
#include <optional>

#include <zorl/common/managed_memory.h>

#include "core/parallel.h"
#include "imageprocessing/guided_filter/band_window.h"
#include "imageprocessing/guided_filter/guided_kernels.h"

namespace grfx::guided {
template <class P>
void selfGuidedCoefficients(const float* I, float* a, float* b, std::size_t width, std::size_t height, int r,
                            const Regulariser& reg) {
    constexpr int C = kChannels<P>;
    const Bands bands = splitBands(width);
    BandScratch scratch(bands, r, C);
    const float scale = windowScale(r);
    const bool stream = streamPlane(width, height, C);
    zorl::parallelFor(0, bands.count, [&](int first, int last) {
        for (int i = first; i < last; ++i) {
            const Band band = bands.band[i];
            const std::size_t line = lineFloats(band, r, C);
            float* sumLine = scratch.at(i);
            float* sqLine = sumLine + line;
            float* ms = sqLine + line;
            float* mq = ms + band.width() * C;
            BandWindow<P, true> window(I, width, height, r, band, sumLine, sqLine);
            for (std::size_t y = 0; y < height; ++y) {
                window.moveTo(y);
                window.means(scale, ms, mq);
                coefficientsRow<P>(ms, mq, band.width(), reg, y * width + band.x0);
                const std::size_t at = (y * width + band.x0) * C;
                copyRow(a + at, ms, band.width() * C, stream);
                copyRow(b + at, mq, band.width() * C, stream);
            }
        }
        _mm_sfence();
    });
}

template <class P>
void selfGuided(const float* src, float* dst, std::size_t width, std::size_t height, int r, const Regulariser& reg) {
    constexpr int C = kChannels<P>;
    const bool inPlace = src == dst;
    Plane<P> planeA(width, height);
    Plane<P> planeB(width, height);
    std::optional<Plane<P>> planeCoefficients;
    if (inPlace) planeCoefficients.emplace(width, height);
    float* a = inPlace ? planeCoefficients->get() : dst;

    // Pass 1: a and b.
    selfGuidedCoefficients<P>(src, a, planeB.get(), width, height, r, reg);
    // Pass 2: A = mean(a).
    boxMeanOf<P>(a, planeA.get(), width, height, r);
    // Pass 3: dst = A * src + mean(B).
    const Bands bands = splitBands(width);
    BandScratch scratch(bands, r, C);
    const float scale = windowScale(r);
    const bool stream = streamPlane(width, height, C);
    const float* A = planeA.get();
    zorl::parallelFor(0, bands.count, [&](int first, int last) {
        for (int i = first; i < last; ++i) {
            const Band band = bands.band[i];
            float* sumLine = scratch.at(i);
            float* mb = sumLine + lineFloats(band, r, C);
            BandWindow<P, false> window(planeB.get(), width, height, r, band, sumLine, nullptr);
            for (std::size_t y = 0; y < height; ++y) {
                window.moveTo(y);
                window.means(scale, mb);
                const std::size_t at = (y * width + band.x0) * C;
                const float* Ai = A + at;
                const float* Ii = src + at;
                flatLoop(0, band.width() * C, [&](std::size_t k, auto lanes) {
                    using V = decltype(lanes);
                    store(mb + k, load<V>(Ai + k) * load<V>(Ii + k) + load<V>(mb + k));
                });
                copyRow(dst + at, mb, band.width() * C, stream);
            }
        }
        _mm_sfence();
    });
}

#define GRFX_GUIDED_SELF(P)                                                                                       \
    template void selfGuidedCoefficients<P>(const float*, float*, float*, std::size_t, std::size_t, int,          \
                                            const Regulariser&);                                                  \
    template void selfGuided<P>(const float*, float*, std::size_t, std::size_t, int, const Regulariser&);
GRFX_GUIDED_SELF(pixel_gray_t)
GRFX_GUIDED_SELF(pixel_rgb_t)
GRFX_GUIDED_SELF(pixel_t)
#undef GRFX_GUIDED_SELF

}  // namespace grfx::guided
