// The Halton points: index i is the radical inverse of i + 1 in bases 2, 3, 5, ...
#include <zorl/halton/halton.h>

#include "support/test_support.h"

namespace zorl {
namespace {

TEST(Halton, FirstPointsExactly) {
    struct Case {
        int index;
        float x, y, z;
    };
    // Bases 2, 3 and 5 written out by hand for n = index + 1.
    const Case cases[] = {
        {0, 1.0f / 2, 1.0f / 3, 1.0f / 5},  {1, 1.0f / 4, 2.0f / 3, 2.0f / 5},  {2, 3.0f / 4, 1.0f / 9, 3.0f / 5},
        {3, 1.0f / 8, 4.0f / 9, 4.0f / 5},  {4, 5.0f / 8, 7.0f / 9, 1.0f / 25}, {5, 3.0f / 8, 2.0f / 9, 6.0f / 25},
        {6, 7.0f / 8, 5.0f / 9, 11.0f / 25}, {7, 1.0f / 16, 8.0f / 9, 16.0f / 25}, {8, 9.0f / 16, 1.0f / 27, 21.0f / 25},
        {19, 5.0f / 32, 20.0f / 27, 4.0f / 25},  // n = 20 = 10100b = 202 (base 3) = 40 (base 5)
    };
    for (const Case& c : cases) {
        float p[3] = {-1, -1, -1};
        ASSERT_TRUE(halton(c.index, 3, nullptr, nullptr, p)) << c.index;
        EXPECT_FLOAT_EQ(p[0], c.x) << c.index;
        EXPECT_FLOAT_EQ(p[1], c.y) << c.index;
        EXPECT_FLOAT_EQ(p[2], c.z) << c.index;
        float q[2] = {-1, -1};
        ASSERT_TRUE(halton(c.index, 2, nullptr, nullptr, q));
        EXPECT_EQ(q[0], p[0]);  // a coordinate does not depend on the dimension asked for
        EXPECT_EQ(q[1], p[1]);
    }
}

TEST(Halton, ScratchAndRejectedArguments) {
    float inv[2] = {}, p[2] = {};
    int digits[2] = {};
    ASSERT_TRUE(halton(4, 2, inv, digits, p));  // n = 5 = 101b = 12 (base 3)
    EXPECT_EQ(inv[0], 0.5f);
    EXPECT_EQ(inv[1], 1.0f / 3.0f);
    EXPECT_EQ(digits[0], 1);
    EXPECT_EQ(digits[1], 2);

    const struct {
        int index, dimension;
    } bad[] = {{-1, 2}, {0, 0}, {0, kHaltonMaxDimension + 1}};
    for (auto b : bad) {
        float q[2] = {7, 7};
        EXPECT_FALSE(halton(b.index, b.dimension, nullptr, nullptr, q));
        EXPECT_EQ(q[0], 7.0f);
    }
    EXPECT_FALSE(halton(0, 2, nullptr, nullptr, nullptr));
    float all[kHaltonMaxDimension];
    ASSERT_TRUE(halton(0, kHaltonMaxDimension, nullptr, nullptr, all));
    EXPECT_FLOAT_EQ(all[kHaltonMaxDimension - 1], 1.0f / 53);  // the 16th prime
}

}  // namespace
}  // namespace zorl
