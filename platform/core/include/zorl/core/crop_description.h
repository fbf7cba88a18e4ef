#pragma once
// CropDescription: how the editor frames a photo: flips, a rotation about the image
// centre and a crop rectangle.
//
// Coordinates. Pixel values sit at integer positions (a pixel's top-left corner), so
// the centre of a W x H image is ((W - 1) / 2, (H - 1) / 2): flipping or rotating by a
// multiple of 90 degrees about it maps pixel positions onto pixel positions.
// A source pixel position p becomes a canvas position by, in this order:
//   1. mirroring about the centre (x -> 2 cx - x when flipHorizontal, y -> 2 cy - y when
//      flipVertical);
//   2. rotating about the centre by `angle` degrees (a = d = cos, b = sin, c = -sin:
//      clockwise on screen, where y points down);
//   3. moving the crop rectangle's top-left corner to (0, 0).
// The crop rectangle is expressed in the flipped-and-rotated frame of step 2 and its
// size is the canvas size. The default value (empty rectangle, angle 0, no flips) is
// "no crop" and maps by the identity. A crop that only rotates or flips still names
// its rectangle (the full image, say): the rectangle is the canvas.

#include <zorl/core/affine_transform.h>
#include <zorl/core/export.h>
#include <zorl/core/geometry.h>

namespace zorl {

struct ZORL_CORE_EXPORT CropDescription {
    _Rect<int> rect{};          // crop rectangle in the rotated frame; empty = no crop
    float angle = 0.0f;         // rotation about the image centre, degrees
    bool flipHorizontal = false;
    bool flipVertical = false;

    CropDescription() = default;
    CropDescription(_Rect<int> cropRect, float angleDegrees, bool flipH, bool flipV)
        : rect(cropRect), angle(angleDegrees), flipHorizontal(flipH), flipVertical(flipV) {}

    _Rect<int> getCropRect() const { return rect; }
    // The map from source pixel positions to cropped-canvas positions for a source of
    // canvasSize (see the top of this file). Identity for the default value.
    AffineTransform getAffineTransformForCanvas(const _Size<int>& canvasSize) const;

    // Member-wise, exact (the angle too).
    bool operator==(const CropDescription& o) const;
    bool operator!=(const CropDescription& o) const { return !(*this == o); }
};

}  // namespace zorl
