// Scaling helpers: each function's rounding rule on cases that tell the rules apart
// (integer product then float division then truncation, float multiply then roundf,
// truncation toward zero rather than floor, single- rather than double-precision
// division, 32-bit products), scaleDataSquare's two branches, and getRectangleIntersection
// on every class of corner mask.

#include <imageprocessing/scaling.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <zorl/core/image_utils.h>

#include "support/test_support.h"

namespace zorl {
namespace {

using test::LogCapture;
using test::MemoryBalance;

// ---------------------------------------------------------------- sizes

struct SizeCase {
    const char* what;
    _Size<int> (*fn)(const _Size<int>&, int);
    _Size<int> in;
    int n;
    _Size<int> out;
};

_Size<int> byMinSide(const _Size<int>& s, int n) { return scaleSizeByMinSide(s, n); }
_Size<int> for1000p(const _Size<int>& s, int) { return scaleSizeFor1000p(s); }

const SizeCase kSizeCases[] = {
    {"landscape", scaleSize, {4000, 3000}, 1000, {1000, 750}},
    {"portrait", scaleSize, {3000, 4000}, 1000, {750, 1000}},
    {"square counts as height-longer", scaleSize, {3, 3}, 2, {2, 2}},
    {"truncates 749.75", scaleSize, {4000, 2999}, 1000, {1000, 749}},
    {"enlarges", scaleSize, {30, 20}, 60, {60, 40}},
    // 27431 * 1000 / 32773 = 836.9999..., 837 in single precision (836 in double).
    {"single-precision division", scaleSize, {32773, 27431}, 1000, {1000, 837}},
    {"single-precision division, portrait", scaleSize, {27431, 32773}, 1000, {837, 1000}},
    // 60000 * 40000 wraps in 32 bits to -1894967296.
    {"32-bit product", scaleSize, {100000, 60000}, 40000, {40000, -18949}},

    {"rounds 749.75 up", scaleSizeToMax, {4000, 2999}, 1000, {1000, 750}},
    {"rounds half away from zero", scaleSizeToMax, {2000, 1001}, 1000, {1000, 501}},
    {"rounds down below half", scaleSizeToMax, {2998, 4001}, 1000, {749, 1000}},
    {"never enlarges", scaleSizeToMax, {800, 600}, 1000, {800, 600}},
    {"exactly max is kept", scaleSizeToMax, {1000, 600}, 1000, {1000, 600}},
    {"max 0 keeps", scaleSizeToMax, {4000, 3000}, 0, {4000, 3000}},
    {"negative max keeps", scaleSizeToMax, {4000, 3000}, -5, {4000, 3000}},
    {"1000p", for1000p, {4000, 2999}, 0, {1000, 750}},
    {"1000p square", for1000p, {1500, 1500}, 0, {1000, 1000}},

    {"min side landscape", byMinSide, {4000, 3000}, 1000, {1333, 1000}},
    {"min side portrait", byMinSide, {3000, 4000}, 1000, {1000, 1333}},
    {"min side already small", byMinSide, {900, 3000}, 1000, {900, 3000}},
    {"min side n 0 keeps", byMinSide, {4000, 3000}, 0, {4000, 3000}},
    {"min side square", byMinSide, {1500, 1500}, 1000, {1000, 1000}},

    {"width cap", scaleSizeByMinWidth, {4000, 3000}, 1000, {1000, 750}},
    {"wider request keeps", scaleSizeByMinWidth, {500, 300}, 1000, {500, 300}},
    {"width cap, single precision", scaleSizeByMinWidth, {32773, 27431}, 1000, {1000, 837}},
};

TEST(ScaleSize, RoundingRules) {
    for (const SizeCase& c : kSizeCases) {
        SCOPED_TRACE(c.what);
        const _Size<int> got = c.fn(c.in, c.n);
        EXPECT_EQ(got.width, c.out.width);
        EXPECT_EQ(got.height, c.out.height);
    }
}

TEST(ScaleRect, TruncatesOriginAndExtentIndependently) {
    struct Case {
        _Rect<int> in;
        _Size<int> from, to;
        _Rect<int> out;
    };
    const Case cases[] = {
        {{3, 3, 5, 5}, {10, 10}, {5, 5}, {1, 1, 2, 2}},               // right edge 3, one short of 4
        {{-3, -5, 7, 9}, {10, 10}, {5, 5}, {-1, -2, 3, 4}},           // toward zero, not floor
        {{10, 20, 30, 40}, {100, 100}, {300, 50}, {30, 10, 90, 20}},  // per-axis factors
        {{1, 2, 3, 4}, {1, 1}, {1, 1}, {1, 2, 3, 4}},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(scaleRect(c.in, c.from, c.to), c.out);
    }
    // 20 * 0.7f is 13.99999976 exactly, 14 once rounded to float: the product is float.
    EXPECT_EQ(scaleRect(_Rect<int>(10, 20, 30, 40), _Point<float>(0.3f, 0.7f)), _Rect<int>(3, 14, 9, 28));
    EXPECT_EQ(scaleRect(_Rect<int>(3, 3, 5, 5), _Point<float>(0.5f, 2.0f)), _Rect<int>(1, 6, 2, 10));
}

// ---------------------------------------------------------------- scaleDataSquare

using ImageF = _ImageData<PixelRGB<float>>;

std::shared_ptr<const ImageF> makeImage(_Size<int> size, uint32_t seed) {
    auto image = std::make_shared<ImageF>(size, ColorProfileType::sRGBLinear());
    const std::vector<float> v = test::noise(image->pixelCount() * 3, seed);
    std::memcpy(image->data(), v.data(), v.size() * sizeof(float));
    return image;
}

std::vector<float> channelsOf(const ImageF& image) {
    const float* p = reinterpret_cast<const float*>(image.data());
    return std::vector<float>(p, p + image.pixelCount() * 3);
}

// An exact halving averages 2 x 2 blocks; float sums of four values in 0..1.
constexpr double kBoxMeanTolerance = 1e-6;

TEST(ScaleDataSquare, ReductionAveragesAreas) {
    MemoryBalance balance;
    {
        const auto src = makeImage({40, 30}, 3);
        const std::vector<float> before = channelsOf(*src);
        const auto out = scaleDataSquare(src, {20, 15});
        ASSERT_TRUE(out);
        EXPECT_EQ(out->size(), (_Size<int>{20, 15}));
        EXPECT_EQ(out->colorProfile(), src->colorProfile());
        for (int y = 0; y < 15; ++y)
            for (int x = 0; x < 20; ++x) {
                const float* o = &out->at(x, y).r;
                for (int c = 0; c < 3; ++c) {
                    double sum = 0;
                    for (int dy = 0; dy < 2; ++dy)
                        for (int dx = 0; dx < 2; ++dx) sum += (&src->at(2 * x + dx, 2 * y + dy).r)[c];
                    ASSERT_NEAR(o[c], sum / 4, kBoxMeanTolerance) << x << "," << y << "," << c;
                }
            }
        EXPECT_EQ(channelsOf(*src), before);
    }
    EXPECT_TRUE(balance.balanced());
}

// The branch is chosen by comparing the longer side of the data with the width asked
// for: smaller goes through the image's own resize, otherwise area resampling.
TEST(ScaleDataSquare, BranchFollowsLongerSideAgainstWidth) {
    MemoryBalance balance;
    {
        const auto small = makeImage({10, 8}, 4);
        const auto viaResize = scaleDataSquare(small, {20, 16});
        const auto expectResize = small->resize({20, 16}, _Rect<int>(0, 0, 0, 0), true);
        ASSERT_TRUE(viaResize && expectResize);
        EXPECT_EQ(channelsOf(*viaResize), channelsOf(*expectResize));

        const auto edge = makeImage({20, 10}, 5);  // longer side equal to the width: area path
        const auto viaArea = scaleDataSquare(edge, {20, 20});
        ASSERT_TRUE(viaArea);
        ImageF expectArea({20, 20}, edge->colorProfile());
        ASSERT_TRUE(resizeInterpolate(edge->data(), edge->size(), expectArea.data(), {20, 20}, 3, true,
                                      InterpolationType::Area, _Rect<int>(0, 0, 20, 10)));
        EXPECT_EQ(channelsOf(*viaArea), channelsOf(expectArea));
    }
    EXPECT_TRUE(balance.balanced());
}

TEST(ScaleDataSquare, FailuresGiveNull) {
    MemoryBalance balance;
    {
        const auto src = makeImage({12, 9}, 6);
        EXPECT_FALSE(scaleDataSquare(src, {0, 5}));  // the resampling refuses an empty size
        LogCapture log;
        EXPECT_FALSE(scaleDataSquare(nullptr, {4, 4}));
        EXPECT_EQ(log.lines(),
                  std::vector<std::string>{
                      "class std::shared_ptr<class zorl::_ImageData<struct zorl::PixelRGB<float> > const > __cdecl "
                      "zorl::scaleDataSquare(const class std::shared_ptr<class zorl::_ImageData<struct "
                      "zorl::PixelRGB<float> > const > &,struct zorl::_Size<int>): no data"});
    }
    EXPECT_TRUE(balance.balanced());
}

// ---------------------------------------------------------------- getRectangleIntersection

using Poly = polygon_t;

const _Rect<float> kRect{0, 0, 4, 2};  // corners (0,0) (4,0) (4,2) (0,2)

struct CutCase {
    const char* what;
    line_t line;
    Poly positive, rest;
};

// Lines chosen so that every crossing is exact in float.
const CutCase kCuts[] = {
    {"mask 0: misses", {{10, 0}, {1, 0}}, {}, {{0, 0}, {4, 0}, {4, 2}, {0, 2}}},
    {"mask 15: all positive", {{-1, 0}, {1, 0}}, {{0, 0}, {4, 0}, {4, 2}, {0, 2}}, {}},
    {"mask 0: corners on the line are not positive", {{4, 0}, {1, 0}}, {}, {{0, 0}, {4, 0}, {4, 2}, {0, 2}}},
    {"mask 1: top-left", {{0.5f, 0.5f}, {-1, -1}}, {{0, 1}, {0, 0}, {1, 0}}, {{1, 0}, {4, 0}, {4, 2}, {0, 2}, {0, 1}}},
    {"mask 2: top-right", {{3.5f, 0.5f}, {1, -1}}, {{3, 0}, {4, 0}, {4, 1}}, {{4, 1}, {4, 2}, {0, 2}, {0, 0}, {3, 0}}},
    {"mask 4: bottom-right", {{3.5f, 1.5f}, {1, 1}}, {{4, 1}, {4, 2}, {3, 2}}, {{3, 2}, {0, 2}, {0, 0}, {4, 0}, {4, 1}}},
    {"mask 8: bottom-left", {{0.5f, 1.5f}, {-1, 1}}, {{1, 2}, {0, 2}, {0, 1}}, {{0, 1}, {0, 0}, {4, 0}, {4, 2}, {1, 2}}},
    {"mask 3: top half", {{2, 1}, {0, -1}}, {{0, 1}, {0, 0}, {4, 0}, {4, 1}}, {{4, 1}, {4, 2}, {0, 2}, {0, 1}}},
    {"mask 6: right half", {{2, 1}, {1, 0}}, {{2, 0}, {4, 0}, {4, 2}, {2, 2}}, {{2, 2}, {0, 2}, {0, 0}, {2, 0}}},
    {"mask 6: unnormalised normal", {{2, 1}, {3, 0}}, {{2, 0}, {4, 0}, {4, 2}, {2, 2}}, {{2, 2}, {0, 2}, {0, 0}, {2, 0}}},
    // The right edge lies on the line: its corners are not positive, and the crossings
    // fall on them.
    {"mask 9: edge on the line", {{4, 0}, {-1, 0}}, {{4, 2}, {0, 2}, {0, 0}, {4, 0}}, {{4, 0}, {4, 0}, {4, 2}, {4, 2}}},
};

std::string show(const Poly& p) {
    std::string s;
    for (const vec2_t& v : p) {
        s += '(';
        s += std::to_string(v.x);
        s += ',';
        s += std::to_string(v.y);
        s += ')';
    }
    return s;
}

TEST(GetRectangleIntersection, EveryMaskClass) {
    for (const CutCase& c : kCuts) {
        SCOPED_TRACE(c.what);
        const auto [positive, rest] = getRectangleIntersection(kRect, c.line);
        EXPECT_EQ(positive, c.positive) << show(positive);
        EXPECT_EQ(rest, c.rest) << show(rest);
    }
}

// Turning the normal round exchanges the sides; with no corner on the line that
// exchanges the two polygons exactly (masks 14, 13, 11, 7, 12, 9 and 0 / 15 from the table).
TEST(GetRectangleIntersection, FlippedNormalSwapsThePolygons) {
    for (const CutCase& c : kCuts) {
        if (std::string(c.what).find("on the line") != std::string::npos) continue;
        SCOPED_TRACE(c.what);
        const line_t flipped{c.line.point, {-c.line.normal.x, -c.line.normal.y}};
        const auto [positive, rest] = getRectangleIntersection(kRect, flipped);
        EXPECT_EQ(positive, c.rest);
        EXPECT_EQ(rest, c.positive);
    }
}

double area(const Poly& p) {
    double a = 0;
    for (std::size_t i = 0; i < p.size(); ++i) {
        const vec2_t &u = p[i], &v = p[(i + 1) % p.size()];
        a += double(u.x) * v.y - double(v.x) * u.y;
    }
    return std::fabs(a) / 2;
}

// Random lines through the rectangle: the pieces tile it, every crossing lies on the line,
// and the positive piece holds exactly the corners on the positive side. Crossings are
// formed in float from coordinates below 10: 1e-4 covers their rounding.
TEST(GetRectangleIntersection, RandomCutsTileTheRectangle) {
    constexpr double kTolerance = 1e-4;
    const _Rect<float> rect{1.5f, -2.0f, 6.0f, 3.5f};
    std::mt19937 rng(17);
    std::uniform_real_distribution<float> inside(0.05f, 0.95f), angle(0.0f, 6.2831853f), scale(0.1f, 10.0f);
    for (int i = 0; i < 200; ++i) {
        const float a = angle(rng), s = scale(rng);
        const line_t line{{rect.x + inside(rng) * rect.width, rect.y + inside(rng) * rect.height},
                          {s * std::cos(a), s * std::sin(a)}};
        std::pair<Poly, Poly> cut;
        try {
            cut = getRectangleIntersection(rect, line);
        } catch (const ParallelEdgeError&) {
            continue;  // a near-axis normal against the edge it barely cuts
        }
        SCOPED_TRACE(i);
        EXPECT_NEAR(area(cut.first) + area(cut.second), double(rect.width) * rect.height, kTolerance);
        for (const Poly* p : {&cut.first, &cut.second}) {
            ASSERT_GE(p->size(), 3u);
            for (const vec2_t v : {p->front(), p->back()}) {
                const double d = (double(v.x) - line.point.x) * line.normal.x + (double(v.y) - line.point.y) * line.normal.y;
                EXPECT_NEAR(d / s, 0.0, kTolerance);
            }
        }
        const vec2_t corners[] = {{rect.x, rect.y}, {rect.x + rect.width, rect.y},
                                  {rect.x + rect.width, rect.y + rect.height}, {rect.x, rect.y + rect.height}};
        int positiveCorners = 0;
        for (const vec2_t& c : corners)
            positiveCorners += (c.x - line.point.x) * line.normal.x + (c.y - line.point.y) * line.normal.y > 0;
        EXPECT_EQ(cut.first.size(), std::size_t(positiveCorners + 2));
    }
}

// Opposite corners alone on one side cannot come from a straight cut in exact arithmetic;
// these lines meet the rectangle so obliquely (normals ~1e-5 and below) that float
// rounding of the side test produces them.
TEST(GetRectangleIntersection, OppositeCornersThrow) {
    struct Case {
        _Rect<float> rect;
        line_t line;
    };
    const Case cases[] = {
        {{0, -2, 3, 2}, {{9.10984729e-17f, 0}, {5.27665907e-05f, -9.00891453e-15f}}},  // mask 5
        {{0, 0, 2, 3}, {{0, 0}, {7.71442501e-06f, 8.48693787e-07f}}},                   // mask 10
    };
    for (const Case& c : cases) {
        try {
            getRectangleIntersection(c.rect, c.line);
            ADD_FAILURE() << "no exception";
        } catch (const ParallelEdgeError&) {
            ADD_FAILURE() << "wrong exception";
        } catch (const std::runtime_error& e) {
            EXPECT_STREQ(e.what(), "Unexpected branch of getRectangleIntersection function.");
        }
    }
}

TEST(GetRectangleIntersection, ParallelCutEdgeThrowsWithItsCorners) {
    // Normal 1e-7 along x: the corners at x = 0 come out positive, those at x = -2 do not
    // (their foot rounds back onto them), so the top edge is cut, and its unit direction
    // meets the normal at 1e-7 <= 1e-6.
    try {
        getRectangleIntersection({-2, 0, 2, 1}, {{-1, 0}, {1e-7f, 0}});
        ADD_FAILURE() << "no exception";
    } catch (const ParallelEdgeError& e) {
        EXPECT_EQ(e.firstCorner(), 1);
        EXPECT_EQ(e.secondCorner(), 2);
        EXPECT_NE(std::string(e.what()).find("corner 1 to corner 2"), std::string::npos);
    }
}

}  // namespace
}  // namespace zorl
