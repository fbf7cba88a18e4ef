// Encoder / Decoder: little-endian bytes, round trips, and a decoder that fails (for
// good) instead of reading past its end.
#include <zorl/core/codec.h>

#include <cmath>
#include <limits>
#include <tuple>

#include "support/test_support.h"

namespace zorl {
namespace {

TEST(Codec, FieldsAreLittleEndianAndRoundTrip) {
    Encoder e;
    e.encodeUint8(0xfe);
    e.encodeInt(0x01020304);
    e.encodeInt(-2);
    e.encodeUint32(0xa1b2c3d4u);
    e.encodeUint64(0x0102030405060708ull);
    e.encodeFloat(1.0f);  // 0x3f800000
    e.encodeString(std::string("h\0", 2));
    const std::vector<uint8_t> expected = {0xfe, 4, 3, 2, 1, 0xfe, 0xff, 0xff, 0xff, 0xd4, 0xc3, 0xb2, 0xa1,
                                           8, 7, 6, 5, 4, 3, 2, 1, 0, 0, 0x80, 0x3f, 2, 0, 0, 0, 0, 0, 0, 0, 'h', 0};
    EXPECT_EQ(e.data(), expected);
    // Extremes after them.
    const uint8_t blob[5] = {9, 8, 7, 6, 5};
    e.encodeInt(std::numeric_limits<int>::min());
    e.encodeUint64(~0ull);
    e.encodeFloat(-0.0f);
    e.encodeFloat(std::numeric_limits<float>::quiet_NaN());
    e.encodeFloat(std::numeric_limits<float>::denorm_min());
    e.encodeData(blob, 5);
    e.encodeData(nullptr, 0);
    e.encodeString("");

    Decoder d(e.take());
    uint8_t u8 = 0, got[5] = {};
    int i1 = 0, i2 = 0, i3 = 0;
    uint32_t u32 = 0;
    uint64_t u64a = 0, u64b = 0;
    float f1 = 0, f2 = 1, f3 = 0, f4 = 0;
    std::string s1, s2 = "x";
    ASSERT_TRUE(d.decodeUint8(u8) && d.decodeInt(i1) && d.decodeInt(i2) && d.decodeUint32(u32) &&
                d.decodeUint64(u64a) && d.decodeFloat(f1) && d.decodeString(s1) && d.decodeInt(i3) &&
                d.decodeUint64(u64b) && d.decodeFloat(f2) && d.decodeFloat(f3) && d.decodeFloat(f4) &&
                d.decodeData(got, 5) && d.decodeData(nullptr, 0) && d.decodeString(s2));
    EXPECT_EQ(std::tuple(u8, i1, i2, u32, u64a, f1, s1), std::tuple(uint8_t(0xfe), 0x01020304, -2, 0xa1b2c3d4u,
                                                                 0x0102030405060708ull, 1.0f, std::string("h\0", 2)));
    EXPECT_EQ(std::tuple(i3, u64b, f4, s2), std::tuple(std::numeric_limits<int>::min(), ~0ull,
                                                       std::numeric_limits<float>::denorm_min(), std::string()));
    EXPECT_TRUE(f2 == 0.0f && std::signbit(f2) && std::isnan(f3));
    EXPECT_EQ(std::vector<uint8_t>(got, got + 5), std::vector<uint8_t>(blob, blob + 5));
    EXPECT_TRUE(d.remaining() == 0 && !d.failed());
}

// A read on a stream one byte too short fails, leaves its output alone, and every later
// read fails as well, even one that would fit.
template <class T>
void expectExhausted(bool (Decoder::*read)(T&)) {
    std::vector<uint8_t> bytes(sizeof(T) - 1);  // on the heap: AddressSanitizer sees any over-read
    Decoder d(bytes.data(), bytes.size());
    T v = 77;
    EXPECT_FALSE((d.*read)(v)) << sizeof(T);
    EXPECT_EQ(v, T(77));
    EXPECT_TRUE(d.failed() && d.remaining() == 0);
    uint8_t one = 5;
    EXPECT_FALSE(sizeof(T) > 1 && d.decodeUint8(one)) << sizeof(T) << ": failure must be sticky";
    EXPECT_EQ(one, 5);
    EXPECT_FALSE(d.decodeData(nullptr, 0));
}

TEST(Codec, ExhaustionFailsWithoutTouchingOutputAndStaysFailed) {
    expectExhausted(&Decoder::decodeUint8);
    expectExhausted(&Decoder::decodeInt);
    expectExhausted(&Decoder::decodeUint32);
    expectExhausted(&Decoder::decodeUint64);
    expectExhausted(&Decoder::decodeFloat);
    uint8_t sink[6] = {77, 77, 77, 77, 77, 77};
    Decoder d(std::vector<uint8_t>(5));
    EXPECT_FALSE(d.decodeData(sink, 6));
    EXPECT_TRUE(d.failed() && sink[0] == 77 && sink[5] == 77);
}

TEST(Codec, HostileLengthsNeverOverflowOrAllocate) {
    uint8_t sink[4] = {};
    Decoder d(std::vector<uint8_t>{1, 2, 3, 4});
    EXPECT_FALSE(d.decodeData(sink, ~0ull));  // a length near 2^64 must not wrap the bounds check
    EXPECT_TRUE(d.failed());
    // A string whose stored length exceeds the stream or the caller's limit.
    for (uint64_t claimed : {uint64_t(1) << 40, ~uint64_t(0), uint64_t(3)}) {
        Encoder e;
        e.encodeUint64(claimed);
        e.encodeData(reinterpret_cast<const uint8_t*>("ab"), 2);
        Decoder ds(e.take());
        std::string s = "keep";
        EXPECT_FALSE(ds.decodeString(s)) << claimed;
        EXPECT_EQ(s, "keep");
    }
    Encoder e;
    e.encodeString("abcdef");
    Decoder dl(e.take());
    std::string s;
    EXPECT_TRUE(!dl.decodeString(s, 5) && dl.failed());
}

}  // namespace
}  // namespace zorl
