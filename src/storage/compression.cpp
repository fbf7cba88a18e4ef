// Lossless zlib blocks, mask blocks, the stable codes and the file form of float images.
//
// Mask blocks keep up to two byte planes. Plane 1 is discretizeMask's byte b1 =
// trunc(255 c), c the value clamped to 0..1 (NaN to 0). The remainder 255 c - b1 (in 0..1)
// is rounded to b2 = round(255 (255 c - b1)), and the 16-bit value q = 255 b1 + b2 (0 ..
// 65025) comes back as q / 65025: within half a step of 1/65025 (1/130050) of c, and
// exactly 0, 1 and k/255 (a remainder near 0 gives b2 = 0; a product truncated just below
// k gives b1 = k - 1 and b2 = 255, again k/255). Plane 2 is only written when some b2 is
// non-zero. It does not hold b2 itself: on a soft gradient b2 jumps by hundreds of steps
// from pixel to pixel, which deflate cannot compress. It holds b2 minus its prediction
// (mod 256), the prediction being the linear extrapolation of q along the row:
//   p(0, y) = q(0, y - 1) (0 on the first row),  p(1, y) = q(0, y),
//   p(x, y) = clamp(2 q(x - 1, y) - q(x - 2, y), 0, 65025),
//   stored byte = (b2 - (p - 255 b1)) mod 256,  and back: b2 = (byte + p - 255 b1) mod 256.
// On a smooth gradient the stored bytes are near 0 and deflate compresses them.

#include <imageprocessing/compression.h>

#include <zlib.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <istream>
#include <limits>

#include <zorl/common/managed_memory.h>

#include "core/error_log.h"
#include "storage/storage_internal.h"

namespace zorl {

using storage::getI32;
using storage::getU32;
using storage::getU64;
using storage::putU32;
using storage::putU64;

namespace storage {

std::string bytesRefSig() { return "const class std::vector<unsigned char,class std::allocator<unsigned char> > &"; }

TrackedHeader readTrackedHeader(const uint8_t* p) {
    TrackedHeader h;
    h.track = STrackVersionFormat(getI32(p), getI32(p + 4));
    h.signature = SCompressedDataSignature(getU32(p + 8), getU32(p + 12), getU32(p + 16));
    h.format = SCompressedImageFormat(getU32(p + 20), getU32(p + 24), getU32(p + 28), getU32(p + 32), getU32(p + 36),
                                      getU32(p + 40), getU32(p + 44), getU64(p + 48));
    return h;
}

}  // namespace storage

namespace {

using Exception = ImageCompressorLosslessZlib::CompressorException;
using Bytes = std::vector<uint8_t>;

constexpr const char* kNoMemory = "there was not enough memory";
constexpr const char* kNoRoom = "there was not enough room in the output buffer";
constexpr const char* kCorrupt = "the input data was corrupted or incomplete";
constexpr const char* kIncorrect = "Incorrect decompression";
constexpr const char* kBadLevel = "the level parameter is invalid";

constexpr uint32_t kVersionMajor = 1;
constexpr uint32_t kVersionMinor = 0;
constexpr uint32_t kZlibCodec = 1;               // third signature field: one compress2 stream
constexpr uint32_t kRgbF32Code = 1;              // to_imageDataTypeCode(RgbF32)
constexpr uint32_t kRgbChannels = 3;
constexpr int kDefaultLevel = Z_DEFAULT_COMPRESSION;

[[noreturn]] void throwDeflateError(int rc) {
    if (rc == Z_MEM_ERROR) throw Exception(kNoMemory);
    if (rc == Z_BUF_ERROR) throw Exception(kNoRoom);
    throw Exception(kBadLevel);  // Z_STREAM_ERROR: the only other result of compress2
}

// Deflates n bytes into a fresh vector that starts with `reserve` untouched bytes.
Bytes deflateBlock(const uint8_t* src, uint64_t n, int level, std::size_t reserve) {
    Bytes out(reserve + compressBound(n));
    uLongf len = out.size() - reserve;
    const int rc = compress2(out.data() + reserve, &len, src, n, level);
    if (rc != Z_OK) throwDeflateError(rc);
    out.resize(reserve + len);
    return out;
}

void writeTrackedHeader(uint8_t* p, const SCompressedImageFormat& f) {
    putU32(p + 0, 0xFFFFFFFFu);
    putU32(p + 4, 0xFFFFFFFFu);
    putU32(p + 8, kVersionMajor);
    putU32(p + 12, kVersionMinor);
    putU32(p + 16, kZlibCodec);
    putU32(p + 20, f.width);
    putU32(p + 24, f.height);
    putU32(p + 28, f.dataType);
    putU32(p + 32, f.bytesPerValue);
    putU32(p + 36, f.colorProfile);
    putU32(p + 40, f.channels);
    putU32(p + 44, f.level);
    putU64(p + 48, f.streamLength);
}

std::string zlibSig(const char* method, const std::string& args) {
    return "void __cdecl zorl::ImageCompressorLosslessZlib::" + std::string(method) + "(" + args + ")";
}
std::string maskSig(const char* fn) {
    return "class std::shared_ptr<class zorl::MaskImage> __cdecl zorl::" + std::string(fn) + "(" +
           storage::bytesRefSig() + ")";
}
std::string imageSig() {
    return "class std::shared_ptr<class zorl::_ImageData<struct zorl::PixelRGB<float> > > __cdecl "
           "zorl::uncompressImageData(" +
           storage::bytesRefSig() + ")";
}
std::string proxySig(const char* method, const std::string& args) {
    return "void __cdecl zorl::ImageCompressorProxy::" + std::string(method) + "(" + args + ")";
}

// The byte count width x height x bytesPerValue in 64 bits; false on overflow.
bool payloadBytes(uint64_t width, uint64_t height, uint64_t bytesPerValue, uint64_t& n) {
    const uint64_t pixels = width * height;  // both below 2^32: no overflow
    if (bytesPerValue != 0 && pixels > std::numeric_limits<uint64_t>::max() / bytesPerValue) return false;
    n = pixels * bytesPerValue;
    return true;
}

// Value of a two-plane pixel: q / 65025, 65025 = 255 * 255.
constexpr int32_t kTwoPlaneMax = 65025;
constexpr float kTwoPlaneScale = 65025.0f;

// b2 of a pixel: the remainder of discretizeMask's truncation, rounded to 1/255.
inline uint8_t remainderByte(float v, uint8_t b1) {
    const double c = v > 0.0f ? std::min(static_cast<double>(v), 1.0) : 0.0;  // NaN to 0
    const double r = c * 255.0 - b1;
    if (!(r > 0.0)) return 0;
    return static_cast<uint8_t>(std::min(255.0, std::floor(r * 255.0 + 0.5)));
}

// The row-wise prediction of q described at the top of this file.
class RowPredictor {
public:
    int32_t predict(int x) const {
        if (x == 0) return above_;
        if (x == 1) return q1_;
        return std::clamp(2 * q1_ - q2_, 0, kTwoPlaneMax);
    }
    void push(int x, int32_t q) {
        if (x == 0) above_ = q;
        q2_ = q1_;
        q1_ = q;
    }

private:
    int32_t above_ = 0;  // q of the first pixel of the previous row
    int32_t q1_ = 0, q2_ = 0;
};

// Float of each byte b: b / 255 (exactly 0 and 1 at the ends).
struct OnePlaneTable {
    float v[256];
    OnePlaneTable() {
        for (int b = 0; b < 256; ++b) v[b] = static_cast<float>(b) / 255.0f;
    }
};
const OnePlaneTable& onePlaneTable() {
    static const OnePlaneTable table;
    return table;
}

}  // namespace

namespace storage {

void inflateExact(const uint8_t* src, uint64_t srcLen, uint8_t* dst, uint64_t dstLen) {
    if (!zlibCanHold(dstLen, srcLen)) throw Exception(kCorrupt);
    uint8_t dummy = 0;
    uLongf outLen = dstLen;
    uLong inLen = srcLen;
    const int rc = ::uncompress2(dst ? dst : &dummy, &outLen, src ? src : &dummy, &inLen);
    if (rc == Z_MEM_ERROR) throw Exception(kNoMemory);
    if (rc == Z_BUF_ERROR) throw Exception(kNoRoom);
    if (rc != Z_OK) throw Exception(kCorrupt);
    if (outLen != dstLen) throw Exception(kIncorrect);
}

}  // namespace storage

// ---------------------------------------------------------------- zlib blocks

void ImageCompressorLosslessZlib::compressEx(const bytes& src, bytes& dst, uint32_t width, uint32_t height,
                                             uint32_t field3, uint32_t bytesPerValue, uint32_t field5, uint32_t field6,
                                             int level, uint32_t versionMajor, uint32_t versionMinor) {
    if (width == 0 || height == 0 || versionMajor != kVersionMajor || versionMinor != kVersionMinor) return;
    uint64_t n = 0;
    if (!payloadBytes(width, height, bytesPerValue, n) || n > src.size()) {
        logError(zlibSig("compressEx", storage::bytesRefSig() +
                                           ",class std::vector<unsigned char,class std::allocator<unsigned char> > &,"
                                           "unsigned int,unsigned int,unsigned int,unsigned int,unsigned int,unsigned "
                                           "int,int,unsigned int,unsigned int"),
                 "source holds fewer bytes than width x height x bytesPerValue");
        return;
    }
    Bytes out = deflateBlock(src.data(), n, level, kTrackedHeaderBytes);
    const uint64_t streamLength = out.size() - kTrackedHeaderBytes;
    writeTrackedHeader(out.data(), SCompressedImageFormat(width, height, field3, bytesPerValue, field5, field6,
                                                          static_cast<uint32_t>(level), streamLength));
    dst = std::move(out);
}

void ImageCompressorLosslessZlib::uncompressEx(const bytes& src, bytes& dst, uint64_t dstSize, uint32_t versionMajor,
                                               uint32_t versionMinor) {
    if (src.empty() || dstSize == 0 || versionMajor != kVersionMajor || versionMinor != kVersionMinor) return;
    if (src.size() < kTrackedHeaderBytes) throw Exception(kCorrupt);
    const uint64_t streamLength = src.size() - kTrackedHeaderBytes;
    if (!storage::zlibCanHold(dstSize, streamLength)) throw Exception(kCorrupt);
    if (dst.size() < dstSize) dst.resize(dstSize);
    storage::inflateExact(src.data() + kTrackedHeaderBytes, streamLength, dst.data(), dstSize);
}

void ImageCompressorLosslessZlib::uncompress(const bytes& src, float* dst, uint64_t dstBytes) {
    if (src.empty() || !dst || dstBytes == 0) return;
    if (src.size() <= kUntrackedPrefixBytes) throw Exception(kCorrupt);
    storage::inflateExact(src.data() + kUntrackedPrefixBytes, src.size() - kUntrackedPrefixBytes,
                          reinterpret_cast<uint8_t*>(dst), dstBytes);
}

void ImageCompressorLosslessZlib::compressSimple(const PixelRGB<float>* src, bytes& dst, uint64_t byteCount,
                                                 int level) {
    if (!src && byteCount) {
        logError(zlibSig("compressSimple",
                         "const struct zorl::PixelRGB<float> *,class std::vector<unsigned char,class "
                         "std::allocator<unsigned char> > &,unsigned __int64,int"),
                 "source is null");
        return;
    }
    dst = deflateBlock(reinterpret_cast<const uint8_t*>(src), byteCount, level, 0);
}

void ImageCompressorLosslessZlib::decompressSimple(const bytes& src, PixelRGB<float>* dst, uint64_t byteCount) {
    if (!dst && byteCount) {
        logError(zlibSig("decompressSimple", storage::bytesRefSig() + ",struct zorl::PixelRGB<float> *,unsigned __int64"),
                 "destination is null");
        return;
    }
    storage::inflateExact(src.data(), src.size(), reinterpret_cast<uint8_t*>(dst), byteCount);
}

void ImageCompressorLosslessZlib::compressRawData(std::span<const uint8_t> src, bytes& dst, int level) {
    dst = deflateBlock(src.data(), src.size(), level, 0);
}

void ImageCompressorLosslessZlib::decompressRawData(const bytes& src, std::span<uint8_t> dst) {
    storage::inflateExact(src.data(), src.size(), dst.data(), dst.size());
}

// ---------------------------------------------------------------- codes

uint32_t to_colorProfileCode(const ColorProfilePtr& profile) {
    if (!profile) return kMaskColorProfileCode;
    switch (profile->kind()) {
        case ColorProfile::Kind::sRGB: return 1;
        case ColorProfile::Kind::sRGBLinear: return 2;
        case ColorProfile::Kind::ProPhotoRGB: return 3;
        case ColorProfile::Kind::MelissaRGB: return 4;
        case ColorProfile::Kind::None: return 7;
    }
    logError("unsigned int __cdecl zorl::to_colorProfileCode(const class std::shared_ptr<class zorl::ColorProfile> &)",
             "Undefined to_colorProfileCode() conversion");
    return 0;
}

ColorProfilePtr to_colorProfilePtr(uint32_t code) {
    switch (code) {
        case 1: return ColorProfileType::sRGB();
        case 2: return ColorProfileType::sRGBLinear();
        case 3: return ColorProfileType::proPhotoRGB();
        case 4: return ColorProfileType::melissaRGB();
        case 7: return ColorProfileType::None();
        default: break;
    }
    logError("class std::shared_ptr<class zorl::ColorProfile> __cdecl zorl::to_colorProfilePtr(unsigned int)",
             "Undefined to_colorProfilePtr() conversion");
    return nullptr;
}

uint32_t to_imageDataTypeCode(ImageDataType type) {
    switch (type) {
        case ImageDataType::RgbF32: return 1;
        case ImageDataType::RgbaF32: return 2;
        case ImageDataType::GrayF32: return 3;
        case ImageDataType::GrayU8: return 4;
        case ImageDataType::RgbU8: return 5;
        case ImageDataType::RgbaU8: return 6;
        case ImageDataType::RgbU16: return 7;
        case ImageDataType::RgbaU16: return 8;
        case ImageDataType::ArgbF32: return 9;
        case ImageDataType::BgrU8: return 10;
        case ImageDataType::BgraU8: return 11;
        case ImageDataType::BgrU16: return 12;
        default: break;
    }
    logError("unsigned int __cdecl zorl::to_imageDataTypeCode(enum zorl::ImageDataType)",
             "Undefined to_imageDataTypeCode() conversion");
    return 0;
}

// ---------------------------------------------------------------- masks

void ImageCompressorProxy::compressMask(const MaskImage& mask, bytes& dst) {
    if (mask.empty() || !mask.data()) return;
    Bytes plane;
    discretizeMask(mask, plane);
    const float* v = mask.data();
    const std::size_t n = plane.size();
    std::size_t first = 0;  // first pixel whose remainder is not zero
    while (first < n && remainderByte(v[first], plane[first]) == 0) ++first;
    if (first == n) {
        ImageCompressorLosslessZlib::compressEx(plane, dst, mask.width(), mask.height(), kMaskDataTypeCode, 1,
                                                kMaskColorProfileCode, kMaskChannelCount, kDefaultLevel, kVersionMajor,
                                                kVersionMinor);
        return;
    }
    Bytes payload(2 * n);
    const int w = mask.width();
    RowPredictor predictor;
    std::size_t i = 0;
    for (int y = 0; y < mask.height(); ++y)
        for (int x = 0; x < w; ++x, ++i) {
            const int32_t b1 = plane[i];
            const int32_t b2 = i < first ? 0 : remainderByte(v[i], plane[i]);
            const int32_t predicted = predictor.predict(x) - 255 * b1;
            payload[2 * i] = plane[i];
            payload[2 * i + 1] = static_cast<uint8_t>(b2 - predicted);  // mod 256
            predictor.push(x, 255 * b1 + b2);
        }
    ImageCompressorLosslessZlib::compressEx(payload, dst, mask.width(), mask.height(), kMaskDataTypeCode, 2,
                                            kMaskColorProfileCode, kMaskChannelCount, kDefaultLevel, kVersionMajor,
                                            kVersionMinor);
}

std::shared_ptr<MaskImage> uncompressMask_1_0(const std::vector<uint8_t>& src) {
    if (src.size() < kTrackedHeaderBytes) {
        logError(maskSig("uncompressMask_1_0"), "block shorter than its header");
        return nullptr;
    }
    const storage::TrackedHeader h = storage::readTrackedHeader(src.data());
    const SCompressedImageFormat& f = h.format;
    if (h.signature.versionMajor != kVersionMajor || h.signature.versionMinor != kVersionMinor ||
        h.signature.codec != kZlibCodec) {
        logError(maskSig("uncompressMask_1_0"), "unsupported block version");
        return nullptr;
    }
    if (f.dataType != kMaskDataTypeCode || f.channels != kMaskChannelCount ||
        (f.bytesPerValue != 1 && f.bytesPerValue != 2)) {
        logError(maskSig("uncompressMask_1_0"), "not a mask block");
        return nullptr;
    }
    if (f.width == 0 || f.height == 0 || f.width > uint32_t(INT_MAX) || f.height > uint32_t(INT_MAX)) {
        logError(maskSig("uncompressMask_1_0"), "bad mask size");
        return nullptr;
    }
    const uint64_t streamLength = src.size() - kTrackedHeaderBytes;
    const uint64_t pixels = uint64_t(f.width) * f.height;
    const uint64_t raw = pixels * f.bytesPerValue;
    if (f.streamLength != streamLength || !storage::zlibCanHold(raw, streamLength)) {
        logError(maskSig("uncompressMask_1_0"), "the stream cannot hold the declared pixels");
        return nullptr;
    }
    // Uninitialised pixels; the planes are inflated into the tail of the float buffer and
    // widened front to back in place (float i is written only after bytes 0..i were read:
    // the bytes of pixel j start at 4n - raw + j * bpv >= 4i + 4 for every j > i).
    auto mask = std::make_shared<MaskImage>(nullptr, _Size<int>(int(f.width), int(f.height)));
    uint8_t* base = reinterpret_cast<uint8_t*>(mask->data());
    const uint8_t* planes = base + (4 * pixels - raw);
    storage::inflateExact(src.data() + kTrackedHeaderBytes, streamLength, base + (4 * pixels - raw), raw);
    float* out = mask->data();
    if (f.bytesPerValue == 1) {
        const float* table = onePlaneTable().v;
        for (uint64_t i = 0; i < pixels; ++i) out[i] = table[planes[i]];
    } else {
        RowPredictor predictor;
        uint64_t i = 0;
        for (uint32_t y = 0; y < f.height; ++y)
            for (uint32_t x = 0; x < f.width; ++x, ++i) {
                const int32_t b1 = planes[2 * i];
                const int32_t predicted = predictor.predict(int(std::min<uint32_t>(x, 2))) - 255 * b1;
                const int32_t b2 = static_cast<uint8_t>(planes[2 * i + 1] + predicted);  // mod 256
                // A damaged block can say b1 = 255, b2 > 0: values stay within 0..1.
                const int32_t q = std::min(255 * b1 + b2, kTwoPlaneMax);
                predictor.push(int(std::min<uint32_t>(x, 2)), q);
                out[i] = static_cast<float>(q) / kTwoPlaneScale;
            }
    }
    return mask;
}

std::shared_ptr<MaskImage> uncompressMask_untracked(const std::vector<uint8_t>& src) {
    if (src.size() <= kUntrackedPrefixBytes) {
        logError(maskSig("uncompressMask_untracked"), "block shorter than its prefix");
        return nullptr;
    }
    const int32_t w = getI32(src.data()), h = getI32(src.data() + 4);
    if (w <= 0 || h <= 0) {
        logError(maskSig("uncompressMask_untracked"), "bad mask size");
        return nullptr;
    }
    const uint64_t raw = uint64_t(w) * uint64_t(h) * sizeof(float);
    if (!storage::zlibCanHold(raw, src.size() - kUntrackedPrefixBytes)) {
        logError(maskSig("uncompressMask_untracked"), "the stream cannot hold the declared pixels");
        return nullptr;
    }
    auto mask = std::make_shared<MaskImage>(nullptr, _Size<int>(w, h));
    ImageCompressorLosslessZlib::uncompress(src, mask->data(), raw);
    return mask;
}

void ImageCompressorProxy::uncompressMask(const bytes& src, std::shared_ptr<MaskImage>& dst) {
    auto mask = storage::isUntrackedBlock(src) ? uncompressMask_untracked(src) : uncompressMask_1_0(src);
    if (mask) dst = std::move(mask);
}

// ---------------------------------------------------------------- images

namespace {

// A tracked PixelRGB<float> block, as the tiled stores write it through compressEx.
std::shared_ptr<_ImageData<PixelRGB<float>>> uncompressTrackedImage(const Bytes& src) {
    if (src.size() < kTrackedHeaderBytes) {
        logError(imageSig(), "block shorter than its header");
        return nullptr;
    }
    const storage::TrackedHeader h = storage::readTrackedHeader(src.data());
    const SCompressedImageFormat& f = h.format;
    if (h.signature.versionMajor != kVersionMajor || h.signature.versionMinor != kVersionMinor ||
        h.signature.codec != kZlibCodec) {
        logError(imageSig(), "unsupported block version");
        return nullptr;
    }
    if (f.dataType != kRgbF32Code || f.channels != kRgbChannels || f.bytesPerValue != sizeof(PixelRGB<float>)) {
        logError(imageSig(), "not an RGB float block");
        return nullptr;
    }
    if (f.width == 0 || f.height == 0 || f.width > uint32_t(INT_MAX) || f.height > uint32_t(INT_MAX)) {
        logError(imageSig(), "bad image size");
        return nullptr;
    }
    const uint64_t streamLength = src.size() - kTrackedHeaderBytes;
    const uint64_t raw = uint64_t(f.width) * f.height * sizeof(PixelRGB<float>);
    if (f.streamLength != streamLength || !storage::zlibCanHold(raw, streamLength)) {
        logError(imageSig(), "the stream cannot hold the declared pixels");
        return nullptr;
    }
    ColorProfilePtr profile = to_colorProfilePtr(f.colorProfile);
    if (!profile) return nullptr;
    auto image = std::make_shared<_ImageData<PixelRGB<float>>>(_Size<int>(int(f.width), int(f.height)), profile);
    storage::inflateExact(src.data() + kTrackedHeaderBytes, streamLength, reinterpret_cast<uint8_t*>(image->data()), raw);
    return image;
}

}  // namespace

std::shared_ptr<_ImageData<PixelRGB<float>>> uncompressImageData(const std::vector<uint8_t>& src) {
    return storage::isUntrackedBlock(src) ? storage::uncompressJpeg(src, imageSig()) : uncompressTrackedImage(src);
}

void ImageCompressorProxy::compress(const _ImageData<PixelRGB<float>>& image, bytes& dst) {
    storage::compressJpeg(image, dst);
}

void ImageCompressorProxy::uncompress(const bytes& src, std::shared_ptr<_ImageData<PixelRGB<float>>>& dst) {
    auto image = uncompressImageData(src);
    if (image && !image->empty()) dst = std::move(image);
}

// ---------------------------------------------------------------- raw data

void ImageCompressorProxy::compressRawData(const uint8_t* src, uint64_t size, bytes& dst) {
    if (size == 0) return;
    if (!checkNotNull(src, proxySig("compressRawData", "const unsigned char *,unsigned __int64,class std::vector<unsigned "
                                                       "char,class std::allocator<unsigned char> > &"),
                      "source is null"))
        return;
    ImageCompressorLosslessZlib::compressRawData(std::span<const uint8_t>(src, size), dst, kDefaultLevel);
}

void ImageCompressorProxy::uncompressRawData(const bytes& src, uint8_t* dst, uint64_t size) {
    if (size == 0) return;
    if (!checkNotNull(dst, proxySig("uncompressRawData", storage::bytesRefSig() + ",unsigned char *,unsigned __int64"),
                      "destination is null"))
        return;
    ImageCompressorLosslessZlib::decompressRawData(src, std::span<uint8_t>(dst, size));
}

// ---------------------------------------------------------------- files
//
// File form, version 1 (little-endian):
//   0   8 bytes  magic 89 'Z' 'R' 'L' 0D 0A 1A 0A (catches text-mode and 7-bit mangling)
//   8   uint32   file version (1)
//   12  int32    CompressionStorage
//   16  int32    width        20  int32  height
//   24  uint32   colour-profile code (to_colorProfileCode)
//   28  int32    load state
//   32  uint64   payload length
//   40  payload  RawData: bare zlib stream of width x height floats; Mask: a mask block.
// Later versions keep reading every earlier version; a reader refuses versions newer than
// it knows.

namespace {

constexpr uint8_t kFileMagic[8] = {0x89, 'Z', 'R', 'L', 0x0D, 0x0A, 0x1A, 0x0A};
constexpr uint32_t kFileVersion = 1;
constexpr std::size_t kFileHeaderBytes = 40;

std::string writeSig() {
    return "void __cdecl zorl::writeToFile(class std::basic_ofstream<char,struct std::char_traits<char> > &,class "
           "std::shared_ptr<class zorl::_ImageData<float> const >,enum zorl::CompressionStorage)";
}
std::string readSig() {
    return "class std::shared_ptr<class zorl::_ImageData<float> > __cdecl zorl::readFromFile(class "
           "std::basic_ifstream<char,struct std::char_traits<char> > &)";
}

bool isKnownStorage(int32_t v) {
    return v == static_cast<int32_t>(CompressionStorage::RawData) || v == static_cast<int32_t>(CompressionStorage::Mask);
}

}  // namespace

void writeToFile(std::ofstream& file, std::shared_ptr<const _ImageData<float>> image, CompressionStorage storage) {
    const int32_t storageValue = static_cast<int32_t>(storage);
    if (!isKnownStorage(storageValue)) {
        logError(writeSig(), "Unsupported type for CompressionStorage: " + std::to_string(storageValue));
        return;
    }
    if (!checkNotNull(image, writeSig(), "image is null")) return;
    if (!checkThat(!image->empty(), writeSig(), "image is empty")) return;
    const uint32_t profileCode = to_colorProfileCode(image->colorProfile());
    if (profileCode == 0) return;

    Bytes payload;
    try {
        if (storage == CompressionStorage::RawData) {
            ImageCompressorLosslessZlib::compressRawData(
                std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(image->data()), image->byteCount()), payload,
                kDefaultLevel);
        } else {
            const MaskImage mask(image->data(), image->size());
            ImageCompressorProxy::compressMask(mask, payload);
        }
    } catch (const ImageCompressorLosslessZlib::CompressorException& e) {
        logError(writeSig(), e.what());
        return;
    }

    uint8_t header[kFileHeaderBytes];
    std::memcpy(header, kFileMagic, sizeof kFileMagic);
    putU32(header + 8, kFileVersion);
    putU32(header + 12, static_cast<uint32_t>(storageValue));
    putU32(header + 16, static_cast<uint32_t>(image->width()));
    putU32(header + 20, static_cast<uint32_t>(image->height()));
    putU32(header + 24, profileCode);
    putU32(header + 28, static_cast<uint32_t>(image->getLoadState()));
    putU64(header + 32, payload.size());
    file.write(reinterpret_cast<const char*>(header), kFileHeaderBytes);
    file.write(reinterpret_cast<const char*>(payload.data()), static_cast<std::streamsize>(payload.size()));
    if (!file) logError(writeSig(), "could not write to the file");
}

std::shared_ptr<_ImageData<float>> readFromFile(std::ifstream& file) {
    uint8_t header[kFileHeaderBytes];
    if (!file.read(reinterpret_cast<char*>(header), kFileHeaderBytes)) {
        logError(readSig(), "file shorter than its header");
        return nullptr;
    }
    if (std::memcmp(header, kFileMagic, sizeof kFileMagic) != 0) {
        logError(readSig(), "not an image file");
        return nullptr;
    }
    const uint32_t version = getU32(header + 8);
    if (version == 0 || version > kFileVersion) {
        logError(readSig(), "unsupported file version " + std::to_string(version));
        return nullptr;
    }
    const int32_t storageValue = getI32(header + 12);
    if (!isKnownStorage(storageValue)) {
        logError(readSig(), "Invalid value for CompressionStorage: " + std::to_string(storageValue));
        return nullptr;
    }
    const int32_t w = getI32(header + 16), h = getI32(header + 20);
    const int32_t loadState = getI32(header + 28);
    const uint64_t payloadLength = getU64(header + 32);
    if (w <= 0 || h <= 0) {
        logError(readSig(), "bad image size");
        return nullptr;
    }
    if (loadState < 0 || loadState > static_cast<int32_t>(ImageLoadState::Full)) {
        logError(readSig(), "bad load state");
        return nullptr;
    }
    const ColorProfilePtr profile = to_colorProfilePtr(getU32(header + 24));
    if (!profile) return nullptr;

    // The payload must be present in full before anything is allocated for it.
    const std::streampos start = file.tellg();
    file.seekg(0, std::ios::end);
    const std::streampos end = file.tellg();
    file.seekg(start);
    if (start < 0 || end < start || payloadLength > static_cast<uint64_t>(end - start)) {
        logError(readSig(), "file shorter than its payload");
        return nullptr;
    }
    const _Size<int> size(w, h);
    const uint64_t raw = static_cast<uint64_t>(size.area()) * sizeof(float);
    if (storageValue == static_cast<int32_t>(CompressionStorage::RawData) &&
        !storage::zlibCanHold(raw, payloadLength)) {
        logError(readSig(), "the payload cannot hold the declared pixels");
        return nullptr;
    }
    Bytes payload(payloadLength);
    if (!file.read(reinterpret_cast<char*>(payload.data()), static_cast<std::streamsize>(payloadLength))) {
        logError(readSig(), "file shorter than its payload");
        return nullptr;
    }

    try {
        std::shared_ptr<_ImageData<float>> image;
        if (storageValue == static_cast<int32_t>(CompressionStorage::RawData)) {
            image = std::make_shared<_ImageData<float>>(size, profile);
            ImageCompressorLosslessZlib::decompressRawData(
                payload, std::span<uint8_t>(reinterpret_cast<uint8_t*>(image->data()), image->byteCount()));
        } else {
            std::shared_ptr<MaskImage> mask;
            ImageCompressorProxy::uncompressMask(payload, mask);
            if (!mask || mask->size() != size) {
                logError(readSig(), "mask payload does not match the header");
                return nullptr;
            }
            if (sameProfile(profile, ColorProfileType::None())) {
                image = std::move(mask);
            } else {
                image = std::make_shared<_ImageData<float>>(size, profile);
                std::memcpy(image->data(), mask->data(), image->byteCount());
            }
        }
        image->setLoadState(static_cast<ImageLoadState>(loadState));
        return image;
    } catch (const ImageCompressorLosslessZlib::CompressorException& e) {
        logError(readSig(), e.what());
        return nullptr;
    }
}

}  // namespace zorl
