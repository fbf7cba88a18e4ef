// Colour: Lab of known colours, per-pixel round trips, HSL, and Little CMS transforms
// between the library's profiles checked against the tone-curve formulas.
#include <zorl/core/color.h>

#include <array>
#include <cmath>
#include <thread>

#include "support/test_support.h"

namespace zorl {
namespace {

// Float arithmetic through cube roots and powers, and published values rounded to four
// decimals: a hundredth of a Lab unit (one just-noticeable difference is about 1).
constexpr float kLabTolerance = 1e-2f;
// Float round trips through Lab and back: a few float ulps at 1, amplified by the curves.
constexpr float kRoundTripTolerance = 5e-5f;
// Little CMS float pipelines evaluate the curves and matrices in float.
constexpr float kLcmsFloatTolerance = 1e-4f;

using Fn = void (*)(float*, float*, float*, float, float, float);

// Independent double-precision references.
double srgbToLinear(double v) { return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4); }
double labF(double t) { return t > 216.0 / 24389.0 ? std::cbrt(t) : (24389.0 / 27.0 * t + 16.0) / 116.0; }

// ProPhoto (ROMM) RGB to Lab against D50, from the ROMM definition.
std::array<double, 3> prophotoLab(double r, double g, double b) {
    auto lin = [](double v) { return v < 16.0 / 512.0 ? v / 16.0 : std::pow(v, 1.8); };
    r = lin(r), g = lin(g), b = lin(b);
    const double X = 0.7976749 * r + 0.1351917 * g + 0.0313534 * b;
    const double Y = 0.2880402 * r + 0.7118741 * g + 0.0000857 * b;
    const double Z = 0.8252100 * b;
    const double fx = labF(X / 0.96422), fy = labF(Y), fz = labF(Z / 0.82521);
    return {116 * fy - 16, 500 * (fx - fy), 200 * (fy - fz)};
}

void expectConverts(Fn fn, std::array<float, 3> in, std::array<double, 3> want, double tol) {
    float x, y, z;
    fn(&x, &y, &z, in[0], in[1], in[2]);
    EXPECT_NEAR(x, want[0], tol) << in[0] << " " << in[1] << " " << in[2];
    EXPECT_NEAR(y, want[1], tol) << in[0] << " " << in[1] << " " << in[2];
    EXPECT_NEAR(z, want[2], tol) << in[0] << " " << in[1] << " " << in[2];
}

TEST(Color, LabAndHslOfKnownColours) {
    // CIE L*a*b* of sRGB colours with the D65 white as reference, no adaptation.
    expectConverts(Rgb2Lab, {1, 1, 1}, {100.0, 0.0, 0.0}, kLabTolerance);
    expectConverts(Rgb2Lab, {0, 0, 0}, {0.0, 0.0, 0.0}, kLabTolerance);
    expectConverts(Rgb2Lab, {1, 0, 0}, {53.2408, 80.0925, 67.2032}, kLabTolerance);
    expectConverts(Rgb2Lab, {0, 1, 0}, {87.7347, -86.1827, 83.1793}, kLabTolerance);
    expectConverts(Rgb2Lab, {0, 0, 1}, {32.2970, 79.1875, -107.8602}, kLabTolerance);
    expectConverts(Rgb2Lab, {0.5f, 0.5f, 0.5f}, {53.3890, 0.0, 0.0}, kLabTolerance);
    // ProPhoto against the ROMM reference, white included.
    const auto v = test::noise(3 * 50, 5);
    for (std::size_t i = 0; i < v.size(); i += 3)
        expectConverts(Rgb2Lab_ProPhoto, {v[i], v[i + 1], v[i + 2]}, prophotoLab(v[i], v[i + 1], v[i + 2]),
                       kLabTolerance);
    expectConverts(Rgb2Lab_ProPhoto, {1, 1, 1}, {100.0, 0.0, 0.0}, kLabTolerance);
    // HSL, hue in turns: exact to a few float ulps.
    const std::array<float, 6> hsl[] = {{1, 0, 0, 0, 1, 0.5f},           {0, 0, 1, 2.0f / 3, 1, 0.5f},
                                        {0.5f, 0.5f, 0.5f, 0, 0, 0.5f},  {0.25f, 0.5f, 0.75f, 7.0f / 12, 0.5f, 0.5f},
                                        {0.75f, 1, 0.75f, 1.0f / 3, 1, 0.875f}};
    for (const auto& c : hsl) {
        float h, s, l;
        Rgb2Hsl(&h, &s, &l, c[0], c[1], c[2]);
        EXPECT_FLOAT_EQ(h, c[3]) << c[0] << " " << c[1] << " " << c[2];
        EXPECT_FLOAT_EQ(s, c[4]);
        EXPECT_FLOAT_EQ(l, c[5]);
    }
}

TEST(Color, PerPixelConversionsRoundTrip) {
    const std::pair<Fn, Fn> pairs[] = {{Rgb2Lab, Lab2Rgb}, {Rgb2Lab_ProPhoto, Lab2Rgb_ProPhoto}, {Rgb2Hsl, Hsl2Rgb}};
    for (const auto& [to, back] : pairs)
        for (float r = 0; r <= 1.0f; r += 0.125f)
            for (float g = 0; g <= 1.0f; g += 0.25f)
                for (float b : {0.0f, 0.01f, 0.3f, 1.0f}) {
                    float x, y, z;
                    to(&x, &y, &z, r, g, b);
                    expectConverts(back, {x, y, z}, {r, g, b}, kRoundTripTolerance);
                }
}

// Runs a float RGB transform from src to dst over `in`.
std::vector<float> transform(ColorProfilePtr src, ColorProfilePtr dst, const std::vector<float>& in) {
    void* t = colorCreateTransform(*src, ImageDataType::RgbF32, *dst, ImageDataType::RgbF32);
    EXPECT_NE(t, nullptr);
    std::vector<float> out(in.size(), -1.0f);
    colorDoTranform(t, in.data(), out.data(), in.size() / 3);
    colorDeleteTransform(t);
    return out;
}

TEST(Color, LcmsTransformsMatchTheToneCurves) {
    const auto in = test::noise(3 * 300, 11);
    const auto same = transform(ColorProfileType::sRGB(), ColorProfileType::sRGB(), in);
    const auto linear = transform(ColorProfileType::sRGB(), ColorProfileType::sRGBLinear(), in);
    // Melissa and ProPhoto share primaries and white: only the tone curve differs.
    const auto pro = transform(ColorProfileType::melissaRGB(), ColorProfileType::proPhotoRGB(), in);
    for (std::size_t i = 0; i < in.size(); ++i) {
        EXPECT_NEAR(same[i], in[i], kLcmsFloatTolerance) << i;
        EXPECT_NEAR(linear[i], srgbToLinear(in[i]), kLcmsFloatTolerance) << i;
        EXPECT_NEAR(pro[i], std::pow(srgbToLinear(in[i]), 1 / 1.8), kLcmsFloatTolerance) << i;
    }
    EXPECT_EQ(transform(ColorProfileType::None(), ColorProfileType::sRGBLinear(), in), linear);  // None is sRGB

    // 8-bit BGRA sRGB -> RGB float linear: channel order and alpha handled by the layouts.
    const uint8_t bgra[8] = {0, 128, 255, 7, 255, 255, 255, 9};
    void* t = colorCreateTransform(*ColorProfileType::sRGB(), ImageDataType::BgraU8, *ColorProfileType::sRGBLinear(),
                                   ImageDataType::RgbF32);
    ASSERT_NE(t, nullptr);
    float out[6] = {};
    colorDoTranform(t, bgra, out, 2);
    colorDoTranform(t, bgra, out + 3, 0);        // nothing to do
    colorDoTranform(nullptr, bgra, out + 3, 1);  // no handle, no source: nothing written
    colorDoTranform(t, nullptr, out + 3, 1);
    const float want[6] = {1.0f, float(srgbToLinear(128 / 255.0)), 0.0f, 1.0f, 1.0f, 1.0f};
    for (int i = 0; i < 6; ++i) EXPECT_NEAR(out[i], want[i], 1e-3f) << i;
    colorDeleteTransform(t);
    colorDeleteTransform(nullptr);
    EXPECT_EQ(colorCreateTransform(*ColorProfileType::sRGB(), ImageDataType::GrayF32, *ColorProfileType::sRGB(),
                                   ImageDataType::RgbF32),
              nullptr);
}

TEST(Color, OneTransformServesManyThreads) {
    const auto in = test::noise(3 * 4096, 21);
    void* t = colorCreateTransform(*ColorProfileType::proPhotoRGB(), ImageDataType::RgbF32, *ColorProfileType::sRGB(),
                                   ImageDataType::RgbF32);
    std::vector<std::vector<float>> outs(5, std::vector<float>(in.size()));
    const auto run = [&](int k) { colorDoTranform(t, in.data(), outs[k].data(), in.size() / 3); };
    run(0);
    std::vector<std::thread> threads;
    for (int k = 1; k < 5; ++k) threads.emplace_back(run, k);
    for (auto& th : threads) th.join();
    for (int k = 1; k < 5; ++k) EXPECT_EQ(outs[k], outs[0]);
    colorDeleteTransform(t);
}

TEST(Color, ProfilesCompareAndSerialiseByValue) {
    for (auto p : {ColorProfileType::None(), ColorProfileType::sRGB(), ColorProfileType::sRGBLinear(),
                   ColorProfileType::proPhotoRGB(), ColorProfileType::melissaRGB()}) {
        auto e = std::make_shared<Encoder>();
        p->encode(e);
        const auto back = ColorProfileType::decode(std::make_shared<Decoder>(e->take()));
        ASSERT_NE(back, nullptr);
        EXPECT_EQ(*back, *p);
    }
    EXPECT_NE(*ColorProfileType::sRGB(), *ColorProfileType::melissaRGB());
    auto e = std::make_shared<Encoder>();
    e->encodeInt(99);  // an unknown kind, and then nothing at all
    EXPECT_EQ(ColorProfileType::decode(std::make_shared<Decoder>(e->take())), nullptr);
    EXPECT_EQ(ColorProfileType::decode(std::make_shared<Decoder>()), nullptr);
}

}  // namespace
}  // namespace zorl
