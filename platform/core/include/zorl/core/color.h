#pragma once
// Colour transforms between profiles, and per-pixel colour-space conversions.
//
// Rgb2Lab / Lab2Rgb: sRGB input (sRGB tone curve, sRGB primaries), CIE XYZ with the D65
// white (0.95047, 1, 1.08883) as reference white, no chromatic adaptation; L in 0..100.
// Rgb2Lab_ProPhoto / Lab2Rgb_ProPhoto: ProPhoto (ROMM) input, gamma 1.8 with its linear
// toe below 1/512, D50 white (0.96422, 1, 0.82521).
// Rgb2Hsl / Hsl2Rgb: hue, saturation and lightness all in 0..1 (hue 1 = a full turn).
// Inputs are not clamped; tone curves act on the magnitude and keep the sign.

#include <cstdint>

#include <zorl/core/color_profile.h>
#include <zorl/core/export.h>
#include <zorl/core/types.h>

namespace zorl {

// A transform from one profile and layout to another (Little CMS underneath), or null
// when a layout is not supported. None is treated as sRGB. The handle may be used from
// several threads at once.
ZORL_CORE_EXPORT void* colorCreateTransform(const ColorProfile& src, ImageDataType srcType, const ColorProfile& dst,
                                            ImageDataType dstType);
// Converts pixelCount pixels; does nothing for a null handle.
ZORL_CORE_EXPORT void colorDoTranform(void* handle, const void* src, void* dst, uint64_t pixelCount);
ZORL_CORE_EXPORT void colorDeleteTransform(void* handle);

ZORL_CORE_EXPORT void Rgb2Lab(float* L, float* a, float* b, float r, float g, float blue);
ZORL_CORE_EXPORT void Lab2Rgb(float* r, float* g, float* blue, float L, float a, float b);
ZORL_CORE_EXPORT void Rgb2Lab_ProPhoto(float* L, float* a, float* b, float r, float g, float blue);
ZORL_CORE_EXPORT void Lab2Rgb_ProPhoto(float* r, float* g, float* blue, float L, float a, float b);
ZORL_CORE_EXPORT void Rgb2Hsl(float* h, float* s, float* l, float r, float g, float b);
ZORL_CORE_EXPORT void Hsl2Rgb(float* r, float* g, float* b, float h, float s, float l);

}  // namespace zorl
