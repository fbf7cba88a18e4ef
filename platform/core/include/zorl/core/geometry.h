#pragma once
// Sizes, rectangles and points. A rectangle is (x, y, width, height): it covers the
// columns x .. x + width - 1 and the rows y .. y + height - 1.

#include <algorithm>
#include <cstdint>
#include <type_traits>

#include <zorl/core/export.h>  // default visibility of the templates, see pixel.h

namespace zorl {

template <class T>
struct ZORL_CORE_EXPORT _Size {
    T width{};
    T height{};

    constexpr _Size() = default;
    constexpr _Size(T w, T h) : width(w), height(h) {}

    constexpr bool operator==(const _Size& o) const { return width == o.width && height == o.height; }
    constexpr bool operator!=(const _Size& o) const { return !(*this == o); }
    constexpr bool isEmpty() const { return width <= 0 || height <= 0; }
    // Pixel count in 64 bits, so that large rasters do not overflow.
    constexpr int64_t area() const { return static_cast<int64_t>(width) * static_cast<int64_t>(height); }
};

template <class T>
struct ZORL_CORE_EXPORT _Point {
    T x{};
    T y{};

    constexpr _Point() = default;
    constexpr _Point(T px, T py) : x(px), y(py) {}

    constexpr bool operator==(const _Point& o) const { return x == o.x && y == o.y; }
    constexpr bool operator!=(const _Point& o) const { return !(*this == o); }
};

template <class T>
struct ZORL_CORE_EXPORT _Rect {
    T x{};
    T y{};
    T width{};
    T height{};

    constexpr _Rect() = default;
    constexpr _Rect(T px, T py, T w, T h) : x(px), y(py), width(w), height(h) {}
    constexpr _Rect(_Point<T> origin, _Size<T> size) : x(origin.x), y(origin.y), width(size.width), height(size.height) {}
    template <class U, class = std::enable_if_t<!std::is_same_v<U, T>>>
    constexpr explicit _Rect(const _Rect<U>& o)
        : x(static_cast<T>(o.x)), y(static_cast<T>(o.y)), width(static_cast<T>(o.width)), height(static_cast<T>(o.height)) {}

    constexpr bool operator==(const _Rect& o) const {
        return x == o.x && y == o.y && width == o.width && height == o.height;
    }
    constexpr bool operator!=(const _Rect& o) const { return !(*this == o); }

    constexpr T right() const { return x + width; }    // one past the last column
    constexpr T bottom() const { return y + height; }  // one past the last row
    constexpr _Size<T> size() const { return {width, height}; }
    constexpr _Point<T> origin() const { return {x, y}; }
    constexpr bool isEmpty() const { return width <= 0 || height <= 0; }

    // A new rectangle moved in by dx on the left and right and by dy on top and bottom
    // (negative values grow it).
    constexpr _Rect inset(T dx, T dy) const { return {x + dx, y + dy, width - 2 * dx, height - 2 * dy}; }

    constexpr bool contains(T px, T py) const { return px >= x && py >= y && px < right() && py < bottom(); }
    // True when `o` lies wholly inside (edges inclusive).
    constexpr bool contains(const _Rect& o) const {
        return o.x >= x && o.y >= y && o.right() <= right() && o.bottom() <= bottom();
    }

    // The common part, or the empty rectangle (0, 0, 0, 0) when there is none.
    constexpr _Rect intersection(const _Rect& o) const {
        const T x0 = std::max(x, o.x), y0 = std::max(y, o.y);
        const T x1 = std::min(right(), o.right()), y1 = std::min(bottom(), o.bottom());
        if (x1 <= x0 || y1 <= y0) return {};
        return {x0, y0, x1 - x0, y1 - y0};
    }
    // The bounding box of both; an empty operand does not count.
    constexpr _Rect united(const _Rect& o) const {
        if (o.isEmpty()) return *this;
        if (isEmpty()) return o;
        const T x0 = std::min(x, o.x), y0 = std::min(y, o.y);
        return {x0, y0, std::max(right(), o.right()) - x0, std::max(bottom(), o.bottom()) - y0};
    }
};

using Size = _Size<int>;
using Rect = _Rect<int>;
using RectF = _Rect<float>;
using Point = _Point<int>;
using PointF = _Point<float>;

// The library-wide empty size and rectangle: all zeros. Where an operation takes a
// rectangle, kNoRegion (the empty rectangle) stands for "the whole image".
inline constexpr _Size<int> kEmptySize{0, 0};
inline constexpr _Rect<int> kEmptyRect{0, 0, 0, 0};
inline constexpr _Rect<int> kNoRegion = kEmptyRect;

}  // namespace zorl
