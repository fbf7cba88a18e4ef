#pragma once
// ImageDataComputeUnit<Out, In>: one source and three lazily built renditions of it,
// each framed by the source's ImageTransformSettings:
// - the working image: the settings' region at the settings' working size;
// - the preview: the whole canvas fitted into 500 x 500 (enlarged as well as reduced);
// - the thumbnail: the whole canvas at most 120 pixels wide (a quarter of the canvas
//   width at most).
// A rendition is built on first request and kept until the settings change its geometry
// or the caller drops it. When the caller has changed the source's pixels in a
// rectangle, updateWorkingImage / updatePreview re-render only the matching rectangle of
// the rendition and accumulate it in an update rectangle that the caller collects.
// All pixel work is done by the unit's TransformComputer.
//
// Instantiated for (Out, In) = (MaskImage, TiledMaskImage), (_ImageData<uint8_t>, same),
// (_ImageData<float>, same),
// (_ImageData<PixelRGB<float>>, same), (_ImageData<PixelRGB<float>>, Image),
// (_ImageData<PixelRGBA<float>>, same), (_ImageData<PixelRGB<float>>, BarcTiledImageData).
//
// Not thread-safe: one unit must not be used from two threads at once. Renditions are
// handed out as shared pointers to const data; a reader may keep one while the unit
// drops or rebuilds its own reference (an update writes into the unit's current
// rendition in place). Copies of a unit share the source and the current renditions.

#include <memory>

#include <imageprocessing/export.h>
#include <imageprocessing/transform_computer.h>
#include <zorl/core/geometry.h>
#include <zorl/core/image_transform_settings.h>

namespace zorl {

// Largest side of the preview.
inline constexpr int kPreviewSide = 500;
// Largest width of the thumbnail.
inline constexpr int kThumbnailMaxWidth = 120;

template <class Out, class In>
class ZORL_IP_EXPORT ImageDataComputeUnit {
public:
    using OutPtr = std::shared_ptr<Out>;
    using OutConstPtr = std::shared_ptr<const Out>;
    using InPtr = std::shared_ptr<In>;

    // Renditions and update rectangles empty, default TransformComputer.
    explicit ImageDataComputeUnit(InPtr source);
    ImageDataComputeUnit(const ImageDataComputeUnit& other);
    ImageDataComputeUnit& operator=(const ImageDataComputeUnit& other);
    virtual ~ImageDataComputeUnit();

    InPtr image() const { return source_; }
    ImageTransformSettings imageTransformSettings() const { return transformComputer_.settings(); }
    // Stores new settings, dropping the renditions whose geometry they change:
    // - any change drops the working image (and resets its update rectangle);
    // - a change of the transform flag, the transform parameters (their kind or the
    //   affine transform), the crop or the canvas size drops the thumbnail;
    // - a change of the transform flag, the transform parameters or the crop drops the
    //   preview (and resets its update rectangle).
    void setTransform(const ImageTransformSettings& settings);

    // The renditions, built on first request. Null when a rendition cannot be built (an
    // empty size, missing Image data); the next request tries again.
    OutConstPtr workingImage();
    OutConstPtr preview();
    OutConstPtr thumbnail();
    bool hasWorkingImage() const { return workingImage_ != nullptr; }
    bool hasThumbnail() const { return thumbnail_ != nullptr; }
    void clearThumbnail();
    void clearCache();

    // Canvas W x H: preview k = min(500 / H, 500 / W), size (roundf(W k), roundf(H k));
    // 0 x 0 for an empty canvas.
    _Size<int> getPreviewSize() const;
    // Width min(W / 4, 120); height roundf(width / W * H), 0 when the width is 0.
    _Size<int> getThumbnailSize() const;
    _Rect<float> getPreviewRoi() const;
    _Rect<float> getThumbnailRoi() const;

    // The rectangle of a rendition that the source rectangle rect maps onto: the source
    // rectangle mapped by the combined transform of the settings with region roi and
    // working size `size`, enclosed in whole pixels and clipped to (0, 0, size). The
    // empty rectangle when roi or size has a zero side, or nothing is left. Throws
    // std::bad_variant_access as TransformComputer does.
    // The mapping is of areas, the resampler's of corner positions: where an axis is
    // mirrored or rotated, or a pixel is supersampled, the pixels that read a changed
    // source pixel can reach one pixel beyond the mapped rectangle. Callers that must
    // refresh every such pixel pass the changed rectangle grown by one (rect.inset(-1, -1)).
    _Rect<int> imageRectForRect(const _Rect<int>& rect, const _Rect<float>& roi, const _Size<int>& size) const;
    _Rect<int> workingRectForRect(const _Rect<int>& rect) const;
    _Rect<int> previewRectForRect(const _Rect<int>& rect) const;

    // Grow the update rectangle to the bounding box of it and rect.
    void markWorkingImageUpdatedInRect(const _Rect<int>& rect);
    void markPreviewUpdatedInRect(const _Rect<int>& rect);
    // Return the update rectangle and reset it to the empty rectangle.
    _Rect<int> getWorkingImageUpdateRect();
    _Rect<int> getPreviewUpdateRect();

    // The caller changed the source's pixels in rect (source pixels) and passes the
    // source (data serves only to check its size: pixels are read from the unit's own
    // source). When data has the source's size and rect lies inside the source, the
    // matching rectangle of the working image (if built) is re-rendered and marked, and
    // the thumbnail dropped; otherwise nothing happens. Without a source the line
    // "Should not be here." goes to standard output.
    void updateWorkingImage(const std::shared_ptr<const In>& data, const _Rect<int>& rect);
    // The same for the preview; the thumbnail is kept.
    void updatePreview(const std::shared_ptr<const In>& data, const _Rect<int>& rect);

protected:
    OutPtr createWorkingImage();
    OutPtr createPreview();
    OutPtr createThumbnail();

private:
    // The size and bounds test of the update calls.
    bool acceptsUpdate(const std::shared_ptr<const In>& data, const _Rect<int>& rect) const;
    ResizeParameters canvasParameters(_Size<int> size) const;

    InPtr source_;
    OutPtr thumbnail_;
    OutPtr preview_;
    OutPtr workingImage_;
    _Rect<int> workingImageUpdateRect_{};
    _Rect<int> previewUpdateRect_{};
    TransformComputer transformComputer_;
};

}  // namespace zorl
