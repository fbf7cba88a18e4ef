#pragma once
// Pixel format conversion between the pixel structures, and the only place where float
// pixels become integers. The rule of the whole library:
//   float -> integer: v > 0 ? v : 0 (NaN gives 0), then min(1, v), times 255 or 65535,
//                     truncated toward zero (never rounded to nearest);
//   integer -> float: times the float reciprocal 1/255 or 1/65535, not clamped;
//   float -> float:   copied unchanged.
// An alpha the source lacks is written fully opaque; an alpha the destination lacks is
// dropped; a gray source fills r, g and b.

#include <cstdint>
#include <memory>

#include <imageprocessing/export.h>
#include <zorl/core/image_data.h>
#include <zorl/core/pixel.h>

namespace zorl {

// Converts count pixels from src to dst (which must not overlap), in parallel.
// count 0 returns at once; a null src or dst is logged ("source is null", "destination
// is null", "source and destination are null") and nothing is written.
// Instantiated for exactly these pairs:
//   float -> uint8_t, PixelRGB<uint8_t>, PixelRGB<uint16_t>, PixelRGB<float>
//   PixelARGB<float> -> PixelRGB<float>
//   PixelBGR<uint8_t>, PixelBGR<uint16_t>, PixelBGRA<uint8_t> -> PixelRGB<float>
//   PixelRGB<uint8_t> -> PixelRGB<float>, PixelRGBA<float>
//   PixelRGB<uint16_t> -> PixelRGB<float>
//   PixelRGB<float> -> PixelBGRA<uint8_t>, PixelRGB<uint8_t>, PixelRGB<uint16_t>,
//                      PixelRGBA<uint8_t>, PixelRGBA<uint16_t>, PixelRGBA<float>
//   PixelRGBA<uint8_t> -> PixelBGRA<uint8_t>, PixelRGBA<float>
//   PixelRGBA<float> -> PixelRGB<uint8_t>, PixelRGBA<uint8_t>, PixelRGBA<uint16_t>
template <class Src, class Dst>
ZORL_IP_EXPORT void convertLoop(const Src* src, Dst* dst, uint64_t count);

// A new integer image of the same size and colour profile (load state not copied).
// An empty src is logged ("[floatToIntImageData]: no srcImageData") and gives null.
// T is uint8_t or uint16_t.
template <class T>
ZORL_IP_EXPORT std::shared_ptr<_ImageData<PixelRGB<T>>> floatToIntImageData(
    const std::shared_ptr<const _ImageData<PixelRGB<float>>>& src);

// A new float image of the same size and colour profile (load state not copied).
// An empty src is logged ("[intToFloatImageData]: no srcImageData") and gives null.
// T is uint8_t or uint16_t.
template <class T>
ZORL_IP_EXPORT std::shared_ptr<_ImageData<PixelRGB<float>>> intToFloatImageData(
    const std::shared_ptr<const _ImageData<PixelRGB<T>>>& src);

}  // namespace zorl
