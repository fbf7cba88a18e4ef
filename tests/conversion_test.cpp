// Pixel format conversion: the float-to-integer and integer-to-float rules to the bit,
// every one of the 22 pairs against a reference written here from the channel roles,
// alpha and gray rules, the null-pointer log lines, the image-level wrappers, and one
// thread against many.

#include <imageprocessing/conversion.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "support/test_support.h"

namespace zorl {
namespace {

using test::LogCapture;
using test::MemoryBalance;
using test::onOneThread;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

// ---------------------------------------------------------------- reference

// What a pixel type is to the reference: its channel type, the role of each channel in
// memory order (l = gray) and its name in log texts.
template <class P> struct Desc;
#define DESC(P, C, ROLES, NAME)                        \
    template <> struct Desc<P> {                       \
        using Channel = C;                             \
        static constexpr const char* roles = ROLES;    \
        static constexpr const char* name = NAME;      \
    };
DESC(float, float, "l", "float")
DESC(uint8_t, uint8_t, "l", "unsigned char")
DESC(PixelRGB<float>, float, "rgb", "struct zorl::PixelRGB<float>")
DESC(PixelRGB<uint8_t>, uint8_t, "rgb", "struct zorl::PixelRGB<unsigned char>")
DESC(PixelRGB<uint16_t>, uint16_t, "rgb", "struct zorl::PixelRGB<unsigned short>")
DESC(PixelRGBA<float>, float, "rgba", "struct zorl::PixelRGBA<float>")
DESC(PixelRGBA<uint8_t>, uint8_t, "rgba", "struct zorl::PixelRGBA<unsigned char>")
DESC(PixelRGBA<uint16_t>, uint16_t, "rgba", "struct zorl::PixelRGBA<unsigned short>")
DESC(PixelARGB<float>, float, "argb", "struct zorl::PixelARGB<float>")
DESC(PixelBGR<uint8_t>, uint8_t, "bgr", "struct zorl::PixelBGR<unsigned char>")
DESC(PixelBGR<uint16_t>, uint16_t, "bgr", "struct zorl::PixelBGR<unsigned short>")
DESC(PixelBGRA<uint8_t>, uint8_t, "bgra", "struct zorl::PixelBGRA<unsigned char>")
#undef DESC

// One channel by the rules: float -> integer clamps (NaN to 0), scales in float and
// truncates; integer -> float multiplies by the float reciprocal; same type copies.
template <class D, class S>
D referenceChannel(S v) {
    if constexpr (std::is_same_v<S, D>) {
        return v;
    } else if constexpr (std::is_same_v<S, float>) {
        float c = std::isnan(v) ? 0.0f : std::fmin(std::fmax(v, 0.0f), 1.0f);
        return static_cast<D>(std::trunc(c * static_cast<float>(std::numeric_limits<D>::max())));
    } else {
        const float reciprocal = std::is_same_v<S, uint8_t> ? 0.003921568859368563f : 1.5259021893143654e-05f;
        return static_cast<float>(v) * reciprocal;
    }
}

// Converts by role: each destination channel takes the source channel of the same role,
// the gray channel when the source is gray, or full opacity for a missing alpha.
template <class Src, class Dst>
std::vector<Dst> referenceConvert(const std::vector<Src>& src) {
    using SC = typename Desc<Src>::Channel;
    using DC = typename Desc<Dst>::Channel;
    const std::string sr = Desc<Src>::roles, dr = Desc<Dst>::roles;
    std::vector<Dst> out(src.size());
    for (std::size_t i = 0; i < src.size(); ++i) {
        const SC* s = reinterpret_cast<const SC*>(&src[i]);
        DC* d = reinterpret_cast<DC*>(&out[i]);
        for (std::size_t k = 0; k < dr.size(); ++k) {
            const auto from = sr == "l" ? 0 : sr.find(dr[k]);
            d[k] = from == std::string::npos ? fullOpacity<DC>() : referenceChannel<DC>(s[from]);
        }
    }
    return out;
}

// Seeded pixels: floats over [-0.25, 1.25) with NaN, infinities and exact edges sprinkled
// in; integers over their full range.
template <class P>
std::vector<P> makePixels(std::size_t count, uint32_t seed) {
    using C = typename Desc<P>::Channel;
    const std::size_t channels = sizeof(P) / sizeof(C);
    std::vector<P> pixels(count);
    C* c = reinterpret_cast<C*>(pixels.data());
    std::mt19937 rng(seed);
    if constexpr (std::is_same_v<C, float>) {
        const std::vector<float> v = test::noise(count * channels, seed, -0.25f, 1.25f);
        const float edges[] = {kNaN, kInf, -kInf, 0.0f, -0.0f, 1.0f, 0.5f, 0.999f, 1.0f / 255.0f, 65534.5f / 65535.0f};
        for (std::size_t i = 0; i < v.size(); ++i) c[i] = (i % 7 == 3) ? edges[(i / 7) % std::size(edges)] : v[i];
    } else {
        std::uniform_int_distribution<int> dist(0, std::numeric_limits<C>::max());
        for (std::size_t i = 0; i < count * channels; ++i) c[i] = static_cast<C>(dist(rng));
    }
    return pixels;
}

template <class S, class D>
struct Pair {
    using Src = S;
    using Dst = D;
};

template <class P>
class ConvertLoopPair : public ::testing::Test {};

using AllPairs = ::testing::Types<
    Pair<float, uint8_t>, Pair<float, PixelRGB<uint8_t>>, Pair<float, PixelRGB<uint16_t>>, Pair<float, PixelRGB<float>>,
    Pair<PixelARGB<float>, PixelRGB<float>>, Pair<PixelBGR<uint8_t>, PixelRGB<float>>,
    Pair<PixelBGR<uint16_t>, PixelRGB<float>>, Pair<PixelBGRA<uint8_t>, PixelRGB<float>>,
    Pair<PixelRGB<uint8_t>, PixelRGB<float>>, Pair<PixelRGB<uint8_t>, PixelRGBA<float>>,
    Pair<PixelRGB<uint16_t>, PixelRGB<float>>, Pair<PixelRGB<float>, PixelBGRA<uint8_t>>,
    Pair<PixelRGB<float>, PixelRGB<uint8_t>>, Pair<PixelRGB<float>, PixelRGB<uint16_t>>,
    Pair<PixelRGB<float>, PixelRGBA<uint8_t>>, Pair<PixelRGB<float>, PixelRGBA<uint16_t>>,
    Pair<PixelRGB<float>, PixelRGBA<float>>, Pair<PixelRGBA<uint8_t>, PixelBGRA<uint8_t>>,
    Pair<PixelRGBA<uint8_t>, PixelRGBA<float>>, Pair<PixelRGBA<float>, PixelRGB<uint8_t>>,
    Pair<PixelRGBA<float>, PixelRGBA<uint8_t>>, Pair<PixelRGBA<float>, PixelRGBA<uint16_t>>>;
TYPED_TEST_SUITE(ConvertLoopPair, AllPairs);

// Bitwise equality, so that a float NaN copied through compares equal to itself.
template <class P>
::testing::AssertionResult sameBits(const std::vector<P>& a, const std::vector<P>& b) {
    if (a.size() != b.size()) return ::testing::AssertionFailure() << "sizes differ";
    for (std::size_t i = 0; i < a.size(); ++i)
        if (std::memcmp(&a[i], &b[i], sizeof(P)) != 0) return ::testing::AssertionFailure() << "pixel " << i << " differs";
    return ::testing::AssertionSuccess();
}

// Sizes: shorter than one vector step, odd, and over several parallel blocks of 64K
// pixels with a ragged end.
TYPED_TEST(ConvertLoopPair, MatchesReferenceBitForBit) {
    using Src = typename TypeParam::Src;
    using Dst = typename TypeParam::Dst;
    for (std::size_t count : {std::size_t(1), std::size_t(3), std::size_t(157), std::size_t(2 * 65536 + 13)}) {
        SCOPED_TRACE(count);
        const std::vector<Src> src = makePixels<Src>(count, 7u + static_cast<uint32_t>(count));
        std::vector<Dst> dst(count);
        MemoryBalance balance;
        LogCapture log;
        convertLoop(src.data(), dst.data(), count);
        EXPECT_TRUE(sameBits(dst, referenceConvert<Src, Dst>(src)));
        EXPECT_EQ(log.count(), 0u);
        EXPECT_TRUE(balance.balanced());
    }
}

TYPED_TEST(ConvertLoopPair, OneThreadEqualsMany) {
    using Src = typename TypeParam::Src;
    using Dst = typename TypeParam::Dst;
    const std::size_t count = 3 * 65536 + 5;
    const std::vector<Src> src = makePixels<Src>(count, 99);
    std::vector<Dst> many(count), one(count);
    convertLoop(src.data(), many.data(), count);
    onOneThread([&] { convertLoop(src.data(), one.data(), count); });
    EXPECT_TRUE(sameBits(many, one));
}

TYPED_TEST(ConvertLoopPair, NullPointersAreLoggedAndCountZeroIsNot) {
    using Src = typename TypeParam::Src;
    using Dst = typename TypeParam::Dst;
    const std::string s = Desc<Src>::name, d = Desc<Dst>::name;
    const std::string signature = "void __cdecl zorl::convertLoop<" + s + "," + d + (d.back() == '>' ? " >" : ">") +
                                  "(const " + s + " *," + d + " *,unsigned __int64)";
    std::vector<Src> src(2);
    std::vector<Dst> dst(2);
    const std::vector<Dst> untouched = dst;
    MemoryBalance balance;
    LogCapture log;
    convertLoop<Src, Dst>(nullptr, nullptr, 0);
    convertLoop<Src, Dst>(nullptr, dst.data(), 0);
    EXPECT_EQ(log.count(), 0u);
    convertLoop<Src, Dst>(nullptr, dst.data(), 2);
    convertLoop<Src, Dst>(src.data(), nullptr, 2);
    convertLoop<Src, Dst>(nullptr, nullptr, 2);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{signature + ": source is null", signature + ": destination is null",
                                                     signature + ": source and destination are null"}));
    EXPECT_EQ(log.types(), std::vector<LogMessageType>(3, LogMessageType::Error));
    EXPECT_TRUE(sameBits(dst, untouched));
    EXPECT_TRUE(balance.balanced());
}

// Destinations of several megabytes are written by another store path (non-temporal,
// after a scalar run up to a 16-byte boundary): it must give the same bits as converting
// the same pixels in small calls. The destination is offset by one pixel so that it is
// not aligned.
template <class P>
class LargeBufferPair : public ::testing::Test {};
using ChannelKernelPairs =
    ::testing::Types<Pair<float, uint8_t>, Pair<PixelRGB<float>, PixelRGB<uint8_t>>, Pair<PixelRGB<float>, PixelRGB<uint16_t>>,
                     Pair<PixelRGB<uint8_t>, PixelRGB<float>>, Pair<PixelRGB<uint16_t>, PixelRGB<float>>,
                     Pair<PixelRGBA<uint8_t>, PixelRGBA<float>>, Pair<PixelRGBA<float>, PixelRGBA<uint8_t>>,
                     Pair<PixelRGBA<float>, PixelRGBA<uint16_t>>>;
TYPED_TEST_SUITE(LargeBufferPair, ChannelKernelPairs);

TYPED_TEST(LargeBufferPair, MatchesSmallCalls) {
    using Src = typename TypeParam::Src;
    using Dst = typename TypeParam::Dst;
    using SC = typename Desc<Src>::Channel;
    constexpr std::size_t kLargeBytes = std::size_t(9) << 20;
    constexpr std::size_t kSmallCall = 1000;
    const std::size_t count = kLargeBytes / sizeof(Dst) + 5;
    std::vector<Src> src(count);
    SC* c = reinterpret_cast<SC*>(src.data());
    for (std::size_t i = 0; i < count * sizeof(Src) / sizeof(SC); ++i) {
        if constexpr (std::is_same_v<SC, float>)
            c[i] = float(i % 1201) / 1000.0f - 0.1f;  // -0.1 .. 1.1
        else
            c[i] = static_cast<SC>(i * 2654435761u);
    }
    std::vector<Dst> large(count + 1), small(count);
    convertLoop(src.data(), large.data() + 1, count);
    for (std::size_t i = 0; i < count; i += kSmallCall)
        convertLoop(src.data() + i, small.data() + i, std::min(kSmallCall, count - i));
    large.erase(large.begin());
    EXPECT_TRUE(sameBits(large, small));
}

// ---------------------------------------------------------------- exact rules

TEST(ConvertLoop, SignatureTextsAreTheLibraryOnes) {
    LogCapture log;
    convertLoop<float, uint8_t>(nullptr, nullptr, 1);
    convertLoop<PixelRGB<float>, PixelRGB<uint16_t>>(nullptr, nullptr, 1);
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{
                  "void __cdecl zorl::convertLoop<float,unsigned char>(const float *,unsigned char *,unsigned __int64): "
                  "source and destination are null",
                  "void __cdecl zorl::convertLoop<struct zorl::PixelRGB<float>,struct zorl::PixelRGB<unsigned short> >"
                  "(const struct zorl::PixelRGB<float> *,struct zorl::PixelRGB<unsigned short> *,unsigned __int64): "
                  "source and destination are null"}));
}

struct FloatEdge {
    float value;
    uint8_t to8;
    uint16_t to16;
};
// Clamp (NaN to 0), scale, truncate: never rounded to nearest.
const FloatEdge kFloatEdges[] = {
    {-0.5f, 0, 0},        {kNaN, 0, 0},         {-kNaN, 0, 0},         {-kInf, 0, 0},         {0.0f, 0, 0},
    {-0.0f, 0, 0},        {0.5f, 127, 32767},   {0.999f, 254, 65469},  {1.0f, 255, 65535},    {1.5f, 255, 65535},
    {kInf, 255, 65535},   {1e-30f, 0, 0},       {0.25f, 63, 16383},    {254.999f / 255.0f, 254, 65534},
};

// Every edge at every position of a 16-channel vector step and of the scalar tail.
TEST(ConvertLoop, FloatToIntegerEdgesInEveryKernel) {
    constexpr std::size_t kPixels = 41;
    for (const FloatEdge& e : kFloatEdges) {
        SCOPED_TRACE(e.value);
        const std::vector<float> gray(kPixels, e.value);
        const std::vector<PixelRGB<float>> rgb(kPixels, {e.value, e.value, e.value});
        const std::vector<PixelRGBA<float>> rgba(kPixels, {e.value, e.value, e.value, e.value});

        std::vector<uint8_t> g8(kPixels);
        convertLoop(gray.data(), g8.data(), kPixels);
        EXPECT_EQ(g8, std::vector<uint8_t>(kPixels, e.to8));

        std::vector<PixelRGB<uint16_t>> gray16(kPixels);
        convertLoop(gray.data(), gray16.data(), kPixels);
        EXPECT_EQ(gray16, std::vector<PixelRGB<uint16_t>>(kPixels, {e.to16, e.to16, e.to16}));

        std::vector<PixelRGB<uint8_t>> rgb8(kPixels);
        convertLoop(rgb.data(), rgb8.data(), kPixels);
        EXPECT_EQ(rgb8, std::vector<PixelRGB<uint8_t>>(kPixels, {e.to8, e.to8, e.to8}));

        std::vector<PixelRGB<uint16_t>> rgb16(kPixels);
        convertLoop(rgb.data(), rgb16.data(), kPixels);
        EXPECT_EQ(rgb16, std::vector<PixelRGB<uint16_t>>(kPixels, {e.to16, e.to16, e.to16}));

        std::vector<PixelRGBA<uint16_t>> rgba16(kPixels);
        convertLoop(rgba.data(), rgba16.data(), kPixels);
        EXPECT_EQ(rgba16, std::vector<PixelRGBA<uint16_t>>(kPixels, {e.to16, e.to16, e.to16, e.to16}));

        std::vector<PixelBGRA<uint8_t>> bgra(kPixels);
        convertLoop(rgb.data(), bgra.data(), kPixels);
        EXPECT_EQ(bgra, std::vector<PixelBGRA<uint8_t>>(kPixels, {e.to8, e.to8, e.to8, 255}));
    }
}

TEST(ConvertLoop, IntegerToFloatUsesTheFloatReciprocal) {
    const std::vector<PixelRGB<uint8_t>> src8 = {{0, 1, 128}, {255, 254, 2}};
    std::vector<PixelRGB<float>> dst(2);
    convertLoop(src8.data(), dst.data(), 2);
    EXPECT_EQ(dst[0].r, 0.0f);
    EXPECT_EQ(dst[0].g, 0.003921568859368563f);
    EXPECT_EQ(dst[0].b, 128.0f * 0.003921568859368563f);
    EXPECT_EQ(dst[1].r, 1.0f);
    EXPECT_EQ(dst[1].g, 254.0f * 0.003921568859368563f);

    const std::vector<PixelRGB<uint16_t>> src16 = {{0, 1, 65535}, {32768, 257, 65534}};
    convertLoop(src16.data(), dst.data(), 2);
    EXPECT_EQ(dst[0].g, 1.5259021893143654e-05f);
    EXPECT_EQ(dst[0].b, 1.0f);
    EXPECT_EQ(dst[1].r, 32768.0f * 1.5259021893143654e-05f);
    EXPECT_EQ(dst[1].b, 65534.0f * 1.5259021893143654e-05f);
}

// 8-bit codes survive integer -> float -> integer; with 16 bits truncation loses one on
// the codes whose float lands a hair below the integer (never more).
TEST(ConvertLoop, RoundTripThroughFloat) {
    std::vector<PixelRGB<uint8_t>> codes8(256);
    for (int k = 0; k < 256; ++k) codes8[k] = {uint8_t(k), uint8_t(255 - k), uint8_t(k)};
    std::vector<PixelRGB<float>> f8(256);
    std::vector<PixelRGB<uint8_t>> back8(256);
    convertLoop(codes8.data(), f8.data(), 256);
    convertLoop(f8.data(), back8.data(), 256);
    EXPECT_EQ(back8, codes8);

    std::vector<PixelRGB<uint16_t>> codes16(65536 / 3 + 1);
    for (std::size_t i = 0; i < codes16.size(); ++i)
        codes16[i] = {uint16_t(3 * i), uint16_t(std::min<std::size_t>(3 * i + 1, 65535)), uint16_t(std::min<std::size_t>(3 * i + 2, 65535))};
    std::vector<PixelRGB<float>> f16(codes16.size());
    std::vector<PixelRGB<uint16_t>> back16(codes16.size());
    convertLoop(codes16.data(), f16.data(), codes16.size());
    convertLoop(f16.data(), back16.data(), codes16.size());
    int lost = 0;
    for (std::size_t i = 0; i < codes16.size(); ++i) {
        for (auto m : {&PixelRGB<uint16_t>::r, &PixelRGB<uint16_t>::g, &PixelRGB<uint16_t>::b}) {
            ASSERT_LE(back16[i].*m, codes16[i].*m);
            ASSERT_GE(back16[i].*m + 1, codes16[i].*m);
            lost += back16[i].*m != codes16[i].*m;
        }
    }
    EXPECT_GT(lost, 0);
    EXPECT_EQ(back16[0].r, 0);
    EXPECT_EQ(back16.back().b, 65535);
}

TEST(ConvertLoop, AlphaRules) {
    const PixelRGBA<float> rgbaF{0.5f, 1.0f, 0.0f, 0.25f};
    PixelRGBA<uint8_t> rgba8{};
    convertLoop(&rgbaF, &rgba8, 1);
    EXPECT_EQ(rgba8, (PixelRGBA<uint8_t>{127, 255, 0, 63}));
    PixelRGB<uint8_t> rgb8{};
    convertLoop(&rgbaF, &rgb8, 1);  // alpha dropped
    EXPECT_EQ(rgb8, (PixelRGB<uint8_t>{127, 255, 0}));

    const PixelRGB<float> rgbF{0.5f, 2.0f, -1.0f};
    PixelRGBA<uint16_t> rgba16{};
    convertLoop(&rgbF, &rgba16, 1);
    EXPECT_EQ(rgba16, (PixelRGBA<uint16_t>{32767, 65535, 0, 65535}));
    PixelRGBA<float> rgbaOut{};
    convertLoop(&rgbF, &rgbaOut, 1);  // float to float: copied, not clamped
    EXPECT_EQ(rgbaOut, (PixelRGBA<float>{0.5f, 2.0f, -1.0f, 1.0f}));
    PixelBGRA<uint8_t> bgra{};
    convertLoop(&rgbF, &bgra, 1);
    EXPECT_EQ(bgra, (PixelBGRA<uint8_t>{0, 255, 127, 255}));

    const PixelRGB<uint8_t> rgb{1, 2, 3};
    PixelRGBA<float> opaque{};
    convertLoop(&rgb, &opaque, 1);
    EXPECT_EQ(opaque.a, 1.0f);

    const PixelRGBA<uint8_t> byteA{10, 20, 30, 0};
    PixelRGBA<float> floatA{};
    convertLoop(&byteA, &floatA, 1);
    EXPECT_EQ(floatA.a, 0.0f);  // an alpha on both sides follows the channel rule
    PixelBGRA<uint8_t> swapped{};
    convertLoop(&byteA, &swapped, 1);
    const uint8_t expectBytes[] = {30, 20, 10, 0};
    EXPECT_EQ(std::memcmp(&swapped, expectBytes, 4), 0);

    const PixelARGB<float> argb{0.1f, 0.2f, 0.3f, 0.4f};
    PixelRGB<float> fromArgb{};
    convertLoop(&argb, &fromArgb, 1);
    EXPECT_EQ(fromArgb, (PixelRGB<float>{0.2f, 0.3f, 0.4f}));
}

TEST(ConvertLoop, GrayFillsEveryColourChannel) {
    const float gray[] = {0.5f, kNaN, 2.0f, 0.999f, 0.25f};
    std::vector<PixelRGB<uint8_t>> rgb8(5);
    convertLoop(gray, rgb8.data(), 5);
    EXPECT_EQ(rgb8, (std::vector<PixelRGB<uint8_t>>{{127, 127, 127}, {0, 0, 0}, {255, 255, 255}, {254, 254, 254}, {63, 63, 63}}));
    std::vector<PixelRGB<float>> rgbF(5);
    convertLoop(gray, rgbF.data(), 5);
    EXPECT_EQ(rgbF[2], (PixelRGB<float>{2.0f, 2.0f, 2.0f}));
    EXPECT_TRUE(std::isnan(rgbF[1].r) && std::isnan(rgbF[1].g) && std::isnan(rgbF[1].b));
}

// ---------------------------------------------------------------- image level

using ImageF = _ImageData<PixelRGB<float>>;

std::shared_ptr<const ImageF> makeFloatImage(_Size<int> size, uint32_t seed) {
    auto image = std::make_shared<ImageF>(size, ColorProfileType::proPhotoRGB());
    const std::vector<float> v = test::noise(image->pixelCount() * 3, seed, -0.2f, 1.2f);
    std::memcpy(image->data(), v.data(), v.size() * sizeof(float));
    image->setLoadState(ImageLoadState::Thumbnail);
    return image;
}

template <class P>
std::vector<P> pixelsOf(const _ImageData<P>& image) {
    return std::vector<P>(image.data(), image.data() + image.pixelCount());
}

template <class T>
void checkImageRoundTrip() {
    MemoryBalance balance;
    {
        const auto src = makeFloatImage({157, 83}, 5);
        const auto ints = floatToIntImageData<T>(src);
        ASSERT_TRUE(ints);
        EXPECT_EQ(ints->size(), src->size());
        EXPECT_EQ(ints->colorProfile(), src->colorProfile());  // shared, not copied
        EXPECT_NE(ints->getLoadState(), ImageLoadState::Thumbnail);
        std::vector<PixelRGB<T>> expected(src->pixelCount());
        convertLoop(src->data(), expected.data(), src->pixelCount());
        EXPECT_EQ(pixelsOf(*ints), expected);

        const auto floats = intToFloatImageData<T>(ints);
        ASSERT_TRUE(floats);
        EXPECT_EQ(floats->colorProfile(), src->colorProfile());
        std::vector<PixelRGB<float>> expectedF(src->pixelCount());
        convertLoop(ints->data(), expectedF.data(), src->pixelCount());
        EXPECT_TRUE(sameBits(pixelsOf(*floats), expectedF));
    }
    EXPECT_TRUE(balance.balanced());
}

TEST(ImageDataConversion, RoundTripSharesProfileAndFollowsTheRules) {
    checkImageRoundTrip<uint8_t>();
    checkImageRoundTrip<uint16_t>();
}

TEST(ImageDataConversion, EmptySourceIsLoggedAndGivesNull) {
    MemoryBalance balance;
    LogCapture log;
    EXPECT_FALSE(floatToIntImageData<uint8_t>(nullptr));
    EXPECT_FALSE(floatToIntImageData<uint16_t>(nullptr));
    EXPECT_FALSE(intToFloatImageData<uint8_t>(nullptr));
    EXPECT_FALSE(intToFloatImageData<uint16_t>(nullptr));
    EXPECT_EQ(
        log.lines(),
        (std::vector<std::string>{
            "class std::shared_ptr<class zorl::_ImageData<struct zorl::PixelRGB<unsigned char> > > __cdecl "
            "zorl::floatToIntImageData<unsigned char>(const class std::shared_ptr<class zorl::_ImageData<struct "
            "zorl::PixelRGB<float> > const > &): [floatToIntImageData]: no srcImageData",
            "class std::shared_ptr<class zorl::_ImageData<struct zorl::PixelRGB<unsigned short> > > __cdecl "
            "zorl::floatToIntImageData<unsigned short>(const class std::shared_ptr<class zorl::_ImageData<struct "
            "zorl::PixelRGB<float> > const > &): [floatToIntImageData]: no srcImageData",
            "class std::shared_ptr<class zorl::_ImageData<struct zorl::PixelRGB<float> > > __cdecl "
            "zorl::intToFloatImageData<unsigned char>(const class std::shared_ptr<class zorl::_ImageData<struct "
            "zorl::PixelRGB<unsigned char> > const > &): [intToFloatImageData]: no srcImageData",
            "class std::shared_ptr<class zorl::_ImageData<struct zorl::PixelRGB<float> > > __cdecl "
            "zorl::intToFloatImageData<unsigned short>(const class std::shared_ptr<class zorl::_ImageData<struct "
            "zorl::PixelRGB<unsigned short> > const > &): [intToFloatImageData]: no srcImageData"}));
    EXPECT_TRUE(balance.balanced());
}

}  // namespace
}  // namespace zorl
