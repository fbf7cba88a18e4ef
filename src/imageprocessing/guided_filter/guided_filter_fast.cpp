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
// The self-guided functions run these steps as a pipeline down the image (see
// fastSelfGuided), with the same result as running them one after the other.

#include <imageprocessing/guided_filter.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include <tbb/enumerable_thread_specific.h>

#include <zorl/common/managed_memory.h>
#include <zorl/core/image_utils.h>

#include "imageprocessing/guided_filter/band_window.h"
#include "imageprocessing/guided_filter/guided_kernels.h"

using namespace grfx;
using namespace grfx::guided;

namespace {

constexpr int kReduction = 4;  // the grid is 1/4 of the size in each direction, 1/16 of the pixels

using Row = std::vector<float, zorl::ManagedAllocator<float>>;

// Area reduction of a w x h plane of kind P to w4 x h4 (block means, see above), a run of
// small rows at a time: the rows of a block are added into a row of column sums (flat,
// four lanes at a time), then each block's columns are added and scaled.
template <class P>
class GridReducer {
public:
    static constexpr int C = kChannels<P>;

    GridReducer(const float* src, std::size_t width, std::size_t height, float* small, std::size_t w4, std::size_t h4)
        : src_(src), width_(width), height_(height), small_(small), w4_(w4), h4_(h4), columnStart_(w4 + 1),
          sums_([this] { return Row(width_ * C); }) {
        for (std::size_t i = 0; i <= w4; ++i) columnStart_[i] = i * width / w4;
    }

    // Small rows [j0, j1), one parallel loop.
    void rows(std::size_t j0, std::size_t j1) {
        const std::size_t rowFloats = width_ * C;
        zorl::parallelFor(j0, j1, [&](std::size_t first, std::size_t last) {
            float* acc = sums_.local().data();
            for (std::size_t j = first; j < last; ++j) {
                const std::size_t y0 = j * height_ / h4_, y1 = (j + 1) * height_ / h4_;
                std::memcpy(acc, src_ + y0 * rowFloats, rowFloats * sizeof(float));
                for (std::size_t y = y0 + 1; y < y1; ++y) {
                    const float* row = src_ + y * rowFloats;
                    flatLoop(0, rowFloats, [&](std::size_t k, auto lanes) {
                        using V = decltype(lanes);
                        store(acc + k, load<V>(acc + k) + load<V>(row + k));
                    });
                }
                for (std::size_t i = 0; i < w4_; ++i) {
                    const std::size_t x0 = columnStart_[i], x1 = columnStart_[i + 1];
                    P sum = P::load(acc, x0);
                    for (std::size_t x = x0 + 1; x < x1; ++x) sum += P::load(acc, x);
                    P::store(small_, j * w4_ + i, sum * (1.0f / static_cast<float>((y1 - y0) * (x1 - x0))));
                }
            }
        });
    }

private:
    const float* src_;
    std::size_t width_, height_;
    float* small_;
    std::size_t w4_, h4_;
    zorl::ManagedBuffer<std::size_t> columnStart_;
    tbb::enumerable_thread_specific<Row> sums_;
};

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

// dst = mA' * I + mB' (see the top of the file), a run of output rows at a time: the
// small rows are interpolated across (per channel, with the column taps), then each
// output row is the vertical blend of two such rows, applied to I four lanes at a time.
// dst may equal I. Large outputs are written with streaming stores.
template <class P>
class Upsampler {
public:
    static constexpr int C = kChannels<P>;

    Upsampler(const float* mA, const float* mB, std::size_t w4, std::size_t h4, const float* I, float* dst,
              std::size_t width, std::size_t height)
        : mA_(mA), mB_(mB), w4_(w4), h4_(h4), I_(I), dst_(dst), width_(width), height_(height),
          rowFloats_(width * C), sy_(stepOf(h4, height)), flatY_(h4 == 1 || zorl::isFloatEqual(sy_, 0.0f)),
          stream_(streamPlane(width, height, C)), columns_(width), perThread_([this] {
              WideRows w;
              w.data.resize(4 * rowFloats_);
              return w;
          }) {
        const float sx = stepOf(w4, width);
        const bool flatX = w4 == 1 || zorl::isFloatEqual(sx, 0.0f);
        for (std::size_t x = 0; x < width; ++x) columns_[x] = tapAt(x, sx, flatX, w4);
    }

    // The first output row at or after y that needs a small row at or beyond smallRows.
    std::size_t rowsReady(std::size_t y, std::size_t smallRows) const {
        while (y < height_ && tapAt(y, sy_, flatY_, h4_).i1 < smallRows) ++y;
        return y;
    }

    // Output rows [y0, y1), one parallel loop.
    void rows(std::size_t y0, std::size_t y1) {
        zorl::parallelFor(y0, y1, [&](std::size_t first, std::size_t last) {
            WideRows& w = perThread_.local();
            for (std::size_t y = first; y < last; ++y) {
                const Tap t = tapAt(y, sy_, flatY_, h4_);
                const float* a0 = wideRow(w, t.i0);
                const float* a1 = wideRow(w, t.i1);
                const float* b0 = a0 + rowFloats_;
                const float* b1 = a1 + rowFloats_;
                const float* Irow = I_ + y * rowFloats_;
                float* out = dst_ + y * rowFloats_;
                const float wy = t.weight, wy0 = 1.0f - t.weight;
                flatLoopAligned(out, 0, rowFloats_, [&](std::size_t i, auto lanes) {
                    using V = decltype(lanes);
                    const V a = load<V>(a0 + i) * wy0 + load<V>(a1 + i) * wy;
                    const V b = load<V>(b0 + i) * wy0 + load<V>(b1 + i) * wy;
                    put(out + i, a * load<V>(Irow + i) + b, stream_);
                });
            }
            _mm_sfence();
        });
    }

private:
    // The slot holding small row j across the width (mA, then mB), filled on demand.
    const float* wideRow(WideRows& w, std::size_t j) const {
        for (int k = 0; k < 2; ++k)
            if (w.index[k] == j) return w.data.data() + 2 * k * rowFloats_;
        const int k = w.next;
        w.next ^= 1;
        w.index[k] = j;
        float* a = w.data.data() + 2 * k * rowFloats_;
        float* b = a + rowFloats_;
        const float* a0 = mA_ + j * w4_ * C;
        const float* b0 = mB_ + j * w4_ * C;
        for (std::size_t x = 0; x < width_; ++x) {
            const Tap& c = columns_[x];
            const float wx = c.weight, wx0 = 1.0f - c.weight;
            P::store(a, x, P::load(a0, c.i0) * wx0 + P::load(a0, c.i1) * wx);
            P::store(b, x, P::load(b0, c.i0) * wx0 + P::load(b0, c.i1) * wx);
        }
        return a;
    }

    const float* mA_;
    const float* mB_;
    std::size_t w4_, h4_;
    const float* I_;
    float* dst_;
    std::size_t width_, height_, rowFloats_;
    float sy_;
    bool flatY_, stream_;
    zorl::ManagedBuffer<Tap> columns_;
    tbb::enumerable_thread_specific<WideRows> perThread_;
};

struct Grid {
    std::size_t w4, h4;
    int r4;
};

Grid gridOf(std::size_t width, std::size_t height, float radius) {
    const float smallRadius = radius * (1.0f / kReduction);
    return {std::max<std::size_t>(width >> 2, 1), std::max<std::size_t>(height >> 2, 1), truncateRadius(smallRadius)};
}

// One column band of the small grid: the running windows of the coefficient pass and of
// the two means, advanced row by row as the rows they read become available.
template <class P>
struct GridBand {
    Band band;
    BandWindow<P, true> coefficients;
    BandWindow<P, false> meanA, meanB;
    float* ms;  // row buffers of the coefficient pass
    float* mq;
};

// Small rows reduced per step of the self-guided pipeline: 64 source rows.
constexpr std::size_t kStripRows = 64;

// The self-guided fast filter as a pipeline down the image: each step reduces the next
// strip of small rows, advances the coefficient pass and the two means as far as the rows
// they read allow (a row of a needs the reduced rows up to r4 below it; a row of mA the
// rows of a up to r4 below), then writes the output rows whose small rows are complete.
// Every stage still visits its rows in order with the same running sums, so the result is
// that of running the stages one after the other over the whole image; but the source
// rows the output pass reads were read by the reduction a few strips earlier and are
// still cached, instead of coming from memory a second time.
template <class P>
void fastSelfGuided(const float* src, float* dst, std::size_t width, std::size_t height, float radius, float epsilon) {
    constexpr int C = kChannels<P>;
    const Grid g = gridOf(width, height, radius);
    const std::size_t r4 = static_cast<std::size_t>(g.r4);
    Plane<P> small(g.w4, g.h4), a(g.w4, g.h4), b(g.w4, g.h4), mA(g.w4, g.h4), mB(g.w4, g.h4);
    const Regulariser reg{epsilon * epsilon};
    const float scale = windowScale(g.r4);

    const Bands bands = splitBands(g.w4);
    std::vector<std::size_t> offset(bands.count + 1, 0);
    for (int i = 0; i < bands.count; ++i)
        offset[i + 1] = offset[i] + 4 * lineFloats(bands.band[i], g.r4, C) + 2 * bands.band[i].width() * C;
    zorl::ManagedBuffer<float> scratch(offset[bands.count]);
    std::vector<GridBand<P>> grid;
    grid.reserve(bands.count);
    for (int i = 0; i < bands.count; ++i) {
        const Band band = bands.band[i];
        const std::size_t line = lineFloats(band, g.r4, C);
        float* base = scratch.data() + offset[i];
        grid.push_back({band, BandWindow<P, true>(small.get(), g.w4, g.h4, g.r4, band, base, base + line),
                        BandWindow<P, false>(a.get(), g.w4, g.h4, g.r4, band, base + 2 * line, nullptr),
                        BandWindow<P, false>(b.get(), g.w4, g.h4, g.r4, band, base + 3 * line, nullptr),
                        base + 4 * line, base + 4 * line + band.width() * C});
    }
    auto advanceCoefficients = [&](std::size_t j0, std::size_t j1) {
        zorl::parallelFor(0, bands.count, [&](int first, int last) {
            for (int i = first; i < last; ++i) {
                GridBand<P>& gb = grid[i];
                const std::size_t n = gb.band.width() * C;
                for (std::size_t j = j0; j < j1; ++j) {
                    gb.coefficients.moveTo(j);
                    gb.coefficients.means(scale, gb.ms, gb.mq);
                    coefficientsRow<P>(gb.ms, gb.mq, gb.band.width(), reg, j * g.w4 + gb.band.x0);
                    const std::size_t at = (j * g.w4 + gb.band.x0) * C;
                    std::memcpy(a.get() + at, gb.ms, n * sizeof(float));
                    std::memcpy(b.get() + at, gb.mq, n * sizeof(float));
                }
            }
        });
    };
    auto advanceMeans = [&](std::size_t j0, std::size_t j1) {
        zorl::parallelFor(0, bands.count, [&](int first, int last) {
            for (int i = first; i < last; ++i) {
                GridBand<P>& gb = grid[i];
                for (std::size_t j = j0; j < j1; ++j) {
                    const std::size_t at = (j * g.w4 + gb.band.x0) * C;
                    gb.meanA.moveTo(j);
                    gb.meanA.means(scale, mA.get() + at);
                    gb.meanB.moveTo(j);
                    gb.meanB.means(scale, mB.get() + at);
                }
            }
        });
    };

    GridReducer<P> reducer(src, width, height, small.get(), g.w4, g.h4);
    Upsampler<P> upsampler(mA.get(), mB.get(), g.w4, g.h4, src, dst, width, height);
    std::size_t reduced = 0, coefficients = 0, means = 0, written = 0;
    while (written < height) {
        const std::size_t nextReduced = std::min(g.h4, reduced + kStripRows);
        reducer.rows(reduced, nextReduced);
        reduced = nextReduced;
        // Rows whose windows reach at most the last row available (all rows at the end).
        auto ready = [&](std::size_t available) {
            return available == g.h4 ? g.h4 : (available > r4 ? available - r4 : 0);
        };
        const std::size_t nextCoefficients = ready(reduced);
        if (nextCoefficients > coefficients) advanceCoefficients(coefficients, nextCoefficients);
        coefficients = std::max(coefficients, nextCoefficients);
        const std::size_t nextMeans = ready(coefficients);
        if (nextMeans > means) advanceMeans(means, nextMeans);
        means = std::max(means, nextMeans);
        const std::size_t nextWritten = means == g.h4 ? height : upsampler.rowsReady(written, means);
        if (nextWritten > written) upsampler.rows(written, nextWritten);
        written = nextWritten;
    }
}

template <class P>
void fastTwoImage(const float* src, const float* guidance, float* dst, std::size_t width, std::size_t height,
                  float radius, float epsilon) {
    const Grid g = gridOf(width, height, radius);
    Plane<P> smallP(g.w4, g.h4), smallI(g.w4, g.h4);
    Plane<P> plane0(g.w4, g.h4), plane1(g.w4, g.h4), plane2(g.w4, g.h4), plane3(g.w4, g.h4), plane4(g.w4, g.h4);
    float* const planes[5] = {plane0.get(), plane1.get(), plane2.get(), plane3.get(), plane4.get()};
    GridReducer<P>(src, width, height, smallP.get(), g.w4, g.h4).rows(0, g.h4);
    GridReducer<P>(guidance, width, height, smallI.get(), g.w4, g.h4).rows(0, g.h4);
    const MeanFn mean = [&](float* d, const float* s) { boxMeanOf<P>(s, d, g.w4, g.h4, g.r4); };
    twoImageCoefficients<P>(smallP.get(), smallI.get(), g.w4, g.h4, Regulariser{epsilon * epsilon}, mean, planes);
    // a is in planes[3], b in planes[1]; the means go to the free planes 0 and 2.
    mean(planes[0], planes[3]);
    mean(planes[2], planes[1]);
    Upsampler<P>(planes[0], planes[2], g.w4, g.h4, guidance, dst, width, height).rows(0, height);
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
