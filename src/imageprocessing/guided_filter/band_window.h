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
#include <cstddef>

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

}  // namespace grfx::guided
