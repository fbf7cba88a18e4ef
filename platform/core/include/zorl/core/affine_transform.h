#pragma once
// AffineTransform: a 2-D affine map stored as the 2x2 matrix (a, b, c, d) and the
// translation (tx, ty). A point is mapped as
//   x' = a * x + c * y + tx
//   y' = b * x + d * y + ty
// so a rotation by theta has a = d = cos(theta), b = sin(theta), c = -sin(theta).
//
// Order of composition:
// - translate and scale act FIRST, before the transform they modify: after
//   makeIdentity(), translate(ox, oy), scale(sx, sy) a point p maps to p * s + o;
// - append(u) acts AFTER: t.append(u) maps p to u(t(p)).
// Arithmetic is done in double precision and stored as float.

#include <zorl/core/export.h>
#include <zorl/core/geometry.h>

namespace zorl {

struct ZORL_CORE_EXPORT AffineTransform {
    float a = 1.0f;
    float b = 0.0f;
    float c = 0.0f;
    float d = 1.0f;
    float tx = 0.0f;
    float ty = 0.0f;

    constexpr AffineTransform() = default;
    constexpr AffineTransform(float a_, float b_, float c_, float d_, float tx_, float ty_)
        : a(a_), b(b_), c(c_), d(d_), tx(tx_), ty(ty_) {}

    // Factories for the elementary maps.
    static AffineTransform makeTranslation(float ox, float oy);
    static AffineTransform makeScale(float sx, float sy);
    // Rotation by `radians` (a = d = cos, b = sin, c = -sin).
    static AffineTransform makeRotation(double radians);

    void makeIdentity();
    // Exactly the identity (every field equal to the identity's, no tolerance).
    bool isIdentity() const;

    // p -> this(p + (ox, oy)).
    void translate(float ox, float oy);
    // p -> this((sx * p.x, sy * p.y)).
    void scale(float sx, float sy);
    // p -> u(this(p)).
    void append(const AffineTransform& u);
    // Replaces the transform by its inverse. Returns false and leaves it unchanged when
    // it is singular (determinant 0 or not finite).
    bool invert();
    // The inverse, or the identity when singular (see invert).
    AffineTransform inverted() const;

    _Point<float> transformPoint(const _Point<float>& p) const;
    // The smallest integer rectangle holding the four mapped corners of r (its corners
    // are (x, y), (x + width, y), (x + width, y + height), (x, y + height)). A mapped
    // coordinate within kEnclosingSnap of an integer counts as that integer, so that the
    // rounding error of the transform's own arithmetic does not grow the rectangle by a
    // whole pixel.
    _Rect<int> enclosingRect(const _Rect<int>& r) const;
    // The largest singular value of the 2x2 part: the most a unit length is stretched.
    float maxScale() const;

    bool operator==(const AffineTransform& o) const;
    bool operator!=(const AffineTransform& o) const { return !(*this == o); }
};

// Snap distance of AffineTransform::enclosingRect, in pixels: far above float rounding
// of a transform built from a few products, far below any meaningful sub-pixel offset.
inline constexpr double kEnclosingSnap = 1e-3;

}  // namespace zorl
