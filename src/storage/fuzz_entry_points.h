#pragma once
// Entry points that feed untrusted bytes to the storage readers: the libFuzzer targets in
// fuzz/ and the corpus replay test call the same functions. Each one must return normally
// or throw nothing but the documented exceptions, which it catches; anything else (a
// crash, a sanitizer report, a hang) is a bug.

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <imageprocessing/compression.h>
#include <imageprocessing/tiled_mask_image.h>

namespace zorl::fuzz {

// Mask blocks, tracked or untracked, through the dispatching reader.
inline void maskBlock(const uint8_t* data, std::size_t size) {
    const std::vector<uint8_t> block(data, data + size);
    try {
        std::shared_ptr<MaskImage> mask;
        ImageCompressorProxy::uncompressMask(block, mask);
        if (mask) {
            std::vector<uint8_t> again;
            ImageCompressorProxy::compressMask(*mask, again);
        }
    } catch (const ImageCompressorLosslessZlib::CompressorException&) {
    }
}

// Image blocks: JPEG (untracked) or tracked RGB float.
inline void imageBlock(const uint8_t* data, std::size_t size) {
    const std::vector<uint8_t> block(data, data + size);
    try {
        auto image = uncompressImageData(block);
        if (image && image->pixelCount() <= 64 * 64) {
            std::vector<uint8_t> again;
            ImageCompressorProxy::compress(*image, again);
        }
    } catch (const ImageCompressorLosslessZlib::CompressorException&) {
    }
}

// A tiled mask stream; a decoded mask is read, edited and encoded again.
inline void tiledMask(const uint8_t* data, std::size_t size) {
    try {
        TiledMaskImage mask(std::make_shared<Decoder>(data, size));
        if (mask.area() > 0) {
            (void)mask.getValue(mask.width() - 1, mask.height() - 1);
            (void)mask.isEmpty();
            (void)mask.zeroPixelsCount();
            int64_t sum = 0;
            int64_t steps = 0;
            for (auto it = mask.begin(); it != mask.end() && steps < 4096; ++it, ++steps) sum += *it > 0.5f;
            (void)sum;
            if (mask.tileSize().area() <= (1 << 16)) mask.setValue(0.5f, 0, 0);  // keeps runs fast
            mask.invert();
        }
        auto encoder = std::make_shared<Encoder>();
        mask.encode(encoder, true);
    } catch (const DecodeError&) {
    } catch (const ImageCompressorLosslessZlib::CompressorException&) {
    }
}

// A file for readFromFile, written to `path` first.
inline void readFile(const uint8_t* data, std::size_t size, const std::string& path) {
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    }
    std::ifstream in(path, std::ios::binary);
    (void)readFromFile(in);
}

}  // namespace zorl::fuzz
