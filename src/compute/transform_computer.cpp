// The resampler of the compute units. Layers: the entry points (createTransformedRoi,
// updateTransformedRoi) fetch the source data, build the sampling transform and the
// destination; resample() clips the region, picks the policy and the offset list once
// and runs the row kernel in parallel; sampleRows() knows nothing but a source
// accessor, a destination rectangle, a transform and the offsets.
//
// A source type plugs in through SourceAccess<In>: width(), height(), at(x, y) returning
// the pixel, kCentreSample (sample pixel centres instead of corners) and the load state.

#include <imageprocessing/transform_computer.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <variant>

#include <imageprocessing/tiled_mask_image.h>
#include <zorl/core/image.h>
#include <zorl/core/image_utils.h>
#include <zorl/core/mask_image.h>
#include <zorl/halton/halton.h>

#include "compute/tiled_image_data_access.h"
#include "core/error_log.h"
#include "core/parallel.h"
#include "core/signature.h"

namespace zorl {
namespace {

// ---- pixels as float channels -------------------------------------------------------

template <class P>
struct Channels {
    static constexpr int N = PixelTraits<P>::channels;
    using Channel = typename PixelTraits<P>::Channel;

    static void load(const P& p, float* out) {
        const Channel* c = reinterpret_cast<const Channel*>(&p);
        for (int k = 0; k < N; ++k) out[k] = static_cast<float>(c[k]);
    }
    static P store(const float* v) {
        P p;
        Channel* c = reinterpret_cast<Channel*>(&p);
        for (int k = 0; k < N; ++k) {
            if constexpr (std::is_same_v<Channel, uint8_t>) {
                // Byte renditions: nearest byte, NaN to 0.
                const float clamped = std::min(255.0f, v[k] > 0.0f ? v[k] : 0.0f);
                c[k] = static_cast<uint8_t>(clamped + 0.5f);
            } else {
                c[k] = static_cast<Channel>(v[k]);
            }
        }
        return p;
    }
};

// Value of a destination pixel that no valid sample reaches.
inline constexpr float kRgbBackground = 0.2f;

template <class P>
P backgroundOf() {
    if constexpr (std::is_same_v<P, PixelRGB<float>>) return {kRgbBackground, kRgbBackground, kRgbBackground};
    else if constexpr (std::is_same_v<P, PixelRGBA<float>>) return {kRgbBackground, kRgbBackground, kRgbBackground, 0.0f};
    else return P{};
}

template <class P>
constexpr SupersamplingPolicy policyOf() {
    return std::is_same_v<P, PixelRGB<float>> ? SupersamplingPolicy::ScaleAdaptive : SupersamplingPolicy::RotationOnly;
}

// ---- sources ----------------------------------------------------------------------

template <class In>
struct SourceAccess;

template <class T>
struct SourceAccess<_ImageData<T>> {
    using Pixel = T;
    static constexpr bool kCentreSample = false;

    explicit SourceAccess(const _ImageData<T>& s) : src(s) {}
    int width() const { return src.width(); }
    int height() const { return src.height(); }
    const T& at(int x, int y) const { return src.at(x, y); }
    ImageLoadState loadState() const { return src.getLoadState(); }

    const _ImageData<T>& src;
};

// Tiled masks are read pixel by pixel through getValue (an absent tile reads as the fill
// value; a prepared whole image takes precedence). A mask has no load state of its own:
// it is always complete.
template <>
struct SourceAccess<TiledMaskImage> {
    using Pixel = float;
    static constexpr bool kCentreSample = false;

    explicit SourceAccess(const TiledMaskImage& s) : src(s) {}
    int width() const { return src.width(); }
    int height() const { return src.height(); }
    float at(int x, int y) const { return src.getValue(x, y); }
    ImageLoadState loadState() const { return ImageLoadState::Full; }

    const TiledMaskImage& src;
};

// The tiled RGB stores are read in place, through a table of the tiles that the
// destination region needs (compute/tiled_image_data_access.h).
template <>
struct SourceAccess<KelTiledImageData> : detail::TiledSourceAccess<KelTiledImageData> {
    using TiledSourceAccess::TiledSourceAccess;
};
template <>
struct SourceAccess<BarcTiledImageData> : detail::TiledSourceAccess<BarcTiledImageData> {
    using TiledSourceAccess::TiledSourceAccess;
};
template <class In>
inline constexpr bool kIsTiledStore = std::is_base_of_v<TiledImageData, In>;

// ---- the kernel -------------------------------------------------------------------

// Splits a mapped coordinate into integer part and fraction in [0, 1); false when the
// integer part lies outside 0 .. limit - 1 (NaN too).
inline bool splitCoordinate(float v, int limit, int& index, float& fraction) {
    float integral;
    fraction = std::modf(v, &integral);
    if (fraction < 0.0f) {
        fraction += 1.0f;
        integral -= 1.0f;
    }
    if (!(integral >= 0.0f && integral < static_cast<float>(limit))) return false;
    index = static_cast<int>(integral);
    return true;
}

// Bilinear value at (ix + fx, iy + fy), right and bottom neighbours clamped.
template <class Access, int N>
inline void bilinear(const Access& src, int ix, int iy, float fx, float fy, float* out) {
    using C = Channels<typename Access::Pixel>;
    const int x1 = std::min(ix + 1, src.width() - 1), y1 = std::min(iy + 1, src.height() - 1);
    float p00[N], p10[N], p01[N], p11[N];
    C::load(src.at(ix, iy), p00);
    C::load(src.at(x1, iy), p10);
    C::load(src.at(ix, y1), p01);
    C::load(src.at(x1, y1), p11);
    for (int k = 0; k < N; ++k) {
        const float top = p00[k] + (p10[k] - p00[k]) * fx;
        const float bottom = p01[k] + (p11[k] - p01[k]) * fx;
        out[k] = top + (bottom - top) * fy;
    }
}

// Fills rows [j0, j1) of the region (relative to region.y) of dst.
template <class Access, class OutPixel>
void sampleRows(const Access& src, OutPixel* dst, int dstWidth, const _Rect<int>& region, int j0, int j1,
                const AffineTransform& t, const SampleOffsets& offsets, const OutPixel& background) {
    using C = Channels<OutPixel>;
    constexpr int N = C::N;
    const int w = src.width(), h = src.height();
    for (int j = j0; j < j1; ++j) {
        const int y = region.y + j;
        OutPixel* row = dst + static_cast<std::size_t>(y) * dstWidth;
        for (int x = region.x; x < region.right(); ++x) {
            float sum[N] = {};
            int valid = 0;
            for (int k = 0; k < offsets.count; ++k) {
                const _Point<float> p = t.transformPoint(
                    {static_cast<float>(x) + offsets.points[k].x, static_cast<float>(y) + offsets.points[k].y});
                int ix, iy;
                float fx, fy;
                if (!splitCoordinate(p.x, w, ix, fx) || !splitCoordinate(p.y, h, iy, fy)) continue;
                float v[N];
                bilinear<Access, N>(src, ix, iy, fx, fy, v);
                for (int c = 0; c < N; ++c) sum[c] += v[c];
                ++valid;
                if (!offsets.supersampled) break;
            }
            if (valid == 0) {
                row[x] = background;
            } else {
                if (valid > 1) {
                    for (int c = 0; c < N; ++c) sum[c] /= static_cast<float>(valid);
                }
                row[x] = C::store(sum);
            }
        }
    }
}

// The destination region: the whole destination for the empty rectangle, else clipped
// to it; the empty rectangle when nothing is left.
_Rect<int> destinationRegion(const _Rect<int>& r, _Size<int> size) {
    if (r == kEmptyRect) return {0, 0, size.width, size.height};
    const int x0 = std::max(r.x, 0), y0 = std::max(r.y, 0);
    const int width = std::min(size.width, r.x + r.width) - x0;
    const int height = std::min(size.height, r.y + r.height) - y0;
    if (width <= 0 || height <= 0) return kEmptyRect;
    return {x0, y0, width, height};
}

// Resamples src into the region of dst (clipped); returns false when nothing was
// written.
template <class Access, class OutImage>
bool resample(const Access& src, OutImage& dst, const _Rect<int>& destRect, const AffineTransform& samplingTransform,
              bool allowSupersampling) {
    using OutPixel = typename OutImage::value_type;
    static_assert(std::is_same_v<OutPixel, typename Access::Pixel>, "renditions keep the source's pixel type");
    const _Rect<int> region = destinationRegion(destRect, dst.size());
    if (region.isEmpty()) return false;
    const SampleOffsets offsets =
        sampling::sampleOffsets(policyOf<OutPixel>(), samplingTransform, allowSupersampling, Access::kCentreSample);
    const OutPixel background = backgroundOf<OutPixel>();
    OutPixel* out = dst.data();
    const int dstWidth = dst.width();
    parallelFor(0, region.height, [&](int j0, int j1) {
        sampleRows(src, out, dstWidth, region, j0, j1, samplingTransform, offsets, background);
    });
    dst.setLoadState(src.loadState());
    return true;
}

// ---- Image sources ------------------------------------------------------------------

using RgbData = _ImageData<PixelRGB<float>>;

// The full-size data of an Image that the data-source type selects; null for an
// unknown type or missing data.
std::shared_ptr<const RgbData> fetchImageData(const Image& image, TransformComputer::DataSourceType type,
                                              bool resizeFlag) {
    using Type = TransformComputer::DataSourceType;
    const ResizeParameters whole{image.size(), image.rect(), resizeFlag};
    const auto plain = [&] { return image.imageData(whole.size, whole.rect, whole.resizeFlag); };
    const ImageMetadata& meta = image.metadata();
    const bool denoisedIsPlain = meta.denoiseApplied && meta.denoiseUpToDate;
    switch (type) {
        case Type::ImageData:
            return plain();
        case Type::OriginalImageData:
            return image.originalImageData(whole);
        case Type::DevelopedOriginalImageData: {
            // Shared read-only data: the rendition must own its pixels.
            const auto shared = image.developedOriginalImageData(whole);
            return shared ? std::shared_ptr<const RgbData>(shared->copy(shared->rect())) : nullptr;
        }
        case Type::DenoisedImage:
            if (denoisedIsPlain) return plain();
            return image.getDenoiseResultDataWithCA(whole, DenoiseRaw::params_t{}, false).second;
        case Type::DenoisedImageFirst:
            if (denoisedIsPlain) return plain();
            return image.getDenoiseResultDataWithCA(whole, DenoiseRaw::params_t{}, false).first;
    }
    return nullptr;
}

// The copy path of Image sources: when the sampling transform is an integer
// translation, possibly mirrored, with unit scale, and the whole destination maps into
// the source, every destination pixel's first corner lands exactly on a source pixel
// with zero fractions, so resampling would copy that pixel: copy instead. Returns null
// when the transform does not qualify.
std::shared_ptr<RgbData> copyInsteadOfResampling(const RgbData& data, const AffineTransform& t, _Size<int> size) {
    if (!isFloatEqual(t.maxScale(), 1.0f)) return nullptr;
    const bool unitDiagonal = (t.a == 1.0f || t.a == -1.0f) && (t.d == 1.0f || t.d == -1.0f);
    if (!unitDiagonal || t.b != 0.0f || t.c != 0.0f) return nullptr;
    if (t.tx != std::round(t.tx) || t.ty != std::round(t.ty)) return nullptr;
    const bool flipH = t.a < 0.0f, flipV = t.d < 0.0f;
    const int tx = static_cast<int>(t.tx), ty = static_cast<int>(t.ty);
    // Source columns read: tx .. tx + W - 1, or tx - W + 1 .. tx when mirrored.
    const int left = flipH ? tx - size.width + 1 : tx, top = flipV ? ty - size.height + 1 : ty;
    const _Rect<int> read{left, top, size.width, size.height};
    if (!data.rect().contains(read)) return nullptr;
    std::shared_ptr<RgbData> out;
    if (!flipH && !flipV) {
        data.copyTo(out, read);
        return out;
    }
    // Mirrored source column i holds source column W_src - 1 - i.
    std::shared_ptr<RgbData> mirrored;
    data.copyFlippedTo(mirrored, flipH, flipV);
    const _Rect<int> mirroredRead{flipH ? data.width() - 1 - tx : tx, flipV ? data.height() - 1 - ty : ty, size.width,
                                  size.height};
    mirrored->copyTo(out, mirroredRead);
    return out;
}

// ---- signature texts -----------------------------------------------------------------

template <class T>
struct ClassName;
template <class T>
struct ClassName<_ImageData<T>> {
    static std::string get() {
        return "class zorl::_ImageData<" + sig::typeName<T>() + (std::is_class_v<T> ? std::string(" >") : ">");
    }
};
template <>
struct ClassName<Image> {
    static std::string get() { return "class zorl::Image"; }
};
template <>
struct ClassName<MaskImage> {
    static std::string get() { return "class zorl::MaskImage"; }
};
template <>
struct ClassName<TiledMaskImage> {
    static std::string get() { return "class zorl::TiledMaskImage"; }
};
template <>
struct ClassName<KelTiledImageData> {
    static std::string get() { return "class zorl::KelTiledImageData"; }
};
template <>
struct ClassName<BarcTiledImageData> {
    static std::string get() { return "class zorl::BarcTiledImageData"; }
};

template <class Out, class In>
std::string updateSignature() {
    const std::string out = ClassName<Out>::get(), in = ClassName<In>::get();
    return "void __cdecl zorl::TransformComputer::updateTransformedRoi<" + out + "," + in + ">(const " + in +
           " &,class std::shared_ptr<" + out + " > &,const struct zorl::_Rect<float> &,const struct zorl::_Rect<int> &) const";
}

// The shortcut of createTransformedRoi: an untransformed, uncropped reduction of a
// region that lies inside the source is a plain resize.
bool isPlainReduction(const ImageTransformSettings& s, const ResizeParameters& rp, _Size<int> sourceSize) {
    return s.crop == CropDescription() && s.hasTransform == 0 && rp.rect.width >= rp.size.width &&
           rp.rect.height >= rp.size.height && _Rect<int>(0, 0, sourceSize.width, sourceSize.height).contains(rp.rect);
}

}  // namespace

// ---- offsets ------------------------------------------------------------------------

namespace sampling {

float largestSingularValue(const AffineTransform& t) {
    const float p = t.a * t.a + t.c * t.c;
    const float q = t.b * t.a + t.d * t.c;
    const float r = t.b * t.b + t.d * t.d;
    return std::sqrt((p + r) * 0.5f + std::sqrt(((p - r) * 0.25f) * (p - r) + ((2.0f * q) * 0.25f) * (2.0f * q)));
}

SampleOffsets sampleOffsets(SupersamplingPolicy policy, const AffineTransform& samplingTransform,
                            bool allowSupersampling, bool centreSample) {
    SampleOffsets o;
    if (centreSample) {
        o.points[o.count++] = {0.5f, 0.5f};
    } else {
        for (const _Point<float> corner : {_Point<float>{0, 0}, {1, 0}, {1, 1}, {0, 1}}) o.points[o.count++] = corner;
    }
    int haltonPoints = 0;
    if (policy == SupersamplingPolicy::ScaleAdaptive) {
        const float s = largestSingularValue(samplingTransform);
        if (s >= kSupersampleScale)
            haltonPoints = static_cast<int>(std::round(std::min(2.0 * s, static_cast<double>(kMaxHaltonPoints))));
    } else if (allowSupersampling && (std::fabs(samplingTransform.b) > kRotationEpsilon ||
                                      std::fabs(samplingTransform.c) > kRotationEpsilon)) {
        haltonPoints = kRotationHaltonPoints;
    }
    for (int i = 0; i < haltonPoints; ++i) {
        float point[2];
        halton(i, 2, nullptr, nullptr, point);
        o.points[o.count++] = {point[0], point[1]};
    }
    o.supersampled = haltonPoints > 0;
    return o;
}

}  // namespace sampling

// ---- TransformComputer -------------------------------------------------------------

TransformComputer::TransformComputer(DataSourceType type) : dataSourceType_(type) {}

TransformComputer::TransformComputer(const ImageTransformSettings& settings, DataSourceType type)
    : settings_(settings), dataSourceType_(type) {}

ResizeParameters TransformComputer::getWorkingResizeParameters() const {
    const _Rect<float>& r = settings_.region;
    return {settings_.workingSize,
            {static_cast<int>(r.x), static_cast<int>(r.y), static_cast<int>(r.width), static_cast<int>(r.height)},
            true};
}

_Size<int> TransformComputer::calculateCanvasSize() const {
    if (settings_.crop != CropDescription()) return settings_.crop.getCropRect().size();
    return settings_.canvasSize;
}

_Rect<float> TransformComputer::calculateCanvasRoi() const {
    const _Size<int> s = calculateCanvasSize();
    return {0.0f, 0.0f, static_cast<float>(s.width), static_cast<float>(s.height)};
}

template <class Out, class In>
std::shared_ptr<Out> TransformComputer::createTransformedRoi(const In& source, const ResizeParameters& rp) const {
    if constexpr (std::is_same_v<In, Image>) {
        const std::shared_ptr<const RgbData> data = fetchImageData(source, dataSourceType_, rp.resizeFlag);
        if (!data) return nullptr;
        if (isPlainReduction(settings_, rp, data->size())) return data->resize(rp.size, rp.rect, rp.resizeFlag);
        if (rp.size.isEmpty()) return nullptr;
        const AffineTransform t = settings_.getSamplingTransform(_Rect<float>(rp.rect), rp.size);
        if (auto copied = copyInsteadOfResampling(*data, t, rp.size)) return copied;
        auto dst = std::make_shared<Out>(rp.size, data->colorProfile());
        resample(SourceAccess<RgbData>(*data), *dst, kNoRegion, t, true);
        return dst;
    } else if constexpr (std::is_same_v<In, TiledMaskImage>) {
        // No resize shortcut: a tiled mask has no region resize of its own.
        if (rp.size.isEmpty()) return nullptr;
        const AffineTransform t = settings_.getSamplingTransform(_Rect<float>(rp.rect), rp.size);
        auto dst = std::make_shared<MaskImage>(rp.size, 0.0f);
        resample(SourceAccess<In>(source), *dst, kNoRegion, t, true);
        return dst;
    } else if constexpr (kIsTiledStore<In>) {
        // No resize shortcut: it would build a dense copy of the whole canvas region.
        if (rp.size.isEmpty()) return nullptr;
        const AffineTransform t = settings_.getSamplingTransform(_Rect<float>(rp.rect), rp.size);
        auto dst = std::make_shared<Out>(rp.size, source.colorProfile());
        resample(SourceAccess<In>(source, t, dst->rect()), *dst, kNoRegion, t, true);
        return dst;
    } else {
        if (isPlainReduction(settings_, rp, source.size())) return source.resize(rp.size, rp.rect, rp.resizeFlag);
        if (rp.size.isEmpty()) return nullptr;
        const AffineTransform t = settings_.getSamplingTransform(_Rect<float>(rp.rect), rp.size);
        auto dst = std::make_shared<Out>(rp.size, source.colorProfile());
        resample(SourceAccess<In>(source), *dst, kNoRegion, t, true);
        return dst;
    }
}

template <class Out, class In>
void TransformComputer::updateTransformedRoi(const In& source, std::shared_ptr<Out>& destination,
                                             const _Rect<float>& sourceRect, const _Rect<int>& destRect) const {
    if (!checkNotNull(destination, updateSignature<Out, In>(), "destination is null")) return;
    const AffineTransform t = settings_.getSamplingTransform(sourceRect, destination->size());
    if (destinationRegion(destRect, destination->size()).isEmpty()) return;
    if constexpr (std::is_same_v<In, Image>) {
        const std::shared_ptr<const RgbData> data = fetchImageData(source, dataSourceType_, true);
        if (!data) return;
        resample(SourceAccess<RgbData>(*data), *destination, destRect, t, false);
    } else if constexpr (kIsTiledStore<In>) {
        const SourceAccess<In> access(source, t, destinationRegion(destRect, destination->size()));
        resample(access, *destination, destRect, t, false);
    } else {
        resample(SourceAccess<In>(source), *destination, destRect, t, false);
    }
}

#define ZORL_TC_CREATE(OUT, IN) \
    template ZORL_IP_EXPORT std::shared_ptr<OUT> TransformComputer::createTransformedRoi<OUT, IN>(const IN&, const ResizeParameters&) const;
#define ZORL_TC_UPDATE(OUT, IN)                                                                              \
    template ZORL_IP_EXPORT void TransformComputer::updateTransformedRoi<OUT, IN>(const IN&, std::shared_ptr<OUT>&, \
                                                                                 const _Rect<float>&, const _Rect<int>&) const;

ZORL_TC_CREATE(_ImageData<uint8_t>, _ImageData<uint8_t>)
ZORL_TC_CREATE(_ImageData<float>, _ImageData<float>)
ZORL_TC_CREATE(_ImageData<PixelRGB<float>>, _ImageData<PixelRGB<float>>)
ZORL_TC_CREATE(_ImageData<PixelRGBA<float>>, _ImageData<PixelRGBA<float>>)
ZORL_TC_CREATE(_ImageData<PixelRGB<float>>, Image)
ZORL_TC_CREATE(MaskImage, TiledMaskImage)
ZORL_TC_CREATE(_ImageData<PixelRGB<float>>, BarcTiledImageData)

ZORL_TC_UPDATE(_ImageData<uint8_t>, _ImageData<uint8_t>)
ZORL_TC_UPDATE(_ImageData<float>, _ImageData<float>)
ZORL_TC_UPDATE(_ImageData<PixelRGB<float>>, _ImageData<PixelRGB<float>>)
ZORL_TC_UPDATE(_ImageData<PixelRGBA<float>>, _ImageData<PixelRGBA<float>>)
ZORL_TC_UPDATE(_ImageData<PixelRGB<float>>, Image)
ZORL_TC_UPDATE(MaskImage, TiledMaskImage)
ZORL_TC_UPDATE(_ImageData<PixelRGB<float>>, BarcTiledImageData)
ZORL_TC_UPDATE(_ImageData<PixelRGB<float>>, KelTiledImageData)

#undef ZORL_TC_CREATE
#undef ZORL_TC_UPDATE

}  // namespace zorl
