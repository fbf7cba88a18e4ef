#pragma once
// Enumerations shared by the containers, the codecs and the colour transforms.

#include <cstdint>

#include <zorl/core/pixel.h>

namespace zorl {

// How complete the pixels of an image data are.
enum class ImageLoadState : int32_t { NotLoaded = 0, Thumbnail = 1, Preview = 2, Full = 3 };

// Pixel layout code, handed to colour transforms and stored in compressed blocks.
enum class ImageDataType : int32_t {
    Unknown = 0,
    GrayF32 = 1,
    RgbF32 = 2,
    RgbaF32 = 3,
    ArgbF32 = 4,
    GrayU8 = 5,
    RgbU8 = 6,
    RgbaU8 = 7,
    BgrU8 = 8,
    BgraU8 = 9,
    RgbU16 = 10,
    RgbaU16 = 11,
    BgrU16 = 12,
};

// Storage mode of _ImageData<T>::encode.
enum class Compression : int32_t { None = 0, Zlib = 1 };

// Resampling kernel of resizeInterpolate and MaskImage::resize.
enum class InterpolationType : int32_t { Nearest = 0, Linear = 1, Area = 2, Cubic = 3, Lanczos = 4 };

// The layout code of a pixel type (Unknown for types without one).
template <class P> constexpr ImageDataType imageDataTypeOf() { return ImageDataType::Unknown; }
template <> constexpr ImageDataType imageDataTypeOf<float>() { return ImageDataType::GrayF32; }
template <> constexpr ImageDataType imageDataTypeOf<uint8_t>() { return ImageDataType::GrayU8; }
template <> constexpr ImageDataType imageDataTypeOf<PixelRGB<float>>() { return ImageDataType::RgbF32; }
template <> constexpr ImageDataType imageDataTypeOf<PixelRGBA<float>>() { return ImageDataType::RgbaF32; }
template <> constexpr ImageDataType imageDataTypeOf<PixelARGB<float>>() { return ImageDataType::ArgbF32; }
template <> constexpr ImageDataType imageDataTypeOf<PixelRGB<uint8_t>>() { return ImageDataType::RgbU8; }
template <> constexpr ImageDataType imageDataTypeOf<PixelRGBA<uint8_t>>() { return ImageDataType::RgbaU8; }
template <> constexpr ImageDataType imageDataTypeOf<PixelBGR<uint8_t>>() { return ImageDataType::BgrU8; }
template <> constexpr ImageDataType imageDataTypeOf<PixelBGRA<uint8_t>>() { return ImageDataType::BgraU8; }
template <> constexpr ImageDataType imageDataTypeOf<PixelRGB<uint16_t>>() { return ImageDataType::RgbU16; }
template <> constexpr ImageDataType imageDataTypeOf<PixelRGBA<uint16_t>>() { return ImageDataType::RgbaU16; }
template <> constexpr ImageDataType imageDataTypeOf<PixelBGR<uint16_t>>() { return ImageDataType::BgrU16; }

}  // namespace zorl
