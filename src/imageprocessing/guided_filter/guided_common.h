#pragma once
// Shared vocabulary of the guided filter family (private): pixel kinds, scratch planes,
// column bands, flat SIMD loops, the regulariser and the input checks.

#include <algorithm>
#include <array>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <string>

#include <emmintrin.h>

#include <zorl/core/simd_pixel.h>

namespace grfx::guided {

// ---------------------------------------------------------------- pixel kinds

template <class P>
struct Channels;
template <> struct Channels<pixel_gray_t> { static constexpr int value = 1; };
template <> struct Channels<pixel_rgb_t> { static constexpr int value = 3; };
template <> struct Channels<pixel_t> { static constexpr int value = 4; };
template <class P>
inline constexpr int kChannels = Channels<P>::value;

// A scratch plane of width x height pixels of kind P from the pixel helpers' allocator,
// returned on every exit path (exceptions included).
template <class P>
class Plane {
public:
    Plane(std::size_t width, std::size_t height) : data_(P::alloc(width, height)) {}
    ~Plane() {
        if (data_) P::free(data_);
    }
    Plane(const Plane&) = delete;
    Plane& operator=(const Plane&) = delete;
    float* get() const { return data_; }

private:
    float* data_;
};

// ---------------------------------------------------------------- radius and sizes

// Above this the window count (2r + 1)^2 loses integer precision in float and the line
// buffers grow past a megabyte per band; no photograph needs more.
inline constexpr int kMaxRadius = 65536;

// Truncation toward zero; everything below 1 (negative values and NaN too) gives 0.
// Callers reject radius > kMaxRadius + 1 first.
inline int truncateRadius(float radius) { return radius >= 1.0f ? static_cast<int>(radius) : 0; }
inline bool radiusInRange(float radius) { return !(radius >= static_cast<float>(kMaxRadius) + 1.0f); }

// The constant 1 / N of a (2r + 1) x (2r + 1) window, used at the borders too.
inline float windowScale(int r) {
    const double side = 2.0 * r + 1.0;
    return 1.0f / static_cast<float>(side * side);
}

// ---------------------------------------------------------------- column bands

// Box means and the fused passes split the columns into at most 8 bands, one task each:
// enough for the cores of a desktop, few enough that the 2r columns each band sums twice
// stay a small overhead.
inline constexpr int kMaxBands = 8;

struct Band {
    std::size_t x0, x1;  // columns [x0, x1)
    std::size_t width() const { return x1 - x0; }
};

struct Bands {
    std::array<Band, kMaxBands> band{};
    int count = 0;
};

// bands = min(width, 8); band i covers [(int)(i * c), (int)((i + 1) * c)) with
// c = (float)width / (float)bands, the products in float (exact: c is width / 8 or 1).
inline Bands splitBands(std::size_t width) {
    Bands b;
    b.count = static_cast<int>(std::min<std::size_t>(width, kMaxBands));
    const float c = static_cast<float>(width) / static_cast<float>(b.count);
    for (int i = 0; i < b.count; ++i) {
        b.band[i].x0 = static_cast<std::size_t>(static_cast<float>(i) * c);
        b.band[i].x1 = i + 1 == b.count ? width : static_cast<std::size_t>(static_cast<float>(i + 1) * c);
    }
    return b;
}

// One band's line buffer: band width + 2r entries of C floats, and 16 floats of slack.
inline std::size_t lineFloats(const Band& band, int r, int channels) {
    return (band.width() + 2 * static_cast<std::size_t>(r)) * channels + 16;
}

// ---------------------------------------------------------------- flat loops

// Per-channel arithmetic on packed planes needs no pixel structure: n floats are walked
// four at a time as pixel_t lanes and the tail as pixel_gray_t. fn(i, V) is a generic
// lambda; load<V>/store read and write one step of either width.
template <class V> V load(const float* p);
template <> inline pixel_t load<pixel_t>(const float* p) { return pixel_t::load(p, 0); }
template <> inline pixel_gray_t load<pixel_gray_t>(const float* p) { return pixel_gray_t(*p); }
inline void store(float* p, const pixel_t& v) { pixel_t::store(p, 0, v); }
inline void store(float* p, const pixel_gray_t& v) { *p = v.v; }

template <class F>
inline void flatLoop(std::size_t begin, std::size_t end, F&& fn) {
    std::size_t i = begin;
    for (; i + 4 <= end; i += 4) fn(i, pixel_t());
    for (; i < end; ++i) fn(i, pixel_gray_t());
}

// flatLoop whose four-lane steps fall on 16-byte boundaries of alignTo (and of every plane
// aligned like it: the scratch planes all are), so that put() may stream them.
template <class F>
inline void flatLoopAligned(const float* alignTo, std::size_t begin, std::size_t end, F&& fn) {
    std::size_t i = begin;
    for (; i < end && (reinterpret_cast<std::uintptr_t>(alignTo + i) & 15) != 0; ++i) fn(i, pixel_gray_t());
    for (; i + 4 <= end; i += 4) fn(i, pixel_t());
    for (; i < end; ++i) fn(i, pixel_gray_t());
}
inline void put(float* p, const pixel_t& v, bool stream) {
    if (stream)
        _mm_stream_ps(p, v.v);
    else
        _mm_storeu_ps(p, v.v);
}
inline void put(float* p, const pixel_gray_t& v, bool) { *p = v.v; }

// ---------------------------------------------------------------- streaming stores

// Planes larger than this are written with non-temporal stores: they cannot stay in the
// caches until their next pass anyway, and streaming skips reading every destination
// line before writing it (a third of a box mean's memory traffic). Smaller planes (the
// quarter grid, tiles of small images) are written normally and stay cached.
inline constexpr std::size_t kStreamBytes = std::size_t(32) << 20;
inline bool streamPlane(std::size_t width, std::size_t height, int channels) {
    return width * height * channels * sizeof(float) >= kStreamBytes;
}

// Copies n floats from a cached row buffer to dst, streaming the 16-byte-aligned middle
// when stream is set. Callers end their task with _mm_sfence() after streaming.
inline void copyRow(float* __restrict dst, const float* __restrict src, std::size_t n, bool stream) {
    std::size_t i = 0;
    if (stream) {
        for (; i < n && (reinterpret_cast<std::uintptr_t>(dst + i) & 15) != 0; ++i) dst[i] = src[i];
        for (; i + 4 <= n; i += 4) _mm_stream_ps(dst + i, _mm_loadu_ps(src + i));
    }
    for (; i + 4 <= n; i += 4) _mm_storeu_ps(dst + i, _mm_loadu_ps(src + i));
    for (; i < n; ++i) dst[i] = src[i];
}

// ---------------------------------------------------------------- regulariser

// The term added to the variance before the division a = cov / (var + term): epsilon^2
// for the plain filters, epsilon / W(pixel) for the weighted ones (weight non-null, one
// float per pixel, indexed like the image).
struct Regulariser {
    float constant = 0.0f;
    const float* weight = nullptr;
    float epsilon = 0.0f;
};

// ---------------------------------------------------------------- signatures and checks

// Signature text of one exported function, e.g.
// "void __cdecl grfx_guided_filter_gray(const float *,float *,unsigned __int64,...)".
std::string signatureOf(const char* name, const char* parameters);

// The checks every entry point shares; each logs one line and returns false.
bool checkBuffers(const std::string& signature, const float* src, const float* guidance, bool needGuidance,
                  const float* dst);
bool checkSizeAndRadius(const std::string& signature, std::size_t width, std::size_t height, float radius);

}  // namespace grfx::guided
