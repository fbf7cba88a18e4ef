// SIMD pixel helpers: lane order, arithmetic, and loads and stores that touch exactly
// one pixel of a packed plane.
#include <zorl/core/simd_pixel.h>

#include <vector>

#include "support/test_support.h"

namespace grfx {
namespace {

constexpr float kSentinel = -777.0f;

// Stores pixel `index` of a plane of `count` pixels of `channels` floats, and checks that
// every other float kept its sentinel. The plane is a vector of exactly that many floats
// so that AddressSanitizer sees any access past its end.
template <class P>
void checkStoreTouchesOnePixel(int channels, const P& value, const float* expect) {
    constexpr std::size_t kCount = 5;
    for (std::size_t index = 0; index < kCount; ++index) {
        std::vector<float> plane(kCount * channels, kSentinel);
        P::store(plane.data(), index, value);
        for (std::size_t i = 0; i < plane.size(); ++i) {
            const bool mine = i / channels == index;
            EXPECT_EQ(plane[i], mine ? expect[i % channels] : kSentinel) << "pixel " << index << " float " << i;
        }
    }
}

TEST(SimdPixel, StoreWritesOnlyItsPixel) {
    const float four[4] = {1, 2, 3, 4};
    checkStoreTouchesOnePixel(4, pixel_t(1, 2, 3, 4), four);
    const float three[3] = {5, 6, 7};
    checkStoreTouchesOnePixel(3, pixel_rgb_t(5, 6, 7), three);
    const float one[1] = {8};
    checkStoreTouchesOnePixel(1, pixel_gray_t(8), one);
}

TEST(SimdPixel, LoadReadsOnlyItsPixelUpToThePlaneEnd) {
    // The last pixel of a plane sized exactly: an over-read would leave the allocation.
    for (std::size_t count : {1u, 2u, 7u}) {
        std::vector<float> rgb(3 * count), argb(4 * count), gray(count);
        for (std::size_t i = 0; i < rgb.size(); ++i) rgb[i] = float(i);
        for (std::size_t i = 0; i < argb.size(); ++i) argb[i] = float(i);
        for (std::size_t i = 0; i < gray.size(); ++i) gray[i] = float(i);
        const std::size_t last = count - 1;
        const pixel_rgb_t p = pixel_rgb_t::load(rgb.data(), last);
        EXPECT_EQ(p.red(), float(3 * last));
        EXPECT_EQ(p.green(), float(3 * last + 1));
        EXPECT_EQ(p.blue(), float(3 * last + 2));
        EXPECT_EQ(p.lane(3), 0.0f);  // the unused lane is zero, not the next pixel
        const pixel_t q = pixel_t::load(argb.data(), last);
        EXPECT_EQ(q.alpha(), float(4 * last));
        EXPECT_EQ(q.red(), float(4 * last + 1));
        EXPECT_EQ(q.blue(), float(4 * last + 3));
        EXPECT_EQ(pixel_gray_t::load(gray.data(), last).red(), float(last));
    }
}

TEST(SimdPixel, ArithmeticIsPerLane) {
    const pixel_t a(1, 2, 3, 4), b(8, 4, 2, 1);
    const pixel_t s = a + b, d = a - b, m = a * b, q = a / b, k = a * 2.0f;
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(s.lane(i), a.lane(i) + b.lane(i));
        EXPECT_EQ(d.lane(i), a.lane(i) - b.lane(i));
        EXPECT_EQ(m.lane(i), a.lane(i) * b.lane(i));
        EXPECT_EQ(q.lane(i), a.lane(i) / b.lane(i));
        EXPECT_EQ(k.lane(i), 2 * a.lane(i));
        EXPECT_EQ(min(a, b).lane(i), std::min(a.lane(i), b.lane(i)));
    }
    pixel_rgb_t r(1, 4, 9);
    r += pixel_rgb_t(1.0f);
    r = sqrt(r * pixel_rgb_t(1, 1, 1));
    EXPECT_FLOAT_EQ(r.red(), std::sqrt(2.0f));
    EXPECT_FLOAT_EQ(r.blue(), std::sqrt(10.0f));
    EXPECT_EQ((pixel_gray_t(6) / pixel_gray_t(3)).red(), 2.0f);
}

TEST(SimdPixel, PlanesComeFromMemoryManager) {
    zorl::test::MemoryBalance balance;
    const std::size_t before = zorl::MemoryManager::instance().liveBytes();
    float* p = pixel_t::alloc(7, 3);
    float* r = pixel_rgb_t::alloc(7, 3);
    float* g = pixel_gray_t::alloc(7, 3);
    EXPECT_EQ(zorl::MemoryManager::instance().liveBytes(), before + (4 + 3 + 1) * 21 * sizeof(float));
    pixel_t::free(p);
    pixel_rgb_t::free(r);
    pixel_gray_t::free(g);
    EXPECT_TRUE(balance.balanced());
}

}  // namespace
}  // namespace grfx
