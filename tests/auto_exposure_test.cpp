// Auto exposure: the response tables against a double-precision evaluation of the
// curve, the exposure operator's invariants, the estimators recovering known records,
// the working-size reduction, and the applying functions.
#include <imageprocessing/auto_exposure.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
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
    for (int i : {0, 1, 1512, 10082, 30246, 35288, 50412, 63015, 65534})
        EXPECT_NEAR(pixelValueTable[i], curve(double(float(i) / 65535.0f)), kSinglePrecisionTol) << "entry " << i;
    // Through the knots inside the table (nearest entry; the curve rises at most about 3.5
    // per unit). The knot at exposure 1 lies one past the last entry.
    for (int k = 1; k < 16; ++k)
        EXPECT_NEAR(pixelValueTable[std::lround(kKnotX[k] * 65535)], kKnotY[k], 1e-4) << "knot " << k;
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
    const float inf = std::numeric_limits<float>::infinity();
    for (float v : {-5.0f, -0.3f, 0.0f, 0.01f, 0.5f, 1.0f, 3.0f, std::nanf(""), inf, -inf})
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
    struct Field {  // a flag, the field it searches, the field's start value, its tolerance
        unsigned flag;
        float auto_exposure_data_t::*field;
        float start, tolerance;
    };
    const Field optional[] = {{kAutoExposureFitScale, &auto_exposure_data_t::scale, 0.9f, 0.005f},
                              {kAutoExposureFitOffset, &auto_exposure_data_t::offset, 0.5f, 0.02f},
                              {kAutoExposureFitContrast, &auto_exposure_data_t::contrast, 0.5f, 0.02f}};
    for (float gain : {0.7f, 1.4f}) {
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
            for (const Field& f : optional) {
                if (flags & f.flag)
                    EXPECT_NEAR(est.*f.field, known.*f.field, f.tolerance) << what;
                else
                    EXPECT_EQ(est.*f.field, f.start) << what;
            }
        }
    }
}

TEST(AutoExposureEstimate, WhereTheCostIsFlatTheSearchTakesTheLowerHalf) {
    // A white source against an unreachable target of 2: every gain that drives the
    // curve to its top gives the same cost, so the gain ends at the edge of that range
    // (the smallest gain reaching the top, within the 0.01 tolerance), and the other
    // fields, flat once everything clips, at their lowest midpoints.
    const int w = 16, h = 8;
    std::vector<float> src(std::size_t(w) * h * 3, 1.0f), dst(src.size(), 2.0f);
    const float top = apply_exposure(1.0f, 2.0f, 0.9f, 0.5f);
    float edge = 0.1f;
    while (apply_exposure(1.0f, edge, 0.9f, 0.5f) < top) edge += 0.0005f;
    auto_exposure_data_t d;
    autoExposureEstimateRGB(src.data(), dst.data(), w, h, &d, 7);
    EXPECT_NEAR(d.gain, edge, 0.01f);
    EXPECT_FLOAT_EQ(d.scale, 0.87f + 0.13f / 2048);  // eleven halvings
    EXPECT_FLOAT_EQ(d.offset, 0.4f + 0.4f / 64);     // six
    EXPECT_FLOAT_EQ(d.contrast, 1.0f / 128);         // seven
}

TEST(AutoExposureEstimate, ReducesWideImagesTo512Columns) {
    // 1024 x 6 made of constant 2 x 2 blocks (dyadic values, so block means are exact)
    // reduces to exactly the 512 x 3 image of the block values.
    const int w = 1024, h = 6, rw = 512, rh = 3;
    const std::size_t n = std::size_t(rw) * rh * 3;
    const auto values = zorl::test::noise(2 * n, 9, 0.1f, 0.9f);
    const auto dyadic = [](float v) { return std::round(v * 1024.0f) / 1024.0f; };
    std::vector<float> smallSrc(n), smallDst(n), src(4 * n), dst(4 * n);
    for (std::size_t b = 0; b < n; ++b) {
        smallSrc[b] = dyadic(values[b]);
        smallDst[b] = dyadic(apply_exposure(values[n + b], 1.3f, 0.95f, 0.55f));
    }
    for (std::size_t i = 0; i < 4 * n; ++i) {
        const std::size_t x = i / 3 % w, y = i / 3 / w, b = (y / 2 * rw + x / 2) * 3 + i % 3;
        src[i] = smallSrc[b];
        dst[i] = smallDst[b];
    }
    auto_exposure_data_t wide, narrow;
    autoExposureEstimateRGB(src.data(), dst.data(), w, h, &wide, 7);
    autoExposureEstimateRGB(smallSrc.data(), smallDst.data(), rw, rh, &narrow, 7);
    EXPECT_EQ(std::memcmp(&wide, &narrow, sizeof wide), 0)
        << wide.gain << " " << narrow.gain << " " << wide.scale << " " << narrow.scale;
}

TEST(AutoExposureEstimate, RejectedInputIsLoggedAndLeavesTheRecord) {
    std::vector<float> img(12, 0.5f);
    auto_exposure_data_t d{1, 2, 3, 4};
    const std::string sig =
        "void __cdecl autoExposureEstimateRGB(float *,float *,int,int,struct auto_exposure_data_t *,unsigned int): ";
    struct Case {
        float *src, *dst;
        int w, h;
        auto_exposure_data_t* data;
        const char* message;
    };
    const Case cases[] = {{nullptr, img.data(), 2, 2, &d, "source is null"},
                          {img.data(), nullptr, 2, 2, &d, "destination is null"},
                          {img.data(), img.data(), 0, 2, &d, "image is empty"},
                          {img.data(), img.data(), 2, -1, &d, "image is empty"},
                          {img.data(), img.data(), 2, 2, nullptr, "data is null"}};
    for (const Case& c : cases) {
        LogCapture log;
        autoExposureEstimateRGB(c.src, c.dst, c.w, c.h, c.data, 7);
        ASSERT_EQ(log.count(), 1u);
        EXPECT_EQ(log.lines()[0], sig + c.message);
        EXPECT_EQ(d.gain, 1.0f);
        EXPECT_EQ(d.contrast, 4.0f);
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
        for (const auto_exposure_data_t& d : {auto_exposure_data_t{1.3f, 0.93f, 0.55f, 0.3f}, auto_exposure_data_t{0.6f, 0.9f, 0.5f, 0.5f}}) {
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
// to the colour and takes the alpha from the source.
TEST(AutoExposureAdjust, RGBIsEstimateThenApplyAndARGBKeepsTheSourceAlpha) {
    const int w = 90, h = 70;
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
    std::vector<float> dst = target;
    MemoryBalance balance;
    autoExposureAdjustRGB(src.data(), dst.data(), w, h);
    autoExposureAdjustARGB(srcARGB.data(), dstARGB.data(), w, h);
    EXPECT_TRUE(balance.balanced());
    EXPECT_EQ(dst, expected);
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
TEST(AutoScaleEstimate, RecoversPowerAndContrastFromLuminance) {
    const int w = 700, h = 40;  // wider than 512: nearest-neighbour working samples
    const auto rgb = wellExposed(w, h, 13);
    const std::size_t n = std::size_t(w) * h;
    for (const auto& [a, b] : {std::pair{0.3, 0.0}, std::pair{0.6, 0.0}, std::pair{0.0, 0.4}}) {
        std::vector<float> src(4 * n, 1.0f), dst(4 * n, 1.0f);
        for (std::size_t i = 0; i < n; ++i) {
            // The model acts on luminance: a grey target of the curved source luminance.
            const double luma = 0.299 * rgb[3 * i] + 0.587 * rgb[3 * i + 1] + 0.114 * rgb[3 * i + 2];
            for (int c = 0; c < 3; ++c) {
                src[4 * i + 1 + c] = rgb[3 * i + c];
                dst[4 * i + 1 + c] = float(scaleModel(luma, a, b));
            }
        }
        auto_exposure_data_t d{0.25f, 0.75f, -1, -1};
        autoScaleEstimateARGB(src.data(), dst.data(), w, h, &d);
        EXPECT_EQ(d.gain, 0.25f);
        EXPECT_EQ(d.scale, 0.75f);
        EXPECT_NEAR(d.offset, a, 0.02) << a << " " << b;
        EXPECT_NEAR(d.contrast, b, 0.02) << a << " " << b;
    }
}

TEST(AutoExposure, ManyThreadsGiveTheResultOfOne) {
    const int w = 600, h = 150;  // above the table-path threshold, and reduced
    const auto src = wellExposed(w, h, 14);
    std::vector<float> target(src.size());
    const auto_exposure_data_t known{1.4f, 0.9f, 0.5f, 0.0f};
    autoExposureApplyRGB(const_cast<float*>(src.data()), target.data(), w, h, &known);
    struct Run {
        std::vector<float> out;
        auto_exposure_data_t est;
    };
    auto run = [&](Run& r) {
        std::vector<float> s = src;
        r.out = target;
        autoExposureEstimateRGB(s.data(), r.out.data(), w, h, &r.est, 7);
        autoExposureAdjustRGB(s.data(), r.out.data(), w, h);
    };
    Run single;
    zorl::test::onOneThread([&] { run(single); });
    std::vector<Run> runs(3);  // several callers at once, each with its own parallel loops
    std::vector<std::thread> threads;
    for (Run& r : runs) threads.emplace_back([&] { run(r); });
    for (auto& t : threads) t.join();
    for (const Run& r : runs) {
        EXPECT_EQ(std::memcmp(&r.est, &single.est, sizeof single.est), 0);
        EXPECT_EQ(r.out, single.out);
    }
}

}  // namespace
