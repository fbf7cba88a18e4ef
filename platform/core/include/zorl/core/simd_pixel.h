#pragma once
// SIMD pixel helpers on SSE2, the baseline of every 64-bit x86.
//
// pixel_t holds 4 float lanes (an ARGB or RGBA pixel), pixel_rgb_t 3 lanes (the fourth
// lane is zero and never stored), pixel_gray_t one float. load(base, i) reads pixel i of
// a packed plane of that pixel size; store(base, i, p) writes it; neither touches memory
// outside that pixel. alloc(width, height) returns a plane of width x height pixels
// from MemoryManager (uninitialised); free returns it.

#include <emmintrin.h>

#include <cstddef>

#include <zorl/core/export.h>

namespace grfx {

struct pixel_t {
    __m128 v;

    pixel_t() : v(_mm_setzero_ps()) {}
    explicit pixel_t(float s) : v(_mm_set1_ps(s)) {}
    pixel_t(float l0, float l1, float l2, float l3) : v(_mm_setr_ps(l0, l1, l2, l3)) {}
    pixel_t(__m128 x) : v(x) {}

    static pixel_t load(const float* base, std::size_t index) { return _mm_loadu_ps(base + 4 * index); }
    static void store(float* base, std::size_t index, const pixel_t& p) { _mm_storeu_ps(base + 4 * index, p.v); }

    float lane(int i) const {
        alignas(16) float t[4];
        _mm_store_ps(t, v);
        return t[i];
    }
    // Lanes in ARGB order.
    float alpha() const { return lane(0); }
    float red() const { return lane(1); }
    float green() const { return lane(2); }
    float blue() const { return lane(3); }

    ZORL_CORE_EXPORT static float* alloc(std::size_t width, std::size_t height);
    ZORL_CORE_EXPORT static void free(float* plane);
};

struct pixel_rgb_t {
    __m128 v;

    pixel_rgb_t() : v(_mm_setzero_ps()) {}
    explicit pixel_rgb_t(float s) : v(_mm_setr_ps(s, s, s, 0.0f)) {}
    pixel_rgb_t(float r, float g, float b) : v(_mm_setr_ps(r, g, b, 0.0f)) {}
    pixel_rgb_t(__m128 x) : v(x) {}

    static pixel_rgb_t load(const float* base, std::size_t index) {
        // Two 8-byte-or-less accesses: a 16-byte load would read the next pixel, or past
        // the end of the plane. The 64-bit moves are unaligned-safe and alias-safe.
        const float* p = base + 3 * index;
        const __m128 rg = _mm_castsi128_ps(_mm_loadu_si64(p));
        const __m128 b = _mm_load_ss(p + 2);
        return _mm_movelh_ps(rg, b);
    }
    static void store(float* base, std::size_t index, const pixel_rgb_t& p) {
        float* d = base + 3 * index;
        _mm_storeu_si64(d, _mm_castps_si128(p.v));
        _mm_store_ss(d + 2, _mm_movehl_ps(p.v, p.v));
    }

    float lane(int i) const {
        alignas(16) float t[4];
        _mm_store_ps(t, v);
        return t[i];
    }
    float red() const { return lane(0); }
    float green() const { return lane(1); }
    float blue() const { return lane(2); }

    ZORL_CORE_EXPORT static float* alloc(std::size_t width, std::size_t height);
    ZORL_CORE_EXPORT static void free(float* plane);
};

struct pixel_gray_t {
    float v = 0.0f;

    pixel_gray_t() = default;
    explicit pixel_gray_t(float s) : v(s) {}

    static pixel_gray_t load(const float* base, std::size_t index) { return pixel_gray_t(base[index]); }
    static void store(float* base, std::size_t index, const pixel_gray_t& p) { base[index] = p.v; }

    float red() const { return v; }
    float green() const { return v; }
    float blue() const { return v; }

    ZORL_CORE_EXPORT static float* alloc(std::size_t width, std::size_t height);
    ZORL_CORE_EXPORT static void free(float* plane);
};

#define GRFX_PIXEL_OPS(P)                                                                                       \
    inline P operator+(const P& a, const P& b) { return P(_mm_add_ps(a.v, b.v)); }                              \
    inline P operator-(const P& a, const P& b) { return P(_mm_sub_ps(a.v, b.v)); }                              \
    inline P operator*(const P& a, const P& b) { return P(_mm_mul_ps(a.v, b.v)); }                              \
    inline P operator/(const P& a, const P& b) { return P(_mm_div_ps(a.v, b.v)); }                              \
    inline P operator*(const P& a, float s) { return P(_mm_mul_ps(a.v, _mm_set1_ps(s))); }                      \
    inline P operator*(float s, const P& a) { return P(_mm_mul_ps(_mm_set1_ps(s), a.v)); }                      \
    inline P& operator+=(P& a, const P& b) { return a = a + b; }                                                \
    inline P& operator-=(P& a, const P& b) { return a = a - b; }                                                \
    inline P& operator*=(P& a, const P& b) { return a = a * b; }                                                \
    inline P min(const P& a, const P& b) { return P(_mm_min_ps(a.v, b.v)); }                                   \
    inline P max(const P& a, const P& b) { return P(_mm_max_ps(a.v, b.v)); }                                   \
    inline P sqrt(const P& a) { return P(_mm_sqrt_ps(a.v)); }
GRFX_PIXEL_OPS(pixel_t)
GRFX_PIXEL_OPS(pixel_rgb_t)
#undef GRFX_PIXEL_OPS

// pixel_rgb_t division leaves 0/0 in the unused lane; it is never stored.

inline pixel_gray_t operator+(const pixel_gray_t& a, const pixel_gray_t& b) { return pixel_gray_t(a.v + b.v); }
inline pixel_gray_t operator-(const pixel_gray_t& a, const pixel_gray_t& b) { return pixel_gray_t(a.v - b.v); }
inline pixel_gray_t operator*(const pixel_gray_t& a, const pixel_gray_t& b) { return pixel_gray_t(a.v * b.v); }
inline pixel_gray_t operator/(const pixel_gray_t& a, const pixel_gray_t& b) { return pixel_gray_t(a.v / b.v); }
inline pixel_gray_t operator*(const pixel_gray_t& a, float s) { return pixel_gray_t(a.v * s); }
inline pixel_gray_t operator*(float s, const pixel_gray_t& a) { return pixel_gray_t(s * a.v); }
inline pixel_gray_t& operator+=(pixel_gray_t& a, const pixel_gray_t& b) { return a = a + b; }
inline pixel_gray_t& operator-=(pixel_gray_t& a, const pixel_gray_t& b) { return a = a - b; }
inline pixel_gray_t& operator*=(pixel_gray_t& a, const pixel_gray_t& b) { return a = a * b; }

}  // namespace grfx
