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

// ---------------------------------------------------------------- reference

// What a pixel type is to the reference: its channel type, the role of each channel in
// memory order (l = gray) and its name in log texts.
template <class P> struct Desc;
#define DESC(P, C, ROLES, NAME) \
    template <> struct Desc<P> { using Channel = C; static constexpr const char *roles = ROLES, *name = NAME; };
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
    if constexpr (std::is_same_v<S, D>)
        return v;
    else if constexpr (std::is_same_v<S, float>)
        return D(std::trunc((std::isnan(v) ? 0.0f : std::fmin(std::fmax(v, 0.0f), 1.0f)) * float(std::numeric_limits<D>::max())));
    else
        return float(v) * (std::is_same_v<S, uint8_t> ? 0.003921568859368563f : 1.5259021893143654e-05f);
}

// Converts by role: each destination channel takes the source channel of the same role,
// the gray channel when the source is gray, or full opacity for a missing alpha.
template <class Src, class Dst>
std::vector<Dst> referenceConvert(const std::vector<Src>& src) {
    using DC = typename Desc<Dst>::Channel;
    const std::string sr = Desc<Src>::roles, dr = Desc<Dst>::roles;
    std::vector<Dst> out(src.size());
    for (std::size_t i = 0; i < src.size(); ++i)
        for (std::size_t k = 0; k < dr.size(); ++k) {
            const auto from = sr == "l" ? 0 : sr.find(dr[k]);
            const auto* s = reinterpret_cast<const typename Desc<Src>::Channel*>(&src[i]);
            reinterpret_cast<DC*>(&out[i])[k] = from == std::string::npos ? fullOpacity<DC>() : referenceChannel<DC>(s[from]);
        }
    return out;
}

// Seeded pixels: floats over [-0.25, 1.25) with NaN, infinities and exact edges sprinkled
// in; integers over their full range (truncated from [0, max + 0.99)).
template <class P>
std::vector<P> makePixels(std::size_t count, uint32_t seed) {
    using C = typename Desc<P>::Channel;
    constexpr bool isFloat = std::is_same_v<C, float>;
    const float edges[] = {NAN, INFINITY, -INFINITY, 0.0f, -0.0f, 1.0f, 0.5f, 0.999f, 1.0f / 255.0f, 65534.5f / 65535.0f};
    const std::vector<float> v = test::noise(count * sizeof(P) / sizeof(C), seed, isFloat ? -0.25f : 0.0f,
                                             isFloat ? 1.25f : float(std::numeric_limits<C>::max()) + 0.99f);
    std::vector<P> pixels(count);
    C* c = reinterpret_cast<C*>(pixels.data());
    for (std::size_t i = 0; i < v.size(); ++i) c[i] = isFloat && i % 7 == 3 ? C(edges[(i / 7) % std::size(edges)]) : C(v[i]);
    return pixels;
}

// Bitwise equality, so that a float NaN copied through compares equal to itself.
template <class P>
::testing::AssertionResult sameBits(const std::vector<P>& a, const std::vector<P>& b) {
    if (a.size() != b.size()) return ::testing::AssertionFailure() << "sizes differ";
    for (std::size_t i = 0; i < a.size(); ++i)
        if (std::memcmp(&a[i], &b[i], sizeof(P)) != 0) return ::testing::AssertionFailure() << "pixel " << i << " differs";
    return ::testing::AssertionSuccess();
}

// ---------------------------------------------------------------- every pair

template <class S, class D>
struct Pair { using Src = S; using Dst = D; };

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
// pixels with a ragged end, where one thread must give the bits of many. Destinations of
// 8 MB and more are written by another store path (non-temporal, after a scalar run up to
// a 16-byte boundary): the same bits as converting in small calls, also unaligned.
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
    const std::size_t count = (std::size_t(9) << 20) / sizeof(Dst) + 5, kSmallCall = 1000;
    const std::vector<Src> src = makePixels<Src>(count, 3);
    std::vector<Dst> large(count + 1), small(count + 1);
    convertLoop(src.data(), large.data() + 1, count);
    for (std::size_t i = 0; i < count; i += kSmallCall)
        convertLoop(src.data() + i, small.data() + 1 + i, std::min(kSmallCall, count - i));
    EXPECT_TRUE(sameBits(large, small));
}

// The typed texts are built here from the type names; two of them are also written out,
// so that a shared mistake in building them shows.
TYPED_TEST(ConvertLoopPair, NullPointersAreLoggedAndCountZeroIsNot) {
    using Src = typename TypeParam::Src;
    using Dst = typename TypeParam::Dst;
    const std::string s = Desc<Src>::name, d = Desc<Dst>::name;
    const std::string signature = "void __cdecl zorl::convertLoop<" + s + "," + d + (d.back() == '>' ? " >" : ">") +
                                  "(const " + s + " *," + d + " *,unsigned __int64)";
    if constexpr (std::is_same_v<TypeParam, Pair<float, uint8_t>>) {
        EXPECT_EQ(signature, "void __cdecl zorl::convertLoop<float,unsigned char>(const float *,unsigned char *,unsigned __int64)");
    } else if constexpr (std::is_same_v<TypeParam, Pair<PixelRGB<float>, PixelRGB<uint16_t>>>) {
        EXPECT_EQ(signature,
                  "void __cdecl zorl::convertLoop<struct zorl::PixelRGB<float>,struct zorl::PixelRGB<unsigned short> >"
                  "(const struct zorl::PixelRGB<float> *,struct zorl::PixelRGB<unsigned short> *,unsigned __int64)");
    }
    std::vector<Src> src(2);
    std::vector<Dst> dst(2);
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
    EXPECT_TRUE(sameBits(dst, std::vector<Dst>(2)));
    EXPECT_TRUE(balance.balanced());
}

// ---------------------------------------------------------------- exact rules

// kPixels copies of one pixel: every position of a 16-channel vector step and of the
// scalar tail.
template <class S, class D>
void expectEveryCopy(const S& s, const D& d) {
    constexpr std::size_t kPixels = 41;
    const std::vector<S> src(kPixels, s);
    std::vector<D> dst(kPixels);
    convertLoop(src.data(), dst.data(), kPixels);
    EXPECT_TRUE(sameBits(dst, std::vector<D>(kPixels, d)));
}

// Clamp (NaN to 0), scale, truncate: never rounded to nearest.
TEST(ConvertLoop, FloatToIntegerEdgesInEveryKernel) {
    struct Edge { float v; uint8_t b; uint16_t w; };  // the value, to 8 bits, to 16 bits
    const Edge edges[] = {
        {-0.5f, 0, 0},         {NAN, 0, 0},         {-NAN, 0, 0},          {-INFINITY, 0, 0},  {0.0f, 0, 0},
        {-0.0f, 0, 0},         {0.5f, 127, 32767},  {0.999f, 254, 65469},  {1.0f, 255, 65535}, {1.5f, 255, 65535},
        {INFINITY, 255, 65535}, {1e-30f, 0, 0},     {0.25f, 63, 16383},    {254.999f / 255.0f, 254, 65534},
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

// Integers to float by the float reciprocal. A missing alpha is opaque, a dropped one
// vanishes, float to float is copied unclamped, an alpha on both sides follows the channel
// rule; channels land by name whatever the memory order; a gray source fills every colour.
TEST(ConvertLoop, ReciprocalAlphaAndGrayRules) {
    constexpr float k8 = 0.003921568859368563f, k16 = 1.5259021893143654e-05f;
    expectEveryCopy(PixelRGB<uint8_t>{1, 254, 255}, PixelRGB<float>{k8, 254.0f * k8, 1.0f});
    expectEveryCopy(PixelRGB<uint16_t>{1, 65534, 65535}, PixelRGB<float>{k16, 65534.0f * k16, 1.0f});
    expectEveryCopy(PixelRGBA<float>{0.5f, 1.0f, 0.0f, 0.25f}, PixelRGBA<uint8_t>{127, 255, 0, 63});
    expectEveryCopy(PixelRGBA<float>{0.5f, 1.0f, 0.0f, 0.25f}, PixelRGB<uint8_t>{127, 255, 0});
    expectEveryCopy(PixelRGB<float>{0.5f, 2.0f, -1.0f}, PixelRGBA<uint16_t>{32767, 65535, 0, 65535});
    expectEveryCopy(PixelRGB<float>{0.5f, 2.0f, -1.0f}, PixelRGBA<float>{0.5f, 2.0f, -1.0f, 1.0f});
    expectEveryCopy(PixelRGB<float>{0.5f, 2.0f, -1.0f}, PixelBGRA<uint8_t>{0, 255, 127, 255});
    expectEveryCopy(PixelRGBA<uint8_t>{10, 20, 30, 0}, PixelBGRA<uint8_t>{30, 20, 10, 0});
    expectEveryCopy(PixelARGB<float>{0.1f, 0.2f, 0.3f, 0.4f}, PixelRGB<float>{0.2f, 0.3f, 0.4f});
    expectEveryCopy(0.999f, PixelRGB<uint8_t>{254, 254, 254});
    expectEveryCopy(2.0f, PixelRGB<float>{2.0f, 2.0f, 2.0f});
    expectEveryCopy(float(NAN), PixelRGB<float>{NAN, NAN, NAN});
}

// ---------------------------------------------------------------- image level

// A new image of the same size, the same (shared) profile, pixels by convertLoop, load
// state not copied; and back. An empty source is logged and gives null.
TEST(ImageDataConversion, RoundTripSharesProfileAndEmptySourceIsLogged) {
    MemoryBalance balance;
    auto check = [](auto channel) {
        using T = decltype(channel);
        auto image = std::make_shared<_ImageData<PixelRGB<float>>>(_Size<int>{157, 83}, ColorProfileType::proPhotoRGB());
        const std::size_t n = image->pixelCount();
        const std::vector<float> v = test::noise(n * 3, 5, -0.2f, 1.2f);
        std::memcpy(image->data(), v.data(), v.size() * sizeof(float));
        image->setLoadState(ImageLoadState::Thumbnail);
        const auto ints = floatToIntImageData<T>(image);
        ASSERT_TRUE(ints);
        const auto floats = intToFloatImageData<T>(ints);
        ASSERT_TRUE(floats);
        EXPECT_TRUE(ints->size() == image->size() && ints->colorProfile() == image->colorProfile() &&
                    floats->colorProfile() == image->colorProfile());
        EXPECT_NE(ints->getLoadState(), ImageLoadState::Thumbnail);
        std::vector<PixelRGB<T>> expected(n);
        std::vector<PixelRGB<float>> expectedF(n);
        convertLoop(image->data(), expected.data(), n);
        convertLoop(ints->data(), expectedF.data(), n);
        EXPECT_TRUE(sameBits(std::vector<PixelRGB<T>>(ints->data(), ints->data() + n), expected));
        EXPECT_TRUE(sameBits(std::vector<PixelRGB<float>>(floats->data(), floats->data() + n), expectedF));
    };
    check(uint8_t{});
    check(uint16_t{});
    LogCapture log;
    EXPECT_FALSE(floatToIntImageData<uint8_t>(nullptr) || floatToIntImageData<uint16_t>(nullptr));
    EXPECT_FALSE(intToFloatImageData<uint8_t>(nullptr) || intToFloatImageData<uint16_t>(nullptr));
    EXPECT_EQ(log.lines(),
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
