#pragma once
// Compressed byte forms of images, masks and raw byte spans.
//
// Block kinds (all multi-byte fields little-endian):
//   tracked block    56-byte header (STrackVersionFormat, SCompressedDataSignature,
//                    SCompressedImageFormat, packed in that order) + one zlib stream;
//   untracked block  legacy: int32 width, int32 height (so neither word is ever -1) + one
//                    zlib stream of width x height 32-bit floats;
//   simple/raw block a bare zlib stream; the reader must know the uncompressed size;
//   JPEG block       uint32 width, uint32 height, uint32 colour-profile code, JPEG file.
// A block whose first two 32-bit words are both different from -1 (and that is longer than
// 8 bytes) is untracked; any other block is tracked.
//
// Header fields 3, 5 and 6 of a tracked block are stored, not interpreted, by the zlib
// layer: each writer defines them for its own blocks (the tiled RGB stores have theirs).
// The blocks this library reads itself use:
//   field 3  pixel layout of the payload, a code of to_imageDataTypeCode (4: 8-bit gray
//            planes, the payload of a mask block; 1: PixelRGB<float>);
//   field 4  bytes per pixel: width x height x field 4 is the payload's byte count;
//   field 5  colour profile of the payload, a code of to_colorProfileCode (7: untagged,
//            what a mask carries);
//   field 6  channels per pixel (1 for masks, 3 for RGB).
// A mask block is (4, 1 or 2, 7, 1): one byte plane, or two planes interleaved per pixel.
//
// Errors: zlib failures throw ImageCompressorLosslessZlib::CompressorException; headers that
// are inconsistent or that claim more data than the block can hold are logged and give no
// output. Nothing here trusts a size read from a block: every size is checked in 64 bits
// against the bytes present (zlib cannot expand more than 1032:1) before allocating.

#include <cstddef>
#include <cstdint>
#include <exception>
#include <fstream>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include <imageprocessing/export.h>
#include <zorl/core/color_profile.h>
#include <zorl/core/image_data.h>
#include <zorl/core/mask_image.h>
#include <zorl/core/pixel.h>
#include <zorl/core/types.h>

namespace zorl {

#pragma pack(push, 1)

// Tells tracked blocks (either word -1) from legacy untracked blocks, whose first two
// words are the raster's width and height.
struct STrackVersionFormat {
    int32_t word0 = -1;
    int32_t word1 = -1;

    constexpr STrackVersionFormat() = default;
    constexpr STrackVersionFormat(int w0, int w1) : word0(w0), word1(w1) {}
    // True when neither word is -1 (a legacy block); false as soon as either is -1.
    constexpr bool isUntrackedVersion() const { return word0 != -1 && word1 != -1; }
};

// Format version of a tracked block and the codec of its stream (1: one zlib stream made
// by compress2; the only codec written).
struct SCompressedDataSignature {
    uint32_t versionMajor = 1;
    uint32_t versionMinor = 0;
    uint32_t codec = 1;

    constexpr SCompressedDataSignature() = default;
    constexpr SCompressedDataSignature(uint32_t major, uint32_t minor, uint32_t codecId)
        : versionMajor(major), versionMinor(minor), codec(codecId) {}
};

// Geometry and payload description of a tracked block (see the file comment for fields
// 3, 5 and 6).
struct SCompressedImageFormat {
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t dataType = 0;       // field 3
    uint32_t bytesPerValue = 0;  // field 4
    uint32_t colorProfile = 0;   // field 5
    uint32_t channels = 0;       // field 6
    uint32_t level = 0;          // field 7: the zlib level given to compress2 (as uint32)
    uint64_t streamLength = 0;   // field 8: bytes of the zlib stream after the header

    constexpr SCompressedImageFormat() = default;
    constexpr SCompressedImageFormat(uint32_t w, uint32_t h, uint32_t field3, uint32_t bpv, uint32_t field5,
                                     uint32_t field6, uint32_t lvl, uint64_t length)
        : width(w), height(h), dataType(field3), bytesPerValue(bpv), colorProfile(field5), channels(field6),
          level(lvl), streamLength(length) {}
};

#pragma pack(pop)

static_assert(sizeof(STrackVersionFormat) == 8, "tracked marker is two int32");
static_assert(sizeof(SCompressedDataSignature) == 12, "signature is three uint32");
static_assert(sizeof(SCompressedImageFormat) == 36, "image format is seven uint32 and one uint64, packed");
static_assert(offsetof(SCompressedImageFormat, streamLength) == 28, "stream length at byte 28 of the format");

// Size of the tracked header and of the untracked prefix.
inline constexpr std::size_t kTrackedHeaderBytes =
    sizeof(STrackVersionFormat) + sizeof(SCompressedDataSignature) + sizeof(SCompressedImageFormat);
inline constexpr std::size_t kUntrackedPrefixBytes = 8;
static_assert(kTrackedHeaderBytes == 56, "the tracked header is 56 bytes");

// Header values of a mask block (fields 3, 5, 6).
inline constexpr uint32_t kMaskDataTypeCode = 4;      // to_imageDataTypeCode(ImageDataType::GrayU8)
inline constexpr uint32_t kMaskColorProfileCode = 7;  // to_colorProfileCode(ColorProfileType::None())
inline constexpr uint32_t kMaskChannelCount = 1;

// How writeToFile stores an image. Values are stored in files and never reused.
enum class CompressionStorage : int32_t {
    RawData = 1,  // the float pixels, lossless (zlib)
    Mask = 2,     // a mask block: two byte planes, within 1/130050 of every value in 0..1
};

class ZORL_IP_EXPORT ImageCompressorLosslessZlib {
public:
    using bytes = std::vector<uint8_t>;

    // Thrown on zlib failures: "there was not enough memory", "there was not enough room in
    // the output buffer", "the input data was corrupted or incomplete", "Incorrect
    // decompression" (an inflated length other than the expected one), "the level parameter
    // is invalid".
    class ZORL_IP_EXPORT CompressorException : public std::exception {
    public:
        explicit CompressorException(std::string message) : message_(std::move(message)) {}
        const char* what() const noexcept override { return message_.c_str(); }
        const std::string& message() const noexcept { return message_; }

    private:
        std::string message_;
    };

    // Writes a tracked block of width x height x bytesPerValue bytes of src (the count is
    // taken in 64 bits). Does nothing (dst unchanged) unless width and height are non-zero
    // and the version is 1.0; a src shorter than the count is logged and writes nothing.
    static void compressEx(const bytes& src, bytes& dst, uint32_t width, uint32_t height, uint32_t field3,
                           uint32_t bytesPerValue, uint32_t field5, uint32_t field6, int level,
                           uint32_t versionMajor, uint32_t versionMinor);

    // Inflates the stream of a tracked block into dst, which must hold exactly dstSize bytes
    // afterwards (dst is grown to dstSize when smaller). Does nothing if src is empty,
    // dstSize is 0 or the version is not 1.0. The header is not validated (the caller read it
    // to size dst); a block shorter than the header is "the input data was corrupted or
    // incomplete", a stream of another length "Incorrect decompression".
    static void uncompressEx(const bytes& src, bytes& dst, uint64_t dstSize, uint32_t versionMajor,
                             uint32_t versionMinor);

    // Inflates an untracked block (stream from byte 8) into exactly dstBytes bytes at dst.
    // Does nothing if src is empty, dst is null or dstBytes is 0.
    static void uncompress(const bytes& src, float* dst, uint64_t dstBytes);

    // Bare zlib stream of byteCount bytes; decompressSimple requires exactly byteCount bytes.
    static void compressSimple(const PixelRGB<float>* src, bytes& dst, uint64_t byteCount, int level);
    static void decompressSimple(const bytes& src, PixelRGB<float>* dst, uint64_t byteCount);

    // Bare zlib stream of a byte span; decompressRawData requires exactly dst.size() bytes.
    static void compressRawData(std::span<const uint8_t> src, bytes& dst, int level);
    static void decompressRawData(const bytes& src, std::span<uint8_t> dst);
};

class ZORL_IP_EXPORT ImageCompressorProxy {
public:
    using bytes = std::vector<uint8_t>;

    // A JPEG block of the image (quality 100). A null pixel pointer, a side below 1 or an
    // unknown profile leaves dst unchanged (the last two are logged).
    static void compress(const _ImageData<PixelRGB<float>>& image, bytes& dst);
    // Reads a JPEG block or a tracked PixelRGB<float> block (see uncompressImageData);
    // dst is replaced only when an image was read.
    static void uncompress(const bytes& src, std::shared_ptr<_ImageData<PixelRGB<float>>>& dst);

    // A tracked mask block. Values are reduced to bytes by discretizeMask; when that loses
    // anything, a second byte plane holds the rounded remainder (stored as its difference
    // from a prediction along the row, so that soft gradients compress), and every value in
    // 0..1 comes back within 1/130050 (NaN comes back as 0, values outside 0..1 clamped);
    // 0, 1 and every multiple of 1/255 come back exactly. An empty mask writes nothing.
    static void compressMask(const MaskImage& mask, bytes& dst);
    // Reads a tracked or untracked mask block; dst is replaced only when a mask was read.
    // Bad headers are logged; corrupt streams throw CompressorException.
    static void uncompressMask(const bytes& src, std::shared_ptr<MaskImage>& dst);

    // A bare zlib stream (default level) of size bytes; the reader passes the same size.
    // A null pointer is logged and does nothing; size 0 does nothing.
    static void compressRawData(const uint8_t* src, uint64_t size, bytes& dst);
    static void uncompressRawData(const bytes& src, uint8_t* dst, uint64_t size);
};

// Tracked mask block (version 1.0) to a mask; null (logged) when the header is not a mask
// header or claims more pixels than the stream can hold.
ZORL_IP_EXPORT std::shared_ptr<MaskImage> uncompressMask_1_0(const std::vector<uint8_t>& src);
// Legacy untracked mask block to a mask; null (logged) on a bad prefix.
ZORL_IP_EXPORT std::shared_ptr<MaskImage> uncompressMask_untracked(const std::vector<uint8_t>& src);
// JPEG block (untracked) or tracked PixelRGB<float> block (field 3 = 1, 12 bytes per
// pixel, field 5 a profile code, 3 channels) to an image; null (logged) when the block is
// damaged or its JPEG is not a baseline JPEG of the declared size.
ZORL_IP_EXPORT std::shared_ptr<_ImageData<PixelRGB<float>>> uncompressImageData(const std::vector<uint8_t>& src);

// Stable codes stored in blocks and files. Profiles: sRGB 1, sRGBLinear 2, ProPhotoRGB 3,
// MelissaRGB 4, untagged (None, or a null pointer) 7. Layouts: RgbF32 1, RgbaF32 2,
// GrayF32 3, GrayU8 4, RgbU8 5, RgbaU8 6, RgbU16 7, RgbaU16 8, ArgbF32 9, BgrU8 10,
// BgraU8 11, BgrU16 12. An unknown input is logged ("Undefined to_...() conversion") and
// gives 0 (no code) or null.
ZORL_IP_EXPORT uint32_t to_colorProfileCode(const ColorProfilePtr& profile);
ZORL_IP_EXPORT ColorProfilePtr to_colorProfilePtr(uint32_t code);
ZORL_IP_EXPORT uint32_t to_imageDataTypeCode(ImageDataType type);

// File form of a single-channel float image: magic, version, storage, size, profile, load
// state, payload (see docs). An unsupported storage is logged ("Unsupported type for
// CompressionStorage: " and the value) and writes nothing; a failing stream is logged.
ZORL_IP_EXPORT void writeToFile(std::ofstream& file, std::shared_ptr<const _ImageData<float>> image,
                                CompressionStorage storage);
// Reads what writeToFile wrote, of this or any earlier file version; null (logged) on a
// damaged, truncated or foreign file. Mask storage gives a MaskImage. Corrupt streams are
// logged too (no exception leaves this function).
ZORL_IP_EXPORT std::shared_ptr<_ImageData<float>> readFromFile(std::ifstream& file);

}  // namespace zorl
