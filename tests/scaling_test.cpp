// Scaling helpers: each function's rounding rule on cases that tell the rules apart
// (integer product then float division then truncation, float multiply then roundf,
// truncation toward zero rather than floor, single- rather than double-precision
// division, 32-bit products), scaleDataSquare's two branches, and getRectangleIntersection
// on every class of corner mask.

#include <imageprocessing/scaling.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include <zorl/core/image_utils.h>

#include "support/test_support.h"

namespace zorl {

// Polygons print as their points in failure messages.
void PrintTo(const vec2_t& v, std::ostream* os) { *os << '(' << v.x << ',' << v.y << ')'; }

namespace {

using test::LogCapture;
using test::MemoryBalance;

// ---------------------------------------------------------------- sizes

_Size<int> byMinSide(const _Size<int>& s, int n) { return scaleSizeByMinSide(s, n); }
_Size<int> for1000p(const _Size<int>& s, int) { return scaleSizeFor1000p(s); }

TEST(ScaleSize, RoundingRules) {
    struct Case {
        const char* what;
        _Size<int> (*fn)(const _Size<int>&, int);
        _Size<int> in;
        int n;
        _Size<int> out;
    };
    const Case cases[] = {
        {"landscape", scaleSize, {4000, 3000}, 1000, {1000, 750}},
        {"portrait", scaleSize, {3000, 4000}, 1000, {750, 1000}},
        {"square counts as height-longer", scaleSize, {3, 3}, 2, {2, 2}},
        {"truncates 749.75", scaleSize, {4000, 2999}, 1000, {1000, 749}},
        {"enlarges", scaleSize, {30, 20}, 60, {60, 40}},
        // 27431 * 1000 / 32773 = 836.9999..., 837 in single precision (836 in double).
        {"single-precision division", scaleSize, {32773, 27431}, 1000, {1000, 837}},
        // 60000 * 40000 wraps in 32 bits to -1894967296.
        {"32-bit product", scaleSize, {100000, 60000}, 40000, {40000, -18949}},
        {"rounds 749.75 up", scaleSizeToMax, {4000, 2999}, 1000, {1000, 750}},
        {"rounds half away from zero", scaleSizeToMax, {2000, 1001}, 1000, {1000, 501}},
        {"rounds down below half", scaleSizeToMax, {2998, 4001}, 1000, {749, 1000}},
        {"never enlarges", scaleSizeToMax, {800, 600}, 1000, {800, 600}},
        {"exactly max is kept", scaleSizeToMax, {1000, 600}, 1000, {1000, 600}},
        {"max 0 keeps", scaleSizeToMax, {4000, 3000}, 0, {4000, 3000}},
        {"1000p", for1000p, {4000, 2999}, 0, {1000, 750}},
        {"min side landscape", byMinSide, {4000, 3000}, 1000, {1333, 1000}},
        {"min side portrait", byMinSide, {3000, 4000}, 1000, {1000, 1333}},
        {"min side already small", byMinSide, {900, 3000}, 1000, {900, 3000}},
        {"min side n 0 keeps", byMinSide, {4000, 3000}, 0, {4000, 3000}},
        {"wider request keeps", scaleSizeByMinWidth, {500, 300}, 1000, {500, 300}},
        {"width cap, single precision", scaleSizeByMinWidth, {32773, 27431}, 1000, {1000, 837}},
    };
    for (const Case& c : cases) {
        const _Size<int> got = c.fn(c.in, c.n);
        EXPECT_EQ(got.width, c.out.width) << c.what;
        EXPECT_EQ(got.height, c.out.height) << c.what;
    }
}

TEST(ScaleRect, TruncatesOriginAndExtentIndependently) {
    EXPECT_EQ(scaleRect({3, 3, 5, 5}, {10, 10}, {5, 5}), _Rect<int>(1, 1, 2, 2));  // right edge 3, one short of 4
    EXPECT_EQ(scaleRect({-3, -5, 7, 9}, {10, 10}, {5, 5}), _Rect<int>(-1, -2, 3, 4));  // toward zero, not floor
    EXPECT_EQ(scaleRect({10, 20, 30, 40}, {100, 100}, {300, 50}), _Rect<int>(30, 10, 90, 20));  // per axis
    // 20 * 0.7f is 13.99999976 exactly, 14 once rounded to float: the product is float.
    EXPECT_EQ(scaleRect(_Rect<int>(10, 20, 30, 40), _Point<float>(0.3f, 0.7f)), _Rect<int>(3, 14, 9, 28));
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

// The branch follows the longer side of the data against the width asked for: smaller
// goes through the image's own resize, otherwise (equal included) area resampling.
TEST(ScaleDataSquare, BothBranches) {
    MemoryBalance balance;
    {
        const auto small = makeImage({10, 8}, 4), edge = makeImage({20, 10}, 5);
        const std::vector<float> before = channelsOf(*edge);
        const auto viaResize = scaleDataSquare(small, {20, 16});
        const auto expectResize = small->resize({20, 16}, _Rect<int>(0, 0, 0, 0), true);
        ASSERT_TRUE(viaResize && expectResize);
        EXPECT_EQ(channelsOf(*viaResize), channelsOf(*expectResize));

        const auto viaArea = scaleDataSquare(edge, {20, 20});  // longer side equal to the width
        ImageF expectArea({20, 20}, edge->colorProfile());
        ASSERT_TRUE(viaArea && resizeInterpolate(edge->data(), edge->size(), expectArea.data(), {20, 20}, 3, true,
                                                 InterpolationType::Area, _Rect<int>(0, 0, 20, 10)));
        EXPECT_EQ(channelsOf(*viaArea), channelsOf(expectArea));
        EXPECT_EQ(viaArea->colorProfile(), edge->colorProfile());
        EXPECT_EQ(channelsOf(*edge), before);

        EXPECT_FALSE(scaleDataSquare(edge, {0, 5}));  // the resampling refuses an empty size
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

// Every mask class on the rectangle (0,0) (4,0) (4,2) (0,2), lines chosen so that every
// crossing is exact in float. Turning the normal round exchanges the sides; with no
// corner on the line that exchanges the two polygons exactly.
TEST(GetRectangleIntersection, EveryMaskClass) {
    struct Case {
        const char* what;
        line_t line;
        polygon_t positive, rest;
        bool cornerOnLine;
    };
    const Case cases[] = {
        {"mask 0: misses", {{10, 0}, {1, 0}}, {}, {{0, 0}, {4, 0}, {4, 2}, {0, 2}}, false},
        {"mask 15: all positive", {{-1, 0}, {1, 0}}, {{0, 0}, {4, 0}, {4, 2}, {0, 2}}, {}, false},
        {"mask 1", {{0.5f, 0.5f}, {-1, -1}}, {{0, 1}, {0, 0}, {1, 0}}, {{1, 0}, {4, 0}, {4, 2}, {0, 2}, {0, 1}}, false},
        {"mask 2", {{3.5f, 0.5f}, {1, -1}}, {{3, 0}, {4, 0}, {4, 1}}, {{4, 1}, {4, 2}, {0, 2}, {0, 0}, {3, 0}}, false},
        {"mask 4", {{3.5f, 1.5f}, {1, 1}}, {{4, 1}, {4, 2}, {3, 2}}, {{3, 2}, {0, 2}, {0, 0}, {4, 0}, {4, 1}}, false},
        {"mask 8", {{0.5f, 1.5f}, {-1, 1}}, {{1, 2}, {0, 2}, {0, 1}}, {{0, 1}, {0, 0}, {4, 0}, {4, 2}, {1, 2}}, false},
        {"mask 3", {{2, 1}, {0, -1}}, {{0, 1}, {0, 0}, {4, 0}, {4, 1}}, {{4, 1}, {4, 2}, {0, 2}, {0, 1}}, false},
        {"mask 6", {{2, 1}, {1, 0}}, {{2, 0}, {4, 0}, {4, 2}, {2, 2}}, {{2, 2}, {0, 2}, {0, 0}, {2, 0}}, false},
        {"mask 6, unnormalised", {{2, 1}, {3, 0}}, {{2, 0}, {4, 0}, {4, 2}, {2, 2}}, {{2, 2}, {0, 2}, {0, 0}, {2, 0}}, false},
        // The right edge lies on the line: its corners are not positive, the crossings fall on them.
        {"mask 9", {{4, 0}, {-1, 0}}, {{4, 2}, {0, 2}, {0, 0}, {4, 0}}, {{4, 0}, {4, 0}, {4, 2}, {4, 2}}, true},
    };
    const _Rect<float> rect{0, 0, 4, 2};
    for (const Case& c : cases) {
        const auto [positive, rest] = getRectangleIntersection(rect, c.line);
        EXPECT_EQ(positive, c.positive) << c.what;
        EXPECT_EQ(rest, c.rest) << c.what;
        if (c.cornerOnLine) continue;
        const auto [flippedPositive, flippedRest] =
            getRectangleIntersection(rect, {c.line.point, {-c.line.normal.x, -c.line.normal.y}});
        EXPECT_EQ(flippedPositive, c.rest) << c.what << " flipped";
        EXPECT_EQ(flippedRest, c.positive) << c.what << " flipped";
    }
}

double area(const polygon_t& p) {
    double a = 0;
    for (std::size_t i = 0; i < p.size(); ++i)
        a += double(p[i].x) * p[(i + 1) % p.size()].y - double(p[(i + 1) % p.size()].x) * p[i].y;
    return std::fabs(a) / 2;
}

// Random lines through the rectangle: the two pieces tile it. Crossings are formed in
// float from coordinates below 10: 1e-4 covers their rounding.
TEST(GetRectangleIntersection, RandomCutsTileTheRectangle) {
    constexpr double kTolerance = 1e-4;
    const _Rect<float> rect{1.5f, -2.0f, 6.0f, 3.5f};
    std::mt19937 rng(17);
    std::uniform_real_distribution<float> inside(0.05f, 0.95f), angle(0.0f, 6.2831853f), scale(0.1f, 10.0f);
    for (int i = 0; i < 200; ++i) {
        const float a = angle(rng), s = scale(rng);
        const line_t line{{rect.x + inside(rng) * rect.width, rect.y + inside(rng) * rect.height},
                          {s * std::cos(a), s * std::sin(a)}};
        try {
            const auto [positive, rest] = getRectangleIntersection(rect, line);
            EXPECT_NEAR(area(positive) + area(rest), double(rect.width) * rect.height, kTolerance) << i;
        } catch (const ParallelEdgeError&) {
            // a near-axis normal against the edge it barely cuts
        }
    }
}

// Opposite corners alone on one side (masks 5 and 10) cannot come from a straight cut in
// exact arithmetic; these lines meet the rectangle so obliquely (normals ~1e-5 and below)
// that float rounding of the side test produces them. The last line's normal of 1e-7
// along x leaves the corners at x = 0 positive and those at x = -2 not (their foot
// rounds back onto them): the top edge is cut, and its direction meets the normal at
// 1e-7 <= 1e-6.
TEST(GetRectangleIntersection, ImpossibleCutsThrow) {
    struct Case {
        _Rect<float> rect;
        line_t line;
        int firstCorner, secondCorner;  // 0: the opposite-corner error
    };
    const Case cases[] = {
        {{0, -2, 3, 2}, {{9.10984729e-17f, 0}, {5.27665907e-05f, -9.00891453e-15f}}, 0, 0},  // mask 5
        {{0, 0, 2, 3}, {{0, 0}, {7.71442501e-06f, 8.48693787e-07f}}, 0, 0},                   // mask 10
        {{-2, 0, 2, 1}, {{-1, 0}, {1e-7f, 0}}, 1, 2},
    };
    for (const Case& c : cases) {
        try {
            getRectangleIntersection(c.rect, c.line);
            ADD_FAILURE() << "no exception";
        } catch (const ParallelEdgeError& e) {
            EXPECT_EQ(e.firstCorner(), c.firstCorner);
            EXPECT_EQ(e.secondCorner(), c.secondCorner);
            EXPECT_NE(std::string(e.what()).find("corner 1 to corner 2"), std::string::npos);
        } catch (const std::runtime_error& e) {
            EXPECT_EQ(c.firstCorner, 0);
            EXPECT_STREQ(e.what(), "Unexpected branch of getRectangleIntersection function.");
        }
    }
}

}  // namespace
}  // namespace zorl
