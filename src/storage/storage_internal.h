#pragma once
// Private helpers of the storage family: little-endian fields, the zlib bound on
// decompressed sizes, the signature texts of its log lines, and the JPEG codec.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <imageprocessing/compression.h>

namespace zorl::storage {

// zlib cannot expand a stream by more than 1032:1 (a 258-byte match coded in two bits), so
// a declared raw size above this many times the stream length is a lie, refused before
// anything is allocated.
inline constexpr uint64_t kZlibMaxRatio = 1032;

inline void putU32(uint8_t* p, uint32_t v) {
    p[0] = uint8_t(v);
    p[1] = uint8_t(v >> 8);
    p[2] = uint8_t(v >> 16);
    p[3] = uint8_t(v >> 24);
}
inline void putU64(uint8_t* p, uint64_t v) {
    putU32(p, uint32_t(v));
    putU32(p + 4, uint32_t(v >> 32));
}
inline uint32_t getU32(const uint8_t* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}
inline uint64_t getU64(const uint8_t* p) { return uint64_t(getU32(p)) | uint64_t(getU32(p + 4)) << 32; }
inline int32_t getI32(const uint8_t* p) { return static_cast<int32_t>(getU32(p)); }

// True when a stream of streamBytes bytes can inflate to rawBytes bytes.
inline bool zlibCanHold(uint64_t rawBytes, uint64_t streamBytes) {
    return streamBytes >= (rawBytes + kZlibMaxRatio - 1) / kZlibMaxRatio;
}

// The three records of a tracked header, read from its first 56 bytes.
struct TrackedHeader {
    STrackVersionFormat track;
    SCompressedDataSignature signature;
    SCompressedImageFormat format;
};
TrackedHeader readTrackedHeader(const uint8_t* p);

// True when the block is untracked: longer than 8 bytes and neither leading word -1.
inline bool isUntrackedBlock(const std::vector<uint8_t>& src) {
    return src.size() > kUntrackedPrefixBytes && STrackVersionFormat(getI32(src.data()), getI32(src.data() + 4)).isUntrackedVersion();
}

// Inflates the zlib stream src[0, srcLen) into exactly dstLen bytes at dst. Throws
// CompressorException on zlib errors, on a length that zlib cannot reach and on an
// inflated length other than dstLen.
void inflateExact(const uint8_t* src, uint64_t srcLen, uint8_t* dst, uint64_t dstLen);

// Signature texts of the log lines.
std::string bytesRefSig();  // "const class std::vector<unsigned char,...> &"

// JPEG blocks (compression_jpeg.cpp).
void compressJpeg(const _ImageData<PixelRGB<float>>& image, std::vector<uint8_t>& dst);
std::shared_ptr<_ImageData<PixelRGB<float>>> uncompressJpeg(const std::vector<uint8_t>& src, const std::string& sig);

}  // namespace zorl::storage
