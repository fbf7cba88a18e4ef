#pragma once
// MaskImage: a single-channel float raster, 0 = not selected, 1 = fully selected.

#include <memory>
#include <vector>

#include <zorl/core/image_data.h>

namespace zorl {

class ZORL_CORE_EXPORT MaskImage : public _ImageData<float> {
public:
    using Ptr = std::shared_ptr<MaskImage>;

    MaskImage(_Size<int> size, float fill);
    // Copies width x height floats from pixels; a null pixels gives an all-zero mask.
    MaskImage(const float* pixels, _Size<int> size);
    MaskImage(const MaskImage& other) = default;
    MaskImage& operator=(const MaskImage& other) = default;
    // Reads what encode wrote (a float image stream); throws DecodeError when bad.
    explicit MaskImage(const std::shared_ptr<Decoder>& decoder);

    // True when every pixel equals value (never for NaN).
    bool isFilled(float value) const;
    // m := 1 - m for every pixel.
    void invert();
    // Number of pixels exactly 0.
    uint64_t zeroPixelsCount() const;

    // The region roi (whole mask when empty) resampled to newSize: smooth averages,
    // otherwise nearest pixel. Null for an empty size or region.
    Ptr resize(_Size<int> newSize, const _Rect<int>& roi, bool smooth) const;
    Ptr resize(_Size<int> newSize, InterpolationType interpolation, const _Rect<int>& roi, bool smooth) const;
};

// One byte per mask pixel by the library's float-to-integer rule: clamp to 0..1 (NaN to
// 0), multiply by 255, truncate. `out` is resized to the pixel count.
ZORL_CORE_EXPORT void discretizeMask(const MaskImage& mask, std::vector<uint8_t>& out);

}  // namespace zorl
