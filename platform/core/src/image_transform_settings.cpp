#include <zorl/core/image_transform_settings.h>

#include <cmath>

namespace zorl {

bool ImageTransformSettings::operator==(const ImageTransformSettings& o) const {
    return canvasSize == o.canvasSize && region == o.region && workingSize == o.workingSize &&
           hasTransform == o.hasTransform && transformParameters == o.transformParameters && crop == o.crop;
}

AffineTransform ImageTransformSettings::getCanvasTransform() const {
    const AffineTransform cropTransform = crop.getAffineTransformForCanvas(canvasSize);
    if (hasTransform == 0) return cropTransform;
    AffineTransform t = std::get<AffineTransform>(transformParameters);
    t.append(cropTransform);
    return t;
}

AffineTransform ImageTransformSettings::getSamplingTransform(const _Rect<float>& sourceRect,
                                                             const _Size<int>& size) const {
    AffineTransform canvasToSource = getCanvasTransform();
    canvasToSource.invert();  // a singular canvas transform is left as it is
    AffineTransform t;
    t.translate(std::round(sourceRect.x), std::round(sourceRect.y));
    t.scale(std::round(sourceRect.width) / static_cast<float>(size.width),
            std::round(sourceRect.height) / static_cast<float>(size.height));
    t.append(canvasToSource);
    return t;
}

AffineTransform ImageTransformSettings::getCombinedTransform() const {
    return getSamplingTransform(region, workingSize).inverted();
}

_Point<float> ImageTransformSettings::transformPointToImageCoordinateSystem(const _Point<float>& renditionPoint) const {
    return getSamplingTransform(region, workingSize).transformPoint(renditionPoint);
}

}  // namespace zorl
