#pragma once
// Running window sums over one column band (private to the guided filter family).
//
// Conventions: the window of pixel (x, y) is the (2r + 1) x (2r + 1) square centred on
// it; samples outside the image are the nearest edge sample (clamp to edge in x and y),
// so every window holds exactly (2r + 1)^2 samples and a mean is the sum times the
// constant windowScale(r), at the borders too.
//
// A band keeps one line buffer per summed quantity: entry k (C floats) holds the
// vertical sum, over the rows of the current window, of image column x0 - r + k clamped
// to the image, for k in [0, bandWidth + 2r). Moving to the next row adds the entering
// row and subtracts the leaving one (skipped when both are the same clamped edge row);
// the horizontal sums are then a running sum along the line buffer. Only the columns
// inside the image are summed; the replicated entries beyond the image edges are copies.
// With Squares the band also sums the squares of the samples (the second moment of the
// self-guided filter) in a second line buffer.

#include <emmintrin.h>

#include <algorithm>
#include <array>
#include <cstddef>

#include <zorl/common/managed_memory.h>

#include "imageprocessing/guided_filter/guided_common.h"

namespace grfx::guided {

// s[i] += a[i] - b[i] (and q[i] += a[i]^2 - b[i]^2): the vertical step, four floats at a time.
template <bool Squares>
inline void columnStep(float* __restrict s, float* __restrict q, const float* __restrict a,
                       const float* __restrict b, std::size_t n) {
    std::size_t i = 0;
    for (; i + 4 <= n; i += 4) {
        const __m128 va = _mm_loadu_ps(a + i);
        const __m128 vb = _mm_loadu_ps(b + i);
        _mm_storeu_ps(s + i, _mm_add_ps(_mm_loadu_ps(s + i), _mm_sub_ps(va, vb)));
        if constexpr (Squares)
            _mm_storeu_ps(q + i, _mm_add_ps(_mm_loadu_ps(q + i), _mm_sub_ps(_mm_mul_ps(va, va), _mm_mul_ps(vb, vb))));
    }
    for (; i < n; ++i) {
        s[i] += a[i] - b[i];
        if constexpr (Squares) q[i] += a[i] * a[i] - b[i] * b[i];
    }
}

// s[i] (+)= count * a[i] (and the squares): the first window of the band.
template <bool Squares>
inline void columnAccumulate(float* __restrict s, float* __restrict q, const float* __restrict a, float count,
                             std::size_t n, bool first) {
    for (std::size_t i = 0; i < n; ++i) {
        const float v = a[i];
        s[i] = first ? count * v : s[i] + count * v;
        if constexpr (Squares) q[i] = first ? count * (v * v) : q[i] + count * (v * v);
    }
}

// out[x] = scale * sum of line[x .. x + 2r] (entries of kind P), x in [0, n). Entries
// below first are copies of entry first and entries from last on copies of entry last - 1
// (the replicated image edges): the first window counts them by one multiplication each,
// so that a radius far beyond the image adds no rounding of its own, and later steps
// between two copies add exactly zero.
template <class P>
inline void windowMeansRow(const float* __restrict line, std::size_t n, int r, std::size_t first, std::size_t last,
                           float scale, float* __restrict out) {
    const std::size_t span = 2 * static_cast<std::size_t>(r) + 1;
    if (span == 1) {  // one-sample windows: no running sum, exact
        for (std::size_t x = 0; x < n; ++x) P::store(out, x, P::load(line, x) * scale);
        return;
    }
    P s = P::load(line, first) * static_cast<float>(first + 1);
    const std::size_t inner = std::min(last, span);
    for (std::size_t k = first + 1; k < inner; ++k) s += P::load(line, k);
    if (span > last) s += P::load(line, last - 1) * static_cast<float>(span - last);
    for (std::size_t x = 0;; ++x) {
        P::store(out, x, s * scale);
        if (x + 1 == n) break;
        s += P::load(line, x + span) - P::load(line, x);
    }
}

// Sum of line[x0 .. x0 + span), entries below first being copies of entry first and
// entries from last on copies of entry last - 1: each run of copies is one multiplication.
inline float windowSumAt(const float* line, std::size_t x0, std::size_t span, std::size_t first, std::size_t last) {
    const std::size_t end = x0 + span;
    float s = 0.0f;
    if (x0 < first) s += line[first] * static_cast<float>(std::min(first, end) - x0);
    for (std::size_t k = std::max(x0, first); k < std::min(last, end); ++k) s += line[k];
    if (end > last) s += line[last - 1] * static_cast<float>(end - std::max(x0, last));
    return s;
}

// Four windows x + 1 .. x + 4 from the broadcast sum s of window x: the differences
// d(x) = line[x + span] - line[x] are loaded at once and turned into running totals inside
// the register (two shifts, two additions), leaving one addition and one shuffle on the
// dependency chain per four pixels. Returns the broadcast sum of window x + 4.
inline __m128 windowStep4(const float* __restrict line, std::size_t x, std::size_t span, __m128 s, __m128 scale,
                          float* __restrict out) {
    __m128 d = _mm_sub_ps(_mm_loadu_ps(line + x + span), _mm_loadu_ps(line + x));
    d = _mm_add_ps(d, _mm_castsi128_ps(_mm_slli_si128(_mm_castps_si128(d), 4)));
    d = _mm_add_ps(d, _mm_castsi128_ps(_mm_slli_si128(_mm_castps_si128(d), 8)));
    const __m128 sums = _mm_add_ps(s, d);
    _mm_storeu_ps(out + x + 1, _mm_mul_ps(sums, scale));
    return _mm_shuffle_ps(sums, sums, _MM_SHUFFLE(3, 3, 3, 3));
}

// Windows x + 1 .. end - 1 from the broadcast sum s of window x, four at a time, then one
// at a time.
inline void windowChain(const float* __restrict line, std::size_t x, std::size_t end, std::size_t span, __m128 s,
                        float scale, float* __restrict out) {
    const __m128 vscale = _mm_set1_ps(scale);
    for (; x + 4 < end; x += 4) s = windowStep4(line, x, span, s, vscale, out);
    float t = _mm_cvtss_f32(s);
    for (; x + 1 < end; ++x) {
        t += line[x + span] - line[x];
        out[x + 1] = t * scale;
    }
}

// The gray form of windowMeansRow. A single-float running sum is one long chain of
// dependent additions; here it advances four windows per step (windowStep4), and a row
// of at least kSplitWidth pixels is cut into two halves whose chains run interleaved,
// each half starting from a window summed directly. The cut depends only on the band
// width, never on the threads.
template <>
inline void windowMeansRow<pixel_gray_t>(const float* __restrict line, std::size_t n, int r, std::size_t first,
                                         std::size_t last, float scale, float* __restrict out) {
    const std::size_t span = 2 * static_cast<std::size_t>(r) + 1;
    if (span == 1) {
        for (std::size_t x = 0; x < n; ++x) out[x] = line[x] * scale;
        return;
    }
    constexpr std::size_t kSplitWidth = 64;  // below, the second chain's direct sum is not worth it
    const std::size_t mid = n >= kSplitWidth ? n / 2 : n;
    const float ta = windowSumAt(line, 0, span, first, last);
    out[0] = ta * scale;
    __m128 sa = _mm_set1_ps(ta);
    if (mid == n) {
        windowChain(line, 0, n, span, sa, scale, out);
        return;
    }
    const float tb = windowSumAt(line, mid, span, first, last);
    out[mid] = tb * scale;
    __m128 sb = _mm_set1_ps(tb);
    const __m128 vscale = _mm_set1_ps(scale);
    std::size_t xa = 0, xb = mid;
    for (; xa + 4 < mid && xb + 4 < n; xa += 4, xb += 4) {
        sa = windowStep4(line, xa, span, sa, vscale, out);
        sb = windowStep4(line, xb, span, sb, vscale, out);
    }
    windowChain(line, xb, n, span, sb, scale, out);
    windowChain(line, xa, mid, span, sa, scale, out);
}

template <class P, bool Squares>
class BandWindow {
public:
    static constexpr int C = kChannels<P>;

    // sumLine and (with Squares) sqLine hold lineFloats(band, r, C) floats each.
    BandWindow(const float* src, std::size_t width, std::size_t height, int r, Band band, float* sumLine,
               float* sqLine)
        : src_(src), width_(width), height_(height), r_(r), band_(band), sum_(sumLine), sq_(sqLine) {
        const std::size_t rr = static_cast<std::size_t>(r);
        lo_ = band.x0 > rr ? band.x0 - rr : 0;
        hi_ = std::min(width, band.x1 + rr);
        kLo_ = lo_ + rr - band.x0;
        entries_ = band.width() + 2 * rr;
    }

    // Makes the line buffers hold the window of row y: y == 0 sums the first window,
    // y > 0 advances from the window of row y - 1.
    void moveTo(std::size_t y) {
        const std::size_t rr = static_cast<std::size_t>(r_);
        if (rr == 0) {
            // A one-row window is the row itself: taken exactly, so that a radius below 1
            // reproduces the input bit for bit.
            columnAccumulate<Squares>(sum_ + kLo_ * C, sqAt(kLo_), row(y), 1.0f, (hi_ - lo_) * C, true);
        } else if (y == 0) {
            start();
        } else {
            const std::size_t enter = std::min(y + rr, height_ - 1);
            const std::size_t leave = y - 1 >= rr ? y - 1 - rr : 0;
            if (enter == leave) return;  // the same edge row enters and leaves: nothing changes
            columnStep<Squares>(sum_ + kLo_ * C, sqAt(kLo_), row(enter), row(leave), (hi_ - lo_) * C);
            if (enter + 1 < height_) prefetchRow(row(enter + 1), (hi_ - lo_) * C);
        }
        replicateEdges(sum_);
        if constexpr (Squares) replicateEdges(sq_);
    }

    // Window means of the current row for the band's columns: bandWidth entries of C floats.
    void means(float scale, float* outSum) const {
        windowMeansRow<P>(sum_, band_.width(), r_, kLo_, kLo_ + (hi_ - lo_), scale, outSum);
    }
    void means(float scale, float* outSum, float* outSq) const {
        windowMeansRow<P>(sum_, band_.width(), r_, kLo_, kLo_ + (hi_ - lo_), scale, outSum);
        windowMeansRow<P>(sq_, band_.width(), r_, kLo_, kLo_ + (hi_ - lo_), scale, outSq);
    }

private:
    const float* row(std::size_t y) const { return src_ + (y * width_ + lo_) * C; }
    float* sqAt(std::size_t k) const { return Squares ? sq_ + k * C : nullptr; }

    // The next entering row is a short run of a far-away row: fetched a row ahead, it
    // arrives while this row's sums are being formed.
    static void prefetchRow(const float* p, std::size_t n) {
        constexpr std::size_t kLineFloats = 16;  // one 64-byte cache line
        for (std::size_t i = 0; i < n; i += kLineFloats) _mm_prefetch(reinterpret_cast<const char*>(p + i), _MM_HINT_T0);
    }

    // Rows of the first window, j in [-r, r] clamped: row 0 counts r + 1 times (2r + 1
    // when the image is one row high), rows 1 .. min(r, h - 1) once, except that the last
    // row also stands for every j beyond the image.
    void start() {
        const std::size_t rr = static_cast<std::size_t>(r_);
        const std::size_t n = (hi_ - lo_) * C;
        float* s = sum_ + kLo_ * C;
        float* q = sqAt(kLo_);
        if (height_ == 1) {
            columnAccumulate<Squares>(s, q, row(0), static_cast<float>(2 * rr + 1), n, true);
            return;
        }
        columnAccumulate<Squares>(s, q, row(0), static_cast<float>(rr + 1), n, true);
        const std::size_t last = std::min(rr, height_ - 1);
        for (std::size_t t = 1; t <= last; ++t) {
            const float count = t == height_ - 1 ? static_cast<float>(rr - t + 1) : 1.0f;
            columnAccumulate<Squares>(s, q, row(t), count, n, false);
        }
    }

    void replicateEdges(float* line) const {
        const float* first = line + kLo_ * C;
        for (std::size_t k = 0; k < kLo_; ++k) std::copy(first, first + C, line + k * C);
        const std::size_t kHi = kLo_ + (hi_ - lo_);
        const float* lastEntry = line + (kHi - 1) * C;
        for (std::size_t k = kHi; k < entries_; ++k) std::copy(lastEntry, lastEntry + C, line + k * C);
    }

    const float* src_;
    std::size_t width_, height_;
    int r_;
    Band band_;
    float* sum_;
    float* sq_;
    std::size_t lo_ = 0, hi_ = 0;  // image columns summed: [lo_, hi_)
    std::size_t kLo_ = 0;          // line entry of column lo_
    std::size_t entries_ = 0;      // band width + 2r
};

// Scratch of the band-parallel window passes, one block per band: the two line buffers
// of a BandWindow with squares, then two rows of band width x channels floats (the
// window means of I and I^2).
struct BandScratch {
    std::array<std::size_t, kMaxBands + 1> offset{};
    zorl::ManagedBuffer<float> buffer;

    BandScratch(const Bands& bands, int r, int channels) {
        for (int i = 0; i < bands.count; ++i)
            offset[i + 1] = offset[i] + 2 * lineFloats(bands.band[i], r, channels) + 2 * bands.band[i].width() * channels;
        buffer = zorl::ManagedBuffer<float>(offset[bands.count]);
    }
    float* at(int band) { return buffer.data() + offset[band]; }
};

}  // namespace grfx::guided
