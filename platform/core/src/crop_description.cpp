#include <zorl/core/crop_description.h>

#include <numbers>

namespace zorl {

AffineTransform CropDescription::getAffineTransformForCanvas(const _Size<int>& canvasSize) const {
    if (*this == CropDescription()) return AffineTransform();
    const float cx = (static_cast<float>(canvasSize.width) - 1.0f) * 0.5f;
    const float cy = (static_cast<float>(canvasSize.height) - 1.0f) * 0.5f;
    AffineTransform t = AffineTransform::makeTranslation(-cx, -cy);
    t.append(AffineTransform::makeScale(flipHorizontal ? -1.0f : 1.0f, flipVertical ? -1.0f : 1.0f));
    if (angle != 0.0f) t.append(AffineTransform::makeRotation(static_cast<double>(angle) * std::numbers::pi / 180.0));
    t.append(AffineTransform::makeTranslation(cx - static_cast<float>(rect.x), cy - static_cast<float>(rect.y)));
    return t;
}

bool CropDescription::operator==(const CropDescription& o) const {
    return rect == o.rect && angle == o.angle && flipHorizontal == o.flipHorizontal && flipVertical == o.flipVertical;
}

}  // namespace zorl
