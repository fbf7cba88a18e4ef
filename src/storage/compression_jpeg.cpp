// JPEG blocks through Magick++: uint32 width, uint32 height, uint32 colour-profile code,
// then the JPEG file.
//
// Reading is bounded before the decoder runs: the JPEG must be a sequential Huffman JPEG
// (SOF0 or SOF1, 8-bit, 1 or 3 components, the frame header before any scan) whose frame
// size equals the block's, with sides of at most kMaxJpegSide and at most
// kMaxPixelsPerJpegByte pixels per byte of JPEG. Progressive, arithmetic, lossless and
// hierarchical files are refused: our writer never makes them, and their decoding cost
// is not bounded by their size.

#include <Magick++.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <mutex>

#include <zorl/common/managed_memory.h>

#include "core/error_log.h"
#include "storage/storage_internal.h"

namespace zorl::storage {
namespace {

constexpr std::size_t kJpegBlockHeaderBytes = 12;
// Magick++'s compression code handed to the writer with every JPEG block.
constexpr int kMagickCompressionCode = 13;
constexpr std::size_t kJpegQuality = 100;
// The largest side a JPEG frame header can declare is 65535; we stay below.
constexpr uint32_t kMaxJpegSide = 65500;
// A sequential Huffman JPEG spends at least two bits (a DC and an end-of-block code) per
// 8 x 8 block of one component: at most 256 pixels per byte.
constexpr uint64_t kMaxPixelsPerJpegByte = 256;

void initializeMagick() {
    static std::once_flag once;
    std::call_once(once, [] { Magick::InitializeMagick(nullptr); });
}

std::string compressSig() {
    return "void __cdecl zorl::ImageCompressorProxy::compress(const class zorl::_ImageData<struct zorl::PixelRGB<float> "
           "> &,class std::vector<unsigned char,class std::allocator<unsigned char> > &)";
}

// Frame size of a sequential Huffman JPEG, read from its markers up to the frame header.
bool readJpegFrame(const uint8_t* p, std::size_t n, uint32_t& width, uint32_t& height) {
    if (n < 4 || p[0] != 0xFF || p[1] != 0xD8) return false;
    std::size_t i = 2;
    while (i + 4 <= n) {
        if (p[i] != 0xFF) return false;
        const uint8_t marker = p[i + 1];
        if (marker == 0xFF) {  // fill byte
            ++i;
            continue;
        }
        const std::size_t length = std::size_t(p[i + 2]) << 8 | p[i + 3];
        if (length < 2 || i + 2 + length > n) return false;
        if (marker == 0xC0 || marker == 0xC1) {
            if (length < 8) return false;
            const uint8_t precision = p[i + 4];
            height = uint32_t(p[i + 5]) << 8 | p[i + 6];
            width = uint32_t(p[i + 7]) << 8 | p[i + 8];
            const uint8_t components = p[i + 9];
            return precision == 8 && (components == 1 || components == 3) && length == 8u + 3u * components;
        }
        // Tables (DHT C4, DQT DB, DRI DD), application segments (E0-EF) and comments (FE)
        // may precede the frame; any other marker (other frames, scans, standalone markers)
        // ends the walk.
        const bool allowed = marker == 0xC4 || marker == 0xDB || marker == 0xDD || (marker >= 0xE0 && marker <= 0xEF) ||
                             marker == 0xFE;
        if (!allowed) return false;
        i += 2 + length;
    }
    return false;
}

}  // namespace

void compressJpeg(const _ImageData<PixelRGB<float>>& image, std::vector<uint8_t>& dst) {
    const int w = image.width(), h = image.height();
    if (!image.data() || w < 1 || h < 1) return;
    const uint32_t profileCode = to_colorProfileCode(image.colorProfile());
    if (profileCode == 0) return;
    if (!checkThat(uint32_t(w) <= kMaxJpegSide && uint32_t(h) <= kMaxJpegSide, compressSig(),
                   "image too large for a JPEG block"))
        return;
    initializeMagick();

    // Magick's float import does not map NaN; it becomes 0 here (other values are clamped
    // to 0..1 by the import).
    const std::size_t count = image.pixelCount() * 3;
    const float* pixels = reinterpret_cast<const float*>(image.data());
    ManagedBuffer<float> cleaned;
    if (std::any_of(pixels, pixels + count, [](float v) { return std::isnan(v); })) {
        cleaned = ManagedBuffer<float>(count);
        for (std::size_t i = 0; i < count; ++i) cleaned[i] = std::isnan(pixels[i]) ? 0.0f : pixels[i];
        pixels = cleaned.data();
    }
    try {
        Magick::Image jpeg(std::size_t(w), std::size_t(h), "RGB", Magick::FloatPixel, pixels);
        jpeg.compressType(static_cast<Magick::CompressionType>(kMagickCompressionCode));
        jpeg.magick("JPEG");
        jpeg.quality(kJpegQuality);
        Magick::Blob blob;
        jpeg.write(&blob);
        std::vector<uint8_t> out(kJpegBlockHeaderBytes + blob.length());
        putU32(out.data(), uint32_t(w));
        putU32(out.data() + 4, uint32_t(h));
        putU32(out.data() + 8, profileCode);
        std::memcpy(out.data() + kJpegBlockHeaderBytes, blob.data(), blob.length());
        dst = std::move(out);
    } catch (const std::exception& e) {
        logError(compressSig(), std::string("JPEG encoding failed: ") + e.what());
    }
}

std::shared_ptr<_ImageData<PixelRGB<float>>> uncompressJpeg(const std::vector<uint8_t>& src, const std::string& sig) {
    if (src.size() <= kJpegBlockHeaderBytes) {
        logError(sig, "block shorter than its header");
        return nullptr;
    }
    const uint32_t w = getU32(src.data()), h = getU32(src.data() + 4);
    const uint8_t* jpeg = src.data() + kJpegBlockHeaderBytes;
    const std::size_t jpegBytes = src.size() - kJpegBlockHeaderBytes;
    uint32_t frameW = 0, frameH = 0;
    if (!readJpegFrame(jpeg, jpegBytes, frameW, frameH)) {
        logError(sig, "not a sequential JPEG");
        return nullptr;
    }
    if (frameW != w || frameH != h || w == 0 || h == 0 || w > kMaxJpegSide || h > kMaxJpegSide ||
        uint64_t(w) * h > kMaxPixelsPerJpegByte * jpegBytes) {
        logError(sig, "JPEG size does not match the block");
        return nullptr;
    }
    ColorProfilePtr profile = to_colorProfilePtr(getU32(src.data() + 8));
    if (!profile) return nullptr;

    initializeMagick();
    try {
        Magick::Blob blob(jpeg, jpegBytes);
        Magick::Image decoded;
        decoded.magick("JPEG");
        decoded.read(blob);
        if (decoded.columns() != w || decoded.rows() != h) {
            logError(sig, "JPEG size does not match the block");
            return nullptr;
        }
        const Magick::PixelPacket* in = decoded.getConstPixels(0, 0, w, h);
        if (!in) {
            logError(sig, "JPEG pixels unavailable");
            return nullptr;
        }
        auto image = std::make_shared<_ImageData<PixelRGB<float>>>(_Size<int>(int(w), int(h)), profile);
        PixelRGB<float>* out = image->data();
        const std::size_t n = image->pixelCount();
        for (std::size_t i = 0; i < n; ++i) {
            out[i].r = static_cast<float>(in[i].red / 65535.0);
            out[i].g = static_cast<float>(in[i].green / 65535.0);
            out[i].b = static_cast<float>(in[i].blue / 65535.0);
        }
        return image;
    } catch (const std::exception& e) {
        logError(sig, std::string("JPEG decoding failed: ") + e.what());
        return nullptr;
    }
}

}  // namespace zorl::storage
