// Blend modes. Layers of this file:
//   - channel and pixel rules (inline, shared by the exported per-pixel functions and the
//     loops, so both compute exactly the same arithmetic);
//   - span kernels that blend the pixels [begin, end) of flat buffers;
//   - the region walker that turns (pixelCount, roi, imageSize) into spans, in parallel
//     for large jobs;
//   - the entry points, which check and dispatch once per call.
//
// Mode Normal has its own SSE2 kernel (no indirect call, bandwidth-bound); the other
// modes are resolved once per call into a loop with the rule inlined, which computes the
// same values as calling blendPix* through function pointers.

#include <imageprocessing/blending.h>

#include <emmintrin.h>

#include <algorithm>
#include <cmath>
#include <iostream>
#include <type_traits>

#include "core/error_log.h"
#include "core/parallel.h"
#include "core/streaming_store.h"
#include "imageprocessing/blending_lab.h"

namespace zorl {
namespace {

const char* const kBlendImagesSignature =
    "void __cdecl zorl::blendImages(const class std::shared_ptr<class zorl::_ImageData<struct zorl::PixelRGB<float> > "
    "const > &,const class std::shared_ptr<class zorl::_ImageData<struct zorl::PixelRGB<float> > const > &,class "
    "std::shared_ptr<class zorl::_ImageData<struct zorl::PixelRGB<float> > > &,const class std::shared_ptr<class "
    "zorl::_ImageData<float> const > &,float,enum zorl::BlendModeType,struct zorl::_Rect<int>)";

const char* const kBlendLoopSignature =
    "void __cdecl zorl::blendLoop<struct zorl::PixelRGB<float>>(const struct zorl::PixelRGB<float> *,const struct "
    "zorl::PixelRGB<float> *,struct zorl::PixelRGB<float> *,const float *,float,enum zorl::BlendModeType,unsigned "
    "__int64,struct zorl::_Rect<int>,struct zorl::_Size<int>)";

// Jobs smaller than this run on the calling thread: a tile of the tiled stores (a few
// hundred pixels square; 256 x 256 takes about 35 us in Normal) is blended faster than
// tasks can be handed out and joined.
constexpr uint64_t kSerialPixels = 1u << 17;
// From this many pixels (96 MB of result, well beyond the 32 MB last-level cache of the
// benchmark machine) Normal writes its result with non-temporal stores.
constexpr uint64_t kStreamPixels = 8u << 20;
// Below this blend-layer chroma (max - min of the clamped channels) the layer is grey
// and has no hue: Hue mode then keeps the base's value without saturation.
constexpr float kGreyChroma = 0.0001f;

// ---------------------------------------------------------------------------------------
// Channel rules, a = blend layer value, b = base value. Comparisons are strict.

inline float chNormal(float a, float) { return a; }
inline float chMultiply(float a, float b) { return a * b; }
inline float chColorBurn(float a, float b) { return a == 0.0f ? 0.0f : std::max(0.0f, 1.0f - (1.0f - b) / a); }
inline float chScreen(float a, float b) { return a + b - a * b; }
inline float chOverlay(float a, float b) { return b < 0.5f ? 2.0f * a * b : 1.0f - 2.0f * (1.0f - a) * (1.0f - b); }
inline float chSoftLight(float a, float b) {
    return a < 0.5f ? b * b * (1.0f - 2.0f * a) + 2.0f * a * b
                    : std::sqrt(b) * (2.0f * a - 1.0f) + 2.0f * b * (1.0f - a);
}
inline float chDarken(float a, float b) { return std::min(a, b); }
inline float chHardLight(float a, float b) { return a < 0.5f ? 2.0f * a * b : 1.0f - 2.0f * (1.0f - a) * (1.0f - b); }
inline float chLighten(float a, float b) { return std::max(a, b); }
inline float chDifference(float a, float b) { return std::abs(a - b); }
inline float chSubtract(float a, float b) { return std::max(0.0f, b - a); }

// ---------------------------------------------------------------------------------------
// Pixel rules.

inline float mixChannel(float base, float value, float alpha) { return (1.0f - alpha) * base + alpha * value; }

template <float (*F)(float, float)>
inline void channelPixel(const PixelRGB<float>& a, const PixelRGB<float>& b, PixelRGB<float>& out, float alpha) {
    const PixelRGB<float> bb = b;
    const float r = mixChannel(bb.r, F(a.r, bb.r), alpha);
    const float g = mixChannel(bb.g, F(a.g, bb.g), alpha);
    const float bl = mixChannel(bb.b, F(a.b, bb.b), alpha);
    out = {r, g, bl};
}

// max with 0 first, then min with 1; NaN becomes 0.
inline float clampUnit(float v) { return std::min(1.0f, std::max(0.0f, v)); }
inline PixelRGB<float> clampUnit(const PixelRGB<float>& p) { return {clampUnit(p.r), clampUnit(p.g), clampUnit(p.b)}; }

// Luminosity (Lab lightness of the layer, chroma of the base) or, with ColorMode, Color
// (lightness of the base, chroma of the layer) of `count` (1..4) pixels, four lanes at a
// time; lanes past count repeat the last pixel and are not written. Inputs are clamped
// to 0..1 (max with 0 first, so NaN becomes 0) before the conversions; the mix uses the
// unclamped base. All inputs are read before any output is written (out may alias).
template <bool ColorMode>
inline void labPixels(const PixelRGB<float>* layer, const PixelRGB<float>* base, PixelRGB<float>* out,
                      const float* alpha, int count) {
    alignas(16) float lr[4], lg[4], lb[4], br[4], bg[4], bb[4], al[4];
    for (int l = 0; l < 4; ++l) {
        const int k = std::min(l, count - 1);
        lr[l] = layer[k].r, lg[l] = layer[k].g, lb[l] = layer[k].b;
        br[l] = base[k].r, bg[l] = base[k].g, bb[l] = base[k].b;
        al[l] = alpha[k];
    }
    const __m128 zero = _mm_setzero_ps(), one = _mm_set1_ps(1.0f);
    const auto clamped = [&](const float* v) { return _mm_min_ps(_mm_max_ps(_mm_load_ps(v), zero), one); };
    const blendlab::Lab4 l = blendlab::rgbToLab<!ColorMode>({clamped(lr), clamped(lg), clamped(lb)});
    const blendlab::Lab4 b = blendlab::rgbToLab<ColorMode>({clamped(br), clamped(bg), clamped(bb)});
    const blendlab::Rgb4 m = blendlab::labToRgb(ColorMode ? blendlab::Lab4{b.L, l.a, l.b} : blendlab::Lab4{l.L, b.a, b.b});
    const __m128 a = _mm_load_ps(al), keep = _mm_sub_ps(one, a);
    const auto mix = [&](const float* base4, __m128 value, float* dst) {
        _mm_store_ps(dst, _mm_add_ps(_mm_mul_ps(keep, _mm_load_ps(base4)), _mm_mul_ps(a, value)));
    };
    mix(br, m.r, lr);  // the layer copies are no longer needed: reuse them for the result
    mix(bg, m.g, lg);
    mix(bb, m.b, lb);
    for (int k = 0; k < count; ++k) out[k] = {lr[k], lg[k], lb[k]};
}

inline void luminosityPixel(const PixelRGB<float>& layer, const PixelRGB<float>& base, PixelRGB<float>& out,
                            float alpha) {
    labPixels<false>(&layer, &base, &out, &alpha, 1);
}

inline void colorPixel(const PixelRGB<float>& layer, const PixelRGB<float>& base, PixelRGB<float>& out, float alpha) {
    labPixels<true>(&layer, &base, &out, &alpha, 1);
}

// HSV with the hue in sextants (0..6), saturation and value in 0..1.
struct Hsv {
    float h, s, v;
};

inline Hsv toHsv(const PixelRGB<float>& p) {
    const float mx = std::max(std::max(p.r, p.g), p.b);
    const float mn = std::min(std::min(p.r, p.g), p.b);
    const float delta = mx - mn;
    if (!(delta > 0.0f)) return {0.0f, 0.0f, mx};
    float h;
    if (p.r == mx) {
        h = (p.g - p.b) / delta;
        if (h < 0.0f) h += 6.0f;
    } else if (p.g == mx) {
        h = (p.b - p.r) / delta + 2.0f;
    } else {
        h = (p.r - p.g) / delta + 4.0f;
    }
    return {h, delta / mx, mx};
}

inline PixelRGB<float> fromHsv(float h, float s, float v) {
    if (!(s > 0.0f)) return {v, v, v};
    // h is finite here (it comes from clamped channels), so these loops end at once.
    while (h < 0.0f) h += 6.0f;
    while (h >= 6.0f) h -= 6.0f;
    const int i = static_cast<int>(h);
    const float f = h - static_cast<float>(i);
    const float p = v * (1.0f - s), q = v * (1.0f - s * f), t = v * (1.0f - s * (1.0f - f));
    switch (i) {
        case 0: return {v, t, p};
        case 1: return {q, v, p};
        case 2: return {p, v, t};
        case 3: return {p, q, v};
        case 4: return {t, p, v};
        case 5: return {v, p, q};
        default: return {0.0f, 0.0f, 0.0f};
    }
}

inline void huePixel(const PixelRGB<float>& layer, const PixelRGB<float>& base, PixelRGB<float>& out, float alpha) {
    const PixelRGB<float> cl = clampUnit(layer);
    const float hue = toHsv(cl).h;
    const float chroma = std::max(std::max(cl.r, cl.g), cl.b) - std::min(std::min(cl.r, cl.g), cl.b);
    const float factor = chroma < kGreyChroma ? 0.0f : 1.0f;
    const Hsv b = toHsv(clampUnit(base));
    const PixelRGB<float> rgb = fromHsv(hue, b.s * factor, b.v);
    const PixelRGB<float> bb = base;
    out = {mixChannel(bb.r, rgb.r, alpha), mixChannel(bb.g, rgb.g, alpha), mixChannel(bb.b, rgb.b, alpha)};
}

// ---------------------------------------------------------------------------------------
// Span kernels over pixels [begin, end) of flat buffers.

using simd::finishStores;
using simd::isAligned16;
using simd::store;

// out = b + (a - b) * alpha with one alpha for every channel.
template <bool Stream>
void normalSpan(const float* a, const float* b, float* out, std::size_t floats, float alpha) {
    const __m128 va = _mm_set1_ps(alpha);
    std::size_t i = 0;
    if constexpr (Stream)
        for (; i < floats && !isAligned16(out + i); ++i) out[i] = b[i] + (a[i] - b[i]) * alpha;
    for (; i + 8 <= floats; i += 8) {
        const __m128 b0 = _mm_loadu_ps(b + i), b1 = _mm_loadu_ps(b + i + 4);
        const __m128 d0 = _mm_sub_ps(_mm_loadu_ps(a + i), b0), d1 = _mm_sub_ps(_mm_loadu_ps(a + i + 4), b1);
        store<Stream>(out + i, _mm_add_ps(b0, _mm_mul_ps(d0, va)));
        store<Stream>(out + i + 4, _mm_add_ps(b1, _mm_mul_ps(d1, va)));
    }
    for (; i < floats; ++i) out[i] = b[i] + (a[i] - b[i]) * alpha;
    finishStores<Stream>();
}

// The same with alpha = mask[k] * opacity for pixel k: four pixels (twelve floats) at a
// time, the four weights spread over the three vectors as (0,0,0,1) (1,1,2,2) (2,3,3,3).
template <bool Stream>
void normalSpanMasked(const float* a, const float* b, float* out, const float* mask, std::size_t pixels,
                      float opacity) {
    const auto scalarPixel = [&](std::size_t k) {
        const float alpha = mask[k] * opacity;
        for (std::size_t c = 3 * k; c < 3 * k + 3; ++c) out[c] = b[c] + (a[c] - b[c]) * alpha;
    };
    const __m128 vo = _mm_set1_ps(opacity);
    std::size_t k = 0;
    // Pixels are 12 bytes: a 4-byte aligned destination becomes 16-byte aligned within
    // three pixels, and stays aligned every four.
    if constexpr (Stream)
        for (; k < pixels && !isAligned16(out + 3 * k); ++k) scalarPixel(k);
    for (; k + 4 <= pixels; k += 4) {
        const __m128 w = _mm_mul_ps(_mm_loadu_ps(mask + k), vo);
        const __m128 w0 = _mm_shuffle_ps(w, w, _MM_SHUFFLE(1, 0, 0, 0));
        const __m128 w1 = _mm_shuffle_ps(w, w, _MM_SHUFFLE(2, 2, 1, 1));
        const __m128 w2 = _mm_shuffle_ps(w, w, _MM_SHUFFLE(3, 3, 3, 2));
        const std::size_t i = 3 * k;
        const __m128 b0 = _mm_loadu_ps(b + i), b1 = _mm_loadu_ps(b + i + 4), b2 = _mm_loadu_ps(b + i + 8);
        const __m128 d0 = _mm_sub_ps(_mm_loadu_ps(a + i), b0);
        const __m128 d1 = _mm_sub_ps(_mm_loadu_ps(a + i + 4), b1);
        const __m128 d2 = _mm_sub_ps(_mm_loadu_ps(a + i + 8), b2);
        store<Stream>(out + i, _mm_add_ps(b0, _mm_mul_ps(d0, w0)));
        store<Stream>(out + i + 4, _mm_add_ps(b1, _mm_mul_ps(d1, w1)));
        store<Stream>(out + i + 8, _mm_add_ps(b2, _mm_mul_ps(d2, w2)));
    }
    for (; k < pixels; ++k) scalarPixel(k);
    finishStores<Stream>();
}

using PixelRule = void (*)(const PixelRGB<float>&, const PixelRGB<float>&, PixelRGB<float>&, float);

// Every other mode: the rule is a template argument, so the loop has no indirect call.
template <PixelRule Rule, bool Masked>
void pixelSpan(const PixelRGB<float>* a, const PixelRGB<float>* b, PixelRGB<float>* out, const float* mask,
               float opacity, std::size_t begin, std::size_t end) {
    for (std::size_t i = begin; i < end; ++i) Rule(a[i], b[i], out[i], Masked ? mask[i] * opacity : opacity);
}

using SpanKernel = void (*)(const PixelRGB<float>*, const PixelRGB<float>*, PixelRGB<float>*, const float*, float,
                            std::size_t, std::size_t);

template <PixelRule Rule>
SpanKernel spanKernel(bool masked) {
    return masked ? &pixelSpan<Rule, true> : &pixelSpan<Rule, false>;
}

// Luminosity and Color, four pixels at a time.
template <bool ColorMode, bool Masked>
void labSpan(const PixelRGB<float>* a, const PixelRGB<float>* b, PixelRGB<float>* out, const float* mask,
             float opacity, std::size_t begin, std::size_t end) {
    float alpha[4];
    for (std::size_t i = begin; i < end; i += 4) {
        const int count = static_cast<int>(std::min<std::size_t>(4, end - i));
        for (int l = 0; l < count; ++l) alpha[l] = Masked ? mask[i + l] * opacity : opacity;
        labPixels<ColorMode>(a + i, b + i, out + i, alpha, count);
    }
}

template <bool ColorMode>
SpanKernel labKernel(bool masked) {
    return masked ? &labSpan<ColorMode, true> : &labSpan<ColorMode, false>;
}

SpanKernel spanKernelFor(BlendModeType mode, bool masked) {
    switch (mode) {
        case BlendModeType::Normal: return spanKernel<&channelPixel<chNormal>>(masked);
        case BlendModeType::Multiply: return spanKernel<&channelPixel<chMultiply>>(masked);
        case BlendModeType::ColorBurn: return spanKernel<&channelPixel<chColorBurn>>(masked);
        case BlendModeType::Screen: return spanKernel<&channelPixel<chScreen>>(masked);
        case BlendModeType::Overlay: return spanKernel<&channelPixel<chOverlay>>(masked);
        case BlendModeType::SoftLight: return spanKernel<&channelPixel<chSoftLight>>(masked);
        case BlendModeType::Darken: return spanKernel<&channelPixel<chDarken>>(masked);
        case BlendModeType::HardLight: return spanKernel<&channelPixel<chHardLight>>(masked);
        case BlendModeType::Lighten: return spanKernel<&channelPixel<chLighten>>(masked);
        case BlendModeType::Difference: return spanKernel<&channelPixel<chDifference>>(masked);
        case BlendModeType::Subtract: return spanKernel<&channelPixel<chSubtract>>(masked);
        case BlendModeType::Luminosity: return labKernel<false>(masked);
        case BlendModeType::Hue: return spanKernel<&huePixel>(masked);
        case BlendModeType::Color: return labKernel<true>(masked);
    }
    return nullptr;
}

// ---------------------------------------------------------------------------------------
// Region walker: calls span(begin, end) on runs of consecutive pixel indices.
//   whole image (roi == kNoRegion or imageSize == kEmptySize): [0, pixelCount), split by
//   pixel index;
//   region: each row of roi clipped to the image, split by row; an empty clipped region
//   does nothing.
template <class Span>
void forEachSpan(uint64_t pixelCount, _Rect<int> roi, _Size<int> imageSize, const Span& span) {
    if (roi == kNoRegion || imageSize == kEmptySize) {
        const std::size_t n = static_cast<std::size_t>(pixelCount);
        if (pixelCount < kSerialPixels)
            span(std::size_t{0}, n);
        else
            parallelFor(std::size_t{0}, n, span);
        return;
    }
    const _Rect<int> area = roi.intersection({0, 0, imageSize.width, imageSize.height});
    if (roi.isEmpty() || area.isEmpty()) return;
    const std::size_t width = static_cast<std::size_t>(imageSize.width);
    const auto rows = [&](std::size_t r0, std::size_t r1) {
        for (std::size_t r = r0; r < r1; ++r) {
            const std::size_t first = (static_cast<std::size_t>(area.y) + r) * width + static_cast<std::size_t>(area.x);
            span(first, first + static_cast<std::size_t>(area.width));
        }
    };
    if (static_cast<uint64_t>(area.width) * static_cast<uint64_t>(area.height) < kSerialPixels)
        rows(0, static_cast<std::size_t>(area.height));
    else
        parallelFor(std::size_t{0}, static_cast<std::size_t>(area.height), rows);
}

// The number of pixels the region rule selects.
uint64_t processedPixels(uint64_t pixelCount, _Rect<int> roi, _Size<int> imageSize) {
    if (roi == kNoRegion || imageSize == kEmptySize) return pixelCount;
    const _Rect<int> area = roi.intersection({0, 0, imageSize.width, imageSize.height});
    return roi.isEmpty() ? 0 : static_cast<uint64_t>(area.width) * static_cast<uint64_t>(area.height);
}

}  // namespace

// -------------------------------------------------------------------------------------------
// Exported per-channel and per-pixel functions.

float blendChannelNormal(float a, float b) { return chNormal(a, b); }
float blendChannelMultiply(float a, float b) { return chMultiply(a, b); }
float blendChannelColorBurn(float a, float b) { return chColorBurn(a, b); }
float blendChannelScreen(float a, float b) { return chScreen(a, b); }
float blendChannelOverlay(float a, float b) { return chOverlay(a, b); }
float blendChannelSoftLight(float a, float b) { return chSoftLight(a, b); }
float blendChannelDarken(float a, float b) { return chDarken(a, b); }
float blendChannelHardLight(float a, float b) { return chHardLight(a, b); }
float blendChannelLighten(float a, float b) { return chLighten(a, b); }
float blendChannelDifference(float a, float b) { return chDifference(a, b); }
float blendChannelSubtract(float a, float b) { return chSubtract(a, b); }

BlendChannelFunction blendChannelFunction(BlendModeType mode) {
    switch (mode) {
        case BlendModeType::Normal: return &blendChannelNormal;
        case BlendModeType::Multiply: return &blendChannelMultiply;
        case BlendModeType::ColorBurn: return &blendChannelColorBurn;
        case BlendModeType::Screen: return &blendChannelScreen;
        case BlendModeType::Overlay: return &blendChannelOverlay;
        case BlendModeType::SoftLight: return &blendChannelSoftLight;
        case BlendModeType::Darken: return &blendChannelDarken;
        case BlendModeType::HardLight: return &blendChannelHardLight;
        case BlendModeType::Lighten: return &blendChannelLighten;
        case BlendModeType::Difference: return &blendChannelDifference;
        case BlendModeType::Subtract: return &blendChannelSubtract;
        default: return nullptr;
    }
}

void blendPix(const PixelRGB<float>& blendLayer, const PixelRGB<float>& base, PixelRGB<float>& out, float alpha,
              BlendChannelFunction channelFunction) {
    const PixelRGB<float> a = blendLayer, b = base;
    out = {mixChannel(b.r, channelFunction(a.r, b.r), alpha), mixChannel(b.g, channelFunction(a.g, b.g), alpha),
           mixChannel(b.b, channelFunction(a.b, b.b), alpha)};
}

void blendPixLuminosity(const PixelRGB<float>& blendLayer, const PixelRGB<float>& base, PixelRGB<float>& out,
                        float alpha, BlendChannelFunction) {
    luminosityPixel(blendLayer, base, out, alpha);
}

void blendPixHue(const PixelRGB<float>& blendLayer, const PixelRGB<float>& base, PixelRGB<float>& out, float alpha,
                 BlendChannelFunction) {
    huePixel(blendLayer, base, out, alpha);
}

void blendPixColor(const PixelRGB<float>& blendLayer, const PixelRGB<float>& base, PixelRGB<float>& out, float alpha,
                   BlendChannelFunction) {
    colorPixel(blendLayer, base, out, alpha);
}

// -------------------------------------------------------------------------------------------
// Loops.

void blendModeNormal(const PixelRGB<float>* blendLayer, const PixelRGB<float>* base, PixelRGB<float>* result,
                     const float* mask, float opacity, uint64_t pixelCount, _Rect<int> roi, _Size<int> imageSize) {
    const float* a = &blendLayer->r;
    const float* b = &base->r;
    float* out = &result->r;
    const bool stream = processedPixels(pixelCount, roi, imageSize) >= kStreamPixels &&
                        (reinterpret_cast<uintptr_t>(out) & 3u) == 0;
    // The kernel is chosen once: masked or not, streaming or not.
    const auto run = [&](auto kernel) { forEachSpan(pixelCount, roi, imageSize, kernel); };
    if (mask) {
        const auto masked = [=](auto streamTag) {
            return [=](std::size_t begin, std::size_t end) {
                normalSpanMasked<decltype(streamTag)::value>(a + 3 * begin, b + 3 * begin, out + 3 * begin,
                                                             mask + begin, end - begin, opacity);
            };
        };
        stream ? run(masked(std::true_type{})) : run(masked(std::false_type{}));
    } else {
        const auto plain = [=](auto streamTag) {
            return [=](std::size_t begin, std::size_t end) {
                normalSpan<decltype(streamTag)::value>(a + 3 * begin, b + 3 * begin, out + 3 * begin, 3 * (end - begin),
                                                       opacity);
            };
        };
        stream ? run(plain(std::true_type{})) : run(plain(std::false_type{}));
    }
}

template <class Pixel>
void blendLoop(const Pixel* blendLayer, const Pixel* base, Pixel* result, const float* mask, float opacity,
               BlendModeType mode, uint64_t pixelCount, _Rect<int> roi, _Size<int> imageSize) {
    const SpanKernel kernel = spanKernelFor(mode, mask != nullptr);
    if (!kernel) {
        std::cerr << kBlendLoopSignature << ": " << "Not implemented blending mode!" << std::endl;
        return;
    }
    forEachSpan(pixelCount, roi, imageSize, [=](std::size_t begin, std::size_t end) {
        kernel(blendLayer, base, result, mask, opacity, begin, end);
    });
}

template ZORL_IP_EXPORT void blendLoop<PixelRGB<float>>(const PixelRGB<float>*, const PixelRGB<float>*,
                                                        PixelRGB<float>*, const float*, float, BlendModeType,
                                                        uint64_t, _Rect<int>, _Size<int>);

// -------------------------------------------------------------------------------------------
// Entry point.

void blendImages(const std::shared_ptr<const _ImageData<PixelRGB<float>>>& blendLayer,
                 const std::shared_ptr<const _ImageData<PixelRGB<float>>>& base,
                 std::shared_ptr<_ImageData<PixelRGB<float>>>& result,
                 const std::shared_ptr<const _ImageData<float>>& mask, float opacity, BlendModeType mode,
                 _Rect<int> roi) {
    // A missing layer can be of no matching type.
    if (!checkThat(blendLayer && base && base->isSameType(*blendLayer), kBlendImagesSignature,
                   "Images have different types"))
        return;
    if (mask && !checkThat(mask->size() == blendLayer->size(), kBlendImagesSignature, "Mask has wrong size!")) return;
    if (result) {
        if (!checkThat(base->isSameType(*result), kBlendImagesSignature, "Result Image has wrong type")) return;
    } else {
        result = blendLayer->copy(kNoRegion);
        if (!result) return;  // an empty blend layer: nothing to blend
    }

    const float* maskPixels = mask ? mask->data() : nullptr;
    const uint64_t pixelCount = blendLayer->pixelCount();
    if (mode == BlendModeType::Normal)
        blendModeNormal(blendLayer->data(), base->data(), result->data(), maskPixels, opacity, pixelCount, roi,
                        blendLayer->size());
    else
        blendLoop(blendLayer->data(), base->data(), result->data(), maskPixels, opacity, mode, pixelCount, roi,
                  blendLayer->size());
}

}  // namespace zorl

// ---------------------------------------------------------------------------------------------
// The per-pixel blend of the older effect layer (p = base, q = layer, t = amount).

zorl::PixelRGB<float> RD_Blend_Pixel(zorl::PixelRGB<float> base, zorl::PixelRGB<float> layer, float amount,
                                     RDBlendMode mode) {
    const auto blend = [&](float p, float q) {
        float s;
        switch (mode) {
            case RDBlendMix: return p + (q - p) * (amount * 0.5f);  // half the amount: a mean at amount 1
            case RDBlendSoftLight:
                s = q < 0.5f ? p * p * (1.0f - 2.0f * q) + 2.0f * p * q
                             : std::sqrt(p) * (2.0f * q - 1.0f) + 2.0f * p * (1.0f - q);
                break;
            case RDBlendOverlay: s = p < 0.5f ? 2.0f * p * q : 1.0f - 2.0f * (1.0f - p) * (1.0f - q); break;
            case RDBlendScreen: s = p + q - p * q; break;
            default: s = p * q; break;
        }
        return p + (s - p) * amount;
    };
    return {blend(base.r, layer.r), blend(base.g, layer.g), blend(base.b, layer.b)};
}
