// Blend modes: the channel rules on values that tell their branches apart, the pixel
// rules against a double-precision reference, the loops against the per-pixel
// functions (weights, mask, region), the rejected inputs and the older RD_Blend_Pixel.
#include <imageprocessing/blending.h>

#include <cmath>
#include <cstring>
#include <iostream>
#include <sstream>
#include <thread>

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

std::shared_ptr<ImageRGBf> noiseRGB(int w, int h, uint32_t seed, float lo = 0.0f, float hi = 1.0f) {
    auto img = std::make_shared<ImageRGBf>(_Size<int>(w, h), ColorProfileType::sRGB());
    const auto v = test::noise(std::size_t(w) * h * 3, seed, lo, hi);
    std::memcpy(img->data(), v.data(), img->byteCount());
    return img;
}

std::shared_ptr<ImageF> noiseMask(int w, int h, uint32_t seed) {
    auto img = std::make_shared<ImageF>(_Size<int>(w, h), ColorProfileType::None());
    const auto v = test::noise(std::size_t(w) * h, seed);
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
    const float second = 1.0f - 2.0f * (1.0f - a) * (1.0f - 0.5f);
    ASSERT_NE(second, 2.0f * a * 0.5f);
    EXPECT_EQ(blendChannelOverlay(a, 0.5f), second);    // tests the base
    EXPECT_EQ(blendChannelHardLight(0.5f, a), 1.0f - 2.0f * (1.0f - 0.5f) * (1.0f - a));  // tests the blend value
    ASSERT_NE(blendChannelHardLight(0.5f, a), 2.0f * 0.5f * a);
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

double clamp01(double v) { return std::min(1.0, std::max(0.0, v)); }

// Hue of the reference: the sextant HSV conversion written out in double.
void refHsv(double r, double g, double b, double& h, double& s, double& v) {
    const double mx = std::max({r, g, b}), mn = std::min({r, g, b}), d = mx - mn;
    v = mx;
    if (d <= 0) {
        h = s = 0;
        return;
    }
    if (r == mx)
        h = (g - b) / d + ((g - b) / d < 0 ? 6 : 0);
    else if (g == mx)
        h = (b - r) / d + 2;
    else
        h = (r - g) / d + 4;
    s = d / mx;
}

void refHueRgb(double h, double s, double v, double out[3]) {
    if (s <= 0) {
        out[0] = out[1] = out[2] = v;
        return;
    }
    const int i = int(h) % 6;
    const double f = h - int(h), p = v * (1 - s), q = v * (1 - s * f), t = v * (1 - s * (1 - f));
    const double table[6][3] = {{v, t, p}, {q, v, p}, {p, v, t}, {p, q, v}, {t, p, v}, {v, p, q}};
    for (int c = 0; c < 3; ++c) out[c] = table[i][c];
}

RGBf refPixel(BlendModeType m, const RGBf& a, const RGBf& b, double alpha) {
    const double av[3] = {a.r, a.g, a.b}, bv[3] = {b.r, b.g, b.b};
    double mv[3];
    if (m == BlendModeType::Luminosity || m == BlendModeType::Color) {
        // The Lab conversion itself is the core library's; only its use is checked here.
        float la[3], lb[3];
        Rgb2Lab(&la[0], &la[1], &la[2], float(clamp01(av[0])), float(clamp01(av[1])), float(clamp01(av[2])));
        Rgb2Lab(&lb[0], &lb[1], &lb[2], float(clamp01(bv[0])), float(clamp01(bv[1])), float(clamp01(bv[2])));
        float o[3];
        if (m == BlendModeType::Luminosity)
            Lab2Rgb(&o[0], &o[1], &o[2], la[0], lb[1], lb[2]);
        else
            Lab2Rgb(&o[0], &o[1], &o[2], lb[0], la[1], la[2]);
        for (int c = 0; c < 3; ++c) mv[c] = o[c];
    } else if (m == BlendModeType::Hue) {
        double h, s, v, hb, sb, vb;
        refHsv(clamp01(av[0]), clamp01(av[1]), clamp01(av[2]), h, s, v);
        const double chroma = std::max({clamp01(av[0]), clamp01(av[1]), clamp01(av[2])}) -
                              std::min({clamp01(av[0]), clamp01(av[1]), clamp01(av[2])});
        refHsv(clamp01(bv[0]), clamp01(bv[1]), clamp01(bv[2]), hb, sb, vb);
        refHueRgb(h, chroma < 0.0001 ? 0 : sb, vb, mv);
    } else {
        for (int c = 0; c < 3; ++c) mv[c] = refChannel(m, av[c], bv[c]);
    }
    double o[3];
    for (int c = 0; c < 3; ++c) o[c] = (1 - alpha) * bv[c] + alpha * mv[c];
    return {float(o[0]), float(o[1]), float(o[2])};
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

TEST(BlendPixel, EveryModeMatchesTheDoubleReference) {
    // Blend values from 0.05 keep ColorBurn's 1/a factor below 20; bases are in 0..1 so
    // SoftLight's square root is defined. The tolerance covers float rounding of a few
    // operations, magnified up to 20x by ColorBurn's division.
    constexpr double kTol = 5e-5;
    const auto la = test::noise(3 * 500, 1, 0.05f, 1.0f), lb = test::noise(3 * 500, 2, 0.0f, 1.0f);
    const auto alphas = test::noise(500, 3, 0.0f, 1.0f);
    for (BlendModeType m : kAllModes) {
        for (int i = 0; i < 500; ++i) {
            const RGBf a{la[3 * i], la[3 * i + 1], la[3 * i + 2]}, b{lb[3 * i], lb[3 * i + 1], lb[3 * i + 2]};
            RGBf out;
            callPixel(m, a, b, out, alphas[i]);
            const RGBf ref = refPixel(m, a, b, alphas[i]);
            ASSERT_NEAR(out.r, ref.r, kTol) << "mode " << int(m) << " pixel " << i;
            ASSERT_NEAR(out.g, ref.g, kTol) << "mode " << int(m) << " pixel " << i;
            ASSERT_NEAR(out.b, ref.b, kTol) << "mode " << int(m) << " pixel " << i;
        }
    }
}

TEST(BlendPixel, LabModesFollowTheCoreConversionsClosely) {
    // Every pair of colours of a 6-step RGB grid, both ways round, alpha 1: the loops'
    // own Lab arithmetic against the core library's Rgb2Lab / Lab2Rgb. A few float ulps
    // of the cube roots and powers, magnified by the encoding curve's slope near black,
    // must stay below one 16-bit output step.
    constexpr double kTol = 1.0 / 65535;
    double worst = 0;
    std::vector<RGBf> grid;
    for (int r = 0; r < 6; ++r)
        for (int g = 0; g < 6; ++g)
            for (int b = 0; b < 6; ++b) grid.push_back({r / 5.0f, g / 5.0f, b / 5.0f});
    for (BlendModeType m : {BlendModeType::Luminosity, BlendModeType::Color})
        for (const RGBf& a : grid)
            for (const RGBf& b : grid) {
                RGBf out;
                callPixel(m, a, b, out, 1.0f);
                const RGBf ref = refPixel(m, a, b, 1.0);
                worst = std::max({worst, std::abs(double(out.r) - ref.r), std::abs(double(out.g) - ref.g),
                                  std::abs(double(out.b) - ref.b)});
            }
    EXPECT_LT(worst, kTol);
}

TEST(BlendPixel, WholePixelModesClampTheirInputsButMixTheRawBase) {
    const RGBf a{1.5f, -0.2f, 0.3f}, b{-0.5f, 0.4f, 2.0f};
    const RGBf aClamped{1.0f, 0.0f, 0.3f}, bClamped{0.0f, 0.4f, 1.0f};
    for (BlendModeType m : {BlendModeType::Luminosity, BlendModeType::Hue, BlendModeType::Color}) {
        RGBf full, clamped;
        callPixel(m, a, b, full, 1.0f);
        callPixel(m, aClamped, bClamped, clamped, 1.0f);
        EXPECT_TRUE(sameBits(full, clamped)) << "mode " << int(m);  // alpha 1: only the converted colour
        RGBf half;
        callPixel(m, a, b, half, 0.5f);
        EXPECT_FLOAT_EQ(half.r, 0.5f * b.r + 0.5f * full.r) << "mode " << int(m);  // raw base, not clamped
        EXPECT_FLOAT_EQ(half.b, 0.5f * b.b + 0.5f * full.b) << "mode " << int(m);
    }
}

TEST(BlendPixel, HueOfAGreyLayerKeepsTheBaseValueOnly) {
    const RGBf grey{0.3f, 0.3f, 0.30005f};  // chroma below 0.0001
    const RGBf base{0.2f, 0.7f, 0.4f};
    RGBf out;
    blendPixHue(grey, base, out, 0.6f, nullptr);
    EXPECT_FLOAT_EQ(out.r, 0.4f * 0.2f + 0.6f * 0.7f);
    EXPECT_FLOAT_EQ(out.g, 0.4f * 0.7f + 0.6f * 0.7f);
    EXPECT_FLOAT_EQ(out.b, 0.4f * 0.4f + 0.6f * 0.7f);
    // A layer just above the threshold has a hue: pure green's hue on the base.
    blendPixHue({0.3f, 0.31f, 0.3f}, base, out, 1.0f, nullptr);
    EXPECT_FLOAT_EQ(out.g, 0.7f);
    EXPECT_FLOAT_EQ(out.r, out.b);
}

TEST(BlendPixel, OutMayAliasAnInput) {
    const RGBf a{0.9f, 0.2f, 0.6f}, b{0.3f, 0.8f, 0.1f};
    for (BlendModeType m : kAllModes) {
        RGBf expected, x = a, y = b;
        callPixel(m, a, b, expected, 0.7f);
        callPixel(m, x, y, y, 0.7f);
        callPixel(m, x, b, x, 0.7f);
        EXPECT_TRUE(sameBits(x, expected)) << "mode " << int(m);
        EXPECT_TRUE(sameBits(y, expected)) << "mode " << int(m);
    }
}

// ---------------------------------------------------------------------------------------
// Images.

struct Scene {
    std::shared_ptr<ImageRGBf> layer, base;
    std::shared_ptr<ImageF> mask;
};

Scene scene(int w, int h, uint32_t seed) {
    // Slightly outside 0..1 so that the unclamped paths are exercised.
    return {noiseRGB(w, h, seed, -0.1f, 1.1f), noiseRGB(w, h, seed + 1, -0.1f, 1.1f), noiseMask(w, h, seed + 2)};
}

std::shared_ptr<ImageRGBf> runBlend(const Scene& s, bool masked, float opacity, BlendModeType mode,
                                    _Rect<int> roi = kNoRegion, std::shared_ptr<ImageRGBf> result = nullptr) {
    std::shared_ptr<const ImageF> mask;
    if (masked) mask = s.mask;
    blendImages(s.layer, s.base, result, mask, opacity, mode, roi);
    return result;
}

TEST(BlendImages, EveryPixelIsThePixelFunctionWithMaskTimesOpacity) {
    // Odd sizes exercise the four-pixel SSE2 blocks' tails; 400 x 330 is large enough to
    // run in parallel.
    // (the large size for one mode of each loop kind only, to keep the suite fast).
    for (const _Size<int> size : {_Size<int>(1, 1), _Size<int>(1, 7), _Size<int>(157, 83), _Size<int>(400, 330)}) {
        const Scene s = scene(size.width, size.height, 10);
        for (BlendModeType m : kAllModes) {
            if (size.width == 400 && m != BlendModeType::Normal && m != BlendModeType::Overlay &&
                m != BlendModeType::Color && m != BlendModeType::Hue)
                continue;
            for (bool masked : {false, true}) {
                test::MemoryBalance balance;
                {
                    const auto out = runBlend(s, masked, 0.7f, m);
                    ASSERT_TRUE(out);
                    for (std::size_t i = 0; i < out->pixelCount(); ++i) {
                        const float alpha = masked ? s.mask->data()[i] * 0.7f : 0.7f;
                        RGBf expected;
                        if (m == BlendModeType::Normal) {
                            const RGBf a = s.layer->data()[i], b = s.base->data()[i];
                            expected = {b.r + (a.r - b.r) * alpha, b.g + (a.g - b.g) * alpha, b.b + (a.b - b.b) * alpha};
                        } else {
                            callPixel(m, s.layer->data()[i], s.base->data()[i], expected, alpha);
                        }
                        ASSERT_TRUE(sameBits(out->data()[i], expected))
                            << "mode " << int(m) << " masked " << masked << " pixel " << i << " size " << size.width;
                    }
                }
                EXPECT_TRUE(balance.balanced());
            }
        }
    }
}

TEST(BlendImages, NormalMatchesTheOtherLoopsFormulaWithinRounding) {
    // b + (a - b) alpha and (1 - alpha) b + alpha a are the same blend written two ways.
    const Scene s = scene(37, 11, 20);
    const auto out = runBlend(s, true, 0.8f, BlendModeType::Normal);
    for (std::size_t i = 0; i < out->pixelCount(); ++i) {
        RGBf viaPix;
        blendPix(s.layer->data()[i], s.base->data()[i], viaPix, s.mask->data()[i] * 0.8f, &blendChannelNormal);
        EXPECT_NEAR(out->data()[i].r, viaPix.r, 1e-6f);
        EXPECT_NEAR(out->data()[i].b, viaPix.b, 1e-6f);
    }
}

TEST(BlendImages, OpacityZeroGivesTheBaseAndMaskWeightsMultiply) {
    // In 0..1 here: a negative base makes SoftLight's square root NaN, and 0 * NaN is NaN.
    const Scene s{noiseRGB(23, 9, 30), noiseRGB(23, 9, 31), noiseMask(23, 9, 32)};
    for (BlendModeType m : kAllModes) {
        const auto out = runBlend(s, true, 0.0f, m);
        for (std::size_t i = 0; i < out->pixelCount(); ++i)
            ASSERT_TRUE(sameBits(out->data()[i], s.base->data()[i])) << "mode " << int(m) << " pixel " << i;
    }
    RGBf nan;
    blendPix({0.7f, 0.7f, 0.7f}, {-0.2f, 0.5f, 0.5f}, nan, 0.0f, &blendChannelSoftLight);
    EXPECT_TRUE(std::isnan(nan.r));
    EXPECT_EQ(nan.g, 0.5f);
    // Mask 0 keeps the base; mask 0.5 with opacity 0.5 is a quarter of the way.
    Scene q = s;
    q.mask = std::make_shared<ImageF>(s.layer->size(), 0.5f, ColorProfileType::None());
    q.mask->data()[0] = 0.0f;
    const auto out = runBlend(q, true, 0.5f, BlendModeType::Normal);
    EXPECT_TRUE(sameBits(out->data()[0], s.base->data()[0]));
    for (std::size_t i = 1; i < out->pixelCount(); ++i) {
        const RGBf a = s.layer->data()[i], b = s.base->data()[i];
        ASSERT_FLOAT_EQ(out->data()[i].g, b.g + (a.g - b.g) * 0.25f);
    }
}

TEST(BlendImages, RegionWritesOnlyItsPixels) {
    const Scene s = scene(9, 7, 40);
    const RGBf sentinel{-7.0f, -7.0f, -7.0f};
    struct Case {
        _Rect<int> roi;
        _Rect<int> processed;  // what is written; empty: nothing
    };
    const Case cases[] = {
        {kNoRegion, {0, 0, 9, 7}},
        {{2, 1, 3, 4}, {2, 1, 3, 4}},
        {{0, 6, 9, 1}, {0, 6, 9, 1}},
        {{3, 3, 4, 0}, {}},           // zero height: nothing
        {{3, 3, 0, 2}, {}},           // zero width: nothing
        {{7, 5, 5, 5}, {7, 5, 2, 2}},  // clipped to the image
        {{-2, -2, 4, 3}, {0, 0, 2, 1}},
        {{20, 20, 3, 3}, {}},
    };
    for (BlendModeType m : {BlendModeType::Normal, BlendModeType::Screen, BlendModeType::Hue}) {
        for (bool masked : {false, true}) {
            const auto whole = runBlend(s, masked, 0.9f, m);
            for (const Case& c : cases) {
                auto result = std::make_shared<ImageRGBf>(s.layer->size(), sentinel, ColorProfileType::sRGB());
                runBlend(s, masked, 0.9f, m, c.roi, result);
                for (int y = 0; y < 7; ++y)
                    for (int x = 0; x < 9; ++x) {
                        const RGBf expected = c.processed.contains(x, y) ? whole->at(x, y) : sentinel;
                        ASSERT_TRUE(sameBits(result->at(x, y), expected))
                            << "mode " << int(m) << " roi " << c.roi.x << "," << c.roi.y << "," << c.roi.width << ","
                            << c.roi.height << " at " << x << "," << y;
                    }
            }
        }
    }
}

TEST(BlendImages, AnEmptyResultStartsAsTheBlendLayer) {
    const Scene s = scene(8, 6, 50);
    const _Rect<int> roi{1, 2, 4, 3};
    const auto whole = runBlend(s, true, 0.6f, BlendModeType::Multiply);
    const auto out = runBlend(s, true, 0.6f, BlendModeType::Multiply, roi);
    ASSERT_TRUE(out);
    EXPECT_EQ(out->size(), s.layer->size());
    for (int y = 0; y < 6; ++y)
        for (int x = 0; x < 8; ++x)
            ASSERT_TRUE(sameBits(out->at(x, y), roi.contains(x, y) ? whole->at(x, y) : s.layer->at(x, y)));
}

TEST(BlendImages, ResultMayBeTheBase) {
    const Scene s = scene(31, 5, 60);
    for (BlendModeType m : {BlendModeType::Normal, BlendModeType::Overlay, BlendModeType::Color}) {
        const auto expected = runBlend(s, true, 0.5f, m);
        auto inPlace = std::make_shared<ImageRGBf>(*s.base);
        blendImages(s.layer, inPlace, inPlace, s.mask, 0.5f, m, kNoRegion);
        for (std::size_t i = 0; i < expected->pixelCount(); ++i)
            ASSERT_TRUE(sameBits(inPlace->data()[i], expected->data()[i])) << "mode " << int(m);
    }
}

TEST(BlendImages, RejectedInputIsLoggedAndWritesNothing) {
    const Scene s = scene(6, 4, 70);
    const auto other = noiseRGB(4, 6, 71);
    const auto wrongMask = noiseMask(6, 5, 72);
    struct Case {
        const char* name;
        std::shared_ptr<const ImageRGBf> layer, base;
        std::shared_ptr<const ImageF> mask;
        bool presetResult;
        std::shared_ptr<ImageRGBf> result;
        const char* message;
    };
    const Case cases[] = {
        {"sizes differ", s.layer, other, nullptr, false, nullptr, "Images have different types"},
        {"no layer", nullptr, s.base, nullptr, false, nullptr, "Images have different types"},
        {"mask size", s.layer, s.base, wrongMask, false, nullptr, "Mask has wrong size!"},
        {"result size", s.layer, s.base, s.mask, true, noiseRGB(5, 4, 73), "Result Image has wrong type"},
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
            if (c.presetResult)
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

TEST(BlendImages, ManyThreadsGiveTheResultOfOne) {
    const Scene s = scene(411, 337, 90);  // above the serial threshold: the loops split
    const _Rect<int> roi{5, 3, 400, 330};
    for (BlendModeType m : {BlendModeType::Normal, BlendModeType::SoftLight, BlendModeType::Luminosity}) {
        std::shared_ptr<ImageRGBf> single, singleRoi;
        test::onOneThread([&] {
            single = runBlend(s, true, 0.75f, m);
            singleRoi = runBlend(s, false, 0.75f, m, roi);
        });
        // Several callers at once, each also running its own parallel loop.
        std::vector<std::shared_ptr<ImageRGBf>> outs(4), outsRoi(4);
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t)
            threads.emplace_back([&, t] {
                outs[t] = runBlend(s, true, 0.75f, m);
                outsRoi[t] = runBlend(s, false, 0.75f, m, roi);
            });
        for (auto& t : threads) t.join();
        for (int t = 0; t < 4; ++t) {
            ASSERT_EQ(std::memcmp(outs[t]->data(), single->data(), single->byteCount()), 0) << "mode " << int(m);
            ASSERT_EQ(std::memcmp(outsRoi[t]->data(), singleRoi->data(), single->byteCount()), 0) << "mode " << int(m);
        }
    }
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
