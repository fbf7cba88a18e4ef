// MaskImage: fill checks, inversion, zero counts, resizing, the byte rule of
// discretizeMask, and the stream round trip.
#include <zorl/core/mask_image.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "support/test_support.h"

namespace zorl {
namespace {

TEST(MaskImage, FillInvertAndCount) {
    test::MemoryBalance balance;
    {
        MaskImage m(_Size<int>(4, 3), 1.0f);
        EXPECT_TRUE(m.isFilled(1.0f));
        EXPECT_FALSE(m.isFilled(0.0f));
        EXPECT_EQ(m.zeroPixelsCount(), 0u);
        m.at(3, 2) = 0.25f;
        EXPECT_FALSE(m.isFilled(1.0f));
        m.invert();
        EXPECT_EQ(m.zeroPixelsCount(), 11u);
        EXPECT_EQ(m.at(3, 2), 0.75f);
        m.invert();
        EXPECT_EQ(m.at(0, 0), 1.0f);

        MaskImage n(_Size<int>(2, 2), std::numeric_limits<float>::quiet_NaN());
        EXPECT_FALSE(n.isFilled(std::numeric_limits<float>::quiet_NaN()));  // NaN equals nothing

        const float px[6] = {0, 0.5f, 1, 0, 0, 0.25f};
        MaskImage fromPixels(px, _Size<int>(3, 2));
        EXPECT_EQ(std::memcmp(fromPixels.data(), px, sizeof px), 0);
        EXPECT_EQ(fromPixels.zeroPixelsCount(), 3u);
        MaskImage fromNull(nullptr, _Size<int>(3, 2));
        EXPECT_TRUE(fromNull.isFilled(0.0f));

        MaskImage copy(fromPixels);
        copy.invert();
        EXPECT_EQ(fromPixels.at(1, 0), 0.5f);
        EXPECT_TRUE(MaskImage(_Size<int>(0, 0), 0.5f).isFilled(0.5f));  // vacuously
    }
    EXPECT_TRUE(balance.balanced());
}

TEST(MaskImage, ResizeKeepsLevelsAndRegion) {
    // Left half 0, right half 1: halving keeps the halves exactly (area and nearest).
    MaskImage m(_Size<int>(8, 4), 0.0f);
    m.fillRect(1.0f, {4, 0, 4, 4});
    for (bool smooth : {true, false}) {
        const auto half = m.resize({4, 2}, kNoRegion, smooth);
        ASSERT_NE(half, nullptr);
        for (int y = 0; y < 2; ++y)
            for (int x = 0; x < 4; ++x) EXPECT_EQ(half->at(x, y), x < 2 ? 0.0f : 1.0f) << smooth;
    }
    // Area average of the 2 x 2 region across the edge.
    const auto one = m.resize({1, 1}, InterpolationType::Area, {3, 1, 2, 2}, true);
    EXPECT_FLOAT_EQ(one->at(0, 0), 0.5f);
    // Enlarging keeps a constant mask constant.
    const auto big = MaskImage(_Size<int>(2, 2), 0.25f).resize({5, 7}, kNoRegion, true);
    EXPECT_TRUE(big->isFilled(0.25f));
    EXPECT_EQ(m.resize({0, 1}, kNoRegion, true), nullptr);
    EXPECT_EQ(m.resize({1, 1}, {20, 0, 2, 2}, true), nullptr);
}

TEST(MaskImage, DiscretizeFollowsTheLibraryRule) {
    // clamp to 0..1 with NaN to 0, times 255, truncated (never rounded).
    const float in[] = {std::numeric_limits<float>::quiet_NaN(), -1.0f, 0.0f, 0.5f, 0.999f, 1.0f, 2.0f,
                        std::numeric_limits<float>::infinity(), 1.0f / 255.0f, 0.00392f};
    const uint8_t out[] = {0, 0, 0, 127, 254, 255, 255, 255, 1, 0};
    MaskImage m(in, _Size<int>(int(std::size(in)), 1));
    std::vector<uint8_t> bytes = {9, 9};  // replaced, not appended to
    discretizeMask(m, bytes);
    ASSERT_EQ(bytes.size(), std::size(in));
    for (std::size_t i = 0; i < bytes.size(); ++i) EXPECT_EQ(bytes[i], out[i]) << in[i];
}

TEST(MaskImage, EncodedMaskDecodesAsMask) {
    const auto v = test::noise(11 * 5, 17);
    MaskImage m(v.data(), _Size<int>(11, 5));
    for (Compression c : {Compression::None, Compression::Zlib}) {
        auto e = std::make_shared<Encoder>();
        m.encode(e, c);
        MaskImage back(std::make_shared<Decoder>(e->take()));
        ASSERT_EQ(back.size(), m.size());
        EXPECT_EQ(std::memcmp(back.data(), m.data(), m.byteCount()), 0);
    }
    EXPECT_THROW(MaskImage(std::make_shared<Decoder>(std::vector<uint8_t>{1, 0, 0})), DecodeError);
}

}  // namespace
}  // namespace zorl
