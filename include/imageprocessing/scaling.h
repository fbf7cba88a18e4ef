#pragma once
// Sizes of reduced renditions, rectangles scaled between renditions, an RGB float image
// reduced to a size, and a rectangle cut by a line.
//
// The rounding of each function is part of its contract (renditions computed by
// different callers must agree to the pixel), and the rules differ on purpose:
//   - products of two ints are formed in 32-bit integer arithmetic (wrapping), then
//     converted to float; divisions are single-precision;
//   - "truncated" means float to int toward zero, as the x86 truncating conversion does
//     (a result outside the int range, or NaN, gives INT_MIN);
//   - scaleSizeToMax alone multiplies in float and rounds half away from zero (roundf).
// None of the size functions checks its input: a zero side or count gives whatever the
// float division gives.

#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

#include <imageprocessing/export.h>
#include <zorl/core/geometry.h>
#include <zorl/core/image_data.h>
#include <zorl/core/pixel.h>

namespace zorl {

// The longer side becomes n (a square counts as "height longer"): w > h gives
// (n, trunc(float(h * n) / float(w))), otherwise (trunc(float(w * n) / float(h)), n).
// Enlarges as readily as it shrinks.
ZORL_IP_EXPORT _Size<int> scaleSize(const _Size<int>& size, int n);

// Shrinks so that the longer side is max; never enlarges. max <= 0, or a longer side
// already <= max, returns size unchanged. Otherwise w > h gives
// (max, trunc(roundf(float(h) * float(max) / float(w)))), else the same with the sides
// exchanged.
ZORL_IP_EXPORT _Size<int> scaleSizeToMax(const _Size<int>& size, int max);

// scaleSizeToMax(size, 1000).
ZORL_IP_EXPORT _Size<int> scaleSizeFor1000p(const _Size<int>& size);

// Shrinks so that the shorter side is n; never enlarges. n <= 0, or a shorter side
// already <= n, returns size unchanged. Otherwise w < h gives
// (n, trunc(float(h * n) / float(w))), else (trunc(float(w * n) / float(h)), n).
ZORL_IP_EXPORT _Size<int> scaleSizeByMinSide(_Size<int> size, int n);

// A cap on the width: the new width is min(width, w), the new height
// trunc(float(newWidth * h) / float(w)). A wider request leaves the size unchanged.
ZORL_IP_EXPORT _Size<int> scaleSizeByMinWidth(const _Size<int>& size, int width);

// rect scaled by fx = float(to.w) / float(from.w), fy = float(to.h) / float(from.h):
// (trunc(x * fx), trunc(y * fy), trunc(width * fx), trunc(height * fy)). Origin and extent
// are truncated independently, so the right edge may fall one pixel short of the scaled
// right edge.
ZORL_IP_EXPORT _Rect<int> scaleRect(const _Rect<int>& rect, const _Size<int>& from, const _Size<int>& to);

// The same with fx = factors.x and fy = factors.y.
ZORL_IP_EXPORT _Rect<int> scaleRect(const _Rect<int>& rect, const _Point<float>& factors);

// data reduced (or enlarged) to size, as a new image with data's colour profile.
// When the longer side of data is smaller than size.width, the result is
// data->resize(size, (0, 0, 0, 0), true); otherwise area averaging over the whole image
// (resizeInterpolate, 3 float channels, InterpolationType::Area). Returns null when the
// resampling fails (e.g. an empty size). A null data is logged ("no data") and gives null.
// data is never modified.
ZORL_IP_EXPORT std::shared_ptr<const _ImageData<PixelRGB<float>>> scaleDataSquare(
    const std::shared_ptr<const _ImageData<PixelRGB<float>>>& data, _Size<int> size);

// ---------------------------------------------------------------- cutting by a line

// A two-dimensional float vector: a point or a direction.
struct vec2_t {
    float x = 0.0f;
    float y = 0.0f;
    bool operator==(const vec2_t&) const = default;
};

// A line: a point on it, then its normal (not necessarily of unit length). The normal
// points to the line's positive side.
struct line_t {
    vec2_t point;
    vec2_t normal;
};

// A polygon: its vertices in order.
using polygon_t = std::vector<vec2_t>;

// Thrown by getRectangleIntersection when a rectangle edge that the line cuts is
// parallel to the line within 1e-6 (|normal . unit edge direction| <= 1e-6), so that the
// crossing point cannot be formed. Carries the corners of that edge, counted from 1
// (1 top-left, 2 top-right, 3 bottom-right, 4 bottom-left).
class ZORL_IP_EXPORT ParallelEdgeError : public std::runtime_error {
public:
    ParallelEdgeError(int firstCorner, int secondCorner);
    int firstCorner() const noexcept { return first_; }
    int secondCorner() const noexcept { return second_; }

private:
    int first_;
    int second_;
};

// Cuts rect by line into (the part on the positive side, the rest).
// Corners in the order top-left (x, y), top-right (x + width, y), bottom-right
// (x + width, y + height), bottom-left (x, y + height); a corner on the line counts as
// not positive. No corner positive: (empty, the four corners); all four: (the four
// corners, empty). Otherwise each polygon starts at the crossing where the boundary,
// walked in corner order, enters its side, then lists its corners in corner order, then
// the crossing where the boundary leaves. E.g. only the top-left corner positive gives
// ((left crossing, top-left, top crossing), (top crossing, top-right, bottom-right,
// bottom-left, left crossing)).
// Throws std::runtime_error("Unexpected branch of getRectangleIntersection function.")
// when exactly two opposite corners are positive (no straight cut does that), and
// ParallelEdgeError as above.
ZORL_IP_EXPORT std::pair<polygon_t, polygon_t> getRectangleIntersection(const _Rect<float>& rect, const line_t& line);

}  // namespace zorl
