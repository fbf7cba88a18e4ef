#include <zorl/core/affine_transform.h>

#include <algorithm>
#include <climits>
#include <cmath>

namespace zorl {
namespace {

// The same fields in double, for composing without accumulating float error.
struct Affine64 {
    double a, b, c, d, tx, ty;
    explicit Affine64(const AffineTransform& t) : a(t.a), b(t.b), c(t.c), d(t.d), tx(t.tx), ty(t.ty) {}
    Affine64(double a_, double b_, double c_, double d_, double tx_, double ty_)
        : a(a_), b(b_), c(c_), d(d_), tx(tx_), ty(ty_) {}
    AffineTransform toFloat() const {
        return {static_cast<float>(a), static_cast<float>(b), static_cast<float>(c),
                static_cast<float>(d), static_cast<float>(tx), static_cast<float>(ty)};
    }
};

// first, then second: p -> second(first(p)).
Affine64 compose(const Affine64& first, const Affine64& second) {
    return {first.a * second.a + first.b * second.c,   first.a * second.b + first.b * second.d,
            first.c * second.a + first.d * second.c,   first.c * second.b + first.d * second.d,
            first.tx * second.a + first.ty * second.c + second.tx,
            first.tx * second.b + first.ty * second.d + second.ty};
}

// Rounds an enclosing-rectangle edge: down (lower edge) or up (upper edge), snapping
// values within kEnclosingSnap of an integer onto it; clamped to int.
int snapEdge(double v, bool lower) {
    const double nearest = std::round(v);
    double e = std::fabs(v - nearest) <= kEnclosingSnap ? nearest : (lower ? std::floor(v) : std::ceil(v));
    e = std::clamp(e, static_cast<double>(INT_MIN / 2), static_cast<double>(INT_MAX / 2));
    return static_cast<int>(e);
}

}  // namespace

AffineTransform AffineTransform::makeTranslation(float ox, float oy) { return {1, 0, 0, 1, ox, oy}; }

AffineTransform AffineTransform::makeScale(float sx, float sy) { return {sx, 0, 0, sy, 0, 0}; }

AffineTransform AffineTransform::makeRotation(double radians) {
    // cos(pi / 2) is 6e-17 in double: snap such residues to 0 so that quarter turns
    // are exact and map pixel positions onto pixel positions.
    constexpr double kTrigSnap = 1e-15;
    double cs = std::cos(radians), sn = std::sin(radians);
    if (std::fabs(cs) < kTrigSnap) cs = 0.0;
    if (std::fabs(sn) < kTrigSnap) sn = 0.0;
    return Affine64(cs, sn, -sn, cs, 0, 0).toFloat();
}

void AffineTransform::makeIdentity() { *this = AffineTransform(); }

bool AffineTransform::isIdentity() const { return *this == AffineTransform(); }

void AffineTransform::translate(float ox, float oy) {
    *this = compose(Affine64(makeTranslation(ox, oy)), Affine64(*this)).toFloat();
}

void AffineTransform::scale(float sx, float sy) {
    *this = compose(Affine64(makeScale(sx, sy)), Affine64(*this)).toFloat();
}

void AffineTransform::append(const AffineTransform& u) { *this = compose(Affine64(*this), Affine64(u)).toFloat(); }

bool AffineTransform::invert() {
    const Affine64 m(*this);
    const double det = m.a * m.d - m.b * m.c;
    if (det == 0.0 || !std::isfinite(det)) return false;
    const Affine64 inv(m.d / det, -m.b / det, -m.c / det, m.a / det, (m.c * m.ty - m.d * m.tx) / det,
                       (m.b * m.tx - m.a * m.ty) / det);
    *this = inv.toFloat();
    return true;
}

AffineTransform AffineTransform::inverted() const {
    AffineTransform t = *this;
    return t.invert() ? t : AffineTransform();
}

_Point<float> AffineTransform::transformPoint(const _Point<float>& p) const {
    return {a * p.x + c * p.y + tx, b * p.x + d * p.y + ty};
}

_Rect<int> AffineTransform::enclosingRect(const _Rect<int>& r) const {
    const Affine64 m(*this);
    const double xs[4] = {double(r.x), double(r.x) + r.width, double(r.x) + r.width, double(r.x)};
    const double ys[4] = {double(r.y), double(r.y), double(r.y) + r.height, double(r.y) + r.height};
    double x0 = INFINITY, y0 = INFINITY, x1 = -INFINITY, y1 = -INFINITY;
    for (int i = 0; i < 4; ++i) {
        const double x = m.a * xs[i] + m.c * ys[i] + m.tx;
        const double y = m.b * xs[i] + m.d * ys[i] + m.ty;
        x0 = std::min(x0, x), x1 = std::max(x1, x);
        y0 = std::min(y0, y), y1 = std::max(y1, y);
    }
    if (!std::isfinite(x0) || !std::isfinite(y0) || !std::isfinite(x1) || !std::isfinite(y1)) return kEmptyRect;
    const int left = snapEdge(x0, true), top = snapEdge(y0, true);
    return {left, top, snapEdge(x1, false) - left, snapEdge(y1, false) - top};
}

float AffineTransform::maxScale() const {
    const Affine64 m(*this);
    const double p = m.a * m.a + m.c * m.c, q = m.b * m.a + m.d * m.c, r = m.b * m.b + m.d * m.d;
    const double half = (p - r) * 0.5;
    return static_cast<float>(std::sqrt((p + r) * 0.5 + std::sqrt(half * half + q * q)));
}

bool AffineTransform::operator==(const AffineTransform& o) const {
    return a == o.a && b == o.b && c == o.c && d == o.d && tx == o.tx && ty == o.ty;
}

}  // namespace zorl
