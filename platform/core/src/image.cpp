#include <zorl/core/image.h>

#include <algorithm>

namespace zorl {
namespace {

using Data = _ImageData<PixelRGB<float>>;

// The request applied to full-size data: itself for the whole image at full size,
// else a resized copy of the region.
std::shared_ptr<const Data> answer(const std::shared_ptr<const Data>& full, _Size<int> size, _Rect<int> rect,
                                   bool resizeFlag) {
    if (!full) return nullptr;
    const _Rect<int> region = rect.isEmpty() ? full->rect() : rect.intersection(full->rect());
    if (region.isEmpty()) return nullptr;
    const _Size<int> outSize = size.isEmpty() ? region.size() : size;
    if (region == full->rect() && outSize == full->size()) return full;
    return full->resize(outSize, region, resizeFlag);
}

std::shared_ptr<Data> scaled(const Data& src, float gain) {
    auto out = std::make_shared<Data>(src);
    PixelRGB<float>* p = out->data();
    for (std::size_t i = 0, n = out->pixelCount(); i < n; ++i) p[i] = {p[i].r * gain, p[i].g * gain, p[i].b * gain};
    return out;
}

// 3 x 3 box mean, edge pixels repeated.
std::shared_ptr<Data> boxMean3(const Data& src) {
    auto out = std::make_shared<Data>(src);
    const int w = src.width(), h = src.height();
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            float r = 0, g = 0, b = 0;
            for (int dy = -1; dy <= 1; ++dy) {
                for (int dx = -1; dx <= 1; ++dx) {
                    const PixelRGB<float>& q = src.at(std::clamp(x + dx, 0, w - 1), std::clamp(y + dy, 0, h - 1));
                    r += q.r, g += q.g, b += q.b;
                }
            }
            out->at(x, y) = {r / 9.0f, g / 9.0f, b / 9.0f};
        }
    }
    return out;
}

std::shared_ptr<Data> privateCopy(const std::shared_ptr<const Data>& d) {
    return d ? std::make_shared<Data>(*d) : nullptr;
}

}  // namespace

BaseImage::BaseImage(std::shared_ptr<const Data> original)
    : original_(std::move(original)), status_(original_ ? Status::Loaded : Status::Empty) {}

BaseImage::~BaseImage() = default;

ColorProfilePtr BaseImage::colorProfile() const { return original_ ? original_->colorProfile() : nullptr; }

_Size<int> BaseImage::size() const { return original_ ? original_->size() : kEmptySize; }

Image::Image(std::shared_ptr<const Data> original)
    : BaseImage(std::move(original)), modified_(privateCopy(original_)) {}

Image::~Image() = default;

void Image::notifyModified(const _Rect<int>& rect) const {
    if (listener_) listener_(rect);
}

std::shared_ptr<const Data> Image::imageData(_Size<int> size, _Rect<int> rect, bool resizeFlag) const {
    return answer(modified_, size, rect, resizeFlag);
}

std::shared_ptr<const Data> Image::originalImageData(const ResizeParameters& rp) const {
    return answer(original_, rp.size, rp.rect, rp.resizeFlag);
}

std::shared_ptr<const Data> Image::developedOriginalImageData(const ResizeParameters& rp) const {
    std::shared_ptr<const Data> full;
    {
        std::lock_guard<std::mutex> lock(cacheMutex_);
        if (!developed_ && original_) developed_ = scaled(*original_, kDevelopGain);
        full = developed_;
    }
    return answer(full, rp.size, rp.rect, rp.resizeFlag);
}

DenoisedResult Image::getDenoiseResultDataWithCA(const ResizeParameters& rp, const DenoiseRaw::params_t& params,
                                                 bool cancelable) const {
    std::shared_ptr<const Data> full;
    {
        std::lock_guard<std::mutex> lock(cacheMutex_);
        if (!denoised_ && original_) denoised_ = boxMean3(*original_);
        full = denoised_;
    }
    DenoisedResult result;
    result.first = privateCopy(answer(full, rp.size, rp.rect, rp.resizeFlag));
    if (result.first) result.second = scaled(*result.first, kDevelopGain);
    return result;
}

}  // namespace zorl
