// Size and rectangle scaling helpers, scaleDataSquare and getRectangleIntersection.
//
// Rounding conventions (each function keeps its own, see scaling.h):
//   mul32(a, b)    the product of two ints in 32-bit arithmetic, wrapping on overflow;
//   truncToInt(f)  float to int toward zero by the x86 truncating conversion, so that an
//                  out-of-range or NaN quotient (a zero side) gives INT_MIN instead of
//                  undefined behaviour;
//   divisions are float / float.

#include <imageprocessing/scaling.h>

#include <emmintrin.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <string>

#include <zorl/core/image_utils.h>

#include "core/error_log.h"

namespace zorl {
namespace {

// The side a resample helper treats as "1000p".
constexpr int k1000p = 1000;

// A cut edge whose unit direction meets the normal at |n . u| <= this is taken as
// parallel to the line: the crossing parameter would be a division by (almost) zero.
constexpr float kParallelTolerance = 1e-6f;

inline int mul32(int a, int b) {
    return static_cast<int>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));  // modular since C++20
}

inline int truncToInt(float v) { return _mm_cvttss_si32(_mm_set_ss(v)); }

// truncToInt(float(a * b) / float(c)), the integer-product rule.
inline int scaledSide(int a, int b, int c) {
    return truncToInt(static_cast<float>(mul32(a, b)) / static_cast<float>(c));
}

}  // namespace

_Size<int> scaleSize(const _Size<int>& size, int n) {
    const int w = size.width, h = size.height;
    if (w > h) return {n, scaledSide(h, n, w)};
    return {scaledSide(w, n, h), n};
}

_Size<int> scaleSizeToMax(const _Size<int>& size, int max) {
    const int w = size.width, h = size.height;
    if (max <= 0 || std::max(w, h) <= max) return size;
    const float m = static_cast<float>(max);
    if (w > h) return {max, truncToInt(std::roundf(static_cast<float>(h) * m / static_cast<float>(w)))};
    return {truncToInt(std::roundf(static_cast<float>(w) * m / static_cast<float>(h))), max};
}

_Size<int> scaleSizeFor1000p(const _Size<int>& size) { return scaleSizeToMax(size, k1000p); }

_Size<int> scaleSizeByMinSide(_Size<int> size, int n) {
    const int w = size.width, h = size.height;
    if (n <= 0 || std::min(w, h) <= n) return size;
    if (w < h) return {n, scaledSide(h, n, w)};
    return {scaledSide(w, n, h), n};
}

_Size<int> scaleSizeByMinWidth(const _Size<int>& size, int width) {
    const int newWidth = std::min(width, size.width);
    return {newWidth, scaledSide(newWidth, size.height, size.width)};
}

_Rect<int> scaleRect(const _Rect<int>& rect, const _Point<float>& factors) {
    const float fx = factors.x, fy = factors.y;
    // Origin and extent truncated independently.
    return {truncToInt(static_cast<float>(rect.x) * fx), truncToInt(static_cast<float>(rect.y) * fy),
            truncToInt(static_cast<float>(rect.width) * fx), truncToInt(static_cast<float>(rect.height) * fy)};
}

_Rect<int> scaleRect(const _Rect<int>& rect, const _Size<int>& from, const _Size<int>& to) {
    return scaleRect(rect, _Point<float>(static_cast<float>(to.width) / static_cast<float>(from.width),
                                         static_cast<float>(to.height) / static_cast<float>(from.height)));
}

std::shared_ptr<const _ImageData<PixelRGB<float>>> scaleDataSquare(const std::shared_ptr<const _ImageData<PixelRGB<float>>>& data,
                                                                   _Size<int> size) {
    using Image = _ImageData<PixelRGB<float>>;
    if (!data) {
        logError("class std::shared_ptr<class zorl::_ImageData<struct zorl::PixelRGB<float> > const > __cdecl "
                 "zorl::scaleDataSquare(const class std::shared_ptr<class zorl::_ImageData<struct zorl::PixelRGB<float> > "
                 "const > &,struct zorl::_Size<int>)",
                 "no data");
        return nullptr;
    }
    const _Size<int> srcSize = data->size();
    if (std::max(srcSize.width, srcSize.height) < size.width) return data->resize(size, _Rect<int>(0, 0, 0, 0), true);

    auto result = std::make_shared<Image>(size, data->colorProfile());
    constexpr int kChannels = 3;
    constexpr bool kFloatChannels = true;
    if (!resizeInterpolate(data->data(), srcSize, result->data(), size, kChannels, kFloatChannels, InterpolationType::Area,
                           _Rect<int>(0, 0, srcSize.width, srcSize.height)))
        return nullptr;
    return result;
}

// ---------------------------------------------------------------- cutting by a line

ParallelEdgeError::ParallelEdgeError(int firstCorner, int secondCorner)
    : std::runtime_error("getRectangleIntersection: the edge from corner " + std::to_string(firstCorner) + " to corner " +
                         std::to_string(secondCorner) + " is parallel to the line."),
      first_(firstCorner),
      second_(secondCorner) {}

namespace {

inline vec2_t operator+(vec2_t a, vec2_t b) { return {a.x + b.x, a.y + b.y}; }
inline vec2_t operator-(vec2_t a, vec2_t b) { return {a.x - b.x, a.y - b.y}; }
inline vec2_t operator*(vec2_t a, float s) { return {a.x * s, a.y * s}; }
inline float dot(vec2_t a, vec2_t b) { return a.x * b.x + a.y * b.y; }

constexpr int kCorners = 4;

// Masks of two opposite corners alone on one side: top-left + bottom-right, top-right +
// bottom-left.
constexpr unsigned kDiagonalMaskA = 0b0101;
constexpr unsigned kDiagonalMaskB = 0b1010;
constexpr unsigned kAllCorners = 0b1111;

// The positive-side test as a foot-of-perpendicular construction: q = c - d n with
// d = (c - p) . n, positive when (c - q) . n > 0. A corner on the line is not positive.
bool isPositive(vec2_t c, const line_t& line) {
    const float d = dot(c - line.point, line.normal);
    const vec2_t q = c - line.normal * d;
    return dot(c - q, line.normal) > 0.0f;
}

// Where the line crosses the edge from corner a to corner b (indices from 0).
vec2_t crossing(const std::array<vec2_t, kCorners>& corners, int a, int b, const line_t& line) {
    const vec2_t A = corners[a];
    vec2_t u = corners[b] - A;
    const float len2 = dot(u, u);
    if (len2 > 0.0f) u = u * (1.0f / std::sqrt(len2));
    const float d = dot(line.normal, u);
    if (std::fabs(d) <= kParallelTolerance) throw ParallelEdgeError(a + 1, b + 1);
    const float t = dot(line.normal, line.point - A) / d;
    return A + u * t;
}

}  // namespace

std::pair<polygon_t, polygon_t> getRectangleIntersection(const _Rect<float>& rect, const line_t& line) {
    const std::array<vec2_t, kCorners> corners = {vec2_t{rect.x, rect.y}, vec2_t{rect.x + rect.width, rect.y},
                                                  vec2_t{rect.x + rect.width, rect.y + rect.height},
                                                  vec2_t{rect.x, rect.y + rect.height}};
    std::array<bool, kCorners> positive{};
    unsigned mask = 0;
    for (int i = 0; i < kCorners; ++i) {
        positive[i] = isPositive(corners[i], line);
        if (positive[i]) mask |= 1u << i;
    }

    if (mask == 0) return {polygon_t{}, polygon_t(corners.begin(), corners.end())};
    if (mask == kAllCorners) return {polygon_t(corners.begin(), corners.end()), polygon_t{}};
    if (mask == kDiagonalMaskA || mask == kDiagonalMaskB)
        throw std::runtime_error("Unexpected branch of getRectangleIntersection function.");

    // One run of positive corners and one of the others: exactly two edges are cut. The
    // walk in corner order enters the positive side at one cut edge and leaves it at the
    // other; each polygon runs from its entry crossing through its corners to its exit.
    int enterPositive = -1, enterNegative = -1;  // the edge i -> i + 1 where the side changes
    vec2_t toPositive{}, toNegative{};
    for (int i = 0; i < kCorners; ++i) {
        const int j = (i + 1) % kCorners;
        if (positive[i] == positive[j]) continue;
        const vec2_t x = crossing(corners, i, j, line);
        if (positive[j]) {
            enterPositive = i;
            toPositive = x;
        } else {
            enterNegative = i;
            toNegative = x;
        }
    }

    auto side = [&](int enterEdge, vec2_t entry, vec2_t exit, bool wantPositive) {
        polygon_t poly{entry};
        for (int k = 1; k <= kCorners; ++k) {
            const int c = (enterEdge + k) % kCorners;
            if (positive[c] != wantPositive) break;
            poly.push_back(corners[c]);
        }
        poly.push_back(exit);
        return poly;
    };
    return {side(enterPositive, toPositive, toNegative, true), side(enterNegative, toNegative, toPositive, false)};
}

}  // namespace zorl
