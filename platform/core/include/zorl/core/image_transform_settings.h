#pragma once
// ImageTransformSettings: how one rendition of an image is framed: the source canvas,
// the crop, an optional extra transform, and the region of the canvas shown at the
// working size. ResizeParameters: the request for one rendition.
//
// Three maps, all built here so that every user composes them the same way:
// - canvas transform: source pixel -> canvas pixel. The crop's
//   getAffineTransformForCanvas(canvasSize) = A; with hasTransform set, T then A
//   (T = the AffineTransform held by transformParameters).
// - sampling transform for a source rectangle R (canvas pixels) and a destination of
//   W x H: destination pixel -> source pixel: identity, translate(round(R.x),
//   round(R.y)), scale(round(R.width) / W, round(R.height) / H), then append the
//   inverse of the canvas transform. round is half away from zero.
// - combined transform: source pixel -> working-rendition pixel, exactly the inverse of
//   the sampling transform for (region, workingSize).

#include <cstdint>
#include <variant>

#include <zorl/core/affine_transform.h>
#include <zorl/core/crop_description.h>
#include <zorl/core/export.h>
#include <zorl/core/geometry.h>

namespace zorl {

// The request for one rendition of an image: its size, the region of the canvas it
// shows (canvas pixels) and the smoothing flag handed to the resizers.
struct ResizeParameters {
    _Size<int> size{};
    _Rect<int> rect{};
    bool resizeFlag = true;

    bool operator==(const ResizeParameters&) const = default;
};

struct ZORL_CORE_EXPORT ImageTransformSettings {
    // The extra transform. Only the AffineTransform alternative is applied; the second
    // alternative stands for transform kinds the resamplers do not handle, and asking
    // for the canvas transform of settings that hold it throws std::bad_variant_access.
    using TransformParameters = std::variant<AffineTransform, std::monostate>;

    _Size<int> canvasSize{};             // size of the full source canvas
    _Rect<float> region{};               // region of interest, canvas pixels
    _Size<int> workingSize{};            // size of the working rendition
    int32_t hasTransform = 0;            // 1: transformParameters applies
    TransformParameters transformParameters{AffineTransform()};
    CropDescription crop{};

    bool operator==(const ImageTransformSettings& o) const;
    bool operator!=(const ImageTransformSettings& o) const { return !(*this == o); }

    // Source pixel -> canvas pixel (see the top of this file). Throws
    // std::bad_variant_access when hasTransform is set and the parameters do not hold an
    // AffineTransform.
    AffineTransform getCanvasTransform() const;
    // Destination pixel -> source pixel for a destination of `size` showing `sourceRect`
    // of the canvas. Throws as getCanvasTransform.
    AffineTransform getSamplingTransform(const _Rect<float>& sourceRect, const _Size<int>& size) const;
    // Source pixel -> working-rendition pixel: the inverse of
    // getSamplingTransform(region, workingSize); the identity when that is singular (an
    // empty region or working size). Throws as getCanvasTransform.
    AffineTransform getCombinedTransform() const;
    // A position of the working rendition as a source pixel position (the sampling
    // transform for region and workingSize). Throws as getCanvasTransform.
    _Point<float> transformPointToImageCoordinateSystem(const _Point<float>& renditionPoint) const;
};

}  // namespace zorl
