#pragma once
// TransformComputer: turns a source (image data, a tiled mask or a document Image) into
// a rendition of a given size showing a region of the crop-and-transform canvas.
//
// Geometry. All of it is one AffineTransform, the sampling transform, that maps a
// destination pixel position to a source pixel position
// (ImageTransformSettings::getSamplingTransform, see <zorl/core/image_transform_settings.h>).
//
// Sampling. Every destination pixel (x, y) is computed on its own from samples at
// (x + ox, y + oy) for a list of offsets that starts with the four corners of the unit
// square (0, 0), (1, 0), (1, 1), (0, 1): no half-pixel shift, pixel values sit at
// integer positions. (Sources that sample pixel centres start instead with the single
// offset (0.5, 0.5).) A sample is valid when its position lies in the source; its value
// is bilinear, the right and bottom neighbours clamped to the last column and row.
// - Without supersampling the first valid sample is the pixel's value (at the right and
//   bottom borders a later corner stands in for the first).
// - With supersampling, Halton points are appended to the list and the valid samples
//   are averaged. Two policies decide when and how many:
//   scale-adaptive (PixelRGB<float> renditions): when the largest singular value s of
//     the 2x2 part is at least 1.1, (int)round(min(2 s, 20)) points;
//   rotation-only (uint8_t, float, PixelRGBA<float> renditions, masks): when the call
//     allows it (creation does, updates of a rectangle do not) and the transform
//     rotates (|b| or |c| above 1e-5), 10 points.
// - A pixel with no valid sample takes the background: 0.2 per channel for RGB,
//   (0.2, 0.2, 0.2, 0) for RGBA (no image there: transparent), 0 for gray, bytes and
//   masks (nothing selected).
// - uint8_t renditions are sampled on the byte values; an averaged or interpolated
//   value is rounded to the nearest byte.
// Rows of the destination region are processed in parallel; the result does not
// depend on the number of threads.

#include <array>
#include <cstdint>
#include <memory>

#include <imageprocessing/export.h>
#include <zorl/core/affine_transform.h>
#include <zorl/core/geometry.h>
#include <zorl/core/image_data.h>
#include <zorl/core/image_transform_settings.h>

namespace zorl {

class Image;
class MaskImage;
class TiledMaskImage;

// When and how a destination pixel is supersampled (see the top of this file).
enum class SupersamplingPolicy : int32_t { ScaleAdaptive = 0, RotationOnly = 1 };

// The samples of one destination pixel, built once per call and shared by all pixels.
struct SampleOffsets {
    static constexpr int kCapacity = 24;  // four corners and at most 20 Halton points
    std::array<_Point<float>, kCapacity> points{};
    int count = 0;
    bool supersampled = false;  // average the valid samples, else take the first valid
};

namespace sampling {
// Scale-adaptive policy: supersample from this stretch on.
inline constexpr float kSupersampleScale = 1.1f;
// At most this many Halton points.
inline constexpr int kMaxHaltonPoints = 20;
// Rotation-only policy: always this many Halton points.
inline constexpr int kRotationHaltonPoints = 10;
// Off-diagonal terms at or below this count as no rotation (float noise of cos / sin).
inline constexpr float kRotationEpsilon = 1e-5f;

// The largest singular value of the 2x2 part of t, in single precision:
// p = a^2 + c^2, q = b a + d c, r = b^2 + d^2,
// s = sqrt((p + r) / 2 + sqrt(((p - r) / 4) (p - r) + ((2 q) / 4) (2 q))).
ZORL_IP_EXPORT float largestSingularValue(const AffineTransform& t);

// The offset list of a call: the corners (or the pixel centre when centreSample), then
// the Halton points of indices 0, 1, ... in dimension 2 that the policy asks for.
ZORL_IP_EXPORT SampleOffsets sampleOffsets(SupersamplingPolicy policy, const AffineTransform& samplingTransform,
                                           bool allowSupersampling, bool centreSample);
}  // namespace sampling

class ZORL_IP_EXPORT TransformComputer {
public:
    // Which data of an Image source is read.
    enum class DataSourceType : int32_t {
        ImageData = 0,                   // Image::imageData
        OriginalImageData = 1,           // Image::originalImageData
        DevelopedOriginalImageData = 2,  // Image::developedOriginalImageData, copied
        DenoisedImage = 3,               // second image of the denoise result
        DenoisedImageFirst = 4,          // first image of the denoise result
    };

    // Default settings: empty sizes and region, no transform, default crop.
    explicit TransformComputer(DataSourceType type = DataSourceType::ImageData);
    TransformComputer(const ImageTransformSettings& settings, DataSourceType type);

    const ImageTransformSettings& settings() const { return settings_; }
    DataSourceType dataSourceType() const { return dataSourceType_; }

    // size = working size; rect = region with each component truncated toward zero;
    // resizeFlag = true.
    ResizeParameters getWorkingResizeParameters() const;
    // The crop rectangle's size when the crop is not the default, else the canvas size.
    _Size<int> calculateCanvasSize() const;
    // (0, 0, canvas width, canvas height) in float.
    _Rect<float> calculateCanvasRoi() const;

    // A new rendition of rp.size showing rp.rect of the canvas, with supersampling
    // allowed. An untransformed, uncropped reduction of a region inside an image-data
    // source is the source's own resize (rp.size, rp.rect, rp.resizeFlag) instead.
    // Null for an empty rp.size, an Image whose requested data is missing, or an unknown
    // data-source type. Throws std::bad_variant_access when the transform parameters
    // are used and do not hold an AffineTransform.
    // Tiled masks (MaskImage renditions) are always resampled, without the shortcut.
    // Instantiated for (Out, In) = (MaskImage, TiledMaskImage), (_ImageData<uint8_t>,
    // same), (_ImageData<float>, same), (_ImageData<PixelRGB<float>>, same),
    // (_ImageData<PixelRGBA<float>>, same),
    // (_ImageData<PixelRGB<float>>, Image), (_ImageData<PixelRGB<float>>,
    // BarcTiledImageData); tiled sources take no resize shortcut (they are always
    // resampled, the older scheme at pixel centres).
    template <class Out, class In>
    std::shared_ptr<Out> createTransformedRoi(const In& source, const ResizeParameters& rp) const;

    // Re-renders the rectangle destRect of destination (clipped to it; the empty
    // rectangle means all of it) from the canvas rectangle sourceRect, in place. Pixels
    // outside the rectangle are untouched; a rectangle wholly outside writes nothing.
    // The rotation-only policy does not supersample here. A null destination is logged
    // ("destination is null") and nothing is written; throws as createTransformedRoi.
    // Instantiated for (MaskImage, TiledMaskImage), (_ImageData<uint8_t>, same),
    // (_ImageData<float>, same), (_ImageData<PixelRGB<float>>, same),
    // (_ImageData<PixelRGB<float>>, Image),
    // (_ImageData<PixelRGBA<float>>, same), (_ImageData<PixelRGB<float>>,
    // BarcTiledImageData), (_ImageData<PixelRGB<float>>, KelTiledImageData).
    template <class Out, class In>
    void updateTransformedRoi(const In& source, std::shared_ptr<Out>& destination, const _Rect<float>& sourceRect,
                              const _Rect<int>& destRect) const;

private:
    ImageTransformSettings settings_;
    DataSourceType dataSourceType_;
};

}  // namespace zorl
