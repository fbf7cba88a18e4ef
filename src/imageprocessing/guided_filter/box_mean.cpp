// The built-in box mean: separable running sums over column bands (see band_window.h
// for the window, edge and scale conventions). One task per band; each band keeps one
// line buffer of band width + 2r + 16 floats per channel and streams the rows top to
// bottom, writing each output row of the band directly. Plain stores: a box mean's output
// is read by the very next step, partly from the caches (streaming measured slower).

#include <algorithm>
#include <array>
#include <cstring>

#include <zorl/common/managed_memory.h>

#include "core/parallel.h"
#include "imageprocessing/guided_filter/band_window.h"
#include "imageprocessing/guided_filter/guided_kernels.h"

namespace grfx::guided {

template <class P>
void boxMeanOf(const float* src, float* dst, std::size_t width, std::size_t height, int r) {
    constexpr int C = kChannels<P>;
    const std::size_t rowFloats = width * C;
    if (r == 0) {
        // A one-sample window is the sample itself: copied exactly, no running sums.
        forRows(height, rowFloats, [&](std::size_t b, std::size_t e) { std::memcpy(dst + b, src + b, (e - b) * sizeof(float)); });
        return;
    }
    const Bands bands = splitBands(width);
    std::array<std::size_t, kMaxBands + 1> offset{};
    for (int i = 0; i < bands.count; ++i) offset[i + 1] = offset[i] + lineFloats(bands.band[i], r, C);
    zorl::ManagedBuffer<float> lines(offset[bands.count]);
    const float scale = windowScale(r);
    zorl::parallelFor(0, bands.count, [&](int first, int last) {
        for (int i = first; i < last; ++i) {
            const Band band = bands.band[i];
            BandWindow<P, false> window(src, width, height, r, band, lines.data() + offset[i], nullptr);
            for (std::size_t y = 0; y < height; ++y) {
                window.moveTo(y);
                window.means(scale, dst + y * rowFloats + band.x0 * C);
            }
        }
    });
}

void boxMean(const float* src, float* dst, std::size_t width, std::size_t height, int r, int channels) {
    switch (channels) {
        case 1: boxMeanOf<pixel_gray_t>(src, dst, width, height, r); break;
        case 3: boxMeanOf<pixel_rgb_t>(src, dst, width, height, r); break;
        case 4: boxMeanOf<pixel_t>(src, dst, width, height, r); break;
        default: break;
    }
}

template void boxMeanOf<pixel_gray_t>(const float*, float*, std::size_t, std::size_t, int);
template void boxMeanOf<pixel_rgb_t>(const float*, float*, std::size_t, std::size_t, int);
template void boxMeanOf<pixel_t>(const float*, float*, std::size_t, std::size_t, int);

}  // namespace grfx::guided
