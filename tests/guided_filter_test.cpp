// The guided filter family against a naive double-precision reference written here:
// direct window sums with clamp to edge and the same formulas, no running sums.

#include <imageprocessing/guided_filter.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "imageprocessing/guided_filter/guided_kernels.h"
#include "support/test_support.h"

namespace {

using zorl::test::LogCapture;
using zorl::test::MemoryBalance;
using zorl::test::noise;
using zorl::test::onOneThread;
using Plane = std::vector<double>;

// Float running sums carry about 1e-6 of relative error; var = E[I^2] - m^2 turns it into
// an absolute error of ~1e-6 that the division by var + eps^2 (eps^2 >= 0.01 here) lifts
// to ~1e-4 in a, which reaches the output scaled by |I - mI| < 1.
constexpr double kFilterTolerance = 2e-4;
// A box mean alone: a running sum of at most a few thousand values in 0..1.
constexpr double kMeanTolerance = 2e-5;

struct Size {
    std::size_t w, h;
};
const Size kSizes[] = {{1, 1}, {1, 17}, {17, 1}, {3, 5}, {157, 83}};
// Below 1 (a one-pixel window), fractional, and larger than every test image.
const float kRadii[] = {0.9f, 1.0f, 2.5f, 7.0f, 200.0f};

std::vector<float> image(Size s, int channels, uint32_t seed) {
    // Noise over smooth ramps and one hard edge: flat, textured and edge regions.
    std::vector<float> v = noise(s.w * s.h * channels, seed, 0.0f, 0.15f);
    for (std::size_t y = 0; y < s.h; ++y)
        for (std::size_t x = 0; x < s.w; ++x)
            for (int c = 0; c < channels; ++c)
                v[(y * s.w + x) * channels + c] += (x < s.w / 2 ? 0.2f : 0.7f) + 0.1f * float(y % 7) / 7.0f;
    return v;
}

Plane toDouble(const std::vector<float>& v) { return Plane(v.begin(), v.end()); }

// ---------------------------------------------------------------- reference

std::size_t clampIndex(long i, std::size_t n) { return std::size_t(std::clamp<long>(i, 0, long(n) - 1)); }

// Box mean with clamp to edge: direct window sums, x then y.
Plane refMean(const Plane& src, std::size_t w, std::size_t h, int C, int r) {
    Plane row(src.size()), out(src.size());
    const double n = double(2 * r + 1);
    for (std::size_t y = 0; y < h; ++y)
        for (std::size_t x = 0; x < w; ++x)
            for (int c = 0; c < C; ++c) {
                double s = 0;
                for (long d = -r; d <= r; ++d) s += src[(y * w + clampIndex(long(x) + d, w)) * C + c];
                row[(y * w + x) * C + c] = s;
            }
    for (std::size_t y = 0; y < h; ++y)
        for (std::size_t x = 0; x < w; ++x)
            for (int c = 0; c < C; ++c) {
                double s = 0;
                for (long d = -r; d <= r; ++d) s += row[(clampIndex(long(y) + d, h) * w + x) * C + c];
                out[(y * w + x) * C + c] = s / (n * n);
            }
    return out;
}

// The two-image filter; regulariser(pixel) is eps^2 or eps / W(pixel). Returns a and b
// (steps 1 to 7) when coefficientsOnly.
struct Coefficients {
    Plane a, b;
};
Coefficients refCoefficients(const Plane& p, const Plane& I, std::size_t w, std::size_t h, int C, int r,
                             const std::function<double(std::size_t)>& regulariser) {
    const Plane mI = refMean(I, w, h, C, r), mP = refMean(p, w, h, C, r);
    Plane Ip(p.size()), II(p.size());
    for (std::size_t i = 0; i < p.size(); ++i) Ip[i] = I[i] * p[i], II[i] = I[i] * I[i];
    const Plane mIp = refMean(Ip, w, h, C, r), mII = refMean(II, w, h, C, r);
    Coefficients k{Plane(p.size()), Plane(p.size())};
    for (std::size_t i = 0; i < p.size(); ++i) {
        const double cov = mIp[i] - mI[i] * mP[i], var = mII[i] - mI[i] * mI[i];
        k.a[i] = cov / (var + regulariser(i / C));
        k.b[i] = mP[i] - k.a[i] * mI[i];
    }
    return k;
}

Plane refGuided(const Plane& p, const Plane& I, std::size_t w, std::size_t h, int C, float radius,
                const std::function<double(std::size_t)>& regulariser) {
    const int r = radius >= 1 ? int(radius) : 0;
    const Coefficients k = refCoefficients(p, I, w, h, C, r, regulariser);
    const Plane mA = refMean(k.a, w, h, C, r), mB = refMean(k.b, w, h, C, r);
    Plane out(p.size());
    for (std::size_t i = 0; i < p.size(); ++i) out[i] = mA[i] * I[i] + mB[i];
    return out;
}

std::function<double(std::size_t)> squared(float eps) {
    return [e = double(eps) * eps](std::size_t) { return e; };
}

// The fast form: block-mean reduction to max(n >> 2, 1), corner-to-corner bilinear.
Plane refReduce(const Plane& src, std::size_t w, std::size_t h, int C, std::size_t w4, std::size_t h4) {
    Plane out(w4 * h4 * C);
    for (std::size_t j = 0; j < h4; ++j)
        for (std::size_t i = 0; i < w4; ++i)
            for (int c = 0; c < C; ++c) {
                double s = 0;
                std::size_t n = 0;
                for (std::size_t y = j * h / h4; y < (j + 1) * h / h4; ++y)
                    for (std::size_t x = i * w / w4; x < (i + 1) * w / w4; ++x, ++n) s += src[(y * w + x) * C + c];
                out[(j * w4 + i) * C + c] = s / double(n);
            }
    return out;
}

struct RefTap {
    std::size_t i0, i1;
    double t;
};
RefTap refTap(std::size_t pos, std::size_t n4, std::size_t n) {
    if (n4 == 1) return {0, 0, 0.0};
    const float step = float(double(n4 - 1) / double(n - 1));
    const float f = float(pos) * step;
    const std::size_t i0 = std::min(std::size_t(std::floor(f)), n4 - 1);
    return {i0, std::min(i0 + 1, n4 - 1), double(f) - std::floor(double(f))};
}

Plane refFast(const Plane& p, const Plane& I, std::size_t w, std::size_t h, int C, float radius, float eps) {
    const std::size_t w4 = std::max<std::size_t>(w >> 2, 1), h4 = std::max<std::size_t>(h >> 2, 1);
    const float r4f = radius * 0.25f;
    const int r4 = r4f >= 1 ? int(r4f) : 0;
    const Coefficients k = refCoefficients(refReduce(p, w, h, C, w4, h4), refReduce(I, w, h, C, w4, h4), w4, h4, C, r4,
                                           squared(eps));
    const Plane mA = refMean(k.a, w4, h4, C, r4), mB = refMean(k.b, w4, h4, C, r4);
    Plane out(p.size());
    for (std::size_t y = 0; y < h; ++y) {
        const RefTap ty = refTap(y, h4, h);
        for (std::size_t x = 0; x < w; ++x) {
            const RefTap tx = refTap(x, w4, w);
            for (int c = 0; c < C; ++c) {
                auto at = [&](const Plane& m) {
                    auto v = [&](std::size_t yy, std::size_t xx) { return m[(yy * w4 + xx) * C + c]; };
                    const double top = v(ty.i0, tx.i0) * (1 - tx.t) + v(ty.i0, tx.i1) * tx.t;
                    const double bottom = v(ty.i1, tx.i0) * (1 - tx.t) + v(ty.i1, tx.i1) * tx.t;
                    return top * (1 - ty.t) + bottom * ty.t;
                };
                const std::size_t i = (y * w + x) * C + c;
                out[i] = at(mA) * I[i] + at(mB);
            }
        }
    }
    return out;
}

// Weight map: 3 x 3 variance (channel mean) + 2e-6, times the image mean of its
// reciprocal, box-smoothed with radius (int)(w * fraction).
Plane refWeightMap(const Plane& I, std::size_t w, std::size_t h, int C, float fraction) {
    Plane II(I.size());
    for (std::size_t i = 0; i < I.size(); ++i) II[i] = I[i] * I[i];
    const Plane m = refMean(I, w, h, C, 1), mII = refMean(II, w, h, C, 1);
    Plane v(w * h);
    double recip = 0;
    for (std::size_t j = 0; j < w * h; ++j) {
        double var = 0;
        for (int c = 0; c < C; ++c) var += mII[j * C + c] - m[j * C + c] * m[j * C + c];
        v[j] = var / C + 2e-6;
        recip += 1.0 / v[j];
    }
    for (double& x : v) x *= recip / double(w * h);
    const float sr = float(w) * fraction;
    return refMean(v, w, h, 1, sr >= 1 ? int(sr) : 0);
}

Plane refWeighted(const Plane& p, const Plane& I, std::size_t w, std::size_t h, int C, float radius, float eps,
                  float fraction) {
    const Plane W = refWeightMap(I, w, h, C, fraction);
    return refGuided(p, I, w, h, C, radius, [&](std::size_t j) { return double(eps) / W[j]; });
}

::testing::AssertionResult near(const std::vector<float>& got, const Plane& want, double tolerance) {
    for (std::size_t i = 0; i < want.size(); ++i)
        if (!(std::abs(double(got[i]) - want[i]) <= tolerance))
            return ::testing::AssertionFailure() << "float " << i << ": " << got[i] << " vs " << want[i];
    return ::testing::AssertionSuccess();
}

std::string caseName(Size s, float radius, int C) {
    return std::to_string(s.w) + "x" + std::to_string(s.h) + " r=" + std::to_string(radius) + " C=" + std::to_string(C);
}

// ---------------------------------------------------------------- the functions as a table

using SelfFn = void (*)(const float*, float*, size_t, size_t, float, float);
using GuidedFn = void (*)(const float*, const float*, float*, size_t, size_t, float, float);
using WeightedFn = void (*)(const float*, const float*, float*, size_t, size_t, float, float, float);

struct SelfCase {
    const char* name;
    SelfFn fn;
    int C;
    bool fast;
};
const SelfCase kSelf[] = {
    {"gray", grfx_guided_filter_gray, 1, false},           {"rgb", grfx_guided_filter_rgb, 3, false},
    {"argb", grfx_guided_filter_argb, 4, false},           {"gray_fast", grfx_guided_filter_gray_fast, 1, true},
    {"rgb_fast", grfx_guided_filter_rgb_fast, 3, true},    {"argb_fast", grfx_guided_filter_argb_fast, 4, true},
};

void grayGuidedLib(const float* s, const float* g, float* d, size_t w, size_t h, float r, float e) {
    grfx_guided_filter_gray_guided(s, g, d, w, h, r, e, [](float* dd, const float* ss, int ww, int hh, int rr) {
        grfx::guided::boxMean(ss, dd, ww, hh, rr, 1);
    });
}
void rgbGuidedLib(const float* s, const float* g, float* d, size_t w, size_t h, float r, float e) {
    grfx_guided_filter_rgb_guided(s, g, d, w, h, r, e, [](float* dd, const float* ss, int ww, int hh, int rr) {
        grfx::guided::boxMean(ss, dd, ww, hh, rr, 3);
    });
}

struct GuidedCase {
    const char* name;
    GuidedFn fn;
    int C;
    bool fast;
};
const GuidedCase kGuided[] = {
    {"gray_guided", grayGuidedLib, 1, false},
    {"rgb_guided", rgbGuidedLib, 3, false},
    {"argb_guided", grfx_guided_filter_argb_guided, 4, false},
    {"gray_guided_fast", grfx_guided_filter_gray_guided_fast, 1, true},
    {"rgb_guided_fast", grfx_guided_filter_rgb_guided_fast, 3, true},
    {"argb_guided_fast", grfx_guided_filter_argb_guided_fast, 4, true},
};

struct WeightedCase {
    const char* name;
    WeightedFn fn;
    int C;
};
const WeightedCase kWeighted[] = {
    {"weighted_gray", grfx_weighted_guided_filter_gray, 1},
    {"weighted_rgb", grfx_weighted_guided_filter_rgb, 3},
    {"weighted_rgb_tiled", grfx_weighted_guided_filter_rgb_tiled, 3},
};

constexpr float kEps = 0.1f;        // plain filters: the regulariser is 0.01
constexpr float kEpsWeighted = 0.01f;  // weighted filters: epsilon itself, over W ~ 1
constexpr float kFraction = 0.02f;  // weight map smoothing radius (int)(width * 0.02)

// ---------------------------------------------------------------- box mean

TEST(GuidedFilterBoxMean, MatchesDirectWindowSums) {
    for (Size s : kSizes)
        for (float radius : kRadii)
            for (int C : {1, 3, 4}) {
                const std::vector<float> src = image(s, C, 7);
                std::vector<float> dst(src.size(), -1.0f);
                const int r = radius >= 1 ? int(radius) : 0;
                grfx::guided::boxMean(src.data(), dst.data(), s.w, s.h, r, C);
                EXPECT_TRUE(near(dst, refMean(toDouble(src), s.w, s.h, C, r), kMeanTolerance)) << caseName(s, radius, C);
            }
}

TEST(GuidedFilterBoxMean, WideImageDoesNotDrift) {
    // 6000 columns in 8 bands and a tall image: running sums over long rows and columns.
    for (Size s : {Size{6000, 3}, Size{5, 6000}}) {
        const std::vector<float> src = image(s, 1, 11);
        std::vector<float> dst(src.size());
        grfx::guided::boxMean(src.data(), dst.data(), s.w, s.h, 5, 1);
        EXPECT_TRUE(near(dst, refMean(toDouble(src), s.w, s.h, 1, 5), kMeanTolerance)) << s.w << "x" << s.h;
    }
}

// ---------------------------------------------------------------- against the reference

TEST(GuidedFilter, SelfGuidedMatchesReference) {
    for (const SelfCase& f : kSelf)
        for (Size s : kSizes)
            for (float radius : kRadii) {
                const std::vector<float> src = image(s, f.C, 3);
                std::vector<float> dst(src.size(), -1.0f);
                MemoryBalance balance;
                f.fn(src.data(), dst.data(), s.w, s.h, radius, kEps);
                EXPECT_TRUE(balance.balanced());
                const Plane p = toDouble(src);
                const Plane want = f.fast ? refFast(p, p, s.w, s.h, f.C, radius, kEps)
                                          : refGuided(p, p, s.w, s.h, f.C, radius, squared(kEps));
                EXPECT_TRUE(near(dst, want, kFilterTolerance)) << f.name << " " << caseName(s, radius, f.C);
            }
}

TEST(GuidedFilter, TwoImageMatchesReference) {
    for (const GuidedCase& f : kGuided)
        for (Size s : kSizes)
            for (float radius : kRadii) {
                const std::vector<float> src = image(s, f.C, 4), guide = image(s, f.C, 5);
                std::vector<float> dst(src.size(), -1.0f);
                MemoryBalance balance;
                f.fn(src.data(), guide.data(), dst.data(), s.w, s.h, radius, kEps);
                EXPECT_TRUE(balance.balanced());
                const Plane p = toDouble(src), I = toDouble(guide);
                const Plane want = f.fast ? refFast(p, I, s.w, s.h, f.C, radius, kEps)
                                          : refGuided(p, I, s.w, s.h, f.C, radius, squared(kEps));
                EXPECT_TRUE(near(dst, want, kFilterTolerance)) << f.name << " " << caseName(s, radius, f.C);
            }
}

TEST(GuidedFilter, WeightedMatchesReference) {
    for (const WeightedCase& f : kWeighted)
        for (Size s : kSizes)
            for (float radius : kRadii)
                for (bool selfGuided : {true, false}) {
                    const std::vector<float> src = image(s, f.C, 8), other = image(s, f.C, 9);
                    const std::vector<float>& guide = selfGuided ? src : other;
                    std::vector<float> dst(src.size(), -1.0f);
                    LogCapture log;
                    MemoryBalance balance;
                    f.fn(src.data(), guide.data(), dst.data(), s.w, s.h, radius, kEpsWeighted, kFraction);
                    EXPECT_TRUE(balance.balanced());
                    EXPECT_EQ(log.count(), 0u);  // the weight map never aliases the guidance
                    const Plane want =
                        refWeighted(toDouble(src), toDouble(guide), s.w, s.h, f.C, radius, kEpsWeighted, kFraction);
                    EXPECT_TRUE(near(dst, want, kFilterTolerance))
                        << f.name << (selfGuided ? " self " : " two ") << caseName(s, radius, f.C);
                }
}

TEST(GuidedFilter, FastOverManyRowStrips) {
    // 150 small rows: the self-guided fast filters advance in strips of small rows.
    const Size s{41, 603};
    for (const SelfCase& f : kSelf) {
        if (!f.fast) continue;
        for (float radius : {3.0f, 9.0f, 70.0f}) {
            const std::vector<float> src = image(s, f.C, 35);
            std::vector<float> dst(src.size());
            f.fn(src.data(), dst.data(), s.w, s.h, radius, kEps);
            const Plane p = toDouble(src);
            EXPECT_TRUE(near(dst, refFast(p, p, s.w, s.h, f.C, radius, kEps), kFilterTolerance))
                << f.name << " r=" << radius;
        }
    }
}

TEST(GuidedFilter, WideImageMatchesReference) {
    const Size s{6000, 4};
    const std::vector<float> src = image(s, 1, 12);
    std::vector<float> dst(src.size());
    grfx_guided_filter_gray(src.data(), dst.data(), s.w, s.h, 8.0f, kEps);
    const Plane p = toDouble(src);
    EXPECT_TRUE(near(dst, refGuided(p, p, s.w, s.h, 1, 8.0f, squared(kEps)), kFilterTolerance));
}

// Planes of 32 MB and more are written with streaming stores: checked on whole rows
// (top, bottom, middle) and whole columns (image and band edges) against a point-wise
// reference of the same formulas.
TEST(GuidedFilter, LargePlanesMatchReference) {
    const Size s{3000, 2800};  // 33.6 MB of gray floats
    const int r = 2;
    const std::vector<float> src = image(s, 1, 33), guide = image(s, 1, 34);
    auto at = [&](const std::vector<float>& v, long x, long y) {
        return double(v[clampIndex(y, s.h) * s.w + clampIndex(x, s.w)]);
    };
    auto windowMean = [&](long x, long y, const std::function<double(long, long)>& f) {
        double sum = 0;
        for (long dy = -r; dy <= r; ++dy)
            for (long dx = -r; dx <= r; ++dx) sum += f(clampIndex(x + dx, s.w), clampIndex(y + dy, s.h));
        return sum / double((2 * r + 1) * (2 * r + 1));
    };
    auto reference = [&](const std::vector<float>& p, const std::vector<float>& I, long x, long y) {
        auto coefficients = [&](long cx, long cy, bool wantA) {
            const double mI = windowMean(cx, cy, [&](long u, long v) { return at(I, u, v); });
            const double mP = windowMean(cx, cy, [&](long u, long v) { return at(p, u, v); });
            const double mIp = windowMean(cx, cy, [&](long u, long v) { return at(I, u, v) * at(p, u, v); });
            const double mII = windowMean(cx, cy, [&](long u, long v) { return at(I, u, v) * at(I, u, v); });
            const double a = (mIp - mI * mP) / (mII - mI * mI + double(kEps) * kEps);
            return wantA ? a : mP - a * mI;
        };
        const double mA = windowMean(x, y, [&](long u, long v) { return coefficients(u, v, true); });
        const double mB = windowMean(x, y, [&](long u, long v) { return coefficients(u, v, false); });
        return mA * at(I, x, y) + mB;
    };
    std::vector<std::pair<long, long>> points;
    for (long y : {0L, 1L, long(s.h) / 2, long(s.h) - 1})
        for (long x = 0; x < long(s.w); x += 3) points.push_back({x, y});
    for (long x : {0L, 374L, 375L, 1499L, 1500L, long(s.w) - 1})
        for (long y = 0; y < long(s.h); y += 7) points.push_back({x, y});

    std::vector<float> self(src.size()), guided(src.size());
    MemoryBalance balance;
    grfx_guided_filter_gray(src.data(), self.data(), s.w, s.h, r, kEps);
    grayGuidedLib(src.data(), guide.data(), guided.data(), s.w, s.h, r, kEps);
    EXPECT_TRUE(balance.balanced());
    for (auto [x, y] : points) {
        ASSERT_NEAR(self[y * s.w + x], reference(src, src, x, y), kFilterTolerance) << x << "," << y;
        ASSERT_NEAR(guided[y * s.w + x], reference(src, guide, x, y), kFilterTolerance) << x << "," << y;
    }
}

// ---------------------------------------------------------------- exact invariants

TEST(GuidedFilter, RadiusBelowOneReturnsTheInput) {
    const Size s{157, 83};
    for (float radius : {0.9f, 0.5f, 0.0f, -3.0f}) {
        for (const SelfCase& f : kSelf) {
            if (f.fast) continue;  // the grid reduction is not an identity
            const std::vector<float> src = image(s, f.C, 13);
            std::vector<float> dst(src.size());
            f.fn(src.data(), dst.data(), s.w, s.h, radius, kEps);
            EXPECT_EQ(dst, src) << f.name << " r=" << radius;
        }
        const std::vector<float> src = image(s, 3, 14);
        std::vector<float> dst(src.size());
        grfx_weighted_guided_filter_rgb(src.data(), src.data(), dst.data(), s.w, s.h, radius, kEpsWeighted, kFraction);
        EXPECT_EQ(dst, src) << "weighted r=" << radius;
    }
}

TEST(GuidedFilter, ZeroEpsilonOnConstantImageIsNaN) {
    const std::vector<float> src(20 * 10, 0.5f);
    std::vector<float> dst(src.size());
    grfx_guided_filter_gray(src.data(), dst.data(), 20, 10, 3.0f, 0.0f);
    EXPECT_TRUE(std::all_of(dst.begin(), dst.end(), [](float v) { return std::isnan(v); }));
}

TEST(GuidedFilter, InPlaceEqualsOutOfPlace) {
    const Size s{157, 83};
    for (const SelfCase& f : kSelf) {
        const std::vector<float> src = image(s, f.C, 15);
        std::vector<float> out(src.size()), inPlace = src;
        f.fn(src.data(), out.data(), s.w, s.h, 4.0f, kEps);
        MemoryBalance balance;
        f.fn(inPlace.data(), inPlace.data(), s.w, s.h, 4.0f, kEps);
        EXPECT_TRUE(balance.balanced());
        EXPECT_EQ(inPlace, out) << f.name;
    }
    for (const GuidedCase& f : kGuided) {
        const std::vector<float> src = image(s, f.C, 16), guide = image(s, f.C, 17);
        std::vector<float> out(src.size()), onSrc = src, onGuide = guide;
        f.fn(src.data(), guide.data(), out.data(), s.w, s.h, 4.0f, kEps);
        f.fn(onSrc.data(), guide.data(), onSrc.data(), s.w, s.h, 4.0f, kEps);
        f.fn(src.data(), onGuide.data(), onGuide.data(), s.w, s.h, 4.0f, kEps);
        EXPECT_EQ(onSrc, out) << f.name;
        EXPECT_EQ(onGuide, out) << f.name;
    }
    for (const WeightedCase& f : kWeighted) {
        const std::vector<float> src = image(s, f.C, 18);
        std::vector<float> out(src.size()), inPlace = src;
        f.fn(src.data(), src.data(), out.data(), s.w, s.h, 4.0f, kEpsWeighted, kFraction);
        f.fn(inPlace.data(), inPlace.data(), inPlace.data(), s.w, s.h, 4.0f, kEpsWeighted, kFraction);
        EXPECT_EQ(inPlace, out) << f.name;
    }
}

TEST(GuidedFilter, TiledEqualsUntiledUpToTheThreshold) {
    for (Size s : {Size{157, 83}, Size{1, 17}})
        for (bool selfGuided : {true, false}) {
            const std::vector<float> src = image(s, 3, 19), other = image(s, 3, 20);
            const std::vector<float>& guide = selfGuided ? src : other;
            std::vector<float> tiled(src.size()), untiled(src.size());
            grfx_weighted_guided_filter_rgb_tiled(src.data(), guide.data(), tiled.data(), s.w, s.h, 3.0f, kEpsWeighted,
                                                  kFraction);
            grfx_weighted_guided_filter_rgb(src.data(), guide.data(), untiled.data(), s.w, s.h, 3.0f, kEpsWeighted,
                                            kFraction);
            EXPECT_EQ(tiled, untiled) << s.w << "x" << s.h;
        }
}

TEST(GuidedFilter, TilesAboveTheThresholdMatchTheWholeImage) {
    // 4097 x 1025 = 4,199,425 pixels: 3 x 1 tiles with borders of 2r. Outputs differ from
    // the whole-image filter only by where the running sums start.
    const Size s{4097, 1025};
    const std::vector<float> src = image(s, 3, 21);
    std::vector<float> tiled(src.size()), untiled(src.size());
    MemoryBalance balance;
    grfx_weighted_guided_filter_rgb_tiled(src.data(), src.data(), tiled.data(), s.w, s.h, 2.5f, kEpsWeighted, 0.001f);
    EXPECT_TRUE(balance.balanced());
    grfx_weighted_guided_filter_rgb(src.data(), src.data(), untiled.data(), s.w, s.h, 2.5f, kEpsWeighted, 0.001f);
    EXPECT_TRUE(near(tiled, toDouble(untiled), kMeanTolerance));
}

// ---------------------------------------------------------------- the caller's box mean

TEST(GuidedFilter, CallsTheBoxFilterSixTimes) {
    const Size s{31, 9};
    for (int C : {1, 3}) {
        const std::vector<float> src = image(s, C, 22), guide = image(s, C, 23);
        std::vector<float> dst(src.size());
        std::vector<std::vector<int>> calls;
        auto box = [&](float* d, const float* sp, int w, int h, int r) {
            EXPECT_NE(static_cast<const float*>(d), sp);
            calls.push_back({w, h, r});
            grfx::guided::boxMean(sp, d, w, h, r, C);
        };
        if (C == 1)
            grfx_guided_filter_gray_guided(src.data(), guide.data(), dst.data(), s.w, s.h, 3.7f, kEps, box);
        else
            grfx_guided_filter_rgb_guided(src.data(), guide.data(), dst.data(), s.w, s.h, 3.7f, kEps, box);
        EXPECT_EQ(calls, std::vector<std::vector<int>>(6, {31, 9, 3})) << "C=" << C;
    }
}

TEST(GuidedFilter, EmptyBoxFilterThrowsAndFreesEverything) {
    const std::vector<float> src = image({8, 8}, 3, 24);
    std::vector<float> dst(src.size());
    MemoryBalance balance;
    EXPECT_THROW(grfx_guided_filter_gray_guided(src.data(), src.data(), dst.data(), 8, 8, 2, kEps, {}),
                 std::bad_function_call);
    EXPECT_THROW(grfx_guided_filter_rgb_guided(src.data(), src.data(), dst.data(), 8, 8, 2, kEps, {}),
                 std::bad_function_call);
    EXPECT_TRUE(balance.balanced());
}

// ---------------------------------------------------------------- threads

TEST(GuidedFilter, OneThreadAndManyThreadsAgree) {
    const Size s{157, 83};
    auto both = [&](const std::function<void(std::vector<float>&)>& run, const char* name) {
        std::vector<float> many, one;
        run(many);
        onOneThread([&] { run(one); });
        EXPECT_EQ(many, one) << name;
    };
    for (const SelfCase& f : kSelf) {
        const std::vector<float> src = image(s, f.C, 25);
        both([&](std::vector<float>& d) { d.resize(src.size()); f.fn(src.data(), d.data(), s.w, s.h, 5, kEps); }, f.name);
    }
    for (const GuidedCase& f : kGuided) {
        const std::vector<float> src = image(s, f.C, 26), guide = image(s, f.C, 27);
        both([&](std::vector<float>& d) {
            d.resize(src.size());
            f.fn(src.data(), guide.data(), d.data(), s.w, s.h, 5, kEps);
        }, f.name);
    }
    for (const WeightedCase& f : kWeighted) {
        const std::vector<float> src = image(s, f.C, 28), guide = image(s, f.C, 29);
        both([&](std::vector<float>& d) {
            d.resize(src.size());
            f.fn(src.data(), guide.data(), d.data(), s.w, s.h, 5, kEpsWeighted, kFraction);
        }, f.name);
    }
}

// ---------------------------------------------------------------- bad input

TEST(GuidedFilter, BadInputIsLoggedAndWritesNothing) {
    const std::vector<float> src = image({4, 4}, 1, 30);
    std::vector<float> dst(src.size(), -1.0f);
    const std::string self =
        "void __cdecl grfx_guided_filter_gray(const float *,float *,unsigned __int64,unsigned __int64,float,float)";
    const std::string weighted =
        "void __cdecl grfx_weighted_guided_filter_rgb_tiled(const float *,const float *,float *,unsigned __int64,"
        "unsigned __int64,float,float,float)";
    const std::string boxed =
        "void __cdecl grfx_guided_filter_gray_guided(const float *,const float *,float *,unsigned __int64,unsigned "
        "__int64,float,float,class std::function<void __cdecl(float *,const float *,int,int,int)>)";
    struct Case {
        std::function<void()> call;
        std::string line;
    };
    const Case cases[] = {
        {[&] { grfx_guided_filter_gray(nullptr, dst.data(), 4, 4, 2, kEps); }, self + ": source is null"},
        {[&] { grfx_guided_filter_gray(src.data(), nullptr, 4, 4, 2, kEps); }, self + ": destination is null"},
        {[&] { grfx_guided_filter_gray(src.data(), dst.data(), 4, 4, 1e6f, kEps); }, self + ": radius is too large"},
        {[&] { grfx_guided_filter_gray(src.data(), dst.data(), size_t(1) << 31, 4, 2, kEps); },
         self + ": image is too large"},
        {[&] { grfx_guided_filter_gray_guided(src.data(), nullptr, dst.data(), 4, 4, 2, kEps, {}); },
         boxed + ": guidance is null"},
        {[&] { grfx_weighted_guided_filter_rgb_tiled(src.data(), src.data(), dst.data(), 4, 4, 2, kEps, 1e5f); },
         weighted + ": weight radius is too large"},
    };
    for (const Case& c : cases) {
        LogCapture log;
        MemoryBalance balance;
        c.call();
        EXPECT_EQ(log.lines(), std::vector<std::string>{c.line});
        EXPECT_EQ(log.types(), std::vector<zorl::LogMessageType>{zorl::LogMessageType::Error});
        EXPECT_TRUE(balance.balanced());
        EXPECT_TRUE(std::all_of(dst.begin(), dst.end(), [](float v) { return v == -1.0f; })) << c.line;
    }
}

TEST(GuidedFilter, ZeroSizes) {
    // Self-guided: nothing to write. With a guidance: width and height count as 1.
    const std::vector<float> src = {0.25f, 0.5f, 0.75f, 1.0f}, guide = {0.5f, 0.5f, 0.5f, 0.5f};
    std::vector<float> dst(4, -1.0f);
    grfx_guided_filter_argb(src.data(), dst.data(), 0, 3, 2, kEps);
    grfx_guided_filter_gray_fast(src.data(), dst.data(), 4, 0, 2, kEps);
    EXPECT_EQ(dst, std::vector<float>(4, -1.0f));
    grfx_guided_filter_argb_guided(src.data(), guide.data(), dst.data(), 0, 0, 2, kEps);
    // One pixel in each of the four lanes: the guidance's variance is 0 up to the rounding
    // of 1/25, so a is about 0 and dst is mP, the source.
    for (int c = 0; c < 4; ++c) EXPECT_NEAR(dst[c], src[c], 1e-6) << c;
}

TEST(GuidedFilter, OverloadsForwardToGrayAndRgb) {
    const Size s{23, 11};
    const std::vector<float> gray = image(s, 1, 31), rgb = image(s, 3, 32);
    std::vector<float> a(gray.size()), b(gray.size()), c(rgb.size()), d(rgb.size());
    grfx_guided_filter(gray.data(), a.data(), s.w, s.h, 3, kEps);
    grfx_guided_filter_gray(gray.data(), b.data(), s.w, s.h, 3, kEps);
    grfx_guided_filter(reinterpret_cast<const zorl::PixelRGB<float>*>(rgb.data()),
                       reinterpret_cast<zorl::PixelRGB<float>*>(c.data()), s.w, s.h, 3, kEps);
    grfx_guided_filter_rgb(rgb.data(), d.data(), s.w, s.h, 3, kEps);
    EXPECT_EQ(a, b);
    EXPECT_EQ(c, d);
}

}  // namespace
