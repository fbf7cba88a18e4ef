#pragma once
// Internal: resampling of packed rasters on OpenCV.

#include <zorl/core/geometry.h>
#include <zorl/core/types.h>

namespace zorl::detail {

// Resamples the rectangle roi of src (whole image when empty; clipped otherwise) to
// dstSize. cvType is an OpenCV matrix type such as CV_32FC3. False, writing nothing,
// on an empty size or region or an unsupported type.
bool resizeRaster(const void* src, _Size<int> srcSize, void* dst, _Size<int> dstSize, int cvType,
                  InterpolationType interpolation, const _Rect<int>& roi);

// The OpenCV matrix type of a pixel type, or -1.
template <class T>
int cvTypeOf();

}  // namespace zorl::detail
