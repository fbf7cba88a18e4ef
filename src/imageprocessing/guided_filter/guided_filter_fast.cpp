// The fast guided filters: coefficients fitted on a grid reduced by 4 in each direction,
// applied at full resolution.
//   1. w4 = max(width >> 2, 1), h4 = max(height >> 2, 1), r4 = (int)(radius * 0.25f).
//   2. The source (and the guidance) are reduced by area averaging: small pixel (i, j)
//      is the mean of the source block of columns [i * width / w4, (i + 1) * width / w4)
//      and rows [j * height / h4, (j + 1) * height / h4) (integer divisions), so every
//      source pixel lands in exactly one block.
//   3. On the small grid: a and b (the self-guided coefficient pass, or steps 1 to 7 of the
//      two-image filter with the built-in box mean), then mA = mean(a), mB = mean(b).
//   4. dst = mA' * I + mB' at full resolution, mA' and mB' interpolated bilinearly with
//      corners mapped to corners: steps sx = (w4 - 1) / (width - 1) and sy likewise,
//      in double, stored as float; position x * sx split by floorf into index and weight.
//      A grid of one column (w4 == 1, including the 0 / 0 of width 1) or a step equal to
//      0 under isFloatEqual reads column 0 everywhere; rows likewise.

#include <imageprocessing/guided_filter.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include <tbb/enumerable_thread_specific.h>

#include <zorl/common/managed_memory.h>
#include <zorl/core/image_utils.h>

#include "imageprocessing/guided_filter/guided_kernels.h"

using namespace grfx;
using namespace grfx::guided;

namespace {

constexpr int kReduction = 4;  // the grid is 1/4 of the size in each direction, 1/16 of the pixels

using Row = std::vector<float, zorl::ManagedAllocator<float>>;

// Area reduction of a w x h plane of kind P to w4 x h4 (block means, see above): the rows
// of a block are added into a row of column sums (flat, four lanes at a time), then each
// block's columns are added and scaled.
template <class P>
void reduceToGrid(const float* src, std::size_t width, std::size_t height, float* small, std::size_t w4,
                  std::size_t h4) {
    constexpr int C = kChannels<P>;
    const std::size_t rowFloats = width * C;
    zorl::ManagedBuffer<std::size_t> columnStart(w4 + 1);
    for (std::size_t i = 0; i <= w4; ++i) columnStart[i] = i * width / w4;
    tbb::enumerable_thread_specific<Row> sums([&] { return Row(rowFloats); });
    zorl::parallelFor(std::size_t(0), h4, [&](std::size_t first, std::size_t last) {
        float* acc = sums.local().data();
        for (std::size_t j = first; j < last; ++j) {
            const std::size_t y0 = j * height / h4, y1 = (j + 1) * height / h4;
            std::memcpy(acc, src + y0 * rowFloats, rowFloats * sizeof(float));
            for (std::size_t y = y0 + 1; y < y1; ++y) {
                const float* row = src + y * rowFloats;
                flatLoop(0, rowFloats, [&](std::size_t k, auto lanes) {
                    using V = decltype(lanes);
                    store(acc + k, load<V>(acc + k) + load<V>(row + k));
                });
            }
            for (std::size_t i = 0; i < w4; ++i) {
                const std::size_t x0 = columnStart[i], x1 = columnStart[i + 1];
                P sum = P::load(acc, x0);
                for (std::size_t x = x0 + 1; x < x1; ++x) sum += P::load(acc, x);
                P::store(small, j * w4 + i, sum * (1.0f / static_cast<float>((y1 - y0) * (x1 - x0))));
            }
        }
    });
}

// Source index and weight of the bilinear interpolation along one axis.
struct Tap {
    std::size_t i0, i1;
    float weight;
};

Tap tapAt(std::size_t position, float step, bool flat, std::size_t smallSize) {
    if (flat) return {0, 0, 0.0f};
    const float f = static_cast<float>(position) * step;
    const float fl = std::floor(f);
    std::size_t i0 = fl > 0.0f ? static_cast<std::size_t>(fl) : 0;
    i0 = std::min(i0, smallSize - 1);
    return {i0, std::min(i0 + 1, smallSize - 1), f - fl};
}

float stepOf(std::size_t smallSize, std::size_t size) {
    return static_cast<float>(static_cast<double>(smallSize - 1) / static_cast<double>(size - 1));
}

// One small row of mA and mB interpolated across the full width, kept per thread: the
// rows of a task move down the image, so each small row serves about four output rows.
struct WideRows {
    Row data;
    std::size_t index[2] = {SIZE_MAX, SIZE_MAX};  // small row held by each slot
    int next = 0;                                 // slot to refill next
};

// dst = mA' * I + mB' (see the top of the file): the small rows are interpolated across
// (per channel, with the column taps), then each output row is the vertical blend of two
// such rows, applied to I four lanes at a time. dst may equal I.
template <class P>
void upsampleApply(const float* mA, const float* mB, std::size_t w4, std::size_t h4, const float* I, float* dst,
                   std::size_t width, std::size_t height) {
    constexpr int C = kChannels<P>;
    const std::size_t rowFloats = width * C;
    const float sx = stepOf(w4, width), sy = stepOf(h4, height);
    const bool flatX = w4 == 1 || zorl::isFloatEqual(sx, 0.0f);
    const bool flatY = h4 == 1 || zorl::isFloatEqual(sy, 0.0f);
    zorl::ManagedBuffer<Tap> columns(width);
    for (std::size_t x = 0; x < width; ++x) columns[x] = tapAt(x, sx, flatX, w4);

    // Per thread: two slots of (mA row, mB row) across the width. Large outputs are
    // written with streaming stores.
    const bool stream = streamPlane(width, height, C);
    tbb::enumerable_thread_specific<WideRows> perThread([&] {
        WideRows w;
        w.data.resize(4 * rowFloats);
        return w;
    });
    auto wideRow = [&](WideRows& w, std::size_t j) -> int {
        for (int k = 0; k < 2; ++k)
            if (w.index[k] == j) return k;
        const int k = w.next;
        w.next ^= 1;
        w.index[k] = j;
        float* a = w.data.data() + 2 * k * rowFloats;
        float* b = a + rowFloats;
        const float* a0 = mA + j * w4 * C;
        const float* b0 = mB + j * w4 * C;
        for (std::size_t x = 0; x < width; ++x) {
            const Tap& c = columns[x];
            const float wx = c.weight, wx0 = 1.0f - c.weight;
            P::store(a, x, P::load(a0, c.i0) * wx0 + P::load(a0, c.i1) * wx);
            P::store(b, x, P::load(b0, c.i0) * wx0 + P::load(b0, c.i1) * wx);
        }
        return k;
    };
    zorl::parallelFor(std::size_t(0), height, [&](std::size_t first, std::size_t last) {
        WideRows& w = perThread.local();
        for (std::size_t y = first; y < last; ++y) {
            const Tap t = tapAt(y, sy, flatY, h4);
            const int k0 = wideRow(w, t.i0);
            const int k1 = wideRow(w, t.i1);
            const float* a0 = w.data.data() + 2 * k0 * rowFloats;
            const float* b0 = a0 + rowFloats;
            const float* a1 = w.data.data() + 2 * k1 * rowFloats;
            const float* b1 = a1 + rowFloats;
            const float* Irow = I + y * rowFloats;
            float* out = dst + y * rowFloats;
            const float wy = t.weight, wy0 = 1.0f - t.weight;
            flatLoopAligned(out, 0, rowFloats, [&](std::size_t i, auto lanes) {
                using V = decltype(lanes);
                const V a = load<V>(a0 + i) * wy0 + load<V>(a1 + i) * wy;
                const V b = load<V>(b0 + i) * wy0 + load<V>(b1 + i) * wy;
                put(out + i, a * load<V>(Irow + i) + b, stream);
            });
        }
        _mm_sfence();
    });
}

struct Grid {
    std::size_t w4, h4;
    int r4;
};

Grid gridOf(std::size_t width, std::size_t height, float radius) {
    const float smallRadius = radius * (1.0f / kReduction);
    return {std::max<std::size_t>(width >> 2, 1), std::max<std::size_t>(height >> 2, 1), truncateRadius(smallRadius)};
}

template <class P>
void fastSelfGuided(const float* src, float* dst, std::size_t width, std::size_t height, float radius, float epsilon) {
    const Grid g = gridOf(width, height, radius);
    Plane<P> small(g.w4, g.h4), a(g.w4, g.h4), b(g.w4, g.h4), mA(g.w4, g.h4), mB(g.w4, g.h4);
    reduceToGrid<P>(src, width, height, small.get(), g.w4, g.h4);
    selfGuidedCoefficients<P>(small.get(), a.get(), b.get(), g.w4, g.h4, g.r4, Regulariser{epsilon * epsilon});
    boxMeanOf<P>(a.get(), mA.get(), g.w4, g.h4, g.r4);
    boxMeanOf<P>(b.get(), mB.get(), g.w4, g.h4, g.r4);
    upsampleApply<P>(mA.get(), mB.get(), g.w4, g.h4, src, dst, width, height);
}

template <class P>
void fastTwoImage(const float* src, const float* guidance, float* dst, std::size_t width, std::size_t height,
                  float radius, float epsilon) {
    const Grid g = gridOf(width, height, radius);
    Plane<P> smallP(g.w4, g.h4), smallI(g.w4, g.h4);
    Plane<P> plane0(g.w4, g.h4), plane1(g.w4, g.h4), plane2(g.w4, g.h4), plane3(g.w4, g.h4), plane4(g.w4, g.h4);
    float* const planes[5] = {plane0.get(), plane1.get(), plane2.get(), plane3.get(), plane4.get()};
    reduceToGrid<P>(src, width, height, smallP.get(), g.w4, g.h4);
    reduceToGrid<P>(guidance, width, height, smallI.get(), g.w4, g.h4);
    const MeanFn mean = [&](float* d, const float* s) { boxMeanOf<P>(s, d, g.w4, g.h4, g.r4); };
    twoImageCoefficients<P>(smallP.get(), smallI.get(), g.w4, g.h4, Regulariser{epsilon * epsilon}, mean, planes);
    // a is in planes[3], b in planes[1]; the means go to the free planes 0 and 2.
    mean(planes[0], planes[3]);
    mean(planes[2], planes[1]);
    upsampleApply<P>(planes[0], planes[2], g.w4, g.h4, guidance, dst, width, height);
}

const char* const kSelfParameters = "const float *,float *,unsigned __int64,unsigned __int64,float,float";
const char* const kGuidedParameters =
    "const float *,const float *,float *,unsigned __int64,unsigned __int64,float,float";

template <class P>
void runFast(const char* name, const float* src, float* dst, std::size_t width, std::size_t height, float radius,
             float epsilon) {
    const std::string signature = signatureOf(name, kSelfParameters);
    if (!checkBuffers(signature, src, nullptr, false, dst) || !checkSizeAndRadius(signature, width, height, radius))
        return;
    if (width == 0 || height == 0) return;
    fastSelfGuided<P>(src, dst, width, height, radius, epsilon);
}

template <class P>
void runGuidedFast(const char* name, const float* src, const float* guidance, float* dst, std::size_t width,
                   std::size_t height, float radius, float epsilon) {
    const std::string signature = signatureOf(name, kGuidedParameters);
    if (!checkBuffers(signature, src, guidance, true, dst) || !checkSizeAndRadius(signature, width, height, radius))
        return;
    fastTwoImage<P>(src, guidance, dst, std::max<std::size_t>(width, 1), std::max<std::size_t>(height, 1), radius,
                    epsilon);
}

}  // namespace

void grfx_guided_filter_gray_fast(const float* src, float* dst, size_t width, size_t height, float radius,
                                  float epsilon) {
    runFast<pixel_gray_t>("grfx_guided_filter_gray_fast", src, dst, width, height, radius, epsilon);
}

void grfx_guided_filter_rgb_fast(const float* src, float* dst, size_t width, size_t height, float radius,
                                 float epsilon) {
    runFast<pixel_rgb_t>("grfx_guided_filter_rgb_fast", src, dst, width, height, radius, epsilon);
}

void grfx_guided_filter_argb_fast(const float* src, float* dst, size_t width, size_t height, float radius,
                                  float epsilon) {
    runFast<pixel_t>("grfx_guided_filter_argb_fast", src, dst, width, height, radius, epsilon);
}

void grfx_guided_filter_gray_guided_fast(const float* src, const float* guidance, float* dst, size_t width,
                                         size_t height, float radius, float epsilon) {
    runGuidedFast<pixel_gray_t>("grfx_guided_filter_gray_guided_fast", src, guidance, dst, width, height, radius,
                                epsilon);
}

void grfx_guided_filter_rgb_guided_fast(const float* src, const float* guidance, float* dst, size_t width,
                                        size_t height, float radius, float epsilon) {
    runGuidedFast<pixel_rgb_t>("grfx_guided_filter_rgb_guided_fast", src, guidance, dst, width, height, radius,
                               epsilon);
}

void grfx_guided_filter_argb_guided_fast(const float* src, const float* guidance, float* dst, size_t width,
                                         size_t height, float radius, float epsilon) {
    runGuidedFast<pixel_t>("grfx_guided_filter_argb_guided_fast", src, guidance, dst, width, height, radius,
                           epsilon);
}
