#include <imageprocessing/compression.h>
#include <imageprocessing/tiled_mask_image.h>

#include <zlib.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "storage/fuzz_entry_points.h"
#include "support/test_support.h"

namespace zorl {
namespace {

using Bytes = std::vector<uint8_t>;
using Zlib = ImageCompressorLosslessZlib;
using Proxy = ImageCompressorProxy;
using test::LogCapture;
using test::MemoryBalance;

// Two byte planes place every value in 0..1 within half a step of 1/65025 of its original;
// the rest is the float rounding of one division.
constexpr float kTwoPlaneTolerance = 1.0f / 130050.0f + 1e-7f;
// JPEG at quality 100 of a smooth ramp: the DCT quantisation and the YCbCr round trip stay
// within a few 8-bit levels.
constexpr float kJpegTolerance = 4.0f / 255.0f;

const std::string kBytesRef = "const class std::vector<unsigned char,class std::allocator<unsigned char> > &";

uint32_t u32At(const Bytes& b, std::size_t at) {
    uint32_t v;
    std::memcpy(&v, b.data() + at, 4);
    return v;
}
uint64_t u64At(const Bytes& b, std::size_t at) {
    uint64_t v;
    std::memcpy(&v, b.data() + at, 8);
    return v;
}

Bytes randomBytes(std::size_t n, uint32_t seed) {
    Bytes b(n);
    uint32_t s = seed;
    for (auto& v : b) {
        s = s * 1664525u + 1013904223u;
        v = uint8_t(s >> 24) & 0x0F;  // low entropy: compresses a little
    }
    return b;
}

// A legacy untracked block: int32 width, int32 height, zlib of the floats.
Bytes legacyBlock(int w, int h, const std::vector<float>& values) {
    uLongf len = compressBound(values.size() * 4);
    Bytes out(8 + len);
    std::memcpy(out.data(), &w, 4);
    std::memcpy(out.data() + 4, &h, 4);
    EXPECT_EQ(compress2(out.data() + 8, &len, reinterpret_cast<const Bytef*>(values.data()), values.size() * 4, 6), Z_OK);
    out.resize(8 + len);
    return out;
}

std::shared_ptr<MaskImage> maskOf(int w, int h, const std::vector<float>& values) {
    return std::make_shared<MaskImage>(values.data(), _Size<int>(w, h));
}

template <class F>
std::string exceptionText(F&& f) {
    try {
        f();
    } catch (const Zlib::CompressorException& e) {
        return e.what();
    }
    return "<no exception>";
}

// ---------------------------------------------------------------- tracked header

TEST(TrackedBlock, HeaderBytesAtEveryOffset) {
    MemoryBalance balance;
    const Bytes src = randomBytes(7 * 3 * 2, 1);
    Bytes dst;
    Zlib::compressEx(src, dst, 7, 3, 0x0A0B0C0D, 2, 0x11223344, 0x55, 9, 1, 0);
    ASSERT_GT(dst.size(), 56u);
    const struct {
        std::size_t offset;
        uint32_t value;
    } fields[] = {{0, 0xFFFFFFFFu}, {4, 0xFFFFFFFFu}, {8, 1},  {12, 0},          {16, 1},    {20, 7},
                  {24, 3},          {28, 0x0A0B0C0D}, {32, 2}, {36, 0x11223344}, {40, 0x55}, {44, 9}};
    for (const auto& f : fields) EXPECT_EQ(u32At(dst, f.offset), f.value) << "offset " << f.offset;
    EXPECT_EQ(dst[28], 0x0D);  // little-endian
    EXPECT_EQ(dst[31], 0x0A);
    EXPECT_EQ(u64At(dst, 48), dst.size() - 56);

    const auto header = STrackVersionFormat(int(u32At(dst, 0)), int(u32At(dst, 4)));
    EXPECT_FALSE(header.isUntrackedVersion());
    EXPECT_EQ(kTrackedHeaderBytes, 56u);
    EXPECT_TRUE(balance.balanced());
}

TEST(TrackedBlock, LevelMinusOneIsStoredAsAllOnes) {
    Bytes dst;
    Zlib::compressEx(Bytes(4, 1), dst, 2, 2, 0, 1, 0, 0, -1, 1, 0);
    EXPECT_EQ(u32At(dst, 44), 0xFFFFFFFFu);
}

TEST(TrackedBlock, TrackDetection) {
    const struct {
        int w0, w1;
        bool untracked;
    } cases[] = {{-1, -1, false}, {-1, 0, false}, {0, -1, false}, {5, 7, true}, {0, 0, true}};
    for (const auto& c : cases) EXPECT_EQ(STrackVersionFormat(c.w0, c.w1).isUntrackedVersion(), c.untracked);
}

TEST(TrackedBlock, PreconditionsLeaveDstUnchanged) {
    MemoryBalance balance;
    const Bytes src = randomBytes(64, 2);
    const Bytes sentinel{1, 2, 3};
    const struct {
        uint32_t w, h, major, minor;
    } cases[] = {{0, 4, 1, 0}, {4, 0, 1, 0}, {4, 4, 2, 0}, {4, 4, 1, 1}, {4, 4, 0, 0}};
    for (const auto& c : cases) {
        Bytes dst = sentinel;
        Zlib::compressEx(src, dst, c.w, c.h, 0, 4, 0, 0, 6, c.major, c.minor);
        EXPECT_EQ(dst, sentinel);
    }
    Bytes block;
    Zlib::compressEx(src, block, 4, 4, 0, 4, 0, 0, 6, 1, 0);
    const struct {
        uint64_t size;
        uint32_t major, minor;
        bool emptySrc;
    } reads[] = {{64, 2, 0, false}, {64, 1, 1, false}, {0, 1, 0, false}, {64, 1, 0, true}};
    for (const auto& r : reads) {
        Bytes dst = sentinel;
        Zlib::uncompressEx(r.emptySrc ? Bytes{} : block, dst, r.size, r.major, r.minor);
        EXPECT_EQ(dst, sentinel);
    }
    EXPECT_TRUE(balance.balanced());
}

TEST(TrackedBlock, ShortSourceIsLoggedAndWritesNothing) {
    LogCapture log;
    Bytes dst{9};
    Zlib::compressEx(Bytes(10), dst, 4, 4, 0, 1, 0, 0, 6, 1, 0);
    EXPECT_EQ(dst, Bytes{9});
    ASSERT_EQ(log.count(), 1u);
    EXPECT_NE(log.lines()[0].find("zorl::ImageCompressorLosslessZlib::compressEx("), std::string::npos);
    EXPECT_NE(log.lines()[0].find(": source holds fewer bytes than width x height x bytesPerValue"), std::string::npos);
}

TEST(TrackedBlock, RoundTripsAtEveryLevel) {
    MemoryBalance balance;
    for (int level : {-1, 0, 1, 6, 9})
        for (uint32_t bpv : {1u, 2u, 4u, 12u}) {
            const uint32_t w = 13, h = 5;
            const Bytes src = randomBytes(w * h * bpv, level + 7 * bpv);
            Bytes block, back;
            Zlib::compressEx(src, block, w, h, 3, bpv, 5, 6, level, 1, 0);
            Zlib::uncompressEx(block, back, uint64_t(w) * h * bpv, 1, 0);
            EXPECT_EQ(back, src) << "level " << level << " bpv " << bpv;
        }
    EXPECT_TRUE(balance.balanced());
}

// ---------------------------------------------------------------- exceptions

TEST(CompressorException, Texts) {
    MemoryBalance balance;
    const Bytes src = randomBytes(400, 3);
    Bytes block;
    Zlib::compressEx(src, block, 20, 20, 0, 1, 0, 0, 6, 1, 0);
    Bytes raw;
    Zlib::compressRawData(src, raw, 6);

    Bytes corrupt = block;
    for (std::size_t i = 58; i < corrupt.size(); ++i) corrupt[i] ^= 0x5A;
    Bytes truncated(block.begin(), block.end() - 10);
    Bytes out;
    std::vector<float> floats(200);
    std::vector<uint8_t> big(500), small(300);

    const struct {
        const char* name;
        std::function<void()> call;
        const char* text;
    } cases[] = {
        {"corrupt stream", [&] { Zlib::uncompressEx(corrupt, out, 400, 1, 0); }, "the input data was corrupted or incomplete"},
        {"truncated stream", [&] { Zlib::uncompressEx(truncated, out, 400, 1, 0); }, "the input data was corrupted or incomplete"},
        {"block shorter than header", [&] { Zlib::uncompressEx(Bytes(20, 1), out, 400, 1, 0); },
         "the input data was corrupted or incomplete"},
        {"size beyond zlib's ratio", [&] { Zlib::uncompressEx(block, out, uint64_t(1) << 40, 1, 0); },
         "the input data was corrupted or incomplete"},
        {"room", [&] { Zlib::uncompressEx(block, out, 399, 1, 0); }, "there was not enough room in the output buffer"},
        {"short stream", [&] { Zlib::uncompressEx(block, out, 401, 1, 0); }, "Incorrect decompression"},
        {"raw into more", [&] { Zlib::decompressRawData(raw, big); }, "Incorrect decompression"},
        {"raw into less", [&] { Zlib::decompressRawData(raw, small); }, "there was not enough room in the output buffer"},
        {"untracked of 8 bytes", [&] { Zlib::uncompress(Bytes(8, 1), floats.data(), 800); },
         "the input data was corrupted or incomplete"},
        {"bad level", [&] { Zlib::compressRawData(src, out, 12); }, "the level parameter is invalid"},
        {"empty raw stream", [&] { Zlib::decompressRawData(Bytes{}, small); }, "the input data was corrupted or incomplete"},
    };
    for (const auto& c : cases) EXPECT_EQ(exceptionText(c.call), c.text) << c.name;
    EXPECT_TRUE(balance.balanced());
}

// ---------------------------------------------------------------- simple and raw

TEST(RawBlocks, RoundTripAtSeveralLevels) {
    MemoryBalance balance;
    const Bytes src = randomBytes(1000, 4);
    for (int level : {-1, 0, 1, 9}) {
        Bytes block;
        Zlib::compressRawData(src, block, level);
        Bytes back(src.size());
        Zlib::decompressRawData(block, back);
        EXPECT_EQ(back, src);
    }
    const std::vector<float> f = test::noise(3 * 17, 5, -2.0f, 2.0f);
    Bytes simple;
    Zlib::compressSimple(reinterpret_cast<const PixelRGB<float>*>(f.data()), simple, f.size() * 4, 6);
    std::vector<float> fb(f.size());
    Zlib::decompressSimple(simple, reinterpret_cast<PixelRGB<float>*>(fb.data()), fb.size() * 4);
    EXPECT_EQ(fb, f);

    Bytes proxied;
    Proxy::compressRawData(src.data(), src.size(), proxied);
    Bytes pb(src.size());
    Proxy::uncompressRawData(proxied, pb.data(), pb.size());
    EXPECT_EQ(pb, src);
    EXPECT_TRUE(balance.balanced());
}

TEST(RawBlocks, NullPointersAreLogged) {
    LogCapture log;
    Bytes dst{7};
    Proxy::compressRawData(nullptr, 10, dst);
    Proxy::uncompressRawData(Bytes{1, 2}, nullptr, 10);
    EXPECT_EQ(dst, Bytes{7});
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0],
              "void __cdecl zorl::ImageCompressorProxy::compressRawData(const unsigned char *,unsigned __int64,class "
              "std::vector<unsigned char,class std::allocator<unsigned char> > &): source is null");
    EXPECT_EQ(lines[1], "void __cdecl zorl::ImageCompressorProxy::uncompressRawData(" + kBytesRef +
                            ",unsigned char *,unsigned __int64): destination is null");
}

// ---------------------------------------------------------------- masks

TEST(MaskBlock, BinaryMaskUsesOnePlaneAndComesBackExactly) {
    MemoryBalance balance;
    std::vector<float> v(31 * 9);
    for (std::size_t i = 0; i < v.size(); ++i) v[i] = (i * 7 % 5) < 2 ? 1.0f : 0.0f;
    Bytes block;
    Proxy::compressMask(*maskOf(31, 9, v), block);
    ASSERT_GT(block.size(), 56u);
    EXPECT_EQ(u32At(block, 20), 31u);
    EXPECT_EQ(u32At(block, 24), 9u);
    EXPECT_EQ(u32At(block, 28), 4u);   // field 3: 8-bit gray planes
    EXPECT_EQ(u32At(block, 32), 1u);   // one plane
    EXPECT_EQ(u32At(block, 36), 7u);   // field 5: untagged
    EXPECT_EQ(u32At(block, 40), 1u);   // field 6: one channel
    EXPECT_EQ(u32At(block, 44), 0xFFFFFFFFu);  // zlib's default level
    std::shared_ptr<MaskImage> back;
    Proxy::uncompressMask(block, back);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->size(), _Size<int>(31, 9));
    EXPECT_EQ(std::vector<float>(back->data(), back->data() + v.size()), v);
    back.reset();
    EXPECT_TRUE(balance.balanced());
}

TEST(MaskBlock, MultiplesOf255ComeBackExactly) {
    std::vector<float> v(256);
    for (int k = 0; k < 256; ++k) v[k] = float(k) / 255.0f;
    Bytes block;
    Proxy::compressMask(*maskOf(16, 16, v), block);
    std::shared_ptr<MaskImage> back;
    Proxy::uncompressMask(block, back);
    ASSERT_TRUE(back);
    for (int k = 0; k < 256; ++k) EXPECT_EQ(back->data()[k], v[k]) << k;
}

TEST(MaskBlock, ArbitraryValuesWithinTwoPlanePrecision) {
    MemoryBalance balance;
    const int w = 57, h = 23;
    std::vector<float> v = test::noise(w * h, 8);
    v[0] = 0.0f;
    v[1] = 1.0f;
    v[2] = std::nanf("");
    v[3] = 1.5f;
    v[4] = -0.25f;
    v[5] = 1e-9f;
    v[6] = 0.99999994f;
    Bytes block;
    Proxy::compressMask(*maskOf(w, h, v), block);
    EXPECT_EQ(u32At(block, 32), 2u);
    std::shared_ptr<MaskImage> back;
    Proxy::uncompressMask(block, back);
    ASSERT_TRUE(back);
    // Reference: the value clamped to 0..1 with NaN to 0, in double.
    for (int i = 0; i < w * h; ++i) {
        const double c = std::isnan(v[i]) ? 0.0 : std::clamp(double(v[i]), 0.0, 1.0);
        EXPECT_NEAR(back->data()[i], c, kTwoPlaneTolerance) << i;
    }
    EXPECT_EQ(back->data()[0], 0.0f);
    EXPECT_EQ(back->data()[1], 1.0f);
    EXPECT_EQ(back->data()[3], 1.0f);
    EXPECT_EQ(back->data()[4], 0.0f);
    back.reset();
    EXPECT_TRUE(balance.balanced());
}

// The two-plane payload of a small mask, byte for byte: b1, then b2 minus the row
// prediction of q = 255 b1 + b2 (mod 256). Worked out by hand from the format's rules;
// a change here breaks every stored mask.
TEST(MaskBlock, TwoPlanePayloadIsPinned) {
    const std::vector<float> v = {0.1f, 0.2f, 0.3f, 0.4f, 0.5f, 0.0f, 1.0f, 0.75f, 0.6f, 0.01f};
    Bytes block;
    Proxy::compressMask(*maskOf(5, 2, v), block);
    ASSERT_EQ(u32At(block, 32), 2u);
    Bytes payload;
    Zlib::uncompressEx(block, payload, 20, 1, 0);
    const Bytes expected = {25, 103, 51, 102, 76, 1, 102, 255, 127, 1, 0, 153, 255, 1, 191, 128, 153, 102, 2, 61};
    EXPECT_EQ(payload, expected);
    auto back = uncompressMask_1_0(block);
    ASSERT_TRUE(back);
    for (int i = 0; i < 10; ++i) EXPECT_NEAR(back->data()[i], v[i], kTwoPlaneTolerance) << i;

    // A damaged payload (b1 = 255 with a remainder) still reads within 0..1.
    Bytes damaged;
    Zlib::compressEx(Bytes{255, 200}, damaged, 1, 1, kMaskDataTypeCode, 2, kMaskColorProfileCode, 1, 6, 1, 0);
    auto clamped = uncompressMask_1_0(damaged);
    ASSERT_TRUE(clamped);
    EXPECT_EQ(clamped->data()[0], 1.0f);
}

// On a soft ramp the stored second plane is near zero, which is what makes it compress.
TEST(MaskBlock, SecondPlaneOfARampIsSmall) {
    const int w = 200, h = 3;
    std::vector<float> v(w * h);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) v[y * w + x] = 0.1f + 0.0037f * x;
    Bytes block, payload;
    Proxy::compressMask(*maskOf(w, h, v), block);
    Zlib::uncompressEx(block, payload, 2 * w * h, 1, 0);
    int small = 0;
    for (int i = 0; i < w * h; ++i) {
        const uint8_t s = payload[2 * i + 1];
        small += s <= 2 || s >= 254;
    }
    EXPECT_GT(small, w * h * 9 / 10);
}

TEST(MaskBlock, EmptyMaskWritesNothing) {
    Bytes dst{5};
    Proxy::compressMask(MaskImage(_Size<int>(0, 3), 0.5f), dst);
    EXPECT_EQ(dst, Bytes{5});
}

TEST(MaskBlock, LegacyUntrackedBlock) {
    MemoryBalance balance;
    const std::vector<float> v = test::noise(6 * 4, 9, -0.5f, 1.5f);
    const Bytes block = legacyBlock(6, 4, v);
    auto a = uncompressMask_untracked(block);
    ASSERT_TRUE(a);
    EXPECT_EQ(a->size(), _Size<int>(6, 4));
    EXPECT_EQ(std::vector<float>(a->data(), a->data() + 24), v);  // legacy floats are kept as they are
    std::shared_ptr<MaskImage> b;
    Proxy::uncompressMask(block, b);
    ASSERT_TRUE(b);
    EXPECT_EQ(std::vector<float>(b->data(), b->data() + 24), v);
    a.reset();
    b.reset();
    EXPECT_TRUE(balance.balanced());
}

TEST(MaskBlock, DispatchBetweenTrackedAndUntracked) {
    LogCapture log;
    const std::string sig10 = "class std::shared_ptr<class zorl::MaskImage> __cdecl zorl::uncompressMask_1_0(" + kBytesRef + ")";
    const std::string sigU =
        "class std::shared_ptr<class zorl::MaskImage> __cdecl zorl::uncompressMask_untracked(" + kBytesRef + ")";
    const Bytes legacy = legacyBlock(2, 2, {0.f, 1.f, 0.5f, 0.25f});
    Bytes oneMinusOne = legacy;  // FF FF FF FF 00 00 00 00: one -1 makes it tracked
    std::memset(oneMinusOne.data(), 0xFF, 4);
    std::memset(oneMinusOne.data() + 4, 0x00, 4);
    Bytes otherMinusOne = legacy;
    std::memset(otherMinusOne.data() + 4, 0xFF, 4);
    Bytes zeroSize = legacy;  // untracked, width 0
    std::memset(zeroSize.data(), 0, 4);
    const struct {
        const char* name;
        Bytes block;
        bool read;
        std::string line;
    } cases[] = {
        {"legacy", legacy, true, ""},
        {"8 bytes are tracked", Bytes(legacy.begin(), legacy.begin() + 8), false, sig10 + ": block shorter than its header"},
        {"empty is tracked", Bytes{}, false, sig10 + ": block shorter than its header"},
        {"FF FF FF FF 00 00 00 00", oneMinusOne, false, sig10 + ": block shorter than its header"},
        {"00.. FF FF FF FF", otherMinusOne, false, sig10 + ": block shorter than its header"},
        {"untracked width 0", zeroSize, false, sigU + ": bad mask size"},
    };
    for (const auto& c : cases) {
        log.clear();
        std::shared_ptr<MaskImage> out = std::make_shared<MaskImage>(_Size<int>(1, 1), 0.75f);
        const MaskImage* before = out.get();
        Proxy::uncompressMask(c.block, out);
        EXPECT_EQ(out.get() != before, c.read) << c.name;
        if (!c.line.empty()) {
            ASSERT_EQ(log.count(), 1u) << c.name;
            EXPECT_EQ(log.lines()[0], c.line) << c.name;
        }
    }
}

TEST(MaskBlock, HostileHeadersAreRefusedBeforeAllocating) {
    LogCapture log;
    MemoryBalance balance;
    const std::string sig10 = "class std::shared_ptr<class zorl::MaskImage> __cdecl zorl::uncompressMask_1_0(" + kBytesRef + ")";
    Bytes good;
    Proxy::compressMask(*maskOf(3, 2, {0.f, 1.f, 0.f, 1.f, 1.f, 0.f}), good);
    auto patched = [&](std::size_t at, uint32_t value) {
        Bytes b = good;
        std::memcpy(b.data() + at, &value, 4);
        return b;
    };
    // 60000 x 60000 with a 100-byte stream: refused by zlib's 1032:1 bound.
    Bytes huge(56 + 100, 0);
    std::memcpy(huge.data(), good.data(), 56);
    std::memcpy(huge.data() + 20, "\x60\xEA\x00\x00\x60\xEA\x00\x00", 8);
    const uint64_t len = 100;
    std::memcpy(huge.data() + 48, &len, 8);
    const struct {
        const char* name;
        Bytes block;
        std::string message;
    } cases[] = {
        {"60000 x 60000", huge, "the stream cannot hold the declared pixels"},
        {"version 2.0", patched(8, 2), "unsupported block version"},
        {"minor 1", patched(12, 1), "unsupported block version"},
        {"codec 2", patched(16, 2), "unsupported block version"},
        {"field 3", patched(28, 1), "not a mask block"},
        {"3 planes", patched(32, 3), "not a mask block"},
        {"3 channels", patched(40, 3), "not a mask block"},
        {"width 0", patched(20, 0), "bad mask size"},
        {"width 2^31", patched(20, 0x80000000u), "bad mask size"},
        {"stream length", patched(48, 5), "the stream cannot hold the declared pixels"},
    };
    for (const auto& c : cases) {
        log.clear();
        EXPECT_EQ(uncompressMask_1_0(c.block), nullptr) << c.name;
        ASSERT_EQ(log.count(), 1u) << c.name;
        EXPECT_EQ(log.lines()[0], sig10 + ": " + c.message) << c.name;
    }
    EXPECT_TRUE(balance.balanced());
}

TEST(MaskBlock, CorruptStreamThrows) {
    Bytes block;
    Proxy::compressMask(*maskOf(40, 40, test::noise(1600, 3)), block);
    for (std::size_t i = 60; i < block.size(); i += 3) block[i] ^= 0xA5;
    MemoryBalance balance;
    std::shared_ptr<MaskImage> out;
    EXPECT_EQ(exceptionText([&] { Proxy::uncompressMask(block, out); }), "the input data was corrupted or incomplete");
    EXPECT_EQ(out, nullptr);
    EXPECT_TRUE(balance.balanced());
}

// ---------------------------------------------------------------- images

std::shared_ptr<_ImageData<PixelRGB<float>>> ramp(int w, int h, ColorProfilePtr profile) {
    auto img = std::make_shared<_ImageData<PixelRGB<float>>>(_Size<int>(w, h), profile);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            img->at(x, y) = {0.2f + 0.6f * x / w, 0.3f + 0.4f * y / h, 0.5f};
    return img;
}

TEST(JpegBlock, RoundTripKeepsSizeProfileAndPixels) {
    MemoryBalance balance;
    for (auto profile : {ColorProfileType::sRGB(), ColorProfileType::proPhotoRGB(), ColorProfileType::None()}) {
        auto img = ramp(24, 16, profile);
        Bytes block;
        Proxy::compress(*img, block);
        ASSERT_GT(block.size(), 12u);
        EXPECT_EQ(u32At(block, 0), 24u);
        EXPECT_EQ(u32At(block, 4), 16u);
        EXPECT_EQ(u32At(block, 8), to_colorProfileCode(profile));
        EXPECT_EQ(block[12], 0xFF);
        EXPECT_EQ(block[13], 0xD8);
        std::shared_ptr<_ImageData<PixelRGB<float>>> back;
        Proxy::uncompress(block, back);
        ASSERT_TRUE(back);
        EXPECT_EQ(back->size(), img->size());
        EXPECT_TRUE(sameProfile(back->colorProfile(), profile));
        for (std::size_t i = 0; i < img->pixelCount(); ++i) {
            EXPECT_NEAR(back->data()[i].r, img->data()[i].r, kJpegTolerance);
            EXPECT_NEAR(back->data()[i].g, img->data()[i].g, kJpegTolerance);
            EXPECT_NEAR(back->data()[i].b, img->data()[i].b, kJpegTolerance);
        }
    }
    EXPECT_TRUE(balance.balanced());
}

TEST(JpegBlock, NothingForAnEmptyImage) {
    Bytes dst{4};
    Proxy::compress(_ImageData<PixelRGB<float>>(_Size<int>(0, 5), ColorProfileType::sRGB()), dst);
    EXPECT_EQ(dst, Bytes{4});
}

TEST(JpegBlock, DamagedBlocksAreRefused) {
    LogCapture log;
    auto img = ramp(16, 8, ColorProfileType::sRGB());
    Bytes good;
    Proxy::compress(*img, good);
    const std::string sig = "class std::shared_ptr<class zorl::_ImageData<struct zorl::PixelRGB<float> > > __cdecl "
                            "zorl::uncompressImageData(" + kBytesRef + ")";
    auto patched = [&](std::size_t at, uint32_t v) {
        Bytes b = good;
        std::memcpy(b.data() + at, &v, 4);
        return b;
    };
    Bytes notJpeg = good;
    notJpeg[13] = 0x00;
    Bytes progressive = good;
    for (std::size_t i = 12; i + 1 < progressive.size(); ++i)
        if (progressive[i] == 0xFF && progressive[i + 1] == 0xC0) {
            progressive[i + 1] = 0xC2;
            break;
        }
    Bytes truncated(good.begin(), good.begin() + good.size() / 2);
    const struct {
        const char* name;
        Bytes block;
        std::string line;
    } cases[] = {
        {"declared width", patched(0, 17), sig + ": JPEG size does not match the block"},
        {"declared height", patched(4, 9000), sig + ": JPEG size does not match the block"},
        {"not a JPEG", notJpeg, sig + ": not a sequential JPEG"},
        {"progressive", progressive, sig + ": not a sequential JPEG"},
        {"profile code", patched(8, 99),
         "class std::shared_ptr<class zorl::ColorProfile> __cdecl zorl::to_colorProfilePtr(unsigned int): Undefined "
         "to_colorProfilePtr() conversion"},
        {"12 bytes", Bytes(good.begin(), good.begin() + 12), sig + ": block shorter than its header"},
    };
    for (const auto& c : cases) {
        log.clear();
        EXPECT_EQ(uncompressImageData(c.block), nullptr) << c.name;
        ASSERT_EQ(log.count(), 1u) << c.name;
        EXPECT_EQ(log.lines()[0], c.line) << c.name;
    }
    log.clear();
    EXPECT_EQ(uncompressImageData(truncated), nullptr);
    ASSERT_EQ(log.count(), 1u);
    EXPECT_EQ(log.lines()[0].rfind(sig + ": JPEG decoding failed: ", 0), 0u) << log.lines()[0];
}

TEST(TrackedImageBlock, RoundTripIsExact) {
    MemoryBalance balance;
    const int w = 9, h = 4;
    const std::vector<float> f = test::noise(w * h * 3, 12, -1.0f, 2.0f);
    const Bytes payload(reinterpret_cast<const uint8_t*>(f.data()), reinterpret_cast<const uint8_t*>(f.data()) + f.size() * 4);
    Bytes block;
    Zlib::compressEx(payload, block, w, h, to_imageDataTypeCode(ImageDataType::RgbF32), 12,
                     to_colorProfileCode(ColorProfileType::melissaRGB()), 3, 1, 1, 0);
    std::shared_ptr<_ImageData<PixelRGB<float>>> back;
    Proxy::uncompress(block, back);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->size(), _Size<int>(w, h));
    EXPECT_TRUE(sameProfile(back->colorProfile(), ColorProfileType::melissaRGB()));
    EXPECT_EQ(std::memcmp(back->data(), f.data(), f.size() * 4), 0);
    back.reset();
    EXPECT_TRUE(balance.balanced());
}

// ---------------------------------------------------------------- codes

TEST(Codes, ProfilesRoundTripAndUnknownsAreLogged) {
    const struct {
        ColorProfilePtr profile;
        uint32_t code;
    } table[] = {{ColorProfileType::sRGB(), 1},        {ColorProfileType::sRGBLinear(), 2},
                 {ColorProfileType::proPhotoRGB(), 3}, {ColorProfileType::melissaRGB(), 4},
                 {ColorProfileType::None(), 7}};
    for (const auto& t : table) {
        EXPECT_EQ(to_colorProfileCode(t.profile), t.code);
        EXPECT_TRUE(sameProfile(to_colorProfilePtr(t.code), t.profile));
    }
    EXPECT_EQ(to_colorProfileCode(nullptr), kMaskColorProfileCode);

    LogCapture log;
    EXPECT_EQ(to_colorProfileCode(std::make_shared<ColorProfile>(static_cast<ColorProfile::Kind>(42))), 0u);
    EXPECT_EQ(to_colorProfilePtr(5), nullptr);
    EXPECT_EQ(to_imageDataTypeCode(ImageDataType::Unknown), 0u);
    const std::vector<std::string> expected = {
        "unsigned int __cdecl zorl::to_colorProfileCode(const class std::shared_ptr<class zorl::ColorProfile> &): "
        "Undefined to_colorProfileCode() conversion",
        "class std::shared_ptr<class zorl::ColorProfile> __cdecl zorl::to_colorProfilePtr(unsigned int): Undefined "
        "to_colorProfilePtr() conversion",
        "unsigned int __cdecl zorl::to_imageDataTypeCode(enum zorl::ImageDataType): Undefined to_imageDataTypeCode() "
        "conversion"};
    EXPECT_EQ(log.lines(), expected);
    for (auto type : log.types()) EXPECT_EQ(type, LogMessageType::Error);
}

TEST(Codes, DataTypesAreDistinctAndMaskIsGrayBytes) {
    std::vector<uint32_t> codes;
    for (int t = 1; t <= 12; ++t) codes.push_back(to_imageDataTypeCode(static_cast<ImageDataType>(t)));
    std::sort(codes.begin(), codes.end());
    EXPECT_EQ(std::unique(codes.begin(), codes.end()), codes.end());
    EXPECT_EQ(codes.front(), 1u);
    EXPECT_EQ(to_imageDataTypeCode(ImageDataType::GrayU8), kMaskDataTypeCode);
    EXPECT_EQ(to_imageDataTypeCode(ImageDataType::RgbF32), 1u);
}

// ---------------------------------------------------------------- files

class FileTest : public ::testing::Test {
protected:
    std::string path = (std::filesystem::path(::testing::TempDir()) /
                        ("zorl_store_" + std::string(::testing::UnitTest::GetInstance()->current_test_info()->name())))
                           .string();
    void TearDown() override { std::remove(path.c_str()); }

    void write(std::shared_ptr<const _ImageData<float>> img, CompressionStorage storage) {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        writeToFile(out, std::move(img), storage);
    }
    std::shared_ptr<_ImageData<float>> read() {
        std::ifstream in(path, std::ios::binary);
        return readFromFile(in);
    }
    Bytes fileBytes() {
        std::ifstream in(path, std::ios::binary);
        return Bytes(std::istreambuf_iterator<char>(in), {});
    }
    void setFileBytes(const Bytes& b) {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(b.data()), b.size());
    }

    static const std::string& readSig() {
        static const std::string s =
            "class std::shared_ptr<class zorl::_ImageData<float> > __cdecl zorl::readFromFile(class "
            "std::basic_ifstream<char,struct std::char_traits<char> > &)";
        return s;
    }
};

TEST_F(FileTest, RawDataRoundTripIsExact) {
    MemoryBalance balance;
    {
        auto img = std::make_shared<_ImageData<float>>(_Size<int>(11, 7), ColorProfileType::proPhotoRGB());
        const auto v = test::noise(77, 13, -3.0f, 3.0f);
        std::memcpy(img->data(), v.data(), 77 * 4);
        img->setLoadState(ImageLoadState::Preview);
        write(img, CompressionStorage::RawData);
        const Bytes b = fileBytes();
        ASSERT_GE(b.size(), 40u);
        EXPECT_EQ(Bytes(b.begin(), b.begin() + 8), (Bytes{0x89, 'Z', 'R', 'L', 0x0D, 0x0A, 0x1A, 0x0A}));
        EXPECT_EQ(u32At(b, 8), 1u);
        EXPECT_EQ(u32At(b, 12), 1u);
        EXPECT_EQ(u64At(b, 32), b.size() - 40);
        auto back = read();
        ASSERT_TRUE(back);
        EXPECT_EQ(back->size(), img->size());
        EXPECT_TRUE(sameProfile(back->colorProfile(), ColorProfileType::proPhotoRGB()));
        EXPECT_EQ(back->getLoadState(), ImageLoadState::Preview);
        EXPECT_EQ(std::memcmp(back->data(), img->data(), 77 * 4), 0);
    }
    EXPECT_TRUE(balance.balanced());
}

TEST_F(FileTest, MaskStorageRoundTrip) {
    MemoryBalance balance;
    {
        auto img = std::make_shared<MaskImage>(_Size<int>(13, 5), 0.0f);
        const auto v = test::noise(65, 14);
        std::memcpy(img->data(), v.data(), 65 * 4);
        write(img, CompressionStorage::Mask);
        auto back = read();
        ASSERT_TRUE(back);
        EXPECT_NE(std::dynamic_pointer_cast<MaskImage>(back), nullptr);
        for (int i = 0; i < 65; ++i) EXPECT_NEAR(back->data()[i], v[i], kTwoPlaneTolerance);
    }
    EXPECT_TRUE(balance.balanced());
}

TEST_F(FileTest, StorageMessages) {
    LogCapture log;
    write(std::make_shared<MaskImage>(_Size<int>(2, 2), 0.0f), static_cast<CompressionStorage>(9));
    ASSERT_EQ(log.count(), 1u);
    EXPECT_EQ(log.lines()[0],
              "void __cdecl zorl::writeToFile(class std::basic_ofstream<char,struct std::char_traits<char> > &,class "
              "std::shared_ptr<class zorl::_ImageData<float> const >,enum zorl::CompressionStorage): Unsupported type "
              "for CompressionStorage: 9");
    EXPECT_TRUE(fileBytes().empty());

    write(std::make_shared<MaskImage>(_Size<int>(2, 2), 0.0f), CompressionStorage::RawData);
    Bytes b = fileBytes();
    const int32_t bad = 3;
    std::memcpy(b.data() + 12, &bad, 4);
    setFileBytes(b);
    log.clear();
    EXPECT_EQ(read(), nullptr);
    ASSERT_EQ(log.count(), 1u);
    EXPECT_EQ(log.lines()[0], readSig() + ": Invalid value for CompressionStorage: 3");
}

TEST_F(FileTest, DamagedFilesAreRefused) {
    auto img = std::make_shared<_ImageData<float>>(_Size<int>(20, 20), 0.25f, ColorProfileType::sRGB());
    write(img, CompressionStorage::RawData);
    const Bytes good = fileBytes();
    auto patched = [&](std::size_t at, uint32_t v) {
        Bytes b = good;
        std::memcpy(b.data() + at, &v, 4);
        return b;
    };
    Bytes corrupt = good;
    corrupt.back() ^= 0xFF;
    const struct {
        const char* name;
        Bytes bytes;
        std::string message;
    } cases[] = {
        {"empty", Bytes{}, "file shorter than its header"},
        {"magic", patched(0, 0x12345678), "not an image file"},
        {"version 2", patched(8, 2), "unsupported file version 2"},
        {"version 0", patched(8, 0), "unsupported file version 0"},
        {"width", patched(16, 0), "bad image size"},
        {"huge size", patched(16, 1 << 30), "the payload cannot hold the declared pixels"},
        {"load state", patched(28, 7), "bad load state"},
        {"payload length", patched(32, 100000), "file shorter than its payload"},
        {"truncated", Bytes(good.begin(), good.end() - 3), "file shorter than its payload"},
        {"corrupt stream", corrupt, "the input data was corrupted or incomplete"},
    };
    LogCapture log;
    MemoryBalance balance;
    for (const auto& c : cases) {
        setFileBytes(c.bytes);
        log.clear();
        EXPECT_EQ(read(), nullptr) << c.name;
        ASSERT_EQ(log.count(), 1u) << c.name;
        EXPECT_EQ(log.lines()[0], readSig() + ": " + c.message) << c.name;
    }
    EXPECT_TRUE(balance.balanced());
}

// ---------------------------------------------------------------- fuzz corpus

std::filesystem::path corpusRoot() {
    const char* data = std::getenv("ZORL_TEST_DATA");
    return std::filesystem::path(data ? data : "tests/data") / ".." / ".." / "fuzz" / "corpus";
}

// Every committed corpus file goes through the fuzz entry points; none may crash or throw.
TEST(FuzzCorpus, ReplaysEveryFile) {
    LogCapture quiet;
    const std::string tmp = (std::filesystem::path(::testing::TempDir()) / "zorl_store_replay").string();
    const struct {
        const char* target;
        std::function<void(const Bytes&)> run;
    } targets[] = {
        {"fuzz_mask_block", [](const Bytes& b) { fuzz::maskBlock(b.data(), b.size()); }},
        {"fuzz_image_block", [](const Bytes& b) { fuzz::imageBlock(b.data(), b.size()); }},
        {"fuzz_tiled_mask", [](const Bytes& b) { fuzz::tiledMask(b.data(), b.size()); }},
        {"fuzz_read_file", [&](const Bytes& b) { fuzz::readFile(b.data(), b.size(), tmp); }},
    };
    MemoryBalance balance;
    for (const auto& t : targets) {
        const auto dir = corpusRoot() / t.target;
        ASSERT_TRUE(std::filesystem::is_directory(dir)) << dir;
        int files = 0;
        for (const auto& entry : std::filesystem::directory_iterator(dir)) {
            std::ifstream in(entry.path(), std::ios::binary);
            const Bytes bytes{std::istreambuf_iterator<char>(in), {}};
            SCOPED_TRACE(entry.path().string());
            EXPECT_NO_THROW(t.run(bytes));
            ++files;
        }
        EXPECT_GT(files, 0) << t.target;
    }
    std::remove(tmp.c_str());
    EXPECT_TRUE(balance.balanced());
}

// Writes the seed corpus (run by hand: --gtest_also_run_disabled_tests
// --gtest_filter=FuzzCorpus.DISABLED_WriteSeeds).
void writeSeed(const std::string& target, const std::string& name, const Bytes& bytes) {
    const auto dir = corpusRoot() / target;
    std::filesystem::create_directories(dir);
    std::ofstream out(dir / name, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

// A version-2 stream of a 10 x 7 mask in 4 x 4 tiles (small seeds), tiles in their own
// MaskImage encoding; decoded and re-encoded compressed for the other seeds.
Bytes smallTiledStream(bool withWhole) {
    Encoder e;
    e.encodeInt(2);
    e.encodeUint8(0);
    e.encodeInt(10);
    e.encodeInt(7);
    e.encodeFloat(0.0f);
    e.encodeInt(4);
    e.encodeInt(4);
    e.encodeInt(3);
    e.encodeInt(2);
    auto enc = std::make_shared<Encoder>();
    for (int i = 0; i < 6; ++i) {
        if (i % 2) {
            enc->encodeUint8(0);
            continue;
        }
        enc->encodeUint8(1);
        MaskImage tile(_Size<int>(4, 4), 0.0f);
        for (int k = 0; k < 16; ++k) tile.data()[k] = float((k * (i + 3)) % 7) / 6.0f;
        tile.encode(enc, Compression::None);
    }
    enc->encodeUint8(withWhole ? 1 : 0);
    if (withWhole) MaskImage(_Size<int>(10, 7), 0.5f).encode(enc, Compression::None);
    Bytes out = e.take();
    out.insert(out.end(), enc->data().begin(), enc->data().end());
    return out;
}

TEST(FuzzCorpus, DISABLED_WriteSeeds) {
    // Mask blocks.
    Bytes b;
    Proxy::compressMask(*maskOf(7, 5, std::vector<float>(35, 1.0f)), b);
    writeSeed("fuzz_mask_block", "tracked_one_plane", b);
    Proxy::compressMask(*maskOf(6, 4, test::noise(24, 20)), b);
    writeSeed("fuzz_mask_block", "tracked_two_planes", b);
    writeSeed("fuzz_mask_block", "untracked_legacy", legacyBlock(5, 3, test::noise(15, 21)));
    Bytes one = b;
    std::memset(one.data() + 4, 0, 4);
    writeSeed("fuzz_mask_block", "tracked_one_minus_one", one);
    writeSeed("fuzz_mask_block", "truncated", Bytes(b.begin(), b.begin() + 60));

    // Image blocks.
    Proxy::compress(*ramp(8, 8, ColorProfileType::sRGB()), b);
    writeSeed("fuzz_image_block", "jpeg_8x8", b);
    Bytes wrong = b;
    wrong[0] = 9;
    writeSeed("fuzz_image_block", "jpeg_wrong_size", wrong);
    const auto f = test::noise(4 * 3 * 3, 22);
    Zlib::compressEx(Bytes(reinterpret_cast<const uint8_t*>(f.data()), reinterpret_cast<const uint8_t*>(f.data()) + 144),
                     b, 4, 3, 1, 12, 1, 3, 6, 1, 0);
    writeSeed("fuzz_image_block", "tracked_rgb_4x3", b);

    // Tiled masks.
    const Bytes raw = smallTiledStream(false);
    writeSeed("fuzz_tiled_mask", "v2_raw_tiles", raw);
    writeSeed("fuzz_tiled_mask", "v2_raw_tiles_whole", smallTiledStream(true));
    TiledMaskImage small(std::make_shared<Decoder>(raw));
    auto enc = std::make_shared<Encoder>();
    small.encode(enc, true);
    writeSeed("fuzz_tiled_mask", "v2_compressed_tiles", enc->data());
    Bytes v1 = enc->data();  // version 1: no compressed flag, no whole-image entry
    v1[0] = 1;
    v1.erase(v1.begin() + 4);
    v1.pop_back();
    writeSeed("fuzz_tiled_mask", "v1_compressed_tiles", v1);
    enc = std::make_shared<Encoder>();
    TiledMaskImage(_Size<int>(301, 300), 0.25f).encode(enc, true);
    writeSeed("fuzz_tiled_mask", "v2_fresh_301x300", enc->data());

    // Files.
    const std::string path = (std::filesystem::path(::testing::TempDir()) / "zorl_store_seed").string();
    auto seedFile = [&](std::shared_ptr<const _ImageData<float>> img, CompressionStorage storage, const char* name) {
        {
            std::ofstream out(path, std::ios::binary | std::ios::trunc);
            writeToFile(out, img, storage);
        }
        std::ifstream in(path, std::ios::binary);
        writeSeed("fuzz_read_file", name, Bytes(std::istreambuf_iterator<char>(in), {}));
    };
    auto img = std::make_shared<_ImageData<float>>(_Size<int>(5, 4), 0.5f, ColorProfileType::sRGB());
    seedFile(img, CompressionStorage::RawData, "raw_5x4");
    seedFile(maskOf(6, 3, test::noise(18, 23)), CompressionStorage::Mask, "mask_6x3");
    std::remove(path.c_str());
}

}  // namespace
}  // namespace zorl
