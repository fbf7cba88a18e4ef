#include <imageprocessing/compression.h>
#include <imageprocessing/tiled_mask_image.h>

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
using RgbImage = _ImageData<PixelRGB<float>>;
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
const char* const kCorrupt = "the input data was corrupted or incomplete";

template <class T = uint32_t>
T fieldAt(const Bytes& b, std::size_t at) {
    T v;
    std::memcpy(&v, b.data() + at, sizeof v);
    return v;
}

template <class T>
Bytes patched(Bytes b, std::size_t at, T value) {
    std::memcpy(b.data() + at, &value, sizeof value);
    return b;
}

// Low-entropy bytes (0..15): they compress a little.
Bytes randomBytes(std::size_t n, uint32_t seed) {
    const std::vector<float> v = test::noise(n, seed, 0.0f, 16.0f);
    return Bytes(v.begin(), v.end());
}

Bytes bytesOf(const std::vector<float>& f) {
    const auto* p = reinterpret_cast<const uint8_t*>(f.data());
    return Bytes(p, p + f.size() * sizeof(float));
}

// A legacy untracked block: int32 width, int32 height, zlib of the floats.
Bytes legacyBlock(int w, int h, const std::vector<float>& values) {
    Bytes out;
    Zlib::compressRawData(bytesOf(values), out, 6);
    const int side[2] = {w, h};
    out.insert(out.begin(), reinterpret_cast<const uint8_t*>(side), reinterpret_cast<const uint8_t*>(side + 2));
    return out;
}

std::shared_ptr<MaskImage> maskOf(int w, int h, const std::vector<float>& values) {
    return std::make_shared<MaskImage>(values.data(), _Size<int>(w, h));
}

std::shared_ptr<RgbImage> ramp(int w, int h, ColorProfilePtr profile) {
    auto img = std::make_shared<RgbImage>(_Size<int>(w, h), profile);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) img->at(x, y) = {0.2f + 0.6f * x / w, 0.3f + 0.4f * y / h, 0.5f};
    return img;
}

// Files go through a temporary path named after the running test.
std::string tempPath() {
    return ::testing::TempDir() + "zorl_store_" + ::testing::UnitTest::GetInstance()->current_test_info()->name();
}
Bytes readBytes(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}
void writeBytes(const std::filesystem::path& path, const Bytes& b) {
    std::ofstream(path, std::ios::binary | std::ios::trunc).write(reinterpret_cast<const char*>(b.data()), b.size());
}
Bytes fileOf(std::shared_ptr<const _ImageData<float>> img, CompressionStorage storage) {
    std::ofstream out(tempPath(), std::ios::binary | std::ios::trunc);
    writeToFile(out, std::move(img), storage);
    out.close();
    Bytes b = readBytes(tempPath());
    std::filesystem::remove(tempPath());
    return b;
}
std::shared_ptr<_ImageData<float>> readFile(const Bytes& b) {
    writeBytes(tempPath(), b);
    std::ifstream in(tempPath(), std::ios::binary);
    return readFromFile(in);
}

// Each damaged input gives no output and exactly its one log line (a line ending in ": " is a
// prefix), without leaving memory behind.
using Refusals = std::vector<std::tuple<const char*, Bytes, std::string>>;
template <class Read>
void expectRefused(const Refusals& cases, Read read) {
    LogCapture log;
    MemoryBalance balance;
    for (const auto& [name, bytes, line] : cases) {
        log.clear();
        EXPECT_EQ(read(bytes), nullptr) << name;
        ASSERT_EQ(log.count(), 1u) << name;
        const std::string got = log.lines()[0];
        EXPECT_EQ(line.ends_with(": ") ? got.substr(0, line.size()) : got, line) << name;
    }
    EXPECT_TRUE(balance.balanced());
}

// ---------------------------------------------------------------- tracked, raw and simple blocks

TEST(TrackedBlock, HeaderBytesAtEveryOffset) {
    MemoryBalance balance;
    Bytes dst;
    Zlib::compressEx(randomBytes(7 * 3 * 2, 1), dst, 7, 3, 0x0A0B0C0D, 2, 0x11223344, 0x55, 9, 1, 0);
    ASSERT_GT(dst.size(), kTrackedHeaderBytes);
    const std::pair<std::size_t, uint32_t> fields[] = {
        {0, 0xFFFFFFFFu}, {4, 0xFFFFFFFFu}, {8, 1},  {12, 0},          {16, 1},    {20, 7},
        {24, 3},          {28, 0x0A0B0C0D}, {32, 2}, {36, 0x11223344}, {40, 0x55}, {44, 9}};
    for (auto [offset, value] : fields) EXPECT_EQ(fieldAt(dst, offset), value) << "offset " << offset;
    EXPECT_EQ(std::pair(dst[28], dst[31]), std::pair(uint8_t(0x0D), uint8_t(0x0A)));  // little-endian
    EXPECT_EQ(fieldAt<uint64_t>(dst, 48), dst.size() - 56);
    for (auto [w0, w1, untracked] : {std::tuple{-1, -1, false}, {-1, 0, false}, {0, -1, false}, {5, 7, true}, {0, 0, true}})
        EXPECT_EQ(STrackVersionFormat(w0, w1).isUntrackedVersion(), untracked) << w0 << " " << w1;
    EXPECT_TRUE(balance.balanced());
}

// Refused calls write nothing; of these only a short source is logged.
TEST(TrackedBlock, RefusedCallsLeaveDstUnchanged) {
    MemoryBalance balance;
    LogCapture log;
    const Bytes src = randomBytes(64, 2), sentinel{1, 2, 3};
    Bytes block, dst;
    Zlib::compressEx(src, block, 4, 4, 0, 4, 0, 0, 6, 1, 0);
    for (auto [w, major, minor] : {std::array<uint32_t, 3>{0, 1, 0}, {4, 2, 0}, {4, 1, 1}, {4, 0, 0}, {5, 1, 0}}) {
        Zlib::compressEx(src, dst = sentinel, w, w, 0, 4, 0, 0, 6, major, minor);
        EXPECT_EQ(dst, sentinel) << "width " << w << " version " << major << "." << minor;
    }
    ASSERT_EQ(log.count(), 1u);  // 5 x 5 x 4 bytes from 64
    EXPECT_NE(log.lines()[0].find("zorl::ImageCompressorLosslessZlib::compressEx("), std::string::npos);
    EXPECT_NE(log.lines()[0].find(": source holds fewer bytes than width x height x bytesPerValue"), std::string::npos);
    for (auto [size, major, minor] : {std::array<uint32_t, 3>{64, 2, 0}, {64, 1, 1}, {0, 1, 0}}) {
        Zlib::uncompressEx(block, dst = sentinel, size, major, minor);
        EXPECT_EQ(dst, sentinel) << size << " version " << major << "." << minor;
    }
    EXPECT_TRUE(balance.balanced());
}

TEST(Blocks, RoundTripAtEveryLevel) {
    MemoryBalance balance;
    for (int level : {-1, 0, 1, 6, 9}) {
        for (uint32_t bpv : {1u, 2u, 4u, 12u}) {
            const Bytes src = randomBytes(13 * 5 * bpv, level + 7 * bpv);
            Bytes block, back;
            Zlib::compressEx(src, block, 13, 5, 3, bpv, 5, 6, level, 1, 0);
            EXPECT_EQ(fieldAt(block, 44), uint32_t(level));  // -1 is stored as FF FF FF FF
            Zlib::uncompressEx(block, back, 13 * 5 * bpv, 1, 0);
            EXPECT_EQ(back, src) << "level " << level << " bpv " << bpv;
        }
        const std::vector<float> f = test::noise(3 * 17, 5 + level, -2.0f, 2.0f);
        std::vector<float> simpleBack(f.size()), rawBack(f.size()), proxyBack(f.size());
        Bytes simple, raw, proxied;
        Zlib::compressSimple(reinterpret_cast<const PixelRGB<float>*>(f.data()), simple, f.size() * 4, level);
        Zlib::decompressSimple(simple, reinterpret_cast<PixelRGB<float>*>(simpleBack.data()), f.size() * 4);
        Zlib::compressRawData(bytesOf(f), raw, level);
        Zlib::decompressRawData(raw, {reinterpret_cast<uint8_t*>(rawBack.data()), f.size() * 4});
        Proxy::compressRawData(bytesOf(f).data(), f.size() * 4, proxied);  // the proxy has one level
        Proxy::uncompressRawData(proxied, reinterpret_cast<uint8_t*>(proxyBack.data()), f.size() * 4);
        EXPECT_TRUE(simpleBack == f && rawBack == f && proxyBack == f) << "simple, raw and proxy, level " << level;
    }
    EXPECT_TRUE(balance.balanced());
}

// Every exception text, and one hostile size per reader (refused before allocating).
TEST(CompressorException, Texts) {
    MemoryBalance balance;
    const Bytes src = randomBytes(400, 3);
    Bytes block, raw, out;
    Proxy::compressMask(*maskOf(20, 20, test::noise(400, 3)), block);  // two planes: 800 bytes
    Zlib::compressRawData(src, raw, 6);
    Bytes corrupt = block;
    for (std::size_t i = 58; i < corrupt.size(); ++i) corrupt[i] ^= 0x5A;
    std::shared_ptr<MaskImage> mask;
    const char* const kRoom = "there was not enough room in the output buffer";
    const std::tuple<const char*, std::function<void()>, const char*> cases[] = {
        {"corrupt stream", [&] { Zlib::uncompressEx(corrupt, out, 800, 1, 0); }, kCorrupt},
        {"corrupt mask block", [&] { Proxy::uncompressMask(corrupt, mask); }, kCorrupt},
        {"size beyond zlib's ratio", [&] { Zlib::uncompressEx(block, out, uint64_t(1) << 40, 1, 0); }, kCorrupt},
        {"room", [&] { Zlib::uncompressEx(block, out, 799, 1, 0); }, kRoom},
        {"short stream", [&] { Zlib::uncompressEx(block, out, 801, 1, 0); }, "Incorrect decompression"},
        {"raw into less", [&] { out.resize(300); Zlib::decompressRawData(raw, out); }, kRoom},
        {"untracked of 8 bytes", [] { float f[200]; Zlib::uncompress(Bytes(8, 1), f, 800); }, kCorrupt},
        {"bad level", [&] { Zlib::compressRawData(src, out, 12); }, "the level parameter is invalid"},
    };
    for (const auto& [name, call, text] : cases) {
        try {
            call();
            ADD_FAILURE() << name << ": no exception";
        } catch (const Zlib::CompressorException& e) {
            EXPECT_STREQ(e.what(), text) << name;
        }
    }
    EXPECT_EQ(mask, nullptr);
    EXPECT_TRUE(balance.balanced());
}

// ---------------------------------------------------------------- masks

// 0/1 masks and multiples of 1/255 take one plane and come back exactly; anything else
// takes two and comes back clamped to 0..1 (NaN as 0) within their precision, 0 and 1 exactly.
TEST(MaskBlock, RoundTripsExactlyOrWithinTwoPlanes) {
    MemoryBalance balance;
    std::vector<float> binary(31 * 9), steps(256), arbitrary = test::noise(57 * 23, 8);
    for (std::size_t i = 0; i < binary.size(); ++i) binary[i] = (i * 7 % 5) < 2 ? 1.0f : 0.0f;
    for (int k = 0; k < 256; ++k) steps[k] = float(k) / 255.0f;
    const float specials[] = {0.0f, 1.0f, std::nanf(""), 1.5f, -0.25f, 1e-9f, 0.99999994f};
    std::copy(std::begin(specials), std::end(specials), arbitrary.begin());
    struct Case { const char* name; int w, h; const std::vector<float>& v; uint32_t planes; };
    for (const Case& c : {Case{"0/1", 31, 9, binary, 1}, {"k/255", 16, 16, steps, 1}, {"arbitrary", 57, 23, arbitrary, 2}}) {
        Bytes block;
        Proxy::compressMask(*maskOf(c.w, c.h, c.v), block);
        ASSERT_GT(block.size(), kTrackedHeaderBytes);
        // Fields 1 to 7: size, 8-bit gray planes, plane count, untagged, one channel, zlib's default level.
        const uint32_t header[] = {uint32_t(c.w), uint32_t(c.h), 4, c.planes, 7, 1, 0xFFFFFFFFu};
        for (int f = 0; f < 7; ++f) EXPECT_EQ(fieldAt(block, 20 + 4 * f), header[f]) << c.name << " field " << f + 1;
        std::shared_ptr<MaskImage> back;
        Proxy::uncompressMask(block, back);
        ASSERT_TRUE(back && back->size() == _Size<int>(c.w, c.h)) << c.name;
        for (int i = 0; i < c.w * c.h; ++i) {
            const double clamped = std::isnan(c.v[i]) ? 0.0 : std::clamp(double(c.v[i]), 0.0, 1.0);
            const bool exact = c.planes == 1 || clamped == 0.0 || clamped == 1.0;
            EXPECT_NEAR(back->data()[i], clamped, exact ? 0.0f : kTwoPlaneTolerance) << c.name << " " << i;
        }
    }
    EXPECT_TRUE(balance.balanced());
}

// The two-plane payload of a small mask, byte for byte: b1, then b2 minus the row
// prediction of q = 255 b1 + b2 (mod 256). Worked out by hand from the format's rules;
// a change here breaks every stored mask. A damaged payload (b1 = 255 with a remainder)
// still reads within 0..1.
TEST(MaskBlock, TwoPlanePayloadIsPinned) {
    const std::vector<float> v = {0.1f, 0.2f, 0.3f, 0.4f, 0.5f, 0.0f, 1.0f, 0.75f, 0.6f, 0.01f};
    Bytes block, payload, damaged;
    Proxy::compressMask(*maskOf(5, 2, v), block);
    Zlib::uncompressEx(block, payload, 20, 1, 0);
    EXPECT_EQ(payload, (Bytes{25, 103, 51, 102, 76, 1, 102, 255, 127, 1, 0, 153, 255, 1, 191, 128, 153, 102, 2, 61}));
    Zlib::compressEx(Bytes{255, 200}, damaged, 1, 1, kMaskDataTypeCode, 2, kMaskColorProfileCode, 1, 6, 1, 0);
    const auto clamped = uncompressMask_1_0(damaged);
    EXPECT_TRUE(clamped && clamped->data()[0] == 1.0f);
}

// Longer than 8 bytes with neither of the first two words -1: untracked (legacy floats,
// kept as they are, out of 0..1 too); anything else goes to the tracked reader. Hostile
// headers are refused before allocating anything, and the target is left as it was.
TEST(MaskBlock, DispatchAndHostileHeaders) {
    const std::vector<float> v = test::noise(6 * 4, 9, -0.5f, 1.5f);
    const Bytes legacy = legacyBlock(6, 4, v);
    std::shared_ptr<MaskImage> back;
    Proxy::uncompressMask(legacy, back);
    ASSERT_TRUE(back);
    EXPECT_EQ(std::vector<float>(back->data(), back->data() + back->pixelCount()), v);
    Bytes good;
    Proxy::compressMask(*maskOf(3, 2, {0.f, 1.f, 0.f, 1.f, 1.f, 0.f}), good);
    const std::string sig = "class std::shared_ptr<class zorl::MaskImage> __cdecl zorl::uncompressMask_";
    const std::string untracked = sig + "untracked(" + kBytesRef + "): ", tracked = sig + "1_0(" + kBytesRef + "): ";
    expectRefused({{"8 bytes are tracked", Bytes(legacy.begin(), legacy.begin() + 8), tracked + "block shorter than its header"},
                   {"FF FF FF FF 00 00 00 00", patched(patched(legacy, 0, -1), 4, 0), tracked + "unsupported block version"},
                   {"06 00 00 00 FF FF FF FF", patched(legacy, 4, -1), tracked + "unsupported block version"},
                   {"untracked width 0", patched(legacy, 0, 0), untracked + "bad mask size"},
                   {"60000 x 60000 from a few bytes (zlib's bound is 1032:1)", patched(patched(good, 20, 60000), 24, 60000),
                    tracked + "the stream cannot hold the declared pixels"},
                   {"version 2.0", patched(good, 8, 2), tracked + "unsupported block version"},
                   {"width 0", patched(good, 20, 0), tracked + "bad mask size"}},
                  [&](const Bytes& b) { auto out = back; Proxy::uncompressMask(b, out); return out == back ? nullptr : out; });
}

// ---------------------------------------------------------------- images

// The profile and layout codes are stored: they are pinned here.
TEST(ImageBlock, JpegAndTrackedRoundTrips) {
    MemoryBalance balance;
    std::shared_ptr<RgbImage> back;
    const std::pair<ColorProfilePtr, uint32_t> profiles[] = {
        {ColorProfileType::sRGB(), 1}, {ColorProfileType::sRGBLinear(), 2}, {ColorProfileType::proPhotoRGB(), 3},
        {ColorProfileType::None(), 7}};
    for (const auto& [profile, code] : profiles) {
        auto img = ramp(24, 16, profile);
        Bytes block;
        Proxy::compress(*img, block);
        ASSERT_GT(block.size(), 12u);
        EXPECT_EQ(std::tuple(fieldAt(block, 0), fieldAt(block, 4), fieldAt(block, 8)), std::tuple(24u, 16u, code));
        EXPECT_EQ(fieldAt<uint16_t>(block, 12), 0xD8FF);  // a JPEG file follows
        Proxy::uncompress(block, back);
        ASSERT_TRUE(back && back->size() == img->size());
        EXPECT_TRUE(sameProfile(back->colorProfile(), profile));
        for (std::size_t i = 0; i < img->pixelCount(); ++i)
            for (int k = 0; k < 3; ++k) EXPECT_NEAR((&back->data()[i].r)[k], (&img->data()[i].r)[k], kJpegTolerance);
    }
    // A tracked PixelRGB<float> block (layout 1, profile 4) is lossless.
    const std::vector<float> f = test::noise(9 * 4 * 3, 12, -1.0f, 2.0f);
    Bytes block;
    Zlib::compressEx(bytesOf(f), block, 9, 4, 1, 12, 4, 3, 1, 1, 0);
    Proxy::uncompress(block, back);
    ASSERT_TRUE(back && back->size() == _Size<int>(9, 4));
    EXPECT_TRUE(sameProfile(back->colorProfile(), ColorProfileType::melissaRGB()));
    EXPECT_EQ(std::memcmp(back->data(), f.data(), f.size() * 4), 0);
    back.reset();
    EXPECT_TRUE(balance.balanced());
}

TEST(ImageBlock, DamagedJpegBlocksAreRefused) {
    Bytes good;
    Proxy::compress(*ramp(16, 8, ColorProfileType::sRGB()), good);
    const std::string sig = "class std::shared_ptr<class zorl::_ImageData<struct zorl::PixelRGB<float> > > __cdecl "
                            "zorl::uncompressImageData(" + kBytesRef + "): ";
    expectRefused({{"declared height", patched(good, 4, 9000), sig + "JPEG size does not match the block"},
                   {"profile code", patched(good, 8, 99), "class std::shared_ptr<class zorl::ColorProfile> __cdecl "
                    "zorl::to_colorProfilePtr(unsigned int): Undefined to_colorProfilePtr() conversion"},
                   {"truncated", Bytes(good.begin(), good.begin() + good.size() / 2), sig + "JPEG decoding failed: "}},
                  [](const Bytes& b) { return uncompressImageData(b); });
}

// ---------------------------------------------------------------- files

// Raw storage is exact; mask storage gives a MaskImage within the two-plane bound.
TEST(Files, RoundTrips) {
    MemoryBalance balance;
    for (auto storage : {CompressionStorage::RawData, CompressionStorage::Mask}) {
        const bool raw = storage == CompressionStorage::RawData;
        const auto v = test::noise(77, 13, raw ? -3.0f : 0.0f, raw ? 3.0f : 1.0f);
        auto img = raw ? std::make_shared<_ImageData<float>>(_Size<int>(11, 7), ColorProfileType::proPhotoRGB())
                       : std::make_shared<MaskImage>(_Size<int>(11, 7), 0.0f);
        std::memcpy(img->data(), v.data(), 77 * 4);
        img->setLoadState(ImageLoadState::Preview);
        const Bytes b = fileOf(img, storage);
        ASSERT_GE(b.size(), 40u);
        EXPECT_EQ(Bytes(b.begin(), b.begin() + 8), (Bytes{0x89, 'Z', 'R', 'L', 0x0D, 0x0A, 0x1A, 0x0A}));
        // File version, storage, payload length.
        EXPECT_EQ(std::tuple(fieldAt(b, 8), fieldAt<int32_t>(b, 12), fieldAt<uint64_t>(b, 32)),
                  std::tuple(1u, int32_t(storage), b.size() - 40));
        auto back = readFile(b);
        ASSERT_TRUE(back && back->size() == img->size());
        EXPECT_EQ(std::dynamic_pointer_cast<MaskImage>(back) != nullptr, !raw);
        EXPECT_TRUE(!raw || (sameProfile(back->colorProfile(), ColorProfileType::proPhotoRGB()) &&
                             back->getLoadState() == ImageLoadState::Preview));
        for (int i = 0; i < 77; ++i) EXPECT_NEAR(back->data()[i], v[i], raw ? 0.0f : kTwoPlaneTolerance);
    }
    EXPECT_TRUE(balance.balanced());
}

// Both storage messages, then damaged files.
TEST(Files, StorageMessagesAndDamagedFiles) {
    LogCapture log;
    EXPECT_TRUE(fileOf(std::make_shared<MaskImage>(_Size<int>(2, 2), 0.0f), static_cast<CompressionStorage>(9)).empty());
    EXPECT_EQ(log.lines(), std::vector<std::string>{"void __cdecl zorl::writeToFile(class std::basic_ofstream<char,struct "
                                 "std::char_traits<char> > &,class std::shared_ptr<class zorl::_ImageData<float> const "
                                 ">,enum zorl::CompressionStorage): Unsupported type for CompressionStorage: 9"});
    const Bytes good = fileOf(std::make_shared<_ImageData<float>>(_Size<int>(20, 20), 0.25f, ColorProfileType::sRGB()),
                              CompressionStorage::RawData);
    const std::string sig = "class std::shared_ptr<class zorl::_ImageData<float> > __cdecl zorl::readFromFile(class "
                            "std::basic_ifstream<char,struct std::char_traits<char> > &): ";
    expectRefused({{"storage", patched(good, 12, int32_t(3)), sig + "Invalid value for CompressionStorage: 3"},
                   {"version 2", patched(good, 8, 2), sig + "unsupported file version 2"},
                   {"huge size", patched(good, 16, 1 << 30), sig + "the payload cannot hold the declared pixels"},
                   {"truncated", Bytes(good.begin(), good.end() - 3), sig + "file shorter than its payload"},
                   {"corrupt stream", patched(good, good.size() - 1, uint8_t(good.back() ^ 0xFF)), sig + kCorrupt}},
                  readFile);
}

// ---------------------------------------------------------------- fuzz corpus

// Every committed corpus file goes through the fuzz entry points; none may crash or throw.
TEST(FuzzCorpus, ReplaysEveryFile) {
    LogCapture quiet;
    MemoryBalance balance;
    const std::pair<const char*, std::function<void(const Bytes&)>> targets[] = {
        {"fuzz_mask_block", [](const Bytes& b) { fuzz::maskBlock(b.data(), b.size()); }},
        {"fuzz_image_block", [](const Bytes& b) { fuzz::imageBlock(b.data(), b.size()); }},
        {"fuzz_tiled_mask", [](const Bytes& b) { fuzz::tiledMask(b.data(), b.size()); }},
        {"fuzz_read_file", [](const Bytes& b) { fuzz::readFile(b.data(), b.size(), tempPath()); }},
    };
    for (const auto& [target, run] : targets) {
        int files = 0;
        for (const auto& entry : std::filesystem::directory_iterator(test::fuzzCorpusDir(target))) {
            EXPECT_NO_THROW(run(readBytes(entry.path()))) << entry.path();
            ++files;
        }
        EXPECT_GT(files, 0) << target;
    }
    std::filesystem::remove(tempPath());
    EXPECT_TRUE(balance.balanced());
}

void writeSeed(const std::string& target, const std::string& name, const Bytes& bytes) {
    std::filesystem::create_directories(test::fuzzCorpusDir(target));
    writeBytes(test::fuzzCorpusDir(target) / name, bytes);
}

// A version-2 stream of a 10 x 7 mask in 4 x 4 tiles (small seeds), tiles in their own
// MaskImage encoding; decoded and re-encoded compressed for the other seeds.
Bytes smallTiledStream(bool withWhole) {
    auto e = std::make_shared<Encoder>();
    e->encodeInt(2);
    e->encodeUint8(0);
    for (int field : {10, 7}) e->encodeInt(field);
    e->encodeFloat(0.0f);
    for (int field : {4, 4, 3, 2}) e->encodeInt(field);
    for (int i = 0; i < 6; ++i) {
        e->encodeUint8(i % 2 ? 0 : 1);
        if (i % 2) continue;
        MaskImage tile(_Size<int>(4, 4), 0.0f);
        for (int k = 0; k < 16; ++k) tile.data()[k] = float((k * (i + 3)) % 7) / 6.0f;
        tile.encode(e, Compression::None);
    }
    e->encodeUint8(withWhole ? 1 : 0);
    if (withWhole) MaskImage(_Size<int>(10, 7), 0.5f).encode(e, Compression::None);
    return e->take();
}

// Writes the seed corpus (run by hand: --gtest_also_run_disabled_tests
// --gtest_filter=FuzzCorpus.DISABLED_WriteSeeds).
TEST(FuzzCorpus, DISABLED_WriteSeeds) {
    Bytes b;
    Proxy::compressMask(*maskOf(7, 5, std::vector<float>(35, 1.0f)), b);
    writeSeed("fuzz_mask_block", "tracked_one_plane", b);
    Proxy::compressMask(*maskOf(6, 4, test::noise(24, 20)), b);
    writeSeed("fuzz_mask_block", "tracked_two_planes", b);
    writeSeed("fuzz_mask_block", "untracked_legacy", legacyBlock(5, 3, test::noise(15, 21)));
    writeSeed("fuzz_mask_block", "tracked_one_minus_one", patched(b, 4, 0));
    writeSeed("fuzz_mask_block", "truncated", Bytes(b.begin(), b.begin() + 60));

    Proxy::compress(*ramp(8, 8, ColorProfileType::sRGB()), b);
    writeSeed("fuzz_image_block", "jpeg_8x8", b);
    writeSeed("fuzz_image_block", "jpeg_wrong_size", patched(b, 0, uint8_t(9)));
    Zlib::compressEx(bytesOf(test::noise(4 * 3 * 3, 22)), b, 4, 3, 1, 12, 1, 3, 6, 1, 0);
    writeSeed("fuzz_image_block", "tracked_rgb_4x3", b);

    const Bytes raw = smallTiledStream(false);
    writeSeed("fuzz_tiled_mask", "v2_raw_tiles", raw);
    writeSeed("fuzz_tiled_mask", "v2_raw_tiles_whole", smallTiledStream(true));
    auto enc = std::make_shared<Encoder>();
    TiledMaskImage(std::make_shared<Decoder>(raw)).encode(enc, true);
    writeSeed("fuzz_tiled_mask", "v2_compressed_tiles", enc->data());
    Bytes v1 = enc->data();  // version 1: no compressed flag, no whole-image entry
    v1[0] = 1;
    v1.erase(v1.begin() + 4);
    v1.pop_back();
    writeSeed("fuzz_tiled_mask", "v1_compressed_tiles", v1);
    enc = std::make_shared<Encoder>();
    TiledMaskImage(_Size<int>(301, 300), 0.25f).encode(enc, true);
    writeSeed("fuzz_tiled_mask", "v2_fresh_301x300", enc->data());

    writeSeed("fuzz_read_file", "raw_5x4",
              fileOf(std::make_shared<_ImageData<float>>(_Size<int>(5, 4), 0.5f, ColorProfileType::sRGB()),
                     CompressionStorage::RawData));
    writeSeed("fuzz_read_file", "mask_6x3", fileOf(maskOf(6, 3, test::noise(18, 23)), CompressionStorage::Mask));
}

}  // namespace
}  // namespace zorl
