#pragma once
// Packed pixel structures. Float channels are nominally 0..1 (working data may leave
// that range), uint8_t channels 0..255, uint16_t channels 0..65535. Full opacity is
// 1.0, 255 and 65535 respectively. A bare float is the gray / mask pixel.

#include <cstdint>
#include <limits>
#include <type_traits>

#include <zorl/core/export.h>

// The pixel and geometry templates carry default visibility: with hidden visibility a
// template instantiated over a hidden type is itself hidden, so without it
// _ImageData<PixelRGB<float>> (and every exported function template over a pixel type)
// would silently stay inside its library.
namespace zorl {

template <class T>
struct ZORL_CORE_EXPORT PixelRGB {
    T r, g, b;
    bool operator==(const PixelRGB&) const = default;
};

template <class T>
struct ZORL_CORE_EXPORT PixelRGBA {
    T r, g, b, a;
    bool operator==(const PixelRGBA&) const = default;
};

template <class T>
struct ZORL_CORE_EXPORT PixelARGB {
    T a, r, g, b;
    bool operator==(const PixelARGB&) const = default;
};

template <class T>
struct ZORL_CORE_EXPORT PixelBGR {
    T b, g, r;
    bool operator==(const PixelBGR&) const = default;
};

template <class T>
struct ZORL_CORE_EXPORT PixelBGRA {
    T b, g, r, a;
    bool operator==(const PixelBGRA&) const = default;
};

// The value of full opacity for a channel type.
template <class T>
constexpr T fullOpacity() {
    if constexpr (std::is_floating_point_v<T>)
        return T(1);
    else
        return std::numeric_limits<T>::max();
}

// Channel type and count of a pixel type (a bare scalar is one channel).
template <class P>
struct PixelTraits {
    using Channel = P;
    static constexpr int channels = 1;
};
template <template <class> class P, class T>
struct PixelTraits<P<T>> {
    using Channel = T;
    static constexpr int channels = sizeof(P<T>) / sizeof(T);
};

// No padding anywhere: the raster of a pixel type is a packed array of channels.
#define ZORL_CHECK_PACKED(P, T, N)                                                 \
    static_assert(sizeof(P<T>) == (N) * sizeof(T), #P " must be packed");          \
    static_assert(std::is_trivially_copyable_v<P<T>>, #P " must be a plain structure")
ZORL_CHECK_PACKED(PixelRGB, float, 3);
ZORL_CHECK_PACKED(PixelRGB, uint8_t, 3);
ZORL_CHECK_PACKED(PixelRGB, uint16_t, 3);
ZORL_CHECK_PACKED(PixelRGBA, float, 4);
ZORL_CHECK_PACKED(PixelRGBA, uint8_t, 4);
ZORL_CHECK_PACKED(PixelRGBA, uint16_t, 4);
ZORL_CHECK_PACKED(PixelARGB, float, 4);
ZORL_CHECK_PACKED(PixelBGR, uint8_t, 3);
ZORL_CHECK_PACKED(PixelBGR, uint16_t, 3);
ZORL_CHECK_PACKED(PixelBGRA, uint8_t, 4);
#undef ZORL_CHECK_PACKED

}  // namespace zorl
