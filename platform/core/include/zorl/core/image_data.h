#pragma once
// _ImageData<T>: a width x height raster of T, row-major and tightly packed (pixel
// (x, y) at index y * width + x), with a shared colour profile and a load state.
// Pixel memory comes from MemoryManager. Always held through std::shared_ptr.
//
// Rectangles: an empty rectangle (kNoRegion) stands for the whole image; any other
// rectangle is clipped to the image first.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>

#include <zorl/core/codec.h>
#include <zorl/core/color_profile.h>
#include <zorl/core/export.h>
#include <zorl/core/geometry.h>
#include <zorl/core/pixel.h>
#include <zorl/core/types.h>

namespace zorl {

// Thrown by the decoding constructors when the stream is truncated or inconsistent.
class ZORL_CORE_EXPORT DecodeError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

template <class T>
class ZORL_CORE_EXPORT _ImageData {
public:
    using value_type = T;
    using Ptr = std::shared_ptr<_ImageData>;
    using ConstPtr = std::shared_ptr<const _ImageData>;

    // Uninitialised pixels. A negative side counts as 0.
    _ImageData(_Size<int> size, ColorProfilePtr profile);
    // Every pixel set to fill.
    _ImageData(_Size<int> size, const T& fill, ColorProfilePtr profile);
    _ImageData(const _ImageData& other);
    _ImageData& operator=(const _ImageData& other);
    // Reads what encode wrote; throws DecodeError on a truncated or inconsistent stream.
    explicit _ImageData(const std::shared_ptr<Decoder>& decoder);
    virtual ~_ImageData();

    _Size<int> size() const { return size_; }
    int width() const { return size_.width; }
    int height() const { return size_.height; }
    _Rect<int> rect() const { return {0, 0, size_.width, size_.height}; }
    std::size_t pixelCount() const { return static_cast<std::size_t>(size_.area()); }
    std::size_t byteCount() const { return pixelCount() * sizeof(T); }
    bool empty() const { return pixelCount() == 0; }

    T* data() { return pixels_; }
    const T* data() const { return pixels_; }
    T* row(int y) { return pixels_ + static_cast<std::size_t>(y) * size_.width; }
    const T* row(int y) const { return pixels_ + static_cast<std::size_t>(y) * size_.width; }
    T& at(int x, int y) { return row(y)[x]; }
    const T& at(int x, int y) const { return row(y)[x]; }

    ColorProfilePtr colorProfile() const { return profile_; }
    ImageLoadState getLoadState() const { return loadState_; }
    void setLoadState(ImageLoadState state) { loadState_ = state; }

    // Same size and same pixel type.
    template <class U>
    bool isSameType(const _ImageData<U>& other) const {
        return std::is_same_v<T, U> && size_ == other.size();
    }

    // The region roi (whole image when empty) resampled to newSize, as a new image with
    // the same profile and load state. smooth = true averages (area reduction, bilinear
    // enlargement); false picks the nearest pixel. Null for an empty size or region.
    Ptr resize(_Size<int> newSize, const _Rect<int>& roi, bool smooth) const;
    // The given rectangle as a new image; null when it misses the image.
    Ptr copy(_Rect<int> r) const;
    // Copies the rectangle (whole image when empty) into dst at (0, 0); dst is made anew
    // when null or of another size.
    void copyTo(Ptr& dst, _Rect<int> r) const;
    // Copies the whole image into dst mirrored left-right and/or top-bottom; dst is made
    // anew when null or of another size.
    void copyFlippedTo(Ptr& dst, const bool& horizontal, const bool& vertical) const;
    // Sets every pixel of the rectangle (whole image when empty) to value.
    void fillRect(const T& value, _Rect<int> r);

    // Writes type, size, profile, load state and pixels, raw or zlib-compressed.
    void encode(const std::shared_ptr<Encoder>& encoder, Compression compression) const;

protected:
    // The rectangle an operation works on: whole image for kNoRegion, else clipped.
    _Rect<int> effectiveRect(const _Rect<int>& r) const;

private:
    void allocate();
    void release();

    _Size<int> size_{};
    ColorProfilePtr profile_;
    ImageLoadState loadState_ = ImageLoadState::Full;
    T* pixels_ = nullptr;
};

extern template class _ImageData<float>;
extern template class _ImageData<uint8_t>;
extern template class _ImageData<uint16_t>;
extern template class _ImageData<PixelRGB<float>>;
extern template class _ImageData<PixelRGB<uint8_t>>;
extern template class _ImageData<PixelRGB<uint16_t>>;
extern template class _ImageData<PixelRGBA<float>>;
extern template class _ImageData<PixelRGBA<uint8_t>>;
extern template class _ImageData<PixelRGBA<uint16_t>>;
extern template class _ImageData<PixelARGB<float>>;

using ImageDataRGBf = _ImageData<PixelRGB<float>>;

}  // namespace zorl
