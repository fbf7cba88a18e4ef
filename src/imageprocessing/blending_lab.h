#pragma once
// CIE Lab conversions of four pixels at once (SSE2), for the Luminosity and Color blend
// modes. They follow the core library's Rgb2Lab / Lab2Rgb term for term (sRGB tone
// curve, sRGB primaries, D65 white (0.95047, 1, 1.08883), the CIE epsilon and kappa)
// and differ from them only where the core calls pow and cbrt:
//   - the sRGB decoding of an input already clamped to 0..1 is a 4096-interval table
//     with linear interpolation (interpolation error below 3e-8);
//   - cube roots start from the exponent-thirding bit estimate and take two Halley
//     steps (cubic convergence: a few float ulps);
//   - the encoding power a^(1/2.4) = a^(5/12) is the cube root of a * a^(1/4), two
//     square roots and one cube root.
// The blend tests hold the result to the core's conversions within 5e-5 per channel.

#include <emmintrin.h>

#include <cmath>
#include <cstdint>

namespace zorl::blendlab {

struct Rgb4 {
    __m128 r, g, b;
};
struct Lab4 {
    __m128 L, a, b;
};

inline __m128 select(__m128 mask, __m128 ifTrue, __m128 ifFalse) {
    return _mm_or_ps(_mm_and_ps(mask, ifTrue), _mm_andnot_ps(mask, ifFalse));
}

// Cube root of non-negative t (any lane whose result is not selected may be garbage
// but stays finite for finite t).
inline __m128 cbrt4(__m128 t) {
    // Thirding the float's bits (exponent and mantissa together) gives t^(1/3) within a
    // few per cent; the integer division by 3 runs in float, where that precision is
    // plenty for a starting value.
    constexpr float kThird = 1.0f / 3.0f;
    const __m128i bits = _mm_castps_si128(t);
    const __m128i third = _mm_cvttps_epi32(_mm_mul_ps(_mm_cvtepi32_ps(bits), _mm_set1_ps(kThird)));
    __m128 y = _mm_castsi128_ps(_mm_add_epi32(third, _mm_set1_epi32(709921077)));
    const __m128 two = _mm_set1_ps(2.0f);
    for (int step = 0; step < 2; ++step) {  // Halley: y (y^3 + 2t) / (2 y^3 + t)
        const __m128 y3 = _mm_mul_ps(_mm_mul_ps(y, y), y);
        y = _mm_div_ps(_mm_mul_ps(y, _mm_add_ps(y3, _mm_mul_ps(two, t))), _mm_add_ps(_mm_mul_ps(two, y3), t));
    }
    return y;
}

// The sRGB decoding table over 0..1.
constexpr int kDecodeIntervals = 4096;
struct DecodeTable {
    float v[kDecodeIntervals + 1];
    DecodeTable() {
        for (int i = 0; i <= kDecodeIntervals; ++i) {
            const double a = double(i) / kDecodeIntervals;
            v[i] = float(a <= 0.04045 ? a / 12.92 : std::pow((a + 0.055) / 1.055, 2.4));
        }
    }
};
inline const DecodeTable& decodeTable() {
    static const DecodeTable table;
    return table;
}

// Linear sRGB of channels in 0..1.
inline __m128 decode4(__m128 v) {
    const float* t = decodeTable().v;
    const __m128 f = _mm_mul_ps(v, _mm_set1_ps(float(kDecodeIntervals)));
    const __m128i i = _mm_cvttps_epi32(_mm_min_ps(f, _mm_set1_ps(float(kDecodeIntervals - 1))));
    const __m128 frac = _mm_sub_ps(f, _mm_cvtepi32_ps(i));
    alignas(16) int32_t idx[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(idx), i);
    const __m128 lo = _mm_setr_ps(t[idx[0]], t[idx[1]], t[idx[2]], t[idx[3]]);
    const __m128 hi = _mm_setr_ps(t[idx[0] + 1], t[idx[1] + 1], t[idx[2] + 1], t[idx[3] + 1]);
    return _mm_add_ps(lo, _mm_mul_ps(_mm_sub_ps(hi, lo), frac));
}

// sRGB encoding of any linear value, sign kept.
inline __m128 encode4(__m128 v) {
    const __m128 signBit = _mm_set1_ps(-0.0f);
    const __m128 sign = _mm_and_ps(v, signBit);
    const __m128 a = _mm_andnot_ps(signBit, v);
    const __m128 power = cbrt4(_mm_mul_ps(a, _mm_sqrt_ps(_mm_sqrt_ps(a))));  // a^(5/12)
    const __m128 curved = _mm_sub_ps(_mm_mul_ps(_mm_set1_ps(1.055f), power), _mm_set1_ps(0.055f));
    const __m128 linear = _mm_mul_ps(a, _mm_set1_ps(12.92f));
    return _mm_or_ps(select(_mm_cmple_ps(a, _mm_set1_ps(0.0031308f)), linear, curved), sign);
}

constexpr float kLabEpsilon = 216.0f / 24389.0f;
constexpr float kLabKappa = 24389.0f / 27.0f;
constexpr float kWhite[3] = {0.95047f, 1.0f, 1.08883f};
constexpr float kSrgbToXyz[9] = {0.4124564f, 0.3575761f, 0.1804375f, 0.2126729f, 0.7151522f,
                                 0.0721750f, 0.0193339f, 0.1191920f, 0.9503041f};
constexpr float kXyzToSrgb[9] = {3.2404542f, -1.5371385f, -0.4985314f, -0.9692660f, 1.8760108f,
                                 0.0415560f, 0.0556434f,  -0.2040259f, 1.0572252f};

inline __m128 row3(const float* m, __m128 x, __m128 y, __m128 z) {
    return _mm_add_ps(_mm_add_ps(_mm_mul_ps(_mm_set1_ps(m[0]), x), _mm_mul_ps(_mm_set1_ps(m[1]), y)),
                      _mm_mul_ps(_mm_set1_ps(m[2]), z));
}

inline __m128 labF(__m128 t) {
    const __m128 linear = _mm_div_ps(_mm_add_ps(_mm_mul_ps(_mm_set1_ps(kLabKappa), t), _mm_set1_ps(16.0f)),
                                     _mm_set1_ps(116.0f));
    return select(_mm_cmpgt_ps(t, _mm_set1_ps(kLabEpsilon)), cbrt4(t), linear);
}

inline __m128 labFInv(__m128 f) {
    const __m128 f3 = _mm_mul_ps(_mm_mul_ps(f, f), f);
    const __m128 linear = _mm_div_ps(_mm_sub_ps(_mm_mul_ps(_mm_set1_ps(116.0f), f), _mm_set1_ps(16.0f)),
                                     _mm_set1_ps(kLabKappa));
    return select(_mm_cmpgt_ps(f3, _mm_set1_ps(kLabEpsilon)), f3, linear);
}

// Lab of sRGB channels already clamped to 0..1. With LightnessOnly, only L is computed
// (a and b are left 0): the blend modes take the lightness from one pixel and the
// chroma from the other.
template <bool LightnessOnly = false>
inline Lab4 rgbToLab(const Rgb4& p) {
    const __m128 r = decode4(p.r), g = decode4(p.g), b = decode4(p.b);
    if constexpr (LightnessOnly) {
        const __m128 fy = labF(_mm_div_ps(row3(kSrgbToXyz + 3, r, g, b), _mm_set1_ps(kWhite[1])));
        return {_mm_sub_ps(_mm_mul_ps(_mm_set1_ps(116.0f), fy), _mm_set1_ps(16.0f)), _mm_setzero_ps(),
                _mm_setzero_ps()};
    }
    const __m128 fx = labF(_mm_div_ps(row3(kSrgbToXyz, r, g, b), _mm_set1_ps(kWhite[0])));
    const __m128 fy = labF(_mm_div_ps(row3(kSrgbToXyz + 3, r, g, b), _mm_set1_ps(kWhite[1])));
    const __m128 fz = labF(_mm_div_ps(row3(kSrgbToXyz + 6, r, g, b), _mm_set1_ps(kWhite[2])));
    return {_mm_sub_ps(_mm_mul_ps(_mm_set1_ps(116.0f), fy), _mm_set1_ps(16.0f)),
            _mm_mul_ps(_mm_set1_ps(500.0f), _mm_sub_ps(fx, fy)), _mm_mul_ps(_mm_set1_ps(200.0f), _mm_sub_ps(fy, fz))};
}

// sRGB of a Lab colour, not clamped.
inline Rgb4 labToRgb(const Lab4& lab) {
    const __m128 fy = _mm_div_ps(_mm_add_ps(lab.L, _mm_set1_ps(16.0f)), _mm_set1_ps(116.0f));
    const __m128 fx = _mm_add_ps(fy, _mm_div_ps(lab.a, _mm_set1_ps(500.0f)));
    const __m128 fz = _mm_sub_ps(fy, _mm_div_ps(lab.b, _mm_set1_ps(200.0f)));
    const __m128 x = _mm_mul_ps(labFInv(fx), _mm_set1_ps(kWhite[0]));
    const __m128 y = _mm_mul_ps(labFInv(fy), _mm_set1_ps(kWhite[1]));
    const __m128 z = _mm_mul_ps(labFInv(fz), _mm_set1_ps(kWhite[2]));
    return {encode4(row3(kXyzToSrgb, x, y, z)), encode4(row3(kXyzToSrgb + 3, x, y, z)),
            encode4(row3(kXyzToSrgb + 6, x, y, z))};
}

}  // namespace zorl::blendlab
