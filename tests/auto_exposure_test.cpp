// Auto exposure: the response tables against a double-precision evaluation of the
// curve, the exposure operator's invariants, the estimators recovering known records,
// the working-size reduction, and the applying functions.
#include <imageprocessing/auto_exposure.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/test_support.h"

namespace {

using zorl::test::LogCapture;
using zorl::test::MemoryBalance;

constexpr int kEntries = 65535;

const double kKnotX[17] = {-0.0769230798, 0,           0.0230769236, 0.0769230798, 0.15384616,  0.230769232,
                           0.307692319,   0.384615391, 0.461538464,  0.538461566,  0.615384638, 0.692307711,
                           0.769230783,   0.846153855, 0.923076928,  0.961538434,  1};
const double kKnotY[17] = {-0.00317460322, 0,           0,           0.00476190494, 0.0190476198, 0.042857144,
                           0.0793650821,   0.161904767, 0.336507946, 0.579365075,   0.804761887,  0.93650794,
                           0.979365051,    0.993650794, 0.996825397, 0.998412669,   1};

// The response curve in double precision, clamped to 0..1.
double curve(double x) {
    double sum = 0;
    for (int k = 0; k < 17; ++k) {
        double p = 1;
        for (int j = 0; j < 17; ++j)
            if (j != k) p *= (x - kKnotX[j]) / (kKnotX[k] - kKnotX[j]);
        sum += kKnotY[k] * p;
    }
    return std::min(1.0, std::max(0.0, sum));
}

TEST(AutoExposureTables, ForwardTableIsTheCurveThroughTheKnots) {
    // The table is evaluated in single precision: a degree-16 polynomial whose terms reach
    // a few hundred in magnitude and cancel, so each entry may differ from the double
    // value by some hundred float epsilons of those terms.
    constexpr double kSinglePrecisionTol = 2e-5;
    // The ends, and entries beside the knots at 0.023, 0.154, 0.462, 0.538, 0.769
    // and 0.962 (where the curve passes through the knot values).
    for (int i : {0, 1, 1512, 10082, 30246, 35288, 50412, 63015, 65534})
        EXPECT_NEAR(pixelValueTable[i], curve(double(float(i) / 65535.0f)), kSinglePrecisionTol) << "entry " << i;
    for (int i = 0; i < kEntries; ++i) ASSERT_TRUE(pixelValueTable[i] >= 0.0f && pixelValueTable[i] <= 1.0f);
}

TEST(AutoExposureTables, InverseTableIsFilledMonotoneAndFollowsTheForwardOne) {
    EXPECT_EQ(exposureTable, pixelValueTable + kEntries);  // back to back
    // Rebuilt here from the forward table by the fill rule: last writer wins at index
    // forward * 65534, holes take the value before them.
    std::vector<float> inv(kEntries, -1.0f);
    for (int i = 0; i < kEntries; ++i) inv[int(pixelValueTable[i] * 65534.0f)] = float(i) / 65535.0f;
    EXPECT_GT(std::count(inv.begin(), inv.end(), -1.0f), 0);  // steep parts of the curve leave holes
    for (int i = 0; i < kEntries; ++i) {
        if (inv[i] < 0) inv[i] = i > 0 ? inv[i - 1] : 0.0f;
        ASSERT_EQ(exposureTable[i], inv[i]) << "entry " << i;
        ASSERT_GE(exposureTable[i], exposureTable[std::max(i - 1, 0)]) << "entry " << i;
    }
}

TEST(AutoExposureTables, LookupsTruncateAndClamp) {
    const std::pair<float, int> cases[] = {{-1.0f, 0},     {-1e-9f, 0},     {std::nanf(""), 0}, {1.0f, 65534},
                                           {1e30f, 65534}, {0.5f, 32767},   {1000.99f / 65535.0f, 1000}};
    for (const auto& [x, entry] : cases) {
        EXPECT_EQ(pixel_value_from_exposure(x), pixelValueTable[entry]) << x;
        EXPECT_EQ(exposure_from_pixel_value(x), exposureTable[entry]) << x;
    }
}

TEST(ApplyExposure, ExcessAbove1PassesThroughAndNothingIsNegative) {
    for (float g : {0.7f, 1.4f, 2.0f})
        for (float x : {1.25f, 2.0f, 9.0f})
            EXPECT_NEAR(apply_exposure(x, g, 0.9f, 0.5f), apply_exposure(1.0f, g, 0.9f, 0.5f) + (x - 1.0f), 1e-5f);
    // The floor at 0 comes after the excess is added back: a small gain maps 1 below the
    // offset's expansion (about -0.016 here, floored to 0 alone), and the excess of 0.25
    // then lifts that negative value, not 0.
    EXPECT_EQ(apply_exposure(1.0f, 0.3f, 0.9f, 0.5f), 0.0f);
    EXPECT_NEAR(apply_exposure(1.25f, 0.3f, 0.9f, 0.5f), 0.2345f, 1e-3f);
    for (float v : {-5.0f, -0.3f, 0.0f, 0.01f, 0.5f, 1.0f, 3.0f, std::nanf(""), INFINITY, -INFINITY})
        for (float g : {0.0f, 0.1f, 1.0f, 2.0f, -1.0f})
            for (float s : {0.87f, 1.0f, 0.0f, -1.0f})
                for (float o : {0.0f, 0.4f, 0.8f, 2.0f})
                    ASSERT_TRUE(apply_exposure(v, g, s, o) >= 0.0f) << v << " " << g << " " << s << " " << o;
}

// ---------------------------------------------------------------------------------------
// Estimator and application.

// A well-exposed RGB image: smooth ramps in different directions per channel with some
// seeded texture, values inside 0.05..0.95.
std::vector<float> wellExposed(int w, int h, uint32_t seed) {
    std::vector<float> img = zorl::test::noise(std::size_t(w) * h * 3, seed, -0.1f, 0.1f);
    for (std::size_t i = 0; i < img.size(); ++i) {
        const float x = float(i / 3 % w) / w, y = float(i / 3 / w) / h;
        img[i] += 0.15f + 0.7f * (i % 3 == 0 ? x : i % 3 == 1 ? y : 0.5f * (x + y));
    }
    return img;
}

double rms(const std::vector<float>& a, const std::vector<float>& b) {
    double s = 0;
    for (std::size_t i = 0; i < a.size(); ++i) s += double(a[i] - b[i]) * double(a[i] - b[i]);
    return std::sqrt(s / a.size());
}

// The model of a record in the test's own words: apply_exposure, then the cosine S-curve
// unless the S-curve weight is the estimator's untouched 0.5.
float model(float x, const auto_exposure_data_t& d) {
    float y = apply_exposure(x, d.gain, d.scale, d.offset);
    if (d.contrast != 0.5f) {
        const float c = float(std::cos(3.14159265358979323846 * double(y) + 3.14159265358979323846));
        y = y + (0.5f * c + 0.5f - y) * d.contrast;
    }
    return y;
}

// Each flag combination, on targets made from known records: the searched fields land
// near the record, the others keep their start values (0.9, 0.5, 0.5), and the fitted
// record reproduces the target. Bisection keeps the last midpoint: the gain lands within
// its 0.01 tolerance and the others within a few of theirs; the image within 1/500 RMS.
TEST(AutoExposureEstimate, RecoversKnownRecordsWithEveryFlagCombination) {
    const int w = 120, h = 90;
    auto src = wellExposed(w, h, 7);
    std::vector<float> target(src.size()), out(src.size());
    constexpr double kRmsTol = 2e-3;
    constexpr float kGainTol = 0.01f;
    struct Field { unsigned flag; float auto_exposure_data_t::*field; float start, tolerance; };
    const Field optional[] = {{kAutoExposureFitScale, &auto_exposure_data_t::scale, 0.9f, 0.005f},
                              {kAutoExposureFitOffset, &auto_exposure_data_t::offset, 0.5f, 0.02f},
                              {kAutoExposureFitContrast, &auto_exposure_data_t::contrast, 0.5f, 0.02f}};
    for (float gain : {0.7f, 1.4f})
        for (unsigned flags = 0; flags < 8; ++flags) {
            // Contrast 0: the S-curve step runs with no weight when it is fitted.
            const auto_exposure_data_t known{gain, 0.9f, 0.5f, (flags & 4) ? 0.0f : 0.5f};
            autoExposureApplyRGB(src.data(), target.data(), w, h, &known);
            MemoryBalance balance;
            auto_exposure_data_t est{-1, -1, -1, -1};
            autoExposureEstimateRGB(src.data(), target.data(), w, h, &est, flags);
            EXPECT_TRUE(balance.balanced());
            autoExposureApplyRGB(src.data(), out.data(), w, h, &est);
            const std::string what = "gain " + std::to_string(gain) + " flags " + std::to_string(flags);
            EXPECT_LT(rms(out, target), kRmsTol) << what;
            EXPECT_NEAR(est.gain, gain, kGainTol) << what;
            for (const Field& f : optional)
                EXPECT_NEAR(est.*f.field, (flags & f.flag) ? known.*f.field : f.start, (flags & f.flag) ? f.tolerance : 0)
                    << what;
        }
}

TEST(AutoExposureEstimate, ReducesWideImagesTo512Columns) {
    // 1024 x 6 made of constant 2 x 2 blocks (dyadic values, so block means are exact)
    // reduces to exactly the 512 x 3 image of the block values.
    const int w = 1024, h = 6, rw = 512, rh = 3;
    const std::size_t n = std::size_t(rw) * rh * 3;
    const auto values = zorl::test::noise(2 * n, 9, 0.1f, 0.9f);
    std::vector<float> smallSrc(n), smallDst(n), src(4 * n), dst(4 * n);
    for (std::size_t b = 0; b < n; ++b) {
        smallSrc[b] = std::round(values[b] * 1024.0f) / 1024.0f;
        smallDst[b] = std::round(apply_exposure(values[n + b], 1.3f, 0.95f, 0.55f) * 1024.0f) / 1024.0f;
    }
    for (std::size_t i = 0; i < 4 * n; ++i) {
        const std::size_t x = i / 3 % w, y = i / 3 / w, b = (y / 2 * rw + x / 2) * 3 + i % 3;
        src[i] = smallSrc[b], dst[i] = smallDst[b];
    }
    auto_exposure_data_t wide, narrow;
    autoExposureEstimateRGB(src.data(), dst.data(), w, h, &wide, 7);
    autoExposureEstimateRGB(smallSrc.data(), smallDst.data(), rw, rh, &narrow, 7);
    EXPECT_EQ(std::memcmp(&wide, &narrow, sizeof wide), 0) << wide.gain << " " << narrow.gain;
}

TEST(AutoExposureEstimate, RejectedInputIsLoggedAndLeavesTheRecord) {
    float p[12] = {};
    auto_exposure_data_t d{1, 2, 3, 4};
    const std::string sig =
        "void __cdecl autoExposureEstimateRGB(float *,float *,int,int,struct auto_exposure_data_t *,unsigned int): ";
    struct Case { float *src, *dst; int w, h; auto_exposure_data_t* data; const char* message; };
    const Case cases[] = {{nullptr, p, 2, 2, &d, "source is null"}, {p, nullptr, 2, 2, &d, "destination is null"},
                          {p, p, 0, 2, &d, "image is empty"},       {p, p, 2, -1, &d, "image is empty"},
                          {p, p, 2, 2, nullptr, "data is null"}};
    for (const Case& c : cases) {
        LogCapture log;
        autoExposureEstimateRGB(c.src, c.dst, c.w, c.h, c.data, 7);
        EXPECT_EQ(log.lines(), std::vector<std::string>{sig + c.message});
        EXPECT_TRUE(d.gain == 1 && d.scale == 2 && d.offset == 3 && d.contrast == 4) << c.message;
    }
    LogCapture log;
    autoExposureApplyRGB(nullptr, nullptr, 5, 0, &d);  // height 0: nothing, silently
    EXPECT_EQ(log.count(), 0u);
}

TEST(AutoExposureApply, EveryValueIsTheModelOnBothPaths) {
    // 400 x 220 takes the table path, 40 x 22 the direct one; both must give the model's
    // exact values, also for values above 1, negative values and NaN.
    for (const auto& [w, h] : {std::pair{400, 220}, std::pair{40, 22}}) {
        auto src = zorl::test::noise(std::size_t(w) * h * 3, 11, -0.2f, 1.4f);
        src[5] = std::nanf("");
        src[6] = 1.0f;
        std::vector<float> dst(src.size());
        for (const auto_exposure_data_t& d : {auto_exposure_data_t{1.3f, 0.93f, 0.55f, 0.3f}, {0.6f, 0.9f, 0.5f, 0.5f}}) {
            autoExposureApplyRGB(src.data(), dst.data(), w, h, &d);
            for (std::size_t i = 0; i < src.size(); ++i) {
                const float expected = model(src[i], d);
                ASSERT_TRUE(dst[i] == expected || (std::isnan(dst[i]) && std::isnan(expected)))
                    << "value " << src[i] << " gave " << dst[i] << " expected " << expected << " width " << w;
            }
        }
    }
}

// Adjust = estimate with all three searches against dst, then apply; ARGB does the same
// to the colour and takes the alpha from the source. 600 x 150 is above the table-path
// threshold and reduced; the same on one thread, and with several callers at once.
TEST(AutoExposureAdjust, IsEstimateThenApplyOnOneThreadAsOnMany) {
    const int w = 600, h = 150;
    const std::size_t n = std::size_t(w) * h;
    auto src = wellExposed(w, h, 12);
    std::vector<float> target(src.size()), expected(src.size()), srcARGB(4 * n), dstARGB(4 * n);
    const auto_exposure_data_t known{0.7f, 0.9f, 0.5f, 0.0f};
    autoExposureApplyRGB(src.data(), target.data(), w, h, &known);
    auto_exposure_data_t est;
    autoExposureEstimateRGB(src.data(), target.data(), w, h, &est, 7);
    autoExposureApplyRGB(src.data(), expected.data(), w, h, &est);
    for (std::size_t i = 0; i < 4 * n; ++i) {
        srcARGB[i] = i % 4 == 0 ? float(i / 4 % 7) / 7.0f : src[i / 4 * 3 + i % 4 - 1];
        dstARGB[i] = i % 4 == 0 ? 0.25f : target[i / 4 * 3 + i % 4 - 1];
    }
    std::vector<std::vector<float>> dst(4, target);
    MemoryBalance balance;
    zorl::test::onOneThread([&] { autoExposureAdjustRGB(src.data(), dst[0].data(), w, h); });
    std::vector<std::thread> callers;  // several callers at once, each with its own parallel loops
    for (int k = 1; k < 4; ++k) callers.emplace_back([&, k] { autoExposureAdjustRGB(src.data(), dst[k].data(), w, h); });
    for (auto& t : callers) t.join();
    autoExposureAdjustARGB(srcARGB.data(), dstARGB.data(), w, h);
    EXPECT_TRUE(balance.balanced());
    for (int k = 0; k < 4; ++k) EXPECT_EQ(dst[k], expected) << "caller " << k;
    for (std::size_t i = 0; i < 4 * n; ++i)
        ASSERT_EQ(dstARGB[i], i % 4 == 0 ? srcARGB[i] : expected[i / 4 * 3 + i % 4 - 1]) << i;
}

// The scale model in double precision.
double scaleModel(double x, double a, double b) {
    const double excess = x > 1 ? x - 1 : 0, v = x - excess;
    const double k = 1 - 0.7 * std::abs(a), g = a < 0 ? k : 1 / k;
    const double y = 1 - std::pow(1 - v, g) + excess;
    const double o = y > 1 ? y - 1 : (y < 0 ? y : 0), r = y - o;
    const double c = b > 0 ? std::abs(b) + 1 : 1 / (std::abs(b) + 1);
    return r < 0.5 ? 0.5 * std::pow(2 * r, c) + o : o + 1 - 0.5 * std::pow(2 - 2 * r, c);
}

// a is fitted first with the identity curve (b = 0), then b: each alone is recovered
// (last midpoints of bisections with tolerance 0.01), and the first two fields stay.
// The model acts on luminance: the target is grey, the curved source luminance.
TEST(AutoScaleEstimate, RecoversPowerAndContrastFromLuminance) {
    const int w = 700, h = 40;  // wider than 512: nearest-neighbour working samples
    const auto rgb = wellExposed(w, h, 13);
    const std::size_t n = std::size_t(w) * h;
    for (const auto& [a, b] : {std::pair{0.3, 0.0}, std::pair{0.6, 0.0}, std::pair{0.0, 0.4}}) {
        std::vector<float> src(4 * n, 1.0f), dst(4 * n, 1.0f);
        for (std::size_t i = 0; i < n; ++i)
            for (int c = 0; c < 3; ++c) {
                src[4 * i + 1 + c] = rgb[3 * i + c];
                dst[4 * i + 1 + c] = float(scaleModel(0.299 * rgb[3 * i] + 0.587 * rgb[3 * i + 1] + 0.114 * rgb[3 * i + 2], a, b));
            }
        auto_exposure_data_t d{0.25f, 0.75f, -1, -1};
        autoScaleEstimateARGB(src.data(), dst.data(), w, h, &d);
        EXPECT_TRUE(d.gain == 0.25f && d.scale == 0.75f);
        EXPECT_NEAR(d.offset, a, 0.02) << a << " " << b;
        EXPECT_NEAR(d.contrast, b, 0.02) << a << " " << b;
    }
}

}  // namespace
