// Blend modes: the channel rules on values that tell their branches apart, the pixel
// rules against a double-precision reference, the loops against the per-pixel
// functions (weights, mask, region), the rejected inputs and the older RD_Blend_Pixel.
#include <imageprocessing/blending.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <iostream>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <zorl/core/color.h>

#include "support/test_support.h"

namespace zorl {
namespace {

using RGBf = PixelRGB<float>;
using ImageRGBf = _ImageData<RGBf>;
using ImageF = _ImageData<float>;
using B = BlendModeType;

constexpr B kAllModes[] = {B::Normal,  B::Multiply,   B::ColorBurn, B::Screen,   B::Overlay,  B::SoftLight, B::Darken,
                           B::HardLight, B::Lighten, B::Difference, B::Subtract, B::Luminosity, B::Hue, B::Color};

const char* const kSignature =
    "void __cdecl zorl::blendImages(const class std::shared_ptr<class zorl::_ImageData<struct zorl::PixelRGB<float> > "
    "const > &,const class std::shared_ptr<class zorl::_ImageData<struct zorl::PixelRGB<float> > const > &,class "
    "std::shared_ptr<class zorl::_ImageData<struct zorl::PixelRGB<float> > > &,const class std::shared_ptr<class "
    "zorl::_ImageData<float> const > &,float,enum zorl::BlendModeType,struct zorl::_Rect<int>)";

// Seeded noise in [lo, hi): RGB images in sRGB, masks without a profile.
template <class T>
std::shared_ptr<_ImageData<T>> noiseImage(int w, int h, uint32_t seed, float lo = 0.0f, float hi = 1.0f) {
    const auto profile = sizeof(T) == sizeof(float) ? ColorProfileType::None() : ColorProfileType::sRGB();
    auto img = std::make_shared<_ImageData<T>>(_Size<int>(w, h), profile);
    const auto v = test::noise(img->byteCount() / sizeof(float), seed, lo, hi);
    std::memcpy(img->data(), v.data(), img->byteCount());
    return img;
}

bool sameBits(const RGBf& x, const RGBf& y) { return std::memcmp(&x, &y, sizeof(RGBf)) == 0; }
std::array<double, 3> rgb(const RGBf& p) { return {p.r, p.g, p.b}; }
std::array<double, 3> clamped(const RGBf& p) { return {std::clamp(p.r, 0.f, 1.f), std::clamp(p.g, 0.f, 1.f), std::clamp(p.b, 0.f, 1.f)}; }

// ---------------------------------------------------------------------------------------
// Channel rules.

// Rows with tolerance 0 sit on a branch point: 0.1f was chosen so that 1 - (1 - 0.1f)
// differs from 0.1f in float, so the two branches give different bits.
TEST(BlendChannel, ValuesThatTellTheBranchesApart) {
    constexpr float kTol = 1e-6f;  // a few float roundings on values below 1
    struct Case { B mode; float a, b, expected, tol = kTol; };
    const Case cases[] = {
        {B::Normal, 0.6f, 0.4f, 0.6f}, {B::Multiply, 0.6f, 0.4f, 0.24f}, {B::Screen, 0.6f, 0.4f, 0.76f},
        // a == 0: no division; 1 - 0.6 / 0.5 < 0: floored; 1 - 0.4 / 0.8
        {B::ColorBurn, 0.0f, 0.4f, 0.0f}, {B::ColorBurn, 0.5f, 0.4f, 0.0f}, {B::ColorBurn, 0.8f, 0.6f, 0.5f},
        {B::ColorBurn, 1e-30f, 0.5f, 0.0f}, {B::ColorBurn, 1e-30f, 1.0f, 1.0f},  // only exact zero is not divided by
        {B::Overlay, 0.6f, 0.4f, 0.48f}, {B::Overlay, 0.4f, 0.6f, 0.52f},  // base below 0.5: 2ab, else 1 - 2(1-a)(1-b)
        {B::Overlay, 0.1f, 0.5f, 1.0f - 2.0f * (1.0f - 0.1f) * (1.0f - 0.5f), 0.0f},  // base 0.5: above
        {B::HardLight, 0.6f, 0.4f, 0.52f}, {B::HardLight, 0.4f, 0.6f, 0.48f},  // the blend value decides
        {B::HardLight, 0.5f, 0.1f, 1.0f - 2.0f * (1.0f - 0.5f) * (1.0f - 0.1f), 0.0f},
        {B::SoftLight, 0.4f, 0.25f, 0.2125f}, {B::SoftLight, 0.6f, 0.25f, 0.3f},  // b^2(1-2a) + 2ab, sqrt(b)(2a-1) + 2b(1-a)
        {B::SoftLight, 0.4999f, -0.25f, 0.0625f * (1.0f - 2.0f * 0.4999f) + 2.0f * 0.4999f * -0.25f, 0.0f},
        {B::SoftLight, 0.5f, -0.25f, NAN},     // a = 0.5 takes the square root
        {B::Darken, 0.6f, 0.4f, 0.4f}, {B::Lighten, 0.6f, 0.4f, 0.6f}, {B::Difference, 0.4f, 0.6f, 0.2f},
        {B::Difference, 0.6f, 0.4f, 0.2f},
        {B::Subtract, 0.4f, 0.6f, 0.2f}, {B::Subtract, 0.6f, 0.4f, 0.0f},  // base minus blend layer, floored at 0
        {B::Multiply, -0.5f, 3.0f, -1.5f}, {B::Screen, 2.0f, 2.0f, 0.0f},  // nothing is clamped
    };
    for (const Case& c : cases) {
        const BlendChannelFunction f = blendChannelFunction(c.mode);
        ASSERT_NE(f, nullptr);
        const float got = f(c.a, c.b);
        EXPECT_TRUE(std::isnan(c.expected) ? std::isnan(got) : std::abs(got - c.expected) <= c.tol)
            << "mode " << int(c.mode) << " a " << c.a << " b " << c.b << ": " << got;
    }
    for (B m : {B::Luminosity, B::Hue, B::Color, B(14)}) EXPECT_EQ(blendChannelFunction(m), nullptr);
}

// ---------------------------------------------------------------------------------------
// Pixel rules against a double-precision reference of the same rules.

double refChannel(BlendModeType m, double a, double b) {
    switch (m) {
        case B::Normal: return a;
        case B::Multiply: return a * b;
        case B::ColorBurn: return a == 0 ? 0 : std::max(0.0, 1 - (1 - b) / a);
        case B::Screen: return a + b - a * b;
        case B::Overlay: return b < 0.5 ? 2 * a * b : 1 - 2 * (1 - a) * (1 - b);
        case B::SoftLight: return a < 0.5 ? b * b * (1 - 2 * a) + 2 * a * b : std::sqrt(b) * (2 * a - 1) + 2 * b * (1 - a);
        case B::Darken: return std::min(a, b);
        case B::HardLight: return a < 0.5 ? 2 * a * b : 1 - 2 * (1 - a) * (1 - b);
        case B::Lighten: return std::max(a, b);
        case B::Difference: return std::abs(a - b);
        case B::Subtract: return std::max(0.0, b - a);
        default: return NAN;
    }
}

// The whole-pixel modes clamp both colours to 0..1 first. Luminosity and Color go
// through the core library's Rgb2Lab / Lab2Rgb (only their use is checked here). Hue is
// written without HSV sextants: a colour of value V and saturation S whose hue is the
// layer's has channels V - V S (1 - shape), shape = (c - min) / (max - min) of the layer.
RGBf refPixel(BlendModeType m, const RGBf& a, const RGBf& b, double alpha) {
    const std::array<double, 3> av = rgb(a), bv = rgb(b), ac = clamped(a), bc = clamped(b);
    std::array<double, 3> mv;
    if (m == B::Luminosity || m == B::Color) {
        float la[3], lb[3], o[3];
        Rgb2Lab(&la[0], &la[1], &la[2], float(ac[0]), float(ac[1]), float(ac[2]));
        Rgb2Lab(&lb[0], &lb[1], &lb[2], float(bc[0]), float(bc[1]), float(bc[2]));
        const bool lum = m == B::Luminosity;
        Lab2Rgb(&o[0], &o[1], &o[2], lum ? la[0] : lb[0], lum ? lb[1] : la[1], lum ? lb[2] : la[2]);
        mv = {o[0], o[1], o[2]};
    } else if (m == B::Hue) {
        const double mx = *std::max_element(ac.begin(), ac.end()), mn = *std::min_element(ac.begin(), ac.end());
        const double v = *std::max_element(bc.begin(), bc.end()), lo = *std::min_element(bc.begin(), bc.end());
        const double s = mx - mn < 0.0001 || v <= 0 ? 0 : (v - lo) / v;  // a grey layer has no hue
        for (int c = 0; c < 3; ++c) mv[c] = s == 0 ? v : v - v * s * (1 - (ac[c] - mn) / (mx - mn));
    } else {
        for (int c = 0; c < 3; ++c) mv[c] = refChannel(m, av[c], bv[c]);
    }
    return {float((1 - alpha) * bv[0] + alpha * mv[0]), float((1 - alpha) * bv[1] + alpha * mv[1]),
            float((1 - alpha) * bv[2] + alpha * mv[2])};
}

// Applies a pixel function through the exported per-pixel entry points (the whole-pixel
// ones get a null channel function).
void callPixel(B m, const RGBf& a, const RGBf& b, RGBf& out, float alpha) {
    const auto f = m == B::Luminosity ? &blendPixLuminosity
                   : m == B::Hue    ? &blendPixHue : m == B::Color ? &blendPixColor : &blendPix;
    f(a, b, out, alpha, blendChannelFunction(m));
}

// Seeded pixels, every pair of colours of a 6-step RGB grid at alpha 1, one pair outside
// 0..1 (the whole-pixel modes clamp both colours but mix the raw base) and grey and nearly
// grey layers for Hue. Blend values of 0 or from 0.05 keep ColorBurn's 1/a factor below
// 20; bases are at least 0 where a is 0.5 or more, so SoftLight's square root is defined.
// kTol covers float rounding of a few operations, magnified up to 20x by ColorBurn's
// division. kLabTol: a few float ulps of the loops' own Lab arithmetic,
// magnified by the encoding curve's slope near black, stay below one 16-bit output step.
TEST(BlendPixel, EveryModeMatchesTheDoubleReferenceAlsoInPlace) {
    constexpr double kTol = 5e-5, kLabTol = 1.0 / 65535;
    const auto la = test::noise(3 * 500, 1, 0.05f, 1.0f), lb = test::noise(3 * 500, 2), alphas = test::noise(500, 3);
    std::vector<std::tuple<RGBf, RGBf, float>> cases;
    for (int i = 0; i < 500; ++i)
        cases.push_back({{la[3 * i], la[3 * i + 1], la[3 * i + 2]}, {lb[3 * i], lb[3 * i + 1], lb[3 * i + 2]}, alphas[i]});
    auto gridColour = [](int i) { return RGBf{i / 36 / 5.0f, i / 6 % 6 / 5.0f, i % 6 / 5.0f}; };
    for (int i = 0; i < 216 * 216; ++i) cases.push_back({gridColour(i / 216), gridColour(i % 216), 1.0f});
    cases.push_back({{1.5f, -0.2f, 0.3f}, {1.4f, -0.3f, 0.6f}, 0.5f});  // clamped by the whole-pixel modes only
    cases.push_back({{0.3f, 0.3f, 0.30005f}, {0.2f, 0.7f, 0.4f}, 0.6f});  // Hue: chroma below 0.0001 is grey
    cases.push_back({{0.3f, 0.31f, 0.3f}, {0.2f, 0.7f, 0.4f}, 1.0f});     // and just above it has a hue
    for (BlendModeType m : kAllModes) {
        const double tol = m == B::Luminosity || m == B::Color ? kLabTol : kTol;
        for (const auto& [a, b, alpha] : cases) {
            RGBf out, x = a, y = b;
            callPixel(m, a, b, out, alpha);
            const RGBf ref = refPixel(m, a, b, alpha);
            const std::string what = "mode " + std::to_string(int(m)) + " case " + std::to_string(&a - &std::get<0>(cases[0]));
            for (int c = 0; c < 3; ++c) ASSERT_NEAR(rgb(out)[c], rgb(ref)[c], tol) << what;
            callPixel(m, x, y, y, alpha);  // out on the base, then on the blend layer
            callPixel(m, x, b, x, alpha);
            ASSERT_TRUE(sameBits(x, out) && sameBits(y, out)) << what;
        }
    }
}

// ---------------------------------------------------------------------------------------
// Images.

struct Scene { std::shared_ptr<ImageRGBf> layer, base; std::shared_ptr<ImageF> mask; };

Scene scene(int w, int h, uint32_t seed) {
    // Slightly outside 0..1 so that the unclamped paths are exercised.
    return {noiseImage<RGBf>(w, h, seed, -0.1f, 1.1f), noiseImage<RGBf>(w, h, seed + 1, -0.1f, 1.1f), noiseImage<float>(w, h, seed + 2)};
}

std::shared_ptr<ImageRGBf> runBlend(const Scene& s, bool masked, float opacity, BlendModeType mode,
                                    _Rect<int> roi = kNoRegion, std::shared_ptr<ImageRGBf> result = nullptr) {
    blendImages(s.layer, s.base, result, masked ? s.mask : nullptr, opacity, mode, roi);
    return result;
}

// Every pixel is the pixel function with alpha = mask x opacity (Normal: b + (a - b) alpha),
// also with the base as the result. Odd sizes exercise the four-pixel SSE2 blocks' tails.
TEST(BlendImages, EveryPixelIsThePixelFunctionWithMaskTimesOpacity) {
    test::MemoryBalance balance;
    for (const _Size<int> size : {_Size<int>(1, 1), _Size<int>(1, 7), _Size<int>(157, 83)}) {
        const Scene s = scene(size.width, size.height, 10);
        for (BlendModeType m : kAllModes)
            for (bool masked : {false, true}) {
                const auto out = runBlend(s, masked, 0.7f, m);
                ASSERT_TRUE(out);
                for (std::size_t i = 0; i < out->pixelCount(); ++i) {
                    const float alpha = masked ? s.mask->data()[i] * 0.7f : 0.7f;
                    const RGBf a = s.layer->data()[i], b = s.base->data()[i];
                    RGBf expected{b.r + (a.r - b.r) * alpha, b.g + (a.g - b.g) * alpha, b.b + (a.b - b.b) * alpha};
                    if (m != B::Normal) callPixel(m, a, b, expected, alpha);
                    ASSERT_TRUE(sameBits(out->data()[i], expected))
                        << "mode " << int(m) << " masked " << masked << " pixel " << i << " size " << size.width;
                }
                auto again = std::make_shared<ImageRGBf>(*s.base);
                blendImages(s.layer, again, again, masked ? s.mask : nullptr, 0.7f, m, kNoRegion);
                ASSERT_EQ(std::memcmp(again->data(), out->data(), out->byteCount()), 0) << "mode " << int(m);
            }
    }
    EXPECT_TRUE(balance.balanced());
}

TEST(BlendImages, OpacityZeroGivesTheBase) {
    // In 0..1 here: a negative base makes SoftLight's square root NaN, and 0 * NaN is NaN.
    Scene s{noiseImage<RGBf>(23, 9, 30), noiseImage<RGBf>(23, 9, 31), noiseImage<float>(23, 9, 32)};
    for (BlendModeType m : kAllModes)
        EXPECT_EQ(std::memcmp(runBlend(s, true, 0.0f, m)->data(), s.base->data(), s.base->byteCount()), 0) << int(m);
    RGBf nan;  // the mode's value is still weighed: 0 * NaN is NaN
    blendPix({0.7f, 0.7f, 0.7f}, {-0.2f, 0.5f, 0.5f}, nan, 0.0f, &blendChannelSoftLight);
    EXPECT_TRUE(std::isnan(nan.r) && nan.g == 0.5f) << nan.r << "," << nan.g;
}

// A region writes its pixels (clipped to the image) and leaves the others: a preset result
// keeps them, an empty one is made as a copy of the blend layer.
TEST(BlendImages, RegionWritesOnlyItsPixels) {
    const RGBf sentinel{-7.0f, -7.0f, -7.0f};
    const std::pair<_Rect<int>, _Rect<int>> cases[] = {  // region, the pixels written
        {kNoRegion, {0, 0, 9, 7}},      {{2, 1, 3, 4}, {2, 1, 3, 4}},  {{0, 6, 9, 1}, {0, 6, 9, 1}},
        {{3, 3, 4, 0}, {}},             {{3, 3, 0, 2}, {}},            {{7, 5, 5, 5}, {7, 5, 2, 2}},
        {{-2, -2, 4, 3}, {0, 0, 2, 1}}, {{20, 20, 3, 3}, {}},
    };
    const Scene s = scene(9, 7, 40);
    for (BlendModeType m : {B::Normal, B::Screen, B::Hue})
        for (bool masked : {false, true}) {
            const auto whole = runBlend(s, masked, 0.9f, m);
            for (const auto& [roi, written] : cases) {
                auto preset = std::make_shared<ImageRGBf>(s.layer->size(), sentinel, ColorProfileType::sRGB());
                runBlend(s, masked, 0.9f, m, roi, preset);
                const auto made = runBlend(s, masked, 0.9f, m, roi);
                ASSERT_TRUE(made);
                for (int y = 0; y < 7; ++y)
                    for (int x = 0; x < 9; ++x)
                        ASSERT_TRUE(sameBits(preset->at(x, y), written.contains(x, y) ? whole->at(x, y) : sentinel) &&
                                    sameBits(made->at(x, y), written.contains(x, y) ? whole->at(x, y) : s.layer->at(x, y)))
                            << "mode " << int(m) << " roi " << roi.x << "," << roi.y << "," << roi.width << "x"
                            << roi.height << " at " << x << "," << y;
            }
        }
}

// Above the serial threshold the whole image is split by pixel index and a region by rows;
// one mode of each loop kind.
TEST(BlendImages, OneThreadEqualsMany) {
    const Scene big = scene(411, 337, 90);
    for (BlendModeType m : {B::Normal, B::SoftLight, B::Hue, B::Color})
        for (const _Rect<int> roi : {kNoRegion, _Rect<int>{5, 3, 400, 330}}) {
            std::shared_ptr<ImageRGBf> one;
            test::onOneThread([&] { one = runBlend(big, true, 0.75f, m, roi); });
            const auto many = runBlend(big, true, 0.75f, m, roi);
            EXPECT_EQ(std::memcmp(one->data(), many->data(), one->byteCount()), 0) << "mode " << int(m);
        }
}

TEST(BlendImages, RejectedInputIsLoggedAndWritesNothing) {
    const Scene s = scene(6, 4, 70);
    struct Case {  // result: preset, or empty
        std::shared_ptr<const ImageRGBf> layer, base;
        std::shared_ptr<const ImageF> mask;
        std::shared_ptr<ImageRGBf> result;
        const char* message;
    };
    const Case cases[] = {
        {s.layer, noiseImage<RGBf>(4, 6, 71), nullptr, nullptr, "Images have different types"},
        {nullptr, s.base, nullptr, nullptr, "Images have different types"},
        {s.layer, s.base, noiseImage<float>(6, 5, 72), nullptr, "Mask has wrong size!"},
        {s.layer, s.base, s.mask, noiseImage<RGBf>(5, 4, 73), "Result Image has wrong type"},
    };
    for (const Case& c : cases) {
        test::MemoryBalance balance;
        test::LogCapture log;
        std::shared_ptr<ImageRGBf> result = c.result;
        blendImages(c.layer, c.base, result, c.mask, 0.5f, B::Multiply, kNoRegion);
        EXPECT_EQ(log.lines(), std::vector<std::string>{std::string(kSignature) + ": " + c.message});
        EXPECT_EQ(log.types(), std::vector<LogMessageType>{LogMessageType::Error});
        // An empty result stays empty; the preset one keeps its pixels.
        const bool kept = !result || std::memcmp(result->data(), noiseImage<RGBf>(5, 4, 73)->data(), result->byteCount()) == 0;
        EXPECT_TRUE(result == c.result && kept) << c.message;
        EXPECT_TRUE(balance.balanced()) << c.message;
    }
}

TEST(BlendImages, AnUnknownModeIsReportedOnStandardErrorAndWritesNothing) {
    const Scene s = scene(5, 3, 80);
    auto result = std::make_shared<ImageRGBf>(s.layer->size(), RGBf{9, 9, 9}, ColorProfileType::sRGB());
    test::LogCapture log;
    std::ostringstream captured;
    std::streambuf* previous = std::cerr.rdbuf(captured.rdbuf());
    runBlend(s, false, 1.0f, B(14), kNoRegion, result);
    std::cerr.rdbuf(previous);
    EXPECT_EQ(captured.str(),
              "void __cdecl zorl::blendLoop<struct zorl::PixelRGB<float>>(const struct zorl::PixelRGB<float> *,const "
              "struct zorl::PixelRGB<float> *,struct zorl::PixelRGB<float> *,const float *,float,enum "
              "zorl::BlendModeType,unsigned __int64,struct zorl::_Rect<int>,struct zorl::_Size<int>): Not implemented "
              "blending mode!\n");
    EXPECT_EQ(log.count(), 0u);
    for (std::size_t i = 0; i < result->pixelCount(); ++i) ASSERT_TRUE(sameBits(result->data()[i], RGBf{9, 9, 9}));
}

// ---------------------------------------------------------------------------------------
// RD_Blend_Pixel.

TEST(RDBlendPixel, EveryModeIncludingTheUnnamedValues) {
    const RGBf p{0.3f, 0.6f, 0.8f}, q{0.7f, 0.2f, 0.5f};
    const double amount = 0.8;
    const auto ref = [&](int mode, double pv, double qv) {
        double s;
        switch (mode) {
            case 0: return pv + (qv - pv) * amount / 2;
            case 1: s = qv < 0.5 ? pv * pv * (1 - 2 * qv) + 2 * pv * qv : std::sqrt(pv) * (2 * qv - 1) + 2 * pv * (1 - qv); break;
            case 3: s = pv < 0.5 ? 2 * pv * qv : 1 - 2 * (1 - pv) * (1 - qv); break;
            case 5: s = pv + qv - pv * qv; break;
            default: s = pv * qv; break;
        }
        return pv + (s - pv) * amount;
    };
    for (int mode : {0, 1, 2, 3, 4, 5, 6, 7, 100, -1})
        for (int c = 0; c < 3; ++c)
            EXPECT_NEAR(rgb(RD_Blend_Pixel(p, q, float(amount), RDBlendMode(mode)))[c], ref(mode, rgb(p)[c], rgb(q)[c]), 1e-6)
                << "mode " << mode;
    EXPECT_FLOAT_EQ(RD_Blend_Pixel(p, q, 1.0f, RDBlendMix).b, 0.65f);  // the mean at full amount
}

}  // namespace
}  // namespace zorl
