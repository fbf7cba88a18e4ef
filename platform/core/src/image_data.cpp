#include <zorl/core/image_data.h>

#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <vector>

#include <zorl/common/memory_manager.h>

#include "raster_resize.h"

namespace zorl {
namespace {

constexpr int kImageStreamVersion = 1;
// zlib cannot expand data by more than about 1032:1; a stored raw size beyond that many
// times the compressed length is a lie and is refused before anything is allocated.
constexpr uint64_t kZlibMaxRatio = 1032;
// Largest pixel payload of one image (4 EiB): keeps every byte count far from overflow.
constexpr uint64_t kMaxPixelBytes = uint64_t(1) << 62;

_Size<int> nonNegative(_Size<int> s) { return {std::max(0, s.width), std::max(0, s.height)}; }

}  // namespace

template <class T>
void _ImageData<T>::allocate() {
    const std::size_t n = pixelCount();
    if (n > kMaxPixelBytes / sizeof(T)) throw std::bad_alloc();
    pixels_ = n ? reinterpret_cast<T*>(MemoryManager::instance().allocate(n * sizeof(T), false)) : nullptr;
}

template <class T>
void _ImageData<T>::release() {
    if (pixels_) MemoryManager::instance().free(reinterpret_cast<uint8_t*>(pixels_));
    pixels_ = nullptr;
}

template <class T>
_ImageData<T>::_ImageData(_Size<int> size, ColorProfilePtr profile)
    : size_(nonNegative(size)), profile_(std::move(profile)) {
    allocate();
}

template <class T>
_ImageData<T>::_ImageData(_Size<int> size, const T& fill, ColorProfilePtr profile)
    : size_(nonNegative(size)), profile_(std::move(profile)) {
    allocate();
    std::fill(pixels_, pixels_ + pixelCount(), fill);
}

template <class T>
_ImageData<T>::_ImageData(const _ImageData& other)
    : size_(other.size_), profile_(other.profile_), loadState_(other.loadState_) {
    allocate();
    if (pixels_) std::memcpy(pixels_, other.pixels_, byteCount());
}

template <class T>
_ImageData<T>& _ImageData<T>::operator=(const _ImageData& other) {
    if (this == &other) return *this;
    if (size_ != other.size_) {
        release();
        size_ = other.size_;
        allocate();
    }
    profile_ = other.profile_;
    loadState_ = other.loadState_;
    if (pixels_) std::memcpy(pixels_, other.pixels_, byteCount());
    return *this;
}

template <class T>
_ImageData<T>::~_ImageData() {
    release();
}

template <class T>
_Rect<int> _ImageData<T>::effectiveRect(const _Rect<int>& r) const {
    return r == kNoRegion ? rect() : rect().intersection(r);
}

template <class T>
typename _ImageData<T>::Ptr _ImageData<T>::resize(_Size<int> newSize, const _Rect<int>& roi, bool smooth) const {
    const _Rect<int> region = effectiveRect(roi);
    if (newSize.isEmpty() || region.isEmpty()) return nullptr;
    auto out = std::make_shared<_ImageData>(newSize, profile_);
    out->loadState_ = loadState_;
    const bool shrinking = newSize.width <= region.width && newSize.height <= region.height;
    const InterpolationType kind =
        !smooth ? InterpolationType::Nearest : (shrinking ? InterpolationType::Area : InterpolationType::Linear);
    detail::resizeRaster(pixels_, size_, out->pixels_, newSize, detail::cvTypeOf<T>(), kind, region);
    return out;
}

template <class T>
typename _ImageData<T>::Ptr _ImageData<T>::copy(_Rect<int> r) const {
    const _Rect<int> region = effectiveRect(r);
    if (region.isEmpty()) return nullptr;
    auto out = std::make_shared<_ImageData>(region.size(), profile_);
    out->loadState_ = loadState_;
    for (int y = 0; y < region.height; ++y)
        std::memcpy(out->row(y), row(region.y + y) + region.x, region.width * sizeof(T));
    return out;
}

template <class T>
void _ImageData<T>::copyTo(Ptr& dst, _Rect<int> r) const {
    const _Rect<int> region = effectiveRect(r);
    if (!dst || dst->size() != region.size()) dst = std::make_shared<_ImageData>(region.size(), profile_);
    dst->loadState_ = loadState_;
    for (int y = 0; y < region.height; ++y)
        std::memcpy(dst->row(y), row(region.y + y) + region.x, region.width * sizeof(T));
}

template <class T>
void _ImageData<T>::copyFlippedTo(Ptr& dst, const bool& horizontal, const bool& vertical) const {
    if (!dst || dst->size() != size_) dst = std::make_shared<_ImageData>(size_, profile_);
    dst->loadState_ = loadState_;
    const int w = size_.width, h = size_.height;
    for (int y = 0; y < h; ++y) {
        const T* in = row(vertical ? h - 1 - y : y);
        T* out = dst->row(y);
        if (horizontal)
            std::reverse_copy(in, in + w, out);
        else
            std::memcpy(out, in, w * sizeof(T));
    }
}

template <class T>
void _ImageData<T>::fillRect(const T& value, _Rect<int> r) {
    const _Rect<int> region = effectiveRect(r);
    for (int y = 0; y < region.height; ++y) std::fill_n(row(region.y + y) + region.x, region.width, value);
}

template <class T>
void _ImageData<T>::encode(const std::shared_ptr<Encoder>& encoder, Compression compression) const {
    encoder->encodeInt(kImageStreamVersion);
    encoder->encodeInt(static_cast<int>(imageDataTypeOf<T>()));
    encoder->encodeInt(size_.width);
    encoder->encodeInt(size_.height);
    (profile_ ? profile_ : ColorProfileType::None())->encode(encoder);
    encoder->encodeInt(static_cast<int>(loadState_));
    encoder->encodeInt(static_cast<int>(compression));
    const uint64_t raw = byteCount();
    encoder->encodeUint64(raw);
    if (compression == Compression::Zlib && raw > 0) {
        uLongf packedLen = compressBound(raw);
        std::vector<uint8_t> packed(packedLen);
        if (compress2(packed.data(), &packedLen, reinterpret_cast<const Bytef*>(pixels_), raw, Z_DEFAULT_COMPRESSION) != Z_OK)
            throw std::bad_alloc();
        encoder->encodeUint64(packedLen);
        encoder->encodeData(packed.data(), packedLen);
    } else {
        encoder->encodeData(reinterpret_cast<const uint8_t*>(pixels_), raw);
    }
}

template <class T>
_ImageData<T>::_ImageData(const std::shared_ptr<Decoder>& decoder) {
    int version = 0, type = 0, w = 0, h = 0, state = 0, compression = 0;
    uint64_t raw = 0;
    if (!decoder || !decoder->decodeInt(version) || version != kImageStreamVersion)
        throw DecodeError("image data: missing or unknown stream version");
    if (!decoder->decodeInt(type) || type != static_cast<int>(imageDataTypeOf<T>()))
        throw DecodeError("image data: pixel type does not match");
    if (!decoder->decodeInt(w) || !decoder->decodeInt(h) || w < 0 || h < 0)
        throw DecodeError("image data: bad size");
    profile_ = ColorProfileType::decode(decoder);
    if (!profile_) throw DecodeError("image data: bad colour profile");
    if (!decoder->decodeInt(state) || state < 0 || state > static_cast<int>(ImageLoadState::Full))
        throw DecodeError("image data: bad load state");
    if (!decoder->decodeInt(compression) || (compression != 0 && compression != 1))
        throw DecodeError("image data: bad compression");
    // w and h are at most 2^31 - 1, so the area fits in 64 bits; its byte count may not.
    const uint64_t area = static_cast<uint64_t>(_Size<int>{w, h}.area());
    if (area > kMaxPixelBytes / sizeof(T)) throw DecodeError("image data: size too large");
    if (!decoder->decodeUint64(raw) || raw != area * sizeof(T))
        throw DecodeError("image data: pixel byte count does not match the size");
    uint64_t packedLen = 0;
    if (compression == 1 && raw > 0) {
        if (!decoder->decodeUint64(packedLen) || packedLen > decoder->remaining() || raw / kZlibMaxRatio > packedLen)
            throw DecodeError("image data: bad compressed length");
    } else if (raw > decoder->remaining()) {
        throw DecodeError("image data: truncated pixels");
    }
    loadState_ = static_cast<ImageLoadState>(state);
    size_ = {w, h};
    allocate();
    try {
        if (compression == 1 && raw > 0) {
            std::vector<uint8_t> packed(packedLen);
            decoder->decodeData(packed.data(), packedLen);
            uLongf outLen = raw;
            if (uncompress(reinterpret_cast<Bytef*>(pixels_), &outLen, packed.data(), packedLen) != Z_OK || outLen != raw)
                throw DecodeError("image data: corrupt compressed pixels");
        } else {
            decoder->decodeData(reinterpret_cast<uint8_t*>(pixels_), raw);
        }
    } catch (...) {
        release();
        throw;
    }
}

template class _ImageData<float>;
template class _ImageData<uint8_t>;
template class _ImageData<uint16_t>;
template class _ImageData<PixelRGB<float>>;
template class _ImageData<PixelRGB<uint8_t>>;
template class _ImageData<PixelRGB<uint16_t>>;
template class _ImageData<PixelRGBA<float>>;
template class _ImageData<PixelRGBA<uint8_t>>;
template class _ImageData<PixelRGBA<uint16_t>>;
template class _ImageData<PixelARGB<float>>;

}  // namespace zorl
