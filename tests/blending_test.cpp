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
#include <type_traits>
#include <vector>

#include <zorl/core/color.h>

#include "support/test_support.h"

namespace zorl {
namespace {

using RGBf = PixelRGB<float>;
using ImageRGBf = _ImageData<RGBf>;
using ImageF = _ImageData<float>;

constexpr BlendModeType kAllModes[] = {
    BlendModeType::Normal,  BlendModeType::Multiply,  BlendModeType::ColorBurn, BlendModeType::Screen,
    BlendModeType::Overlay, BlendModeType::SoftLight, BlendModeType::Darken,    BlendModeType::HardLight,
    BlendModeType::Lighten, BlendModeType::Difference, BlendModeType::Subtract, BlendModeType::Luminosity,
    BlendModeType::Hue,     BlendModeType::Color};

const char* const kSignature =
    "void __cdecl zorl::blendImages(const class std::shared_ptr<class zorl::_ImageData<struct zorl::PixelRGB<float> > "
    "const > &,const class std::shared_ptr<class zorl::_ImageData<struct zorl::PixelRGB<float> > const > &,class "
    "std::shared_ptr<class zorl::_ImageData<struct zorl::PixelRGB<float> > > &,const class std::shared_ptr<class "
    "zorl::_ImageData<float> const > &,float,enum zorl::BlendModeType,struct zorl::_Rect<int>)";

// Seeded noise in [lo, hi): RGB images in sRGB, masks without a profile.
template <class T>
std::shared_ptr<_ImageData<T>> noiseImage(int w, int h, uint32_t seed, float lo = 0.0f, float hi = 1.0f) {
    const auto profile = std::is_same_v<T, float> ? ColorProfileType::None() : ColorProfileType::sRGB();
    auto img = std::make_shared<_ImageData<T>>(_Size<int>(w, h), profile);
    const auto v = test::noise(img->byteCount() / sizeof(float), seed, lo, hi);
    std::memcpy(img->data(), v.data(), img->byteCount());
    return img;
}

bool sameBits(const RGBf& x, const RGBf& y) { return std::memcmp(&x, &y, sizeof(RGBf)) == 0; }

// ---------------------------------------------------------------------------------------
// Channel rules.

TEST(BlendChannel, ValuesThatTellTheBranchesApart) {
    struct Case {
        BlendModeType mode;
        float a, b, expected;
    };
    const Case cases[] = {
        {BlendModeType::Normal, 0.6f, 0.4f, 0.6f},
        {BlendModeType::Multiply, 0.6f, 0.4f, 0.24f},
        {BlendModeType::ColorBurn, 0.0f, 0.4f, 0.0f},    // a == 0: no division
        {BlendModeType::ColorBurn, 0.5f, 0.4f, 0.0f},    // 1 - 0.6 / 0.5 < 0: floored
        {BlendModeType::ColorBurn, 0.8f, 0.6f, 0.5f},    // 1 - 0.4 / 0.8
        {BlendModeType::Screen, 0.6f, 0.4f, 0.76f},
        {BlendModeType::Overlay, 0.6f, 0.4f, 0.48f},     // base below 0.5: 2ab
        {BlendModeType::Overlay, 0.4f, 0.6f, 0.52f},     // base above: 1 - 2(1-a)(1-b)
        {BlendModeType::HardLight, 0.6f, 0.4f, 0.52f},   // blend value above 0.5
        {BlendModeType::HardLight, 0.4f, 0.6f, 0.48f},   // blend value below
        {BlendModeType::SoftLight, 0.4f, 0.25f, 0.2125f},  // b^2(1-2a) + 2ab
        {BlendModeType::SoftLight, 0.6f, 0.25f, 0.3f},     // sqrt(b)(2a-1) + 2b(1-a)
        {BlendModeType::Darken, 0.6f, 0.4f, 0.4f},
        {BlendModeType::Lighten, 0.6f, 0.4f, 0.6f},
        {BlendModeType::Difference, 0.4f, 0.6f, 0.2f},
        {BlendModeType::Difference, 0.6f, 0.4f, 0.2f},
        {BlendModeType::Subtract, 0.4f, 0.6f, 0.2f},     // base minus blend layer
        {BlendModeType::Subtract, 0.6f, 0.4f, 0.0f},     // floored at 0
        {BlendModeType::Multiply, -0.5f, 3.0f, -1.5f},   // nothing is clamped
        {BlendModeType::Screen, 2.0f, 2.0f, 0.0f},
    };
    constexpr float kTol = 1e-6f;  // a few float roundings on values below 1
    for (const Case& c : cases) {
        const BlendChannelFunction f = blendChannelFunction(c.mode);
        ASSERT_NE(f, nullptr);
        EXPECT_NEAR(f(c.a, c.b), c.expected, kTol) << "mode " << int(c.mode) << " a " << c.a << " b " << c.b;
    }
    EXPECT_EQ(blendChannelFunction(BlendModeType::Luminosity), nullptr);
    EXPECT_EQ(blendChannelFunction(BlendModeType::Hue), nullptr);
    EXPECT_EQ(blendChannelFunction(BlendModeType::Color), nullptr);
    EXPECT_EQ(blendChannelFunction(BlendModeType(14)), nullptr);
}

TEST(BlendChannel, ExactlyHalfTakesTheSecondBranch) {
    // 0.1f was chosen so that 1 - (1 - 0.1f) differs from 0.1f in float: the two branches
    // give different bits, so the test sees which one ran.
    const float a = 0.1f;
    ASSERT_NE(1.0f - 2.0f * (1.0f - a) * 0.5f, 2.0f * a * 0.5f);
    EXPECT_EQ(blendChannelOverlay(a, 0.5f), 1.0f - 2.0f * (1.0f - a) * (1.0f - 0.5f));     // tests the base
    EXPECT_EQ(blendChannelHardLight(0.5f, a), 1.0f - 2.0f * (1.0f - 0.5f) * (1.0f - a));  // tests the blend value
    // SoftLight at a = 0.5: only the second branch takes a square root, which a negative
    // base turns into NaN.
    EXPECT_TRUE(std::isnan(blendChannelSoftLight(0.5f, -0.25f)));
    EXPECT_EQ(blendChannelSoftLight(0.4999f, -0.25f), 0.0625f * (1.0f - 2.0f * 0.4999f) + 2.0f * 0.4999f * -0.25f);
    // ColorBurn tests a for exact zero only: a tiny a still divides.
    EXPECT_EQ(blendChannelColorBurn(1e-30f, 0.5f), 0.0f);
    EXPECT_EQ(blendChannelColorBurn(1e-30f, 1.0f), 1.0f);
}

// ---------------------------------------------------------------------------------------
// Pixel rules against a double-precision reference of the same rules.

double refChannel(BlendModeType m, double a, double b) {
    switch (m) {
        case BlendModeType::Normal: return a;
        case BlendModeType::Multiply: return a * b;
        case BlendModeType::ColorBurn: return a == 0 ? 0 : std::max(0.0, 1 - (1 - b) / a);
        case BlendModeType::Screen: return a + b - a * b;
        case BlendModeType::Overlay: return b < 0.5 ? 2 * a * b : 1 - 2 * (1 - a) * (1 - b);
        case BlendModeType::SoftLight: return a < 0.5 ? b * b * (1 - 2 * a) + 2 * a * b : std::sqrt(b) * (2 * a - 1) + 2 * b * (1 - a);
        case BlendModeType::Darken: return std::min(a, b);
        case BlendModeType::HardLight: return a < 0.5 ? 2 * a * b : 1 - 2 * (1 - a) * (1 - b);
        case BlendModeType::Lighten: return std::max(a, b);
        case BlendModeType::Difference: return std::abs(a - b);
        case BlendModeType::Subtract: return std::max(0.0, b - a);
        default: return NAN;
    }
}

// The whole-pixel modes clamp both colours to 0..1 first. Luminosity and Color go
// through the core library's Rgb2Lab / Lab2Rgb (only their use is checked here). Hue is
// written without HSV sextants: a colour of value V and saturation S whose hue is the
// layer's has channels V - V S (1 - shape), shape = (c - min) / (max - min) of the layer.
RGBf refPixel(BlendModeType m, const RGBf& a, const RGBf& b, double alpha) {
    auto clamped = [](const RGBf& p) { return std::array<double, 3>{std::clamp<double>(p.r, 0, 1), std::clamp<double>(p.g, 0, 1), std::clamp<double>(p.b, 0, 1)}; };
    const std::array<double, 3> av = {a.r, a.g, a.b}, bv = {b.r, b.g, b.b}, ac = clamped(a), bc = clamped(b);
    std::array<double, 3> mv;
    if (m == BlendModeType::Luminosity || m == BlendModeType::Color) {
        float la[3], lb[3], o[3];
        Rgb2Lab(&la[0], &la[1], &la[2], float(ac[0]), float(ac[1]), float(ac[2]));
        Rgb2Lab(&lb[0], &lb[1], &lb[2], float(bc[0]), float(bc[1]), float(bc[2]));
        const bool lum = m == BlendModeType::Luminosity;
        Lab2Rgb(&o[0], &o[1], &o[2], lum ? la[0] : lb[0], lum ? lb[1] : la[1], lum ? lb[2] : la[2]);
        mv = {o[0], o[1], o[2]};
    } else if (m == BlendModeType::Hue) {
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

// Applies a pixel function through the exported per-pixel entry points.
void callPixel(BlendModeType m, const RGBf& a, const RGBf& b, RGBf& out, float alpha) {
    switch (m) {
        case BlendModeType::Luminosity: blendPixLuminosity(a, b, out, alpha, nullptr); break;
        case BlendModeType::Hue: blendPixHue(a, b, out, alpha, nullptr); break;
        case BlendModeType::Color: blendPixColor(a, b, out, alpha, nullptr); break;
        default: blendPix(a, b, out, alpha, blendChannelFunction(m)); break;
    }
}

// Seeded pixels, and every pair of colours of a 6-step RGB grid at alpha 1. Blend values
// of 0 or from 0.05 keep ColorBurn's 1/a factor below 20; bases are in 0..1 so SoftLight's
// square root is defined. kTol covers float rounding of a few operations, magnified up to
// 20x by ColorBurn's division. kLabTol: a few float ulps of the loops' own Lab arithmetic,
// magnified by the encoding curve's slope near black, stay below one 16-bit output step.
TEST(BlendPixel, EveryModeMatchesTheDoubleReferenceAlsoInPlace) {
    constexpr double kTol = 5e-5, kLabTol = 1.0 / 65535;
    const auto la = test::noise(3 * 500, 1, 0.05f, 1.0f), lb = test::noise(3 * 500, 2, 0.0f, 1.0f);
    const auto alphas = test::noise(500, 3, 0.0f, 1.0f);
    std::vector<std::tuple<RGBf, RGBf, float>> cases;
    for (int i = 0; i < 500; ++i)
        cases.push_back({{la[3 * i], la[3 * i + 1], la[3 * i + 2]}, {lb[3 * i], lb[3 * i + 1], lb[3 * i + 2]}, alphas[i]});
    auto gridColour = [](int i) { return RGBf{i / 36 / 5.0f, i / 6 % 6 / 5.0f, i % 6 / 5.0f}; };
    for (int i = 0; i < 216 * 216; ++i) cases.push_back({gridColour(i / 216), gridColour(i % 216), 1.0f});
    for (BlendModeType m : kAllModes) {
        const double tol = m == BlendModeType::Luminosity || m == BlendModeType::Color ? kLabTol : kTol;
        for (const auto& [a, b, alpha] : cases) {
            RGBf out, x = a, y = b;
            callPixel(m, a, b, out, alpha);
            const RGBf ref = refPixel(m, a, b, alpha);
            const std::string what = "mode " + std::to_string(int(m)) + " case " + std::to_string(&a - &std::get<0>(cases[0]));
            ASSERT_NEAR(out.r, ref.r, tol) << what;
            ASSERT_NEAR(out.g, ref.g, tol) << what;
            ASSERT_NEAR(out.b, ref.b, tol) << what;
            callPixel(m, x, y, y, alpha);  // out on the base, then on the blend layer
            callPixel(m, x, b, x, alpha);
            ASSERT_TRUE(sameBits(x, out) && sameBits(y, out)) << what;
        }
    }
}

TEST(BlendPixel, WholePixelModesClampTheirInputsButMixTheRawBase) {
    const RGBf a{1.5f, -0.2f, 0.3f}, b{-0.5f, 0.4f, 2.0f};
    for (BlendModeType m : {BlendModeType::Luminosity, BlendModeType::Hue, BlendModeType::Color}) {
        RGBf full, clamped, half;
        callPixel(m, a, b, full, 1.0f);
        callPixel(m, {1.0f, 0.0f, 0.3f}, {0.0f, 0.4f, 1.0f}, clamped, 1.0f);
        EXPECT_TRUE(sameBits(full, clamped)) << "mode " << int(m);  // alpha 1: only the converted colour
        callPixel(m, a, b, half, 0.5f);
        EXPECT_FLOAT_EQ(half.r, 0.5f * b.r + 0.5f * full.r) << "mode " << int(m);  // raw base, not clamped
        EXPECT_FLOAT_EQ(half.b, 0.5f * b.b + 0.5f * full.b) << "mode " << int(m);
    }
}

TEST(BlendPixel, HueOfAGreyLayerKeepsTheBaseValueOnly) {
    const RGBf base{0.2f, 0.7f, 0.4f};
    RGBf out;
    blendPixHue({0.3f, 0.3f, 0.30005f}, base, out, 0.6f, nullptr);  // chroma below 0.0001
    EXPECT_FLOAT_EQ(out.r, 0.4f * 0.2f + 0.6f * 0.7f);
    EXPECT_FLOAT_EQ(out.g, 0.4f * 0.7f + 0.6f * 0.7f);
    EXPECT_FLOAT_EQ(out.b, 0.4f * 0.4f + 0.6f * 0.7f);
    // A layer just above the threshold has a hue: pure green's hue on the base.
    blendPixHue({0.3f, 0.31f, 0.3f}, base, out, 1.0f, nullptr);
    EXPECT_FLOAT_EQ(out.g, 0.7f);
    EXPECT_FLOAT_EQ(out.r, out.b);
}

// ---------------------------------------------------------------------------------------
// Images.

struct Scene {
    std::shared_ptr<ImageRGBf> layer, base;
    std::shared_ptr<ImageF> mask;
};

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
// on one thread as on many, and with the base as the result. Odd sizes exercise the
// four-pixel SSE2 blocks' tails; 400 x 330 is above the serial threshold (for one mode of
// each loop kind only, to keep the suite fast).
TEST(BlendImages, EveryPixelIsThePixelFunctionWithMaskTimesOpacity) {
    for (const _Size<int> size : {_Size<int>(1, 1), _Size<int>(1, 7), _Size<int>(157, 83), _Size<int>(400, 330)}) {
        const Scene s = scene(size.width, size.height, 10);
        const bool large = size.width == 400;
        for (BlendModeType m : kAllModes) {
            if (large && m != BlendModeType::Normal && m != BlendModeType::Overlay && m != BlendModeType::Hue &&
                m != BlendModeType::Color)
                continue;
            for (bool masked : {false, true}) {
                test::MemoryBalance balance;
                {
                    const auto out = runBlend(s, masked, 0.7f, m);
                    ASSERT_TRUE(out);
                    for (std::size_t i = 0; i < out->pixelCount(); ++i) {
                        const float alpha = masked ? s.mask->data()[i] * 0.7f : 0.7f;
                        const RGBf a = s.layer->data()[i], b = s.base->data()[i];
                        RGBf expected{b.r + (a.r - b.r) * alpha, b.g + (a.g - b.g) * alpha, b.b + (a.b - b.b) * alpha};
                        if (m != BlendModeType::Normal) callPixel(m, a, b, expected, alpha);
                        ASSERT_TRUE(sameBits(out->data()[i], expected))
                            << "mode " << int(m) << " masked " << masked << " pixel " << i << " size " << size.width;
                    }
                    // The same on one thread (large) and with the base as the result (small).
                    auto again = std::make_shared<ImageRGBf>(*s.base);
                    if (large)
                        test::onOneThread([&] { again = runBlend(s, masked, 0.7f, m); });
                    else
                        blendImages(s.layer, again, again, masked ? s.mask : nullptr, 0.7f, m, kNoRegion);
                    ASSERT_EQ(std::memcmp(again->data(), out->data(), out->byteCount()), 0) << "mode " << int(m);
                }
                EXPECT_TRUE(balance.balanced());
            }
        }
    }
}

TEST(BlendImages, OpacityZeroGivesTheBaseAndMaskWeightsMultiply) {
    // In 0..1 here: a negative base makes SoftLight's square root NaN, and 0 * NaN is NaN.
    Scene s{noiseImage<RGBf>(23, 9, 30), noiseImage<RGBf>(23, 9, 31), noiseImage<float>(23, 9, 32)};
    for (BlendModeType m : kAllModes) {
        const auto out = runBlend(s, true, 0.0f, m);
        for (std::size_t i = 0; i < out->pixelCount(); ++i)
            ASSERT_TRUE(sameBits(out->data()[i], s.base->data()[i])) << "mode " << int(m) << " pixel " << i;
    }
    RGBf nan;  // the mode's value is still weighed: 0 * NaN is NaN
    blendPix({0.7f, 0.7f, 0.7f}, {-0.2f, 0.5f, 0.5f}, nan, 0.0f, &blendChannelSoftLight);
    EXPECT_TRUE(std::isnan(nan.r));
    EXPECT_EQ(nan.g, 0.5f);
    // Mask 0 keeps the base; mask 0.5 with opacity 0.5 is a quarter of the way.
    s.mask = std::make_shared<ImageF>(s.layer->size(), 0.5f, ColorProfileType::None());
    s.mask->data()[0] = 0.0f;
    const auto out = runBlend(s, true, 0.5f, BlendModeType::Normal);
    EXPECT_TRUE(sameBits(out->data()[0], s.base->data()[0]));
    for (std::size_t i = 1; i < out->pixelCount(); ++i) {
        const RGBf a = s.layer->data()[i], b = s.base->data()[i];
        ASSERT_FLOAT_EQ(out->data()[i].g, b.g + (a.g - b.g) * 0.25f);
    }
}

// A region writes its pixels (clipped to the image) and leaves the others: a preset result
// keeps them, an empty one is made as a copy of the blend layer. On one thread as on many.
TEST(BlendImages, RegionWritesOnlyItsPixels) {
    const RGBf sentinel{-7.0f, -7.0f, -7.0f};
    const std::pair<_Rect<int>, _Rect<int>> cases[] = {  // region, the pixels written
        {kNoRegion, {0, 0, 9, 7}},      {{2, 1, 3, 4}, {2, 1, 3, 4}},  {{0, 6, 9, 1}, {0, 6, 9, 1}},
        {{3, 3, 4, 0}, {}},             {{3, 3, 0, 2}, {}},            {{7, 5, 5, 5}, {7, 5, 2, 2}},
        {{-2, -2, 4, 3}, {0, 0, 2, 1}}, {{20, 20, 3, 3}, {}},
    };
    const Scene s = scene(9, 7, 40);
    for (BlendModeType m : {BlendModeType::Normal, BlendModeType::Screen, BlendModeType::Hue}) {
        for (bool masked : {false, true}) {
            const auto whole = runBlend(s, masked, 0.9f, m);
            for (const auto& [roi, written] : cases) {
                auto preset = std::make_shared<ImageRGBf>(s.layer->size(), sentinel, ColorProfileType::sRGB());
                runBlend(s, masked, 0.9f, m, roi, preset);
                const auto made = runBlend(s, masked, 0.9f, m, roi);
                ASSERT_TRUE(made);
                for (int y = 0; y < 7; ++y)
                    for (int x = 0; x < 9; ++x) {
                        const bool in = written.contains(x, y);
                        ASSERT_TRUE(sameBits(preset->at(x, y), in ? whole->at(x, y) : sentinel) &&
                                    sameBits(made->at(x, y), in ? whole->at(x, y) : s.layer->at(x, y)))
                            << "mode " << int(m) << " roi " << roi.x << "," << roi.y << "," << roi.width << ","
                            << roi.height << " at " << x << "," << y;
                    }
            }
        }
    }
    const Scene big = scene(411, 337, 90);  // above the serial threshold: the loops split
    const _Rect<int> roi{5, 3, 400, 330};
    std::shared_ptr<ImageRGBf> one;
    test::onOneThread([&] { one = runBlend(big, true, 0.75f, BlendModeType::SoftLight, roi); });
    const auto many = runBlend(big, true, 0.75f, BlendModeType::SoftLight, roi);
    EXPECT_EQ(std::memcmp(one->data(), many->data(), one->byteCount()), 0);
}

TEST(BlendImages, RejectedInputIsLoggedAndWritesNothing) {
    const Scene s = scene(6, 4, 70);
    const auto other = noiseImage<RGBf>(4, 6, 71);
    const auto wrongMask = noiseImage<float>(6, 5, 72);
    struct Case {
        const char* name;
        std::shared_ptr<const ImageRGBf> layer, base;
        std::shared_ptr<const ImageF> mask;
        std::shared_ptr<ImageRGBf> result;  // preset, or empty
        const char* message;
    };
    const Case cases[] = {
        {"sizes differ", s.layer, other, nullptr, nullptr, "Images have different types"},
        {"no layer", nullptr, s.base, nullptr, nullptr, "Images have different types"},
        {"mask size", s.layer, s.base, wrongMask, nullptr, "Mask has wrong size!"},
        {"result size", s.layer, s.base, s.mask, noiseImage<RGBf>(5, 4, 73), "Result Image has wrong type"},
    };
    for (const Case& c : cases) {
        test::MemoryBalance balance;
        {
            test::LogCapture log;
            std::shared_ptr<ImageRGBf> result = c.result;
            const RGBf before = result ? result->data()[0] : RGBf{};
            blendImages(c.layer, c.base, result, c.mask, 0.5f, BlendModeType::Multiply, kNoRegion);
            ASSERT_EQ(log.count(), 1u) << c.name;
            EXPECT_EQ(log.lines()[0], std::string(kSignature) + ": " + c.message) << c.name;
            EXPECT_EQ(log.types()[0], LogMessageType::Error);
            if (c.result)
                EXPECT_TRUE(sameBits(result->data()[0], before)) << c.name;
            else
                EXPECT_FALSE(result) << c.name;  // an empty result stays empty
        }
        EXPECT_TRUE(balance.balanced()) << c.name;
    }
}

TEST(BlendImages, AnUnknownModeIsReportedOnStandardErrorAndWritesNothing) {
    const Scene s = scene(5, 3, 80);
    auto result = std::make_shared<ImageRGBf>(s.layer->size(), RGBf{9, 9, 9}, ColorProfileType::sRGB());
    test::LogCapture log;
    std::ostringstream captured;
    std::streambuf* previous = std::cerr.rdbuf(captured.rdbuf());
    std::shared_ptr<const ImageF> noMask;
    blendImages(s.layer, s.base, result, noMask, 1.0f, BlendModeType(14), kNoRegion);
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
    for (int mode : {0, 1, 2, 3, 4, 5, 6, 7, 100, -1}) {
        const RGBf out = RD_Blend_Pixel(p, q, float(amount), RDBlendMode(mode));
        EXPECT_NEAR(out.r, ref(mode, p.r, q.r), 1e-6) << "mode " << mode;
        EXPECT_NEAR(out.g, ref(mode, p.g, q.g), 1e-6) << "mode " << mode;
        EXPECT_NEAR(out.b, ref(mode, p.b, q.b), 1e-6) << "mode " << mode;
    }
    const RGBf mean = RD_Blend_Pixel(p, q, 1.0f, RDBlendMix);
    EXPECT_FLOAT_EQ(mean.r, 0.5f);
    EXPECT_FLOAT_EQ(mean.g, 0.4f);
    EXPECT_FLOAT_EQ(mean.b, 0.65f);
    EXPECT_FLOAT_EQ(RD_Blend_Pixel(p, q, 1.0f, RDBlendMode(2)).r, 0.21f);
    EXPECT_FLOAT_EQ(RD_Blend_Pixel(p, q, 1.0f, RDBlendMode(4)).g, 0.12f);
}

}  // namespace
}  // namespace zorl
