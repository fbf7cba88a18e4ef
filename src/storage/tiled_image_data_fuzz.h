#pragma once
// Entry point that feeds untrusted bytes to the tiled RGB store readers: the libFuzzer
// target fuzz/fuzz_tiled_image_data.cpp and the corpus replay test call it. It must
// return normally; a crash, a sanitizer report, a hang or an escaping exception is a bug.

#include <cstddef>
#include <cstdint>
#include <memory>

#include <imageprocessing/compression.h>
#include <imageprocessing/tiled_image_data_stores.h>

namespace zorl::fuzz {

namespace detail {
// A decoded store is read, edited and encoded again.
template <class Store>
void exercise(const std::shared_ptr<Store>& s) {
    if (!s) return;
    if (s->width() > 0 && s->height() > 0) {
        (void)s->getPixel(s->width() - 1, s->height() - 1);
        (void)s->readRect({s->width() - 40, s->height() - 40, 80, 80});
        s->setPixel({0.5f, 0.5f, 0.5f}, 0, 0);
        s->fillRoi({1, 1, 3, 3}, {1.0f, 0.0f, 0.0f});
    }
    auto encoder = std::make_shared<Encoder>();
    s->encode(encoder);
}
}  // namespace detail

// The same bytes as a stream of each scheme.
inline void tiledImageData(const uint8_t* data, std::size_t size) {
    try {
        detail::exercise(KelTiledImageData::decode(std::make_shared<Decoder>(data, size)));
        detail::exercise(BarcTiledImageData::decode(std::make_shared<Decoder>(data, size)));
    } catch (const ImageCompressorLosslessZlib::CompressorException&) {
        // encode may throw on zlib failure (documented); decode never throws
    }
}

}  // namespace zorl::fuzz
