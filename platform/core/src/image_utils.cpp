#include <zorl/core/image_utils.h>

#include <opencv2/core.hpp>

#include <algorithm>
#include <cmath>

#include "raster_resize.h"

namespace zorl {

bool isFloatEqual(float a, float b) {
    const float scale = std::max({1.0f, std::fabs(a), std::fabs(b)});
    return std::fabs(a - b) <= kFloatEqualTolerance * scale;
}

PixelRGB<float> clampValue(const PixelRGB<float>& p) {
    auto c = [](float v) { return std::min(1.0f, v > 0.0f ? v : 0.0f); };
    return {c(p.r), c(p.g), c(p.b)};
}

bool resizeInterpolate(const void* src, _Size<int> srcSize, void* dst, _Size<int> dstSize, int channels, bool floatData,
                       InterpolationType interpolation, const _Rect<int>& roi) {
    if (channels < 1 || channels > 4) return false;
    return detail::resizeRaster(src, srcSize, dst, dstSize, CV_MAKETYPE(floatData ? CV_32F : CV_8U, channels), interpolation,
                                roi);
}

}  // namespace zorl
