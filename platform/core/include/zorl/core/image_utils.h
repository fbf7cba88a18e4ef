#pragma once
// Free helpers on rasters and values.

#include <zorl/core/export.h>
#include <zorl/core/geometry.h>
#include <zorl/core/pixel.h>
#include <zorl/core/types.h>

namespace zorl {

// Tolerance of isFloatEqual, relative to the larger magnitude (absolute below 1).
inline constexpr float kFloatEqualTolerance = 1e-6f;

// |a - b| <= kFloatEqualTolerance * max(1, |a|, |b|). NaN equals nothing.
ZORL_CORE_EXPORT bool isFloatEqual(float a, float b);

// Each channel clamped to 0..1 (NaN becomes 0).
ZORL_CORE_EXPORT PixelRGB<float> clampValue(const PixelRGB<float>& p);

// Resamples the rectangle roi of a packed raster (whole raster when roi is empty,
// clipped otherwise) to dstSize. channels is 1 to 4; floatData = true means 32-bit float
// channels, false 8-bit channels. Returns false, writing nothing, on null buffers, an
// empty size or region, or an unsupported channel count.
ZORL_CORE_EXPORT bool resizeInterpolate(const void* src, _Size<int> srcSize, void* dst, _Size<int> dstSize, int channels,
                                        bool floatData, InterpolationType interpolation, const _Rect<int>& roi);

}  // namespace zorl
