// The guided filter family against a naive double-precision reference written here:
// direct window sums with clamp to edge and the same formulas, no running sums. Every
// export runs through one parameterised table; the rules that are not about values
// (the caller's box mean, tiling, bad input) follow it.

#include <imageprocessing/guided_filter.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <ostream>
#include <string>
#include <tuple>
#include <utility>
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

constexpr float kEps = 0.1f;           // plain filters: the regulariser is 0.01
constexpr float kEpsWeighted = 0.01f;  // weighted filters: epsilon itself, over W ~ 1
constexpr float kFraction = 0.02f;     // weight map smoothing radius (int)(width * 0.02)

struct Size { std::size_t w, h; };

std::vector<float> image(Size s, int channels, uint32_t seed) {
    // Noise over smooth ramps and one hard edge: flat, textured and edge regions.
    std::vector<float> v = noise(s.w * s.h * channels, seed, 0.0f, 0.15f);
    for (std::size_t i = 0; i < v.size(); ++i) {
        const std::size_t x = i / channels % s.w, y = i / channels / s.w;
        v[i] += (x < s.w / 2 ? 0.2f : 0.7f) + 0.1f * float(y % 7) / 7.0f;
    }
    return v;
}

// ---------------------------------------------------------------- reference

int truncatedRadius(float radius) { return radius >= 1 ? int(radius) : 0; }

// Box mean with clamp to edge: direct window sums, x then y; the window positions beyond
// an edge count that edge's pixel.
Plane refMean(const Plane& src, std::size_t w, std::size_t h, int C, int r) {
    auto pass = [&](const Plane& in, bool vertical, double scale) {
        Plane out(in.size());
        const long n = long(vertical ? h : w);
        for (std::size_t i = 0; i < in.size(); ++i) {
            const long x = long(i / C % w), y = long(i / C / w), pos = vertical ? y : x;
            auto at = [&](long k) { return in[(vertical ? k * w + x : y * w + k) * C + i % C]; };
            double s = std::max(0L, r - pos) * at(0) + std::max(0L, pos + r - (n - 1)) * at(n - 1);
            for (long k = std::max(pos - r, 0L); k <= std::min(pos + r, n - 1); ++k) s += at(k);
            out[i] = s * scale;
        }
        return out;
    };
    const double n = 2.0 * r + 1;
    return pass(pass(src, false, 1.0), true, 1.0 / (n * n));
}

// The two-image filter's a and b, box-averaged again; regulariser(pixel) is eps^2 or eps / W(pixel).
std::pair<Plane, Plane> refMeanAB(const Plane& p, const Plane& I, std::size_t w, std::size_t h, int C, int r,
                                  const std::function<double(std::size_t)>& regulariser) {
    Plane Ip(p.size()), II(p.size()), a(p.size()), b(p.size());
    for (std::size_t i = 0; i < p.size(); ++i) Ip[i] = I[i] * p[i], II[i] = I[i] * I[i];
    const Plane mI = refMean(I, w, h, C, r), mP = refMean(p, w, h, C, r);
    const Plane mIp = refMean(Ip, w, h, C, r), mII = refMean(II, w, h, C, r);
    for (std::size_t i = 0; i < p.size(); ++i) {
        a[i] = (mIp[i] - mI[i] * mP[i]) / (mII[i] - mI[i] * mI[i] + regulariser(i / C));
        b[i] = mP[i] - a[i] * mI[i];
    }
    return {refMean(a, w, h, C, r), refMean(b, w, h, C, r)};
}

Plane refGuided(const Plane& p, const Plane& I, std::size_t w, std::size_t h, int C, float radius,
                const std::function<double(std::size_t)>& regulariser) {
    const auto [mA, mB] = refMeanAB(p, I, w, h, C, truncatedRadius(radius), regulariser);
    Plane out(p.size());
    for (std::size_t i = 0; i < p.size(); ++i) out[i] = mA[i] * I[i] + mB[i];
    return out;
}

const std::function<double(std::size_t)> kSquaredEps = [](std::size_t) { return double(kEps) * kEps; };

// The fast form: block-mean reduction to max(n >> 2, 1), corner-to-corner bilinear back.
Plane refFast(const Plane& p, const Plane& I, std::size_t w, std::size_t h, int C, float radius) {
    const std::size_t w4 = std::max<std::size_t>(w >> 2, 1), h4 = std::max<std::size_t>(h >> 2, 1);
    auto reduce = [&](const Plane& src) {
        Plane out(w4 * h4 * C);
        for (std::size_t o = 0; o < out.size(); ++o) {
            const std::size_t i = o / C % w4, j = o / C / w4;
            double s = 0, n = 0;
            for (std::size_t y = j * h / h4; y < (j + 1) * h / h4; ++y)
                for (std::size_t x = i * w / w4; x < (i + 1) * w / w4; ++x, ++n) s += src[(y * w + x) * C + o % C];
            out[o] = s / n;
        }
        return out;
    };
    auto tap = [](std::size_t pos, std::size_t n4, std::size_t n) {  // {i0, i1, t}
        const float f = n4 == 1 ? 0.0f : float(pos) * float(double(n4 - 1) / double(n - 1));
        const std::size_t i0 = std::min(std::size_t(std::floor(f)), n4 - 1);
        return std::tuple{i0, std::min(i0 + 1, n4 - 1), double(f) - std::floor(double(f))};
    };
    const auto [mA, mB] = refMeanAB(reduce(p), reduce(I), w4, h4, C, truncatedRadius(radius * 0.25f), kSquaredEps);
    Plane out(p.size());
    for (std::size_t i = 0; i < p.size(); ++i) {
        const auto [x0, x1, tx] = tap(i / C % w, w4, w);
        const auto [y0, y1, ty] = tap(i / C / w, h4, h);
        auto at = [&](const Plane& m) {
            auto v = [&](std::size_t yy, std::size_t xx) { return m[(yy * w4 + xx) * C + i % C]; };
            return (v(y0, x0) * (1 - tx) + v(y0, x1) * tx) * (1 - ty) + (v(y1, x0) * (1 - tx) + v(y1, x1) * tx) * ty;
        };
        out[i] = at(mA) * I[i] + at(mB);
    }
    return out;
}

// Weight map: 3 x 3 variance (channel mean) + 2e-6, times the image mean of its
// reciprocal, box-smoothed with radius (int)(w * fraction); the regulariser is eps / W.
Plane refWeighted(const Plane& p, const Plane& I, std::size_t w, std::size_t h, int C, float radius) {
    Plane II(I.size()), v(w * h);
    for (std::size_t i = 0; i < I.size(); ++i) II[i] = I[i] * I[i];
    const Plane m = refMean(I, w, h, C, 1), mII = refMean(II, w, h, C, 1);
    double recip = 0;
    for (std::size_t j = 0; j < w * h; ++j) {
        for (int c = 0; c < C; ++c) v[j] += (mII[j * C + c] - m[j * C + c] * m[j * C + c]) / C;
        recip += 1.0 / (v[j] += 2e-6);
    }
    for (double& x : v) x *= recip / double(w * h);
    const Plane W = refMean(v, w, h, 1, truncatedRadius(float(w) * kFraction));
    return refGuided(p, I, w, h, C, radius, [&](std::size_t j) { return double(kEpsWeighted) / W[j]; });
}

::testing::AssertionResult near(const std::vector<float>& got, const Plane& want, double tolerance) {
    for (std::size_t i = 0; i < want.size(); ++i)
        if (!(std::abs(double(got[i]) - want[i]) <= tolerance))
            return ::testing::AssertionFailure() << "float " << i << ": " << got[i] << " vs " << want[i];
    return ::testing::AssertionSuccess();
}

// ---------------------------------------------------------------- the seventeen exports

enum class Kind { Plain, Fast, Weighted };

// Every export as run(src, guidance, dst, width, height, radius); the self-guided ones
// ignore the guidance. The caller's box mean of the _guided functions is the library's own.
using Run = std::function<void(const float*, const float*, float*, size_t, size_t, float)>;
struct Export { const char* name; int C; Kind kind; bool guided; Run run; };  // guided: takes a guidance image

void PrintTo(const Export& f, std::ostream* os) { *os << f.name; }

using F = const float*;
using SelfFn = void (*)(F, float*, size_t, size_t, float, float);
using GuidedFn = void (*)(F, F, float*, size_t, size_t, float, float);
using WeightedFn = void (*)(F, F, float*, size_t, size_t, float, float, float);
using BoxedFn = void (*)(F, F, float*, size_t, size_t, float, float, grfx_box_filter_t);
Run self(SelfFn f) { return [f](F s, F, float* d, size_t w, size_t h, float r) { f(s, d, w, h, r, kEps); }; }
Run guided(GuidedFn f) { return [f](F s, F g, float* d, size_t w, size_t h, float r) { f(s, g, d, w, h, r, kEps); }; }
Run weighted(WeightedFn f) {
    return [f](F s, F g, float* d, size_t w, size_t h, float r) { f(s, g, d, w, h, r, kEpsWeighted, kFraction); };
}
Run boxed(BoxedFn f, int C) {
    return [f, C](F s, F g, float* d, size_t w, size_t h, float r) {
        f(s, g, d, w, h, r, kEps,
          [C](float* dd, F ss, int ww, int hh, int rr) { grfx::guided::boxMean(ss, dd, ww, hh, rr, C); });
    };
}
void rgbOverload(F s, F, float* d, size_t w, size_t h, float r) {
    using P = zorl::PixelRGB<float>;
    grfx_guided_filter(reinterpret_cast<const P*>(s), reinterpret_cast<P*>(d), w, h, r, kEps);
}

const Export kExports[] = {
    {"gray", 1, Kind::Plain, false, self(grfx_guided_filter_gray)},
    {"rgb", 3, Kind::Plain, false, self(grfx_guided_filter_rgb)},
    {"argb", 4, Kind::Plain, false, self(grfx_guided_filter_argb)},
    {"gray_fast", 1, Kind::Fast, false, self(grfx_guided_filter_gray_fast)},
    {"rgb_fast", 3, Kind::Fast, false, self(grfx_guided_filter_rgb_fast)},
    {"argb_fast", 4, Kind::Fast, false, self(grfx_guided_filter_argb_fast)},
    {"gray_guided", 1, Kind::Plain, true, boxed(grfx_guided_filter_gray_guided, 1)},
    {"rgb_guided", 3, Kind::Plain, true, boxed(grfx_guided_filter_rgb_guided, 3)},
    {"argb_guided", 4, Kind::Plain, true, guided(grfx_guided_filter_argb_guided)},
    {"gray_guided_fast", 1, Kind::Fast, true, guided(grfx_guided_filter_gray_guided_fast)},
    {"rgb_guided_fast", 3, Kind::Fast, true, guided(grfx_guided_filter_rgb_guided_fast)},
    {"argb_guided_fast", 4, Kind::Fast, true, guided(grfx_guided_filter_argb_guided_fast)},
    {"gray_overload", 1, Kind::Plain, false, self(static_cast<SelfFn>(grfx_guided_filter))},
    {"rgb_overload", 3, Kind::Plain, false, rgbOverload},
    {"weighted_gray", 1, Kind::Weighted, true, weighted(grfx_weighted_guided_filter_gray)},
    {"weighted_rgb", 3, Kind::Weighted, true, weighted(grfx_weighted_guided_filter_rgb)},
    {"weighted_rgb_tiled", 3, Kind::Weighted, true, weighted(grfx_weighted_guided_filter_rgb_tiled)},
};

Plane reference(const Export& f, const std::vector<float>& src, const std::vector<float>& guide, Size s,
                float radius) {
    const Plane p(src.begin(), src.end()), I(guide.begin(), guide.end());
    if (f.kind == Kind::Fast) return refFast(p, I, s.w, s.h, f.C, radius);
    if (f.kind == Kind::Weighted) return refWeighted(p, I, s.w, s.h, f.C, radius);
    return refGuided(p, I, s.w, s.h, f.C, radius, kSquaredEps);
}

class GuidedFilterExport : public ::testing::TestWithParam<Export> {};
INSTANTIATE_TEST_SUITE_P(All, GuidedFilterExport, ::testing::ValuesIn(kExports),
                         [](const auto& info) { return std::string(info.param.name); });

// Small and odd sizes (the fast ones below the 4-pixel reduction, and over many row
// strips of the reduced grid); radii below 1, fractional and larger than every image.
// The weighted filters take another path when the guidance is the source. Below radius 1
// the filters other than the fast ones return the input bit for bit.
TEST_P(GuidedFilterExport, MatchesReference) {
    const Export& f = GetParam();
    std::vector<Size> sizes = {{1, 1}, {1, 17}, {17, 1}, {3, 5}, {157, 83}};
    if (f.kind == Kind::Fast) sizes.push_back({41, 603});
    for (Size s : sizes)
        for (float radius : {-3.0f, 0.9f, 1.0f, 2.5f, 7.0f, 200.0f})
            for (bool selfGuided : {true, false}) {
                if (f.kind != Kind::Weighted && selfGuided == f.guided) continue;
                const std::vector<float> src = image(s, f.C, 3), other = image(s, f.C, 4);
                const std::vector<float>& guide = selfGuided ? src : other;
                std::vector<float> dst(src.size(), -1.0f);
                LogCapture log;
                MemoryBalance balance;
                f.run(src.data(), guide.data(), dst.data(), s.w, s.h, radius);
                EXPECT_TRUE(balance.balanced());
                EXPECT_EQ(log.count(), 0u);
                const std::string what = std::to_string(s.w) + "x" + std::to_string(s.h) + " r=" + std::to_string(radius);
                if (radius < 1 && f.kind != Kind::Fast) { EXPECT_EQ(dst, src) << what; }
                EXPECT_TRUE(near(dst, reference(f, src, guide, s, radius), kFilterTolerance)) << what;
            }
}

// dst on the source, on the guidance, on both, and one thread: the out-of-place result.
TEST_P(GuidedFilterExport, InPlaceAndOneThreadEqualOutOfPlace) {
    const Export& f = GetParam();
    const Size s{157, 83};
    const std::vector<float> src = image(s, f.C, 15), guide = f.guided ? image(s, f.C, 16) : src;
    std::vector<float> out(src.size()), one(src.size()), onSrc = src, onGuide = guide, all = src;
    f.run(src.data(), guide.data(), out.data(), s.w, s.h, 4.0f);
    onOneThread([&] { f.run(src.data(), guide.data(), one.data(), s.w, s.h, 4.0f); });
    EXPECT_EQ(one, out);
    f.run(onSrc.data(), guide.data(), onSrc.data(), s.w, s.h, 4.0f);
    EXPECT_EQ(onSrc, out);
    if (!f.guided) return;
    f.run(src.data(), onGuide.data(), onGuide.data(), s.w, s.h, 4.0f);
    EXPECT_EQ(onGuide, out);
    f.run(all.data(), all.data(), all.data(), s.w, s.h, 4.0f);
    f.run(src.data(), src.data(), out.data(), s.w, s.h, 4.0f);
    EXPECT_EQ(all, out);
}

// ---------------------------------------------------------------- sizes and tiles

// Long rows (6000 wide, in 8 column bands), and planes of 32 MB and more, which are written
// with streaming stores. The output at a pixel reads the input within 2r, so the reference
// on rows widened by 2r (clamped to the image) is exact on those rows: whole rows (crossing
// every column band edge) at the top, inside and at the bottom are checked.
TEST(GuidedFilter, WideAndLargePlanesMatchReference) {
    for (const auto& [s, r] : {std::pair{Size{6000, 4}, 8ul}, {Size{3000, 2800}, 2ul}}) {  // 3000 x 2800: 33.6 MB
        const std::size_t m = 2 * r;
        const std::vector<float> src = image(s, 1, 33);
        std::vector<float> dst(src.size());
        MemoryBalance balance;
        grfx_guided_filter_gray(src.data(), dst.data(), s.w, s.h, r, kEps);
        EXPECT_TRUE(balance.balanced());
        for (const auto& [y0, y1] : {std::pair{0ul, 2ul}, {s.h / 3, s.h / 3 + 1}, {s.h / 2, s.h / 2 + 1}, {s.h - 1, s.h}}) {
            const std::size_t c0 = y0 < m ? 0 : y0 - m, c1 = std::min(y1 + m, s.h);
            const std::vector<float> p(src.begin() + c0 * s.w, src.begin() + c1 * s.w);
            const Plane want = reference(kExports[0], p, p, {s.w, c1 - c0}, r);
            const std::vector<float> got(dst.begin() + y0 * s.w, dst.begin() + y1 * s.w);
            EXPECT_TRUE(near(got, Plane(want.begin() + (y0 - c0) * s.w, want.begin() + (y1 - c0) * s.w), kFilterTolerance))
                << s.w << " wide, rows " << y0 << " to " << y1;
        }
    }
}

// Up to 2048 x 2048 = 4,194,304 pixels the tiled filter is the untiled one, bit for bit.
// 4097 x 1025 = 4,199,425 pixels runs as 3 x 1 tiles with borders of 2r: the outputs
// differ from the whole-image filter only by where the running sums start.
TEST(GuidedFilter, TiledEqualsUntiledUpToTheThreshold) {
    for (Size s : {Size{157, 83}, Size{2048, 2048}, Size{4097, 1025}}) {
        const std::vector<float> src = image(s, 3, 21), guide = s.w == 157 ? image(s, 3, 20) : src;
        std::vector<float> a(src.size()), b(src.size());
        MemoryBalance balance;
        grfx_weighted_guided_filter_rgb_tiled(src.data(), guide.data(), a.data(), s.w, s.h, 2.5f, kEpsWeighted, 0.001f);
        EXPECT_TRUE(balance.balanced());
        grfx_weighted_guided_filter_rgb(src.data(), guide.data(), b.data(), s.w, s.h, 2.5f, kEpsWeighted, 0.001f);
        EXPECT_TRUE(near(a, Plane(b.begin(), b.end()), s.w == 4097 ? kMeanTolerance : 0.0)) << s.w << "x" << s.h;
    }
}

// ---------------------------------------------------------------- the caller's box mean

TEST(GuidedFilter, CallsTheBoxFilterSixTimesAndAnEmptyOneThrows) {
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
        const auto fn = C == 1 ? grfx_guided_filter_gray_guided : grfx_guided_filter_rgb_guided;
        fn(src.data(), guide.data(), dst.data(), s.w, s.h, 3.7f, kEps, box);
        EXPECT_EQ(calls, std::vector<std::vector<int>>(6, {31, 9, 3})) << "C=" << C;
        MemoryBalance balance;
        EXPECT_THROW(fn(src.data(), guide.data(), dst.data(), s.w, s.h, 2, kEps, {}), std::bad_function_call);
        EXPECT_TRUE(balance.balanced());
    }
}

// ---------------------------------------------------------------- bad input and zero sizes

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
    const std::pair<std::function<void()>, std::string> cases[] = {
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
    for (const auto& [call, line] : cases) {
        LogCapture log;
        MemoryBalance balance;
        call();
        EXPECT_EQ(log.lines(), std::vector<std::string>{line});
        EXPECT_EQ(log.types(), std::vector<zorl::LogMessageType>{zorl::LogMessageType::Error});
        EXPECT_TRUE(balance.balanced());
        EXPECT_EQ(dst, std::vector<float>(src.size(), -1.0f)) << line;
    }
}

// Self-guided: nothing to write. With a guidance: width and height count as 1, and with
// one pixel in each of the four lanes the guidance's variance is 0 up to the rounding of
// 1/25, so a is about 0 and dst is mP, the source.
TEST(GuidedFilter, ZeroSizes) {
    const std::vector<float> src = {0.25f, 0.5f, 0.75f, 1.0f}, guide = {0.5f, 0.5f, 0.5f, 0.5f};
    std::vector<float> dst(4, -1.0f);
    grfx_guided_filter_argb(src.data(), dst.data(), 0, 3, 2, kEps);
    grfx_guided_filter_gray_fast(src.data(), dst.data(), 4, 0, 2, kEps);
    EXPECT_EQ(dst, std::vector<float>(4, -1.0f));
    grfx_guided_filter_argb_guided(src.data(), guide.data(), dst.data(), 0, 0, 2, kEps);
    for (int c = 0; c < 4; ++c) EXPECT_NEAR(dst[c], src[c], 1e-6) << c;
}

}  // namespace
