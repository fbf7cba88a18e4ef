#pragma once
// Blend modes: one RGB float image (the blend layer, on top) composited over another
// (the base) with one of fourteen modes, an opacity, an optional mask and an optional
// region.
//
// Conventions of the whole family:
//   - a is the blend layer's value, b the base's; the weight of a pixel is
//     alpha = mask[i] * opacity (opacity alone without a mask), never clamped;
//   - result = (1 - alpha) * b + alpha * f(a, b) per channel, so opacity 0 gives the base;
//   - values are not assumed to lie in 0..1: the channel modes clamp neither inputs nor
//     outputs; Luminosity, Hue and Color clamp their inputs to 0..1 before converting
//     colour spaces, and mix with the unclamped base;
//   - a region is kNoRegion (the whole image) or a rectangle of pixels to process; the
//     pixels outside it are not written.

#include <cstdint>
#include <memory>

#include <imageprocessing/export.h>
#include <zorl/core/geometry.h>
#include <zorl/core/image_data.h>
#include <zorl/core/pixel.h>

namespace zorl {

enum class BlendModeType : int32_t {
    Normal = 0,       // a
    Multiply = 1,     // a * b
    ColorBurn = 2,    // a == 0 ? 0 : max(0, 1 - (1 - b) / a)
    Screen = 3,       // a + b - a * b
    Overlay = 4,      // b < 0.5 ? 2ab : 1 - 2(1 - a)(1 - b)        (tests the base)
    SoftLight = 5,    // a < 0.5 ? b^2(1 - 2a) + 2ab : sqrt(b)(2a - 1) + 2b(1 - a)
    Darken = 6,       // min(a, b)
    HardLight = 7,    // a < 0.5 ? 2ab : 1 - 2(1 - a)(1 - b)        (tests the blend value)
    Lighten = 8,      // max(a, b)
    Difference = 9,   // |a - b|
    Subtract = 10,    // max(0, b - a): base minus blend layer
    Luminosity = 11,  // Lab lightness of the blend layer, Lab chroma of the base
    Hue = 12,         // HSV hue of the blend layer, HSV saturation and value of the base
    Color = 13,       // Lab chroma of the blend layer, Lab lightness of the base
};

// f(blendValue, baseValue) of one channel mode.
using BlendChannelFunction = float (*)(float blendValue, float baseValue);

// The channel functions of modes 0..10 (the comments of BlendModeType give each rule;
// the comparisons are strict, so 0.5 takes the second branch).
ZORL_IP_EXPORT float blendChannelNormal(float a, float b);
ZORL_IP_EXPORT float blendChannelMultiply(float a, float b);
ZORL_IP_EXPORT float blendChannelColorBurn(float a, float b);
ZORL_IP_EXPORT float blendChannelScreen(float a, float b);
ZORL_IP_EXPORT float blendChannelOverlay(float a, float b);
ZORL_IP_EXPORT float blendChannelSoftLight(float a, float b);
ZORL_IP_EXPORT float blendChannelDarken(float a, float b);
ZORL_IP_EXPORT float blendChannelHardLight(float a, float b);
ZORL_IP_EXPORT float blendChannelLighten(float a, float b);
ZORL_IP_EXPORT float blendChannelDifference(float a, float b);
ZORL_IP_EXPORT float blendChannelSubtract(float a, float b);

// The channel function of a mode, or null for the whole-pixel modes (11..13) and for
// values outside the enumeration.
ZORL_IP_EXPORT BlendChannelFunction blendChannelFunction(BlendModeType mode);

// Per-pixel blends. blendPix applies channelFunction to each channel; the three
// whole-pixel modes ignore it. out may alias blendLayer or base.
ZORL_IP_EXPORT void blendPix(const PixelRGB<float>& blendLayer, const PixelRGB<float>& base, PixelRGB<float>& out,
                             float alpha, BlendChannelFunction channelFunction);
ZORL_IP_EXPORT void blendPixLuminosity(const PixelRGB<float>& blendLayer, const PixelRGB<float>& base,
                                       PixelRGB<float>& out, float alpha, BlendChannelFunction channelFunction);
ZORL_IP_EXPORT void blendPixHue(const PixelRGB<float>& blendLayer, const PixelRGB<float>& base, PixelRGB<float>& out,
                                float alpha, BlendChannelFunction channelFunction);
ZORL_IP_EXPORT void blendPixColor(const PixelRGB<float>& blendLayer, const PixelRGB<float>& base,
                                  PixelRGB<float>& out, float alpha, BlendChannelFunction channelFunction);

// Mode Normal on raw buffers: out = b + (a - b) * alpha. mask may be null. With roi ==
// kNoRegion (or imageSize == kEmptySize) the pixels 0 .. pixelCount - 1 are processed;
// otherwise the rows and columns of roi within an image of imageSize (roi is clipped to
// the image; an empty roi processes nothing). result may alias blendLayer or base.
ZORL_IP_EXPORT void blendModeNormal(const PixelRGB<float>* blendLayer, const PixelRGB<float>* base,
                                    PixelRGB<float>* result, const float* mask, float opacity, uint64_t pixelCount,
                                    _Rect<int> roi, _Size<int> imageSize);

// Every other mode on raw buffers, with the same region rule as blendModeNormal. A mode
// above Color writes "Not implemented blending mode!" to standard error (not the log)
// and touches nothing. Instantiated for PixelRGB<float>.
template <class Pixel>
ZORL_IP_EXPORT void blendLoop(const Pixel* blendLayer, const Pixel* base, Pixel* result, const float* mask,
                              float opacity, BlendModeType mode, uint64_t pixelCount, _Rect<int> roi,
                              _Size<int> imageSize);

// Composites blendLayer over base into result. mask may be empty; when set it must have
// the blend layer's size. result may be empty: it is then made as a copy of the blend
// layer, so that the pixels outside roi hold the blend layer's values. Bad input is
// logged ("Images have different types", "Mask has wrong size!", "Result Image has
// wrong type") and nothing is written. result may be the same image as blendLayer or
// base (each pixel is read before it is written).
ZORL_IP_EXPORT void blendImages(const std::shared_ptr<const _ImageData<PixelRGB<float>>>& blendLayer,
                                const std::shared_ptr<const _ImageData<PixelRGB<float>>>& base,
                                std::shared_ptr<_ImageData<PixelRGB<float>>>& result,
                                const std::shared_ptr<const _ImageData<float>>& mask, float opacity,
                                BlendModeType mode, _Rect<int> roi);

}  // namespace zorl

// The per-pixel blend of the older effect layer. Values other than those named behave
// as RDBlendMultiply.
enum RDBlendMode : int32_t {
    RDBlendMix = 0,        // p + (q - p) * amount / 2
    RDBlendSoftLight = 1,  // soft light with the layer as the blend value
    RDBlendMultiply = 2,   // p * q (also every unnamed value)
    RDBlendOverlay = 3,    // overlay testing the base
    RDBlendScreen = 5,     // p + q - p * q
};

// base p, layer q, amount t, per channel: out = p + (s - p) * t with s the mode's result
// (RDBlendMix: out = p + (q - p) * (t * 0.5)).
ZORL_IP_EXPORT zorl::PixelRGB<float> RD_Blend_Pixel(zorl::PixelRGB<float> base, zorl::PixelRGB<float> layer,
                                                   float amount, RDBlendMode mode);
