// Encoder / Decoder: little-endian bytes, round trips, and a decoder that fails (for
// good) instead of reading past its end.
#include <zorl/core/codec.h>

#include <cmath>
#include <limits>

#include "support/test_support.h"

namespace zorl {
namespace {

TEST(Codec, FieldsAreLittleEndian) {
    Encoder e;
    e.encodeUint8(0xfe);
    e.encodeInt(0x01020304);
    e.encodeInt(-2);
    e.encodeUint32(0xa1b2c3d4u);
    e.encodeUint64(0x0102030405060708ull);
    e.encodeFloat(1.0f);  // 0x3f800000
    e.encodeString("hi");
    const std::vector<uint8_t> expected = {
        0xfe,                                            //
        0x04, 0x03, 0x02, 0x01,                          //
        0xfe, 0xff, 0xff, 0xff,                          //
        0xd4, 0xc3, 0xb2, 0xa1,                          //
        0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01,  //
        0x00, 0x00, 0x80, 0x3f,                          //
        0x02, 0, 0, 0, 0, 0, 0, 0, 'h', 'i'};
    EXPECT_EQ(e.data(), expected);
    EXPECT_EQ(e.size(), expected.size());
}

TEST(Codec, EveryFieldRoundTrips) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    Encoder e;
    e.encodeUint8(0);
    e.encodeUint8(255);
    e.encodeInt(std::numeric_limits<int>::min());
    e.encodeInt(std::numeric_limits<int>::max());
    e.encodeUint32(0xffffffffu);
    e.encodeUint64(~0ull);
    e.encodeFloat(-0.0f);
    e.encodeFloat(nan);
    e.encodeFloat(std::numeric_limits<float>::denorm_min());
    const uint8_t blob[5] = {9, 8, 7, 6, 5};
    e.encodeData(blob, 5);
    e.encodeData(nullptr, 0);
    e.encodeString("");
    e.encodeString(std::string("a\0b", 3));

    Decoder d(e.take());
    uint8_t u8a = 1, u8b = 0;
    int i1 = 0, i2 = 0;
    uint32_t u32 = 0;
    uint64_t u64 = 0;
    float f1 = 1, f2 = 0, f3 = 0;
    uint8_t got[5] = {};
    std::string s1 = "x", s2;
    ASSERT_TRUE(d.decodeUint8(u8a) && d.decodeUint8(u8b) && d.decodeInt(i1) && d.decodeInt(i2) && d.decodeUint32(u32) &&
                d.decodeUint64(u64) && d.decodeFloat(f1) && d.decodeFloat(f2) && d.decodeFloat(f3) &&
                d.decodeData(got, 5) && d.decodeData(nullptr, 0) && d.decodeString(s1) && d.decodeString(s2));
    EXPECT_EQ(u8a, 0);
    EXPECT_EQ(u8b, 255);
    EXPECT_EQ(i1, std::numeric_limits<int>::min());
    EXPECT_EQ(i2, std::numeric_limits<int>::max());
    EXPECT_EQ(u32, 0xffffffffu);
    EXPECT_EQ(u64, ~0ull);
    EXPECT_TRUE(f1 == 0.0f && std::signbit(f1));
    EXPECT_TRUE(std::isnan(f2));
    EXPECT_EQ(f3, std::numeric_limits<float>::denorm_min());
    EXPECT_EQ(std::vector<uint8_t>(got, got + 5), std::vector<uint8_t>(blob, blob + 5));
    EXPECT_EQ(s1, "");
    EXPECT_EQ(s2, std::string("a\0b", 3));
    EXPECT_EQ(d.remaining(), 0u);
    EXPECT_FALSE(d.failed());
}

// Each read on a stream one byte too short fails, leaves its output alone, and every
// later read fails as well, even one that would fit.
TEST(Codec, ExhaustionFailsWithoutTouchingOutputAndStaysFailed) {
    struct Case {
        const char* name;
        std::size_t need;
        std::function<bool(Decoder&)> read;  // reads one field, checks its output is untouched
    };
    const std::vector<Case> cases = {
        {"uint8", 1, [](Decoder& d) { uint8_t v = 77; return !d.decodeUint8(v) && v == 77; }},
        {"int", 4, [](Decoder& d) { int v = 77; return !d.decodeInt(v) && v == 77; }},
        {"uint32", 4, [](Decoder& d) { uint32_t v = 77; return !d.decodeUint32(v) && v == 77; }},
        {"uint64", 8, [](Decoder& d) { uint64_t v = 77; return !d.decodeUint64(v) && v == 77; }},
        {"float", 4, [](Decoder& d) { float v = 77; return !d.decodeFloat(v) && v == 77; }},
        {"data", 6, [](Decoder& d) {
             uint8_t v[6] = {77, 77, 77, 77, 77, 77};
             return !d.decodeData(v, 6) && v[0] == 77 && v[5] == 77;
         }},
    };
    for (const Case& c : cases) {
        // Exactly need - 1 bytes on the heap, so that AddressSanitizer sees any over-read.
        auto bytes = std::make_unique<uint8_t[]>(c.need - 1 + 1);
        Decoder d(bytes.get(), c.need - 1);
        EXPECT_TRUE(c.read(d)) << c.name;
        EXPECT_TRUE(d.failed()) << c.name;
        EXPECT_EQ(d.remaining(), 0u) << c.name;
        uint8_t one = 5;
        if (c.need > 1) EXPECT_FALSE(d.decodeUint8(one)) << c.name << ": failure must be sticky";
        EXPECT_EQ(one, 5) << c.name;
        EXPECT_FALSE(d.decodeData(nullptr, 0)) << c.name;
    }
}

TEST(Codec, HostileLengthsNeverOverflowOrAllocate) {
    // A length near 2^64 must not wrap the bounds check.
    uint8_t sink[4] = {};
    Decoder d(std::vector<uint8_t>{1, 2, 3, 4});
    EXPECT_FALSE(d.decodeData(sink, ~0ull));
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
    EXPECT_FALSE(dl.decodeString(s, 5));
    EXPECT_TRUE(dl.failed());
}

}  // namespace
}  // namespace zorl
