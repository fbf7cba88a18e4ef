#include "raster_resize.h"

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <zorl/core/pixel.h>

namespace zorl::detail {
namespace {

int cvInterpolation(InterpolationType t) {
    switch (t) {
        case InterpolationType::Nearest: return cv::INTER_NEAREST;
        case InterpolationType::Linear: return cv::INTER_LINEAR;
        case InterpolationType::Area: return cv::INTER_AREA;
        case InterpolationType::Cubic: return cv::INTER_CUBIC;
        case InterpolationType::Lanczos: return cv::INTER_LANCZOS4;
    }
    return cv::INTER_LINEAR;
}

}  // namespace

bool resizeRaster(const void* src, _Size<int> srcSize, void* dst, _Size<int> dstSize, int cvType,
                  InterpolationType interpolation, const _Rect<int>& roi) {
    if (!src || !dst || cvType < 0 || srcSize.isEmpty() || dstSize.isEmpty()) return false;
    const _Rect<int> whole{0, 0, srcSize.width, srcSize.height};
    const _Rect<int> region = roi == kNoRegion ? whole : whole.intersection(roi);
    if (region.isEmpty()) return false;
    const cv::Mat in(srcSize.height, srcSize.width, cvType, const_cast<void*>(src));
    cv::Mat out(dstSize.height, dstSize.width, cvType, dst);
    const cv::Mat part = in(cv::Rect(region.x, region.y, region.width, region.height));
    if (region.size() == dstSize) {
        part.copyTo(out);
        return true;
    }
    cv::resize(part, out, out.size(), 0, 0, cvInterpolation(interpolation));
    return true;
}

template <> int cvTypeOf<float>() { return CV_32FC1; }
template <> int cvTypeOf<uint8_t>() { return CV_8UC1; }
template <> int cvTypeOf<uint16_t>() { return CV_16UC1; }
template <> int cvTypeOf<PixelRGB<float>>() { return CV_32FC3; }
template <> int cvTypeOf<PixelRGB<uint8_t>>() { return CV_8UC3; }
template <> int cvTypeOf<PixelRGB<uint16_t>>() { return CV_16UC3; }
template <> int cvTypeOf<PixelRGBA<float>>() { return CV_32FC4; }
template <> int cvTypeOf<PixelRGBA<uint8_t>>() { return CV_8UC4; }
template <> int cvTypeOf<PixelRGBA<uint16_t>>() { return CV_16UC4; }
template <> int cvTypeOf<PixelARGB<float>>() { return CV_32FC4; }

}  // namespace zorl::detail
