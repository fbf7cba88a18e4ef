#include <imageprocessing/image_data_compute_unit.h>

#include <algorithm>
#include <cmath>
#include <iostream>
#include <utility>
#include <variant>

#include <imageprocessing/tiled_image_data_stores.h>
#include <imageprocessing/tiled_mask_image.h>
#include <zorl/core/image.h>

namespace zorl {
namespace {

template <class In>
_Size<int> sourceSize(const In& source) {
    return source.size();
}

// The transform parameters of two settings differ: flag, kind, or affine transform.
bool transformDiffers(const ImageTransformSettings& a, const ImageTransformSettings& b) {
    if (a.hasTransform != b.hasTransform) return true;
    if (a.transformParameters.index() != b.transformParameters.index()) return true;
    if (a.transformParameters.index() == 0 &&
        std::get<AffineTransform>(a.transformParameters) != std::get<AffineTransform>(b.transformParameters))
        return true;
    return a.crop != b.crop;
}

// The update rectangle grown by rect (the empty rectangle is "none").
_Rect<int> grown(const _Rect<int>& current, const _Rect<int>& rect) {
    if (current == kEmptyRect) return rect;
    const int x0 = std::min(current.x, rect.x), y0 = std::min(current.y, rect.y);
    const int x1 = std::max(current.right(), rect.right()), y1 = std::max(current.bottom(), rect.bottom());
    return {x0, y0, x1 - x0, y1 - y0};
}

_Rect<int> truncated(const _Rect<float>& r) {
    return {static_cast<int>(r.x), static_cast<int>(r.y), static_cast<int>(r.width), static_cast<int>(r.height)};
}

}  // namespace

template <class Out, class In>
ImageDataComputeUnit<Out, In>::ImageDataComputeUnit(InPtr source) : source_(std::move(source)) {}

template <class Out, class In>
ImageDataComputeUnit<Out, In>::ImageDataComputeUnit(const ImageDataComputeUnit& other) = default;

template <class Out, class In>
ImageDataComputeUnit<Out, In>& ImageDataComputeUnit<Out, In>::operator=(const ImageDataComputeUnit& other) = default;

template <class Out, class In>
ImageDataComputeUnit<Out, In>::~ImageDataComputeUnit() = default;

template <class Out, class In>
void ImageDataComputeUnit<Out, In>::setTransform(const ImageTransformSettings& settings) {
    const ImageTransformSettings& current = transformComputer_.settings();
    if (settings != current) {
        workingImage_.reset();
        workingImageUpdateRect_ = kEmptyRect;
    }
    const bool geometryChanged = transformDiffers(settings, current);
    if (geometryChanged || settings.canvasSize != current.canvasSize) thumbnail_.reset();
    if (geometryChanged) {
        preview_.reset();
        previewUpdateRect_ = kEmptyRect;
    }
    transformComputer_ = TransformComputer(settings, transformComputer_.dataSourceType());
}

template <class Out, class In>
typename ImageDataComputeUnit<Out, In>::OutConstPtr ImageDataComputeUnit<Out, In>::workingImage() {
    if (!workingImage_) workingImage_ = createWorkingImage();
    return workingImage_;
}

template <class Out, class In>
typename ImageDataComputeUnit<Out, In>::OutConstPtr ImageDataComputeUnit<Out, In>::preview() {
    if (!preview_) preview_ = createPreview();
    return preview_;
}

template <class Out, class In>
typename ImageDataComputeUnit<Out, In>::OutConstPtr ImageDataComputeUnit<Out, In>::thumbnail() {
    if (!thumbnail_) thumbnail_ = createThumbnail();
    return thumbnail_;
}

template <class Out, class In>
void ImageDataComputeUnit<Out, In>::clearThumbnail() {
    thumbnail_.reset();
}

template <class Out, class In>
void ImageDataComputeUnit<Out, In>::clearCache() {
    thumbnail_.reset();
    workingImage_.reset();
    preview_.reset();
}

template <class Out, class In>
_Size<int> ImageDataComputeUnit<Out, In>::getPreviewSize() const {
    const _Size<int> canvas = transformComputer_.calculateCanvasSize();
    if (canvas.width <= 0 || canvas.height <= 0) return kEmptySize;
    const float w = static_cast<float>(canvas.width), h = static_cast<float>(canvas.height);
    const float side = static_cast<float>(kPreviewSide);
    const float k = std::min(side / h, side / w);
    return {static_cast<int>(std::roundf(w * k)), static_cast<int>(std::roundf(h * k))};
}

template <class Out, class In>
_Size<int> ImageDataComputeUnit<Out, In>::getThumbnailSize() const {
    const _Size<int> canvas = transformComputer_.calculateCanvasSize();
    const int width = std::min(canvas.width / 4, kThumbnailMaxWidth);
    if (width == 0 || canvas.width == 0) return {width, 0};
    const float height = std::roundf(static_cast<float>(width) / static_cast<float>(canvas.width) *
                                     static_cast<float>(canvas.height));
    return {width, static_cast<int>(height)};
}

template <class Out, class In>
_Rect<float> ImageDataComputeUnit<Out, In>::getPreviewRoi() const {
    return transformComputer_.calculateCanvasRoi();
}

template <class Out, class In>
_Rect<float> ImageDataComputeUnit<Out, In>::getThumbnailRoi() const {
    return transformComputer_.calculateCanvasRoi();
}

template <class Out, class In>
_Rect<int> ImageDataComputeUnit<Out, In>::imageRectForRect(const _Rect<int>& rect, const _Rect<float>& roi,
                                                          const _Size<int>& size) const {
    if (roi.width == 0.0f || roi.height == 0.0f || size.width == 0 || size.height == 0) return kEmptyRect;
    ImageTransformSettings settings = transformComputer_.settings();
    settings.region = roi;
    settings.workingSize = size;
    const _Rect<int> mapped = settings.getCombinedTransform().enclosingRect(rect);
    const int x0 = std::max(mapped.x, 0), y0 = std::max(mapped.y, 0);
    const int width = std::min(mapped.right(), size.width) - x0;
    const int height = std::min(mapped.bottom(), size.height) - y0;
    if (width <= 0 || height <= 0) return kEmptyRect;
    return {x0, y0, width, height};
}

template <class Out, class In>
_Rect<int> ImageDataComputeUnit<Out, In>::workingRectForRect(const _Rect<int>& rect) const {
    const ImageTransformSettings& s = transformComputer_.settings();
    return imageRectForRect(rect, s.region, s.workingSize);
}

template <class Out, class In>
_Rect<int> ImageDataComputeUnit<Out, In>::previewRectForRect(const _Rect<int>& rect) const {
    return imageRectForRect(rect, getPreviewRoi(), getPreviewSize());
}

template <class Out, class In>
void ImageDataComputeUnit<Out, In>::markWorkingImageUpdatedInRect(const _Rect<int>& rect) {
    workingImageUpdateRect_ = grown(workingImageUpdateRect_, rect);
}

template <class Out, class In>
void ImageDataComputeUnit<Out, In>::markPreviewUpdatedInRect(const _Rect<int>& rect) {
    previewUpdateRect_ = grown(previewUpdateRect_, rect);
}

template <class Out, class In>
_Rect<int> ImageDataComputeUnit<Out, In>::getWorkingImageUpdateRect() {
    return std::exchange(workingImageUpdateRect_, kEmptyRect);
}

template <class Out, class In>
_Rect<int> ImageDataComputeUnit<Out, In>::getPreviewUpdateRect() {
    return std::exchange(previewUpdateRect_, kEmptyRect);
}

template <class Out, class In>
bool ImageDataComputeUnit<Out, In>::acceptsUpdate(const std::shared_ptr<const In>& data, const _Rect<int>& rect) const {
    if (!data) return false;
    const _Size<int> size = sourceSize(*source_);
    if (sourceSize(*data) != size) return false;
    return rect.x >= 0 && rect.y >= 0 && rect.x + rect.width <= size.width && rect.y + rect.height <= size.height;
}

template <class Out, class In>
void ImageDataComputeUnit<Out, In>::updateWorkingImage(const std::shared_ptr<const In>& data, const _Rect<int>& rect) {
    if (!source_) {
        std::cout << "Should not be here." << std::endl;
        return;
    }
    if (!acceptsUpdate(data, rect)) return;
    const ImageTransformSettings& s = transformComputer_.settings();
    const _Rect<int> target = imageRectForRect(rect, s.region, s.workingSize);
    if (!target.isEmpty() && workingImage_) {
        transformComputer_.updateTransformedRoi(*source_, workingImage_, s.region, target);
        markWorkingImageUpdatedInRect(target);
    }
    thumbnail_.reset();
}

template <class Out, class In>
void ImageDataComputeUnit<Out, In>::updatePreview(const std::shared_ptr<const In>& data, const _Rect<int>& rect) {
    if (!source_) {
        std::cout << "Should not be here." << std::endl;
        return;
    }
    if (!acceptsUpdate(data, rect)) return;
    const _Rect<int> target = previewRectForRect(rect);
    if (!target.isEmpty() && preview_) {
        transformComputer_.updateTransformedRoi(*source_, preview_, getPreviewRoi(), target);
        markPreviewUpdatedInRect(target);
    }
}

template <class Out, class In>
ResizeParameters ImageDataComputeUnit<Out, In>::canvasParameters(_Size<int> size) const {
    return {size, truncated(transformComputer_.calculateCanvasRoi()), true};
}

template <class Out, class In>
typename ImageDataComputeUnit<Out, In>::OutPtr ImageDataComputeUnit<Out, In>::createWorkingImage() {
    if (!source_) return nullptr;
    OutPtr out = transformComputer_.template createTransformedRoi<Out, In>(
        *source_, transformComputer_.getWorkingResizeParameters());
    workingImageUpdateRect_ = out ? _Rect<int>(0, 0, out->width(), out->height()) : kEmptyRect;
    return out;
}

template <class Out, class In>
typename ImageDataComputeUnit<Out, In>::OutPtr ImageDataComputeUnit<Out, In>::createPreview() {
    if (!source_) return nullptr;
    OutPtr out = transformComputer_.template createTransformedRoi<Out, In>(*source_, canvasParameters(getPreviewSize()));
    previewUpdateRect_ = out ? _Rect<int>(0, 0, out->width(), out->height()) : kEmptyRect;
    return out;
}

template <class Out, class In>
typename ImageDataComputeUnit<Out, In>::OutPtr ImageDataComputeUnit<Out, In>::createThumbnail() {
    if (!source_) return nullptr;
    return transformComputer_.template createTransformedRoi<Out, In>(*source_, canvasParameters(getThumbnailSize()));
}

template class ZORL_IP_EXPORT ImageDataComputeUnit<_ImageData<uint8_t>, _ImageData<uint8_t>>;
template class ZORL_IP_EXPORT ImageDataComputeUnit<_ImageData<float>, _ImageData<float>>;
template class ZORL_IP_EXPORT ImageDataComputeUnit<_ImageData<PixelRGB<float>>, _ImageData<PixelRGB<float>>>;
template class ZORL_IP_EXPORT ImageDataComputeUnit<_ImageData<PixelRGB<float>>, Image>;
template class ZORL_IP_EXPORT ImageDataComputeUnit<_ImageData<PixelRGB<float>>, BarcTiledImageData>;
template class ZORL_IP_EXPORT ImageDataComputeUnit<_ImageData<PixelRGBA<float>>, _ImageData<PixelRGBA<float>>>;
template class ZORL_IP_EXPORT ImageDataComputeUnit<MaskImage, TiledMaskImage>;

}  // namespace zorl
