#pragma once
// The filter kernels of the guided filter family (private). Each works on packed planes
// of pixel kind P (pixel_gray_t, pixel_rgb_t or pixel_t: 1, 3 or 4 floats per pixel),
// knows nothing of logging, and expects checked input: width, height >= 1, r >= 0.

#include <cstddef>
#include <functional>

#include <imageprocessing/export.h>

#include "core/parallel.h"
#include "imageprocessing/guided_filter/guided_common.h"

namespace grfx::guided {

// dst = the clamp-to-edge box mean of src over (2r + 1) x (2r + 1) windows, per channel,
// band-parallel with one line buffer per band. Not in place. Exported (outside the
// public headers) so that tests and benchmarks can use the library's own box mean.
ZORL_IP_EXPORT void boxMean(const float* src, float* dst, std::size_t width, std::size_t height, int r, int channels);
template <class P>
void boxMeanOf(const float* src, float* dst, std::size_t width, std::size_t height, int r);

// The coefficient pass of the self-guided filter: for each pixel the window sums of I and
// I^2 give m and var, then a = var / (var + regulariser) and b = m - a * m.
template <class P>
void selfGuidedCoefficients(const float* I, float* a, float* b, std::size_t width, std::size_t height, int r,
                            const Regulariser& reg);

// In place over one row of a band: ms (window means of I) becomes a = var / (var + reg),
// mq (window means of I^2) becomes b = m - a * m. pixels from image pixel firstPixel.
template <class P>
inline void coefficientsRow(float* ms, float* mq, std::size_t pixels, const Regulariser& reg, std::size_t firstPixel) {
    if (!reg.weight) {
        flatLoop(0, pixels * kChannels<P>, [&](std::size_t i, auto lanes) {
            using V = decltype(lanes);
            const V m = load<V>(ms + i);
            const V var = load<V>(mq + i) - m * m;
            const V ai = var / (var + V(reg.constant));
            store(ms + i, ai);
            store(mq + i, m - ai * m);
        });
        return;
    }
    const float* w = reg.weight + firstPixel;
    for (std::size_t x = 0; x < pixels; ++x) {
        const P m = P::load(ms, x);
        const P var = P::load(mq, x) - m * m;
        const P ai = var / (var + P(reg.epsilon / w[x]));
        P::store(ms, x, ai);
        P::store(mq, x, m - ai * m);
    }
}

// The self-guided filter in three band-parallel passes; src == dst allowed.
template <class P>
void selfGuided(const float* src, float* dst, std::size_t width, std::size_t height, int r, const Regulariser& reg);

// A box mean over planes of the image's size: mean(dst, src).
using MeanFn = std::function<void(float* dst, const float* src)>;

// Steps 1 to 7 of the two-image filter (p = src, I = guidance). planes holds five
// scratch planes of the image's size; on return a is in planes[3] and b in planes[1],
// and planes[0], planes[2], planes[4] are free.
template <class P>
void twoImageCoefficients(const float* p, const float* I, std::size_t width, std::size_t height,
                          const Regulariser& reg, const MeanFn& mean, float* const planes[5]);

// The whole two-image filter, nine steps; dst may equal src or guidance.
template <class P>
void twoImage(const float* p, const float* I, float* dst, std::size_t width, std::size_t height,
              const Regulariser& reg, const MeanFn& mean);

// One parallel loop over the rows of a plane whose rows hold rowFloats floats: fn(begin,
// end) receives the float range of a run of whole rows.
template <class F>
void forRows(std::size_t height, std::size_t rowFloats, F&& fn) {
    zorl::parallelFor(std::size_t(0), height,
                      [&](std::size_t y0, std::size_t y1) { fn(y0 * rowFloats, y1 * rowFloats); });
}

}  // namespace grfx::guided
