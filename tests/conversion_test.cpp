// Pixel format conversion: the float-to-integer and integer-to-float rules to the bit,
// every one of the 22 pairs against a reference written here from the channel roles,
// alpha and gray rules, the null-pointer log lines, the image-level wrappers, and one
// thread against many.

#include <imageprocessing/conversion.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <type_traits>
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
// in; integers over their full range (truncated from [0, max + 0.99)).
template <class P>
std::vector<P> makePixels(std::size_t count, uint32_t seed) {
    using C = typename Desc<P>::Channel;
    constexpr bool isFloat = std::is_same_v<C, float>;
    const float edges[] = {kNaN, kInf, -kInf, 0.0f, -0.0f, 1.0f, 0.5f, 0.999f, 1.0f / 255.0f, 65534.5f / 65535.0f};
    const std::vector<float> v = test::noise(count * sizeof(P) / sizeof(C), seed, isFloat ? -0.25f : 0.0f,
                                             isFloat ? 1.25f : float(std::numeric_limits<C>::max()) + 0.99f);
    std::vector<P> pixels(count);
    C* c = reinterpret_cast<C*>(pixels.data());
    for (std::size_t i = 0; i < v.size(); ++i) c[i] = isFloat && i % 7 == 3 ? C(edges[(i / 7) % std::size(edges)]) : C(v[i]);
    return pixels;
}

template <class S, class D>
struct Pair {
    using Src = S;
    using Dst = D;
};

// Bitwise equality, so that a float NaN copied through compares equal to itself.
template <class P>
::testing::AssertionResult sameBits(const std::vector<P>& a, const std::vector<P>& b) {
    if (a.size() != b.size()) return ::testing::AssertionFailure() << "sizes differ";
    for (std::size_t i = 0; i < a.size(); ++i)
        if (std::memcmp(&a[i], &b[i], sizeof(P)) != 0) return ::testing::AssertionFailure() << "pixel " << i << " differs";
    return ::testing::AssertionSuccess();
}

// ---------------------------------------------------------------- every pair

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

// Sizes: shorter than one vector step, odd, and over several parallel blocks of 64K
// pixels with a ragged end, where one thread must give the bits of many.
TYPED_TEST(ConvertLoopPair, MatchesReferenceBitForBitOnAnyNumberOfThreads) {
    using Src = typename TypeParam::Src;
    using Dst = typename TypeParam::Dst;
    for (std::size_t count : {std::size_t(1), std::size_t(3), std::size_t(157), std::size_t(2 * 65536 + 13)}) {
        SCOPED_TRACE(count);
        const std::vector<Src> src = makePixels<Src>(count, 7u + static_cast<uint32_t>(count));
        std::vector<Dst> dst(count), one(count);
        MemoryBalance balance;
        LogCapture log;
        convertLoop(src.data(), dst.data(), count);
        EXPECT_TRUE(sameBits(dst, referenceConvert<Src, Dst>(src)));
        EXPECT_EQ(log.count(), 0u);
        EXPECT_TRUE(balance.balanced());
        onOneThread([&] { convertLoop(src.data(), one.data(), count); });
        EXPECT_TRUE(sameBits(one, dst));
    }
}

TYPED_TEST(ConvertLoopPair, NullPointersAreLoggedAndCountZeroIsNot) {
    using Src = typename TypeParam::Src;
    using Dst = typename TypeParam::Dst;
    const std::string s = Desc<Src>::name, d = Desc<Dst>::name;
    const std::string signature = "void __cdecl zorl::convertLoop<" + s + "," + d + (d.back() == '>' ? " >" : ">") +
                                  "(const " + s + " *," + d + " *,unsigned __int64)";
    std::vector<Src> src(2);
    std::vector<Dst> dst(2), untouched(2);
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

// Two of the texts above written out, so that a shared mistake in building them shows.
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
    constexpr std::size_t kLargeBytes = std::size_t(9) << 20;
    constexpr std::size_t kSmallCall = 1000;
    const std::size_t count = kLargeBytes / sizeof(Dst) + 5;
    const std::vector<Src> src = makePixels<Src>(count, 3);
    std::vector<Dst> large(count + 1), small(count);
    convertLoop(src.data(), large.data() + 1, count);
    for (std::size_t i = 0; i < count; i += kSmallCall)
        convertLoop(src.data() + i, small.data() + i, std::min(kSmallCall, count - i));
    large.erase(large.begin());
    EXPECT_TRUE(sameBits(large, small));
}

// ---------------------------------------------------------------- exact rules

template <class D, class S>
D convertOne(const S& s) {
    D d{};
    convertLoop(&s, &d, 1);
    return d;
}

// kPixels copies of one pixel: every position of a 16-channel vector step and of the
// scalar tail.
template <class S, class D>
void expectEveryCopy(const S& s, const D& d) {
    constexpr std::size_t kPixels = 41;
    const std::vector<S> src(kPixels, s);
    std::vector<D> dst(kPixels);
    convertLoop(src.data(), dst.data(), kPixels);
    EXPECT_EQ(dst, std::vector<D>(kPixels, d));
}

// Clamp (NaN to 0), scale, truncate: never rounded to nearest.
TEST(ConvertLoop, FloatToIntegerEdgesInEveryKernel) {
    struct Edge {
        float v;
        uint8_t b;    // to 8 bits
        uint16_t w;   // to 16 bits
    };
    const Edge edges[] = {
        {-0.5f, 0, 0},        {kNaN, 0, 0},         {-kNaN, 0, 0},         {-kInf, 0, 0},         {0.0f, 0, 0},
        {-0.0f, 0, 0},        {0.5f, 127, 32767},   {0.999f, 254, 65469},  {1.0f, 255, 65535},    {1.5f, 255, 65535},
        {kInf, 255, 65535},   {1e-30f, 0, 0},       {0.25f, 63, 16383},    {254.999f / 255.0f, 254, 65534},
    };
    for (const auto& [v, b, w] : edges) {
        SCOPED_TRACE(v);
        expectEveryCopy(v, b);
        expectEveryCopy(v, PixelRGB<uint16_t>{w, w, w});
        expectEveryCopy(PixelRGB<float>{v, v, v}, PixelRGB<uint16_t>{w, w, w});
        expectEveryCopy(PixelRGB<float>{v, v, v}, PixelBGRA<uint8_t>{b, b, b, 255});
        expectEveryCopy(PixelRGBA<float>{v, v, v, v}, PixelRGBA<uint16_t>{w, w, w, w});
    }
}

TEST(ConvertLoop, IntegerToFloatUsesTheFloatReciprocal) {
    constexpr float k8 = 0.003921568859368563f, k16 = 1.5259021893143654e-05f;
    EXPECT_EQ(convertOne<PixelRGB<float>>(PixelRGB<uint8_t>{1, 254, 255}), (PixelRGB<float>{k8, 254.0f * k8, 1.0f}));
    EXPECT_EQ(convertOne<PixelRGB<float>>(PixelRGB<uint16_t>{1, 65534, 65535}),
              (PixelRGB<float>{k16, 65534.0f * k16, 1.0f}));
}

// A missing alpha is opaque, a dropped one vanishes, float to float is copied unclamped,
// an alpha on both sides follows the channel rule; a gray source fills every colour.
TEST(ConvertLoop, AlphaAndGrayRules) {
    const PixelRGBA<float> rgbaF{0.5f, 1.0f, 0.0f, 0.25f};
    EXPECT_EQ(convertOne<PixelRGBA<uint8_t>>(rgbaF), (PixelRGBA<uint8_t>{127, 255, 0, 63}));
    EXPECT_EQ(convertOne<PixelRGB<uint8_t>>(rgbaF), (PixelRGB<uint8_t>{127, 255, 0}));
    const PixelRGB<float> rgbF{0.5f, 2.0f, -1.0f};
    EXPECT_EQ(convertOne<PixelRGBA<uint16_t>>(rgbF), (PixelRGBA<uint16_t>{32767, 65535, 0, 65535}));
    EXPECT_EQ(convertOne<PixelRGBA<float>>(rgbF), (PixelRGBA<float>{0.5f, 2.0f, -1.0f, 1.0f}));
    EXPECT_EQ(convertOne<PixelBGRA<uint8_t>>(rgbF), (PixelBGRA<uint8_t>{0, 255, 127, 255}));
    EXPECT_EQ(convertOne<PixelRGBA<float>>(PixelRGB<uint8_t>{1, 2, 3}).a, 1.0f);
    const PixelBGRA<uint8_t> swapped = convertOne<PixelBGRA<uint8_t>>(PixelRGBA<uint8_t>{10, 20, 30, 0});
    const uint8_t expectBytes[] = {30, 20, 10, 0};
    EXPECT_EQ(std::memcmp(&swapped, expectBytes, 4), 0);
    EXPECT_EQ(convertOne<PixelRGB<float>>(PixelARGB<float>{0.1f, 0.2f, 0.3f, 0.4f}), (PixelRGB<float>{0.2f, 0.3f, 0.4f}));
    EXPECT_EQ(convertOne<PixelRGB<uint8_t>>(0.999f), (PixelRGB<uint8_t>{254, 254, 254}));
    EXPECT_EQ(convertOne<PixelRGB<float>>(2.0f), (PixelRGB<float>{2.0f, 2.0f, 2.0f}));
    const PixelRGB<float> nan = convertOne<PixelRGB<float>>(kNaN);
    EXPECT_TRUE(std::isnan(nan.r) && std::isnan(nan.g) && std::isnan(nan.b));
}

// ---------------------------------------------------------------- image level

using ImageF = _ImageData<PixelRGB<float>>;

template <class P>
std::vector<P> pixelsOf(const _ImageData<P>& image) {
    return std::vector<P>(image.data(), image.data() + image.pixelCount());
}

// A new image of the same size, the same (shared) profile, pixels by convertLoop, load
// state not copied.
template <class T>
void checkImageRoundTrip() {
    MemoryBalance balance;
    {
        auto image = std::make_shared<ImageF>(_Size<int>{157, 83}, ColorProfileType::proPhotoRGB());
        const std::vector<float> v = test::noise(image->pixelCount() * 3, 5, -0.2f, 1.2f);
        std::memcpy(image->data(), v.data(), v.size() * sizeof(float));
        image->setLoadState(ImageLoadState::Thumbnail);
        const std::shared_ptr<const ImageF> src = image;
        const auto ints = floatToIntImageData<T>(src);
        ASSERT_TRUE(ints);
        EXPECT_EQ(ints->size(), src->size());
        EXPECT_EQ(ints->colorProfile(), src->colorProfile());
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
