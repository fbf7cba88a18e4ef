// _ImageData<T>: construction, region copies, flips, fills, resizing, and the encoded
// stream, including streams written by an attacker.
#include <zorl/core/image_data.h>
#include <zorl/core/image_utils.h>

#include <cstring>
#include <limits>

#include "support/test_support.h"

namespace zorl {
namespace {

using RGBf = PixelRGB<float>;
using ImageF = _ImageData<float>;
using ImageRGBf = _ImageData<RGBf>;

// A float image whose pixel (x, y) holds 100 y + x: every value names its position.
std::shared_ptr<ImageF> ramp(int w, int h) {
    auto img = std::make_shared<ImageF>(_Size<int>(w, h), ColorProfileType::sRGB());
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) img->at(x, y) = float(100 * y + x);
    return img;
}

std::shared_ptr<ImageRGBf> noiseRGB(int w, int h, uint32_t seed) {
    auto img = std::make_shared<ImageRGBf>(_Size<int>(w, h), ColorProfileType::proPhotoRGB());
    const auto v = test::noise(std::size_t(w) * h * 3, seed);
    std::memcpy(img->data(), v.data(), img->byteCount());
    return img;
}

template <class Img>
std::vector<uint8_t> encoded(const Img& img, Compression c) {
    auto e = std::make_shared<Encoder>();
    img.encode(e, c);
    return e->take();
}

TEST(ImageData, ConstructionAndCopyAreDeep) {
    test::MemoryBalance balance;
    {
        const RGBf fill{0.25f, -1.0f, 2.0f};
        ImageRGBf a(_Size<int>(5, 3), fill, ColorProfileType::sRGB());
        a.setLoadState(ImageLoadState::Preview);
        ImageRGBf b(a);
        b.at(4, 2) = {0, 0, 0};
        EXPECT_EQ(a.at(4, 2), fill);  // the copy owns its pixels
        EXPECT_EQ(b.at(0, 0), fill);
        EXPECT_EQ(b.getLoadState(), ImageLoadState::Preview);
        EXPECT_TRUE(a.isSameType(b));
        EXPECT_FALSE(a.isSameType(ImageF(_Size<int>(5, 3), ColorProfileType::sRGB())));
        EXPECT_EQ(ImageF(_Size<int>(-4, 3), ColorProfileType::None()).size(), _Size<int>(0, 3));
    }
    EXPECT_TRUE(balance.balanced());
}

TEST(ImageData, CopiesTakeTheClippedRectangle) {
    const auto img = ramp(6, 4);
    const struct {
        _Rect<int> asked, got;  // got empty: no copy
    } cases[] = {
        {kNoRegion, {0, 0, 6, 4}},    {{1, 2, 3, 2}, {1, 2, 3, 2}}, {{4, -1, 5, 3}, {4, 0, 2, 2}},
        {{0, 3, 6, 1}, {0, 3, 6, 1}}, {{6, 0, 2, 2}, {}},           {{-3, -3, 2, 2}, {}},
    };
    ImageF::Ptr into;
    for (const auto& c : cases) {
        const auto part = img->copy(c.asked);
        ASSERT_EQ(part == nullptr, c.got.isEmpty());
        if (!part) continue;
        img->copyTo(into, c.asked);  // the same, into a destination made anew when of another size
        ASSERT_EQ(part->size(), c.got.size());
        for (int y = 0; y < c.got.height; ++y)
            for (int x = 0; x < c.got.width; ++x) {
                EXPECT_EQ(part->at(x, y), img->at(c.got.x + x, c.got.y + y));
                EXPECT_EQ(into->at(x, y), img->at(c.got.x + x, c.got.y + y));
            }
    }
}

TEST(ImageData, FlipsAndFills) {
    const auto img = ramp(5, 3);
    for (bool h : {false, true})
        for (bool v : {false, true}) {
            ImageF::Ptr once, twice;
            img->copyFlippedTo(once, h, v);
            for (int y = 0; y < 3; ++y)
                for (int x = 0; x < 5; ++x) ASSERT_EQ(once->at(x, y), img->at(h ? 4 - x : x, v ? 2 - y : y)) << h << v;
            once->copyFlippedTo(twice, h, v);
            EXPECT_EQ(std::memcmp(twice->data(), img->data(), img->byteCount()), 0);  // twice: the original
        }
    img->fillRect(-1.0f, {3, 2, 10, 10});  // clipped
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 5; ++x) EXPECT_EQ(img->at(x, y), (x >= 3 && y >= 2) ? -1.0f : float(100 * y + x));
}

TEST(ImageData, ResizeSemantics) {
    // 2 x 2 blocks of constant value: area reduction by two gives each block's value,
    // nearest picks one pixel of each block. The load state is kept.
    auto blocks = std::make_shared<ImageF>(_Size<int>(8, 6), ColorProfileType::sRGB());
    for (int y = 0; y < 6; ++y)
        for (int x = 0; x < 8; ++x) blocks->at(x, y) = float(10 * (y / 2) + x / 2);
    blocks->setLoadState(ImageLoadState::Thumbnail);
    for (bool smooth : {true, false}) {
        const auto half = blocks->resize({4, 3}, kNoRegion, smooth);
        EXPECT_EQ(half->getLoadState(), ImageLoadState::Thumbnail);
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 4; ++x) EXPECT_FLOAT_EQ(half->at(x, y), float(10 * y + x)) << smooth;
    }
    // Area averaging gives the mean; a region at its own size is copied; an empty size or
    // a region outside gives nothing.
    const auto ramped = ramp(4, 2);
    EXPECT_FLOAT_EQ(ramped->resize({1, 1}, {0, 0, 2, 2}, true)->at(0, 0), (0 + 1 + 100 + 101) / 4.0f);
    EXPECT_EQ(ramped->resize({2, 1}, {1, 1, 2, 1}, true)->at(1, 0), 102.0f);
    EXPECT_EQ(ramped->resize({0, 5}, kNoRegion, true), nullptr);
    EXPECT_EQ(ramped->resize({2, 2}, {5, 5, 2, 2}, true), nullptr);
}

TEST(ImageData, EncodeDecodeRoundTrips) {
    const ImageRGBf flat(_Size<int>(64, 64), RGBf{0.5f, 0.5f, 0.5f}, ColorProfileType::sRGB());  // zlib compresses
    EXPECT_LT(encoded(flat, Compression::Zlib).size(), flat.byteCount() / 20);
    test::MemoryBalance balance;
    for (Compression c : {Compression::None, Compression::Zlib}) {
        const auto rgb = noiseRGB(13, 7, 3);
        rgb->setLoadState(ImageLoadState::Preview);
        const ImageRGBf back(std::make_shared<Decoder>(encoded(*rgb, c)));
        EXPECT_EQ(*back.colorProfile(), ColorProfile(ColorProfile::Kind::ProPhotoRGB));
        EXPECT_EQ(back.getLoadState(), ImageLoadState::Preview);
        EXPECT_TRUE(back.size() == rgb->size() && std::memcmp(back.data(), rgb->data(), rgb->byteCount()) == 0);
        const auto gray = ramp(9, 4);
        const ImageF grayBack(std::make_shared<Decoder>(encoded(*gray, c)));
        EXPECT_EQ(std::memcmp(grayBack.data(), gray->data(), gray->byteCount()), 0);
        const ImageF none(_Size<int>(0, 0), ColorProfileType::None());
        EXPECT_TRUE(ImageF(std::make_shared<Decoder>(encoded(none, c))).empty());
    }
    EXPECT_TRUE(balance.balanced());
}

// Header layout (little-endian int32 fields): version, type, width, height, profile,
// load state, compression, then uint64 raw byte count [, uint64 packed length], pixels.
std::vector<uint8_t> header(int version, int type, int w, int h, int compression, uint64_t raw,
                            std::vector<uint8_t> packed = {}) {
    Encoder e;
    for (int v : {version, type, w, h, 1, 3, compression}) e.encodeInt(v);
    e.encodeUint64(raw);
    if (compression == 1) e.encodeUint64(packed.size());
    e.encodeData(packed.data(), packed.size());
    return e.take();
}

TEST(ImageData, HostileStreamsAreRefusedWithoutAllocating) {
    test::MemoryBalance balance;
    const auto refuse = [&](std::vector<uint8_t> bytes, const std::string& what) {
        EXPECT_THROW(ImageRGBf img(std::make_shared<Decoder>(std::move(bytes))), DecodeError) << what;
        EXPECT_TRUE(balance.balanced()) << what;
    };
    const int rgb = static_cast<int>(ImageDataType::RgbF32);
    // Every truncation of a valid stream, in both modes.
    for (Compression c : {Compression::None, Compression::Zlib}) {
        const auto full = encoded(*noiseRGB(3, 2, 9), c);
        for (std::size_t n = 0; n < full.size(); ++n)
            refuse(std::vector<uint8_t>(full.begin(), full.begin() + n), "truncated to " + std::to_string(n));
    }
    refuse(header(2, rgb, 1, 1, 0, 12), "unknown version");
    refuse(header(1, static_cast<int>(ImageDataType::GrayF32), 1, 1, 0, 4), "other pixel type");
    refuse(header(1, rgb, -1, 1, 0, 0), "negative width");
    refuse(header(1, rgb, 2, 2, 0, 12), "byte count does not match");
    refuse(header(1, rgb, 1, 1, 7, 12), "unknown compression");
    // Sides whose byte count wraps around 2^64 to just 32, followed by 32 bytes.
    const uint64_t w = 842443544, h = 1824726041;
    ASSERT_EQ(w * h * 12, 32u);
    refuse(header(1, rgb, int(w), int(h), 0, w * h * 12, std::vector<uint8_t>(32)), "size overflow");
    // A huge raw size behind a few compressed bytes: more than zlib could ever expand.
    refuse(header(1, rgb, 1 << 15, 1 << 15, 1, (uint64_t(1) << 30) * 12, std::vector<uint8_t>(16, 0x78)), "bomb");
    // A compressed payload that is not zlib data, and one that inflates to another size.
    refuse(header(1, rgb, 1, 1, 1, 12, std::vector<uint8_t>(12, 0x55)), "corrupt zlib");
    const auto other = encoded(*noiseRGB(2, 1, 4), Compression::Zlib);  // 24 raw bytes
    refuse(header(1, rgb, 1, 1, 1, 12, std::vector<uint8_t>(other.begin() + 44, other.end())), "inflates to 24");
    EXPECT_THROW(ImageRGBf(std::shared_ptr<Decoder>()), DecodeError);
}

TEST(ImageUtils, ResizeInterpolateAndFloatEquality) {
    // 4 x 2 RGB float, area reduction to 2 x 1: each output is the mean of a 2 x 2 block.
    std::vector<float> src(4 * 2 * 3);
    for (std::size_t i = 0; i < src.size(); ++i) src[i] = float(i);
    std::vector<float> dst(2 * 3, -1.0f);
    ASSERT_TRUE(resizeInterpolate(src.data(), {4, 2}, dst.data(), {2, 1}, 3, true, InterpolationType::Area, kNoRegion));
    // Output x, channel c averages 6 x + c + {0, 3, 12, 15}.
    for (int i = 0; i < 6; ++i) EXPECT_FLOAT_EQ(dst[i], 6 * (i / 3) + i % 3 + 7.5f) << i;
    // 8-bit single channel, a region copied at its own size.
    std::vector<uint8_t> bytes = {1, 2, 3, 4, 5, 6}, out(2, 0);
    ASSERT_TRUE(resizeInterpolate(bytes.data(), {3, 2}, out.data(), {2, 1}, 1, false, InterpolationType::Area,
                                  {1, 1, 2, 1}));
    EXPECT_EQ(out, (std::vector<uint8_t>{5, 6}));
    // Rejected: a null source, five channels, an empty size, a region outside. Nothing written.
    const auto rejected = [&](const void* s, int channels, _Size<int> size, _Rect<int> roi) {
        return !resizeInterpolate(s, {4, 2}, dst.data(), size, channels, true, InterpolationType::Area, roi);
    };
    dst.assign(6, -1.0f);
    EXPECT_TRUE(rejected(nullptr, 3, {1, 1}, kNoRegion) && rejected(src.data(), 5, {1, 1}, kNoRegion) &&
                rejected(src.data(), 3, {0, 1}, kNoRegion) && rejected(src.data(), 3, {1, 1}, {9, 9, 1, 1}));
    EXPECT_EQ(dst, std::vector<float>(6, -1.0f));

    const float nan = std::numeric_limits<float>::quiet_NaN();
    const struct {
        float a, b;
        bool equal;
    } cases[] = {{0, 1e-6f, true},      {0, 2e-6f, false},       {1000, 1000.001f, true},
                 {1000, 1000.01f, false}, {-1, -1.0000005f, true}, {nan, nan, false}};
    for (const auto& c : cases) EXPECT_EQ(isFloatEqual(c.a, c.b), c.equal) << c.a << " " << c.b;
    EXPECT_EQ(clampValue({-0.5f, 0.25f, 7.0f}), (RGBf{0.0f, 0.25f, 1.0f}));
    EXPECT_EQ(clampValue({nan, 1.0f, 0.0f}), (RGBf{0.0f, 1.0f, 0.0f}));
}

}  // namespace
}  // namespace zorl
