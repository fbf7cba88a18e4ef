#include <zorl/core/mask_image.h>

#include <algorithm>
#include <cstring>

#include "raster_resize.h"

namespace zorl {

MaskImage::MaskImage(_Size<int> size, float fill) : _ImageData<float>(size, fill, ColorProfileType::None()) {}

MaskImage::MaskImage(const float* pixels, _Size<int> size) : _ImageData<float>(size, ColorProfileType::None()) {
    if (!byteCount()) return;
    if (pixels)
        std::memcpy(data(), pixels, byteCount());
    else
        std::fill_n(data(), pixelCount(), 0.0f);  // no source: an empty selection
}

MaskImage::MaskImage(const std::shared_ptr<Decoder>& decoder) : _ImageData<float>(decoder) {}

bool MaskImage::isFilled(float value) const {
    const float* p = data();
    const std::size_t n = pixelCount();
    for (std::size_t i = 0; i < n; ++i)
        if (!(p[i] == value)) return false;
    return true;
}

void MaskImage::invert() {
    float* p = data();
    const std::size_t n = pixelCount();
    for (std::size_t i = 0; i < n; ++i) p[i] = 1.0f - p[i];
}

uint64_t MaskImage::zeroPixelsCount() const {
    const float* p = data();
    return static_cast<uint64_t>(std::count(p, p + pixelCount(), 0.0f));
}

MaskImage::Ptr MaskImage::resize(_Size<int> newSize, const _Rect<int>& roi, bool smooth) const {
    const _Rect<int> region = effectiveRect(roi);
    const bool shrinking = newSize.width <= region.width && newSize.height <= region.height;
    return resize(newSize, !smooth ? InterpolationType::Nearest : (shrinking ? InterpolationType::Area : InterpolationType::Linear),
                  roi, smooth);
}

MaskImage::Ptr MaskImage::resize(_Size<int> newSize, InterpolationType interpolation, const _Rect<int>& roi, bool) const {
    const _Rect<int> region = effectiveRect(roi);
    if (newSize.isEmpty() || region.isEmpty()) return nullptr;
    auto out = std::make_shared<MaskImage>(newSize, 0.0f);
    out->setLoadState(getLoadState());
    detail::resizeRaster(data(), size(), out->data(), newSize, detail::cvTypeOf<float>(), interpolation, region);
    return out;
}

void discretizeMask(const MaskImage& mask, std::vector<uint8_t>& out) {
    const float* p = mask.data();
    const std::size_t n = mask.pixelCount();
    out.resize(n);
    for (std::size_t i = 0; i < n; ++i) {
        const float v = std::min(1.0f, p[i] > 0.0f ? p[i] : 0.0f);
        out[i] = static_cast<uint8_t>(v * 255.0f);
    }
}

}  // namespace zorl
