// Pixel format conversion. Three layers:
//   entry points (convertLoop, floatToIntImageData, intToFloatImageData) check their input,
//   log and return on bad input, and allocate the output;
//   convertPixels<Src, Dst> is resolved at compile time per pair and splits the pixel
//   range into blocks run through parallelFor;
//   the kernels convert one contiguous range and know nothing of threads or logging.
//
// Channel rules (the rules of the whole library):
//   float -> integer: v > 0 ? v : 0 (NaN compares false and gives 0), min(1, v),
//                     times 255 / 65535 in float, truncated toward zero. 0.999 -> 254,
//                     0.5 -> 127 / 32767. Truncation is deliberate: no + 0.5.
//   integer -> float: float(v) times the float reciprocal 1/255 or 1/65535, no clamp.
//   float -> float and byte -> byte: copied.
//   A missing source alpha is written fully opaque; a missing destination alpha drops
//   the source alpha; a gray source is converted once and stored in r, g and b.
//
// Where source and destination share the channel layout (RGB -> RGB, RGBA -> RGBA,
// gray -> gray) the rule is per channel, so the pixels are converted as one flat array of
// channels by an SSE2 kernel (16 channels per step: four RGBA pixels, or 16/3 RGB pixels).
// Every other pair goes through the per-pixel kernel, four pixels per step. Large
// destinations (kStreamingBytes) are written by the channel kernels with non-temporal
// stores. No AVX2 path: these kernels are bound by memory bandwidth, not by arithmetic.

#include <imageprocessing/conversion.h>

#include <emmintrin.h>

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <limits>
#include <string>
#include <type_traits>

#include "core/error_log.h"
#include "core/parallel.h"
#include "core/signature.h"
#include "core/streaming_store.h"

namespace zorl {
namespace {

// Pixels per parallel task. A 64K-pixel block of RGB float is 768 KB and takes tens of
// microseconds, so the scheduling cost of a task is noise, while a 24-megapixel image
// still splits into a few hundred tasks for load balance.
constexpr uint64_t kBlockPixels = 64 * 1024;

// The float reciprocals of the integer maxima: 0.003921568859368563f, 1.5259021893143654e-05f.
constexpr float kInv255 = 1.0f / 255.0f;
constexpr float kInv65535 = 1.0f / 65535.0f;

template <class T>
constexpr float kIntMax = static_cast<float>(std::numeric_limits<T>::max());

// ---------------------------------------------------------------- channel rules

// Rule 1 on one channel: compare-and-select, minimum, one truncating conversion.
template <class T>
inline T floatToInt(float v) {
    float c = v > 0.0f ? v : 0.0f;  // NaN and everything <= 0 give 0
    c = std::min(1.0f, c);
    return static_cast<T>(static_cast<int>(c * kIntMax<T>));
}

template <class T>
inline float intToFloat(T v) {
    if constexpr (std::is_same_v<T, uint8_t>)
        return static_cast<float>(v) * kInv255;
    else
        return static_cast<float>(v) * kInv65535;
}

template <class D, class S>
inline D convertChannel(S v) {
    if constexpr (std::is_same_v<S, D>)
        return v;
    else if constexpr (std::is_same_v<S, float>)
        return floatToInt<D>(v);
    else
        return intToFloat(v);
}

// ---------------------------------------------------------------- pixel layouts

enum class Layout { Gray, RGB, RGBA, ARGB, BGR, BGRA };

template <class P>
struct LayoutOf {
    static constexpr Layout value = Layout::Gray;
};
template <class T> struct LayoutOf<PixelRGB<T>> { static constexpr Layout value = Layout::RGB; };
template <class T> struct LayoutOf<PixelRGBA<T>> { static constexpr Layout value = Layout::RGBA; };
template <class T> struct LayoutOf<PixelARGB<T>> { static constexpr Layout value = Layout::ARGB; };
template <class T> struct LayoutOf<PixelBGR<T>> { static constexpr Layout value = Layout::BGR; };
template <class T> struct LayoutOf<PixelBGRA<T>> { static constexpr Layout value = Layout::BGRA; };

template <class P>
constexpr bool kHasAlpha = LayoutOf<P>::value == Layout::RGBA || LayoutOf<P>::value == Layout::ARGB ||
                           LayoutOf<P>::value == Layout::BGRA;

// The channels of the pixel structures are named r, g, b (and a) whatever their order in
// memory, so one per-pixel rule serves every pair.
template <class Src, class Dst>
inline void convertPixel(const Src& s, Dst& d) {
    using DC = typename PixelTraits<Dst>::Channel;
    if constexpr (LayoutOf<Src>::value == Layout::Gray) {
        if constexpr (LayoutOf<Dst>::value == Layout::Gray) {
            d = convertChannel<DC>(s);
        } else {
            const DC v = convertChannel<DC>(s);
            d.r = v;
            d.g = v;
            d.b = v;
            if constexpr (kHasAlpha<Dst>) d.a = fullOpacity<DC>();
        }
    } else {
        d.r = convertChannel<DC>(s.r);
        d.g = convertChannel<DC>(s.g);
        d.b = convertChannel<DC>(s.b);
        if constexpr (kHasAlpha<Dst>) {
            if constexpr (kHasAlpha<Src>)
                d.a = convertChannel<DC>(s.a);
            else
                d.a = fullOpacity<DC>();
        }
    }
}

// ---------------------------------------------------------------- kernels

// Any pair: four pixels per step, then the remainder one by one.
template <class Src, class Dst>
void convertPixelRange(const Src* src, Dst* dst, std::size_t n) {
    std::size_t i = 0;
    for (; i + 4 <= n; i += 4) {
        convertPixel(src[i], dst[i]);
        convertPixel(src[i + 1], dst[i + 1]);
        convertPixel(src[i + 2], dst[i + 2]);
        convertPixel(src[i + 3], dst[i + 3]);
    }
    for (; i < n; ++i) convertPixel(src[i], dst[i]);
}

// Rule 1 on four channels: (v > 0) & v, min with 1, times the maximum, truncated.
inline __m128i quantise4(const float* p, __m128 scale) {
    __m128 v = _mm_loadu_ps(p);
    v = _mm_and_ps(_mm_cmpgt_ps(v, _mm_setzero_ps()), v);
    v = _mm_min_ps(v, _mm_set1_ps(1.0f));
    return _mm_cvttps_epi32(_mm_mul_ps(v, scale));
}

// Destinations of at least this many bytes are written with non-temporal stores: they
// cannot stay in cache anyway, and streaming saves the read of every destination line
// before it is written (a third of the traffic of uint8 -> float). Smaller ones stay in
// cache for whoever reads them next.
constexpr std::size_t kStreamingBytes = std::size_t(8) << 20;

// Scalar channels until dst reaches a 16-byte boundary (streaming stores need it).
template <bool kStream, class S, class D>
std::size_t alignDestination(const S* src, D* dst, std::size_t n) {
    std::size_t i = 0;
    if constexpr (kStream)
        for (; i < n && !simd::isAligned16(dst + i); ++i) dst[i] = convertChannel<D>(src[i]);
    return i;
}

using simd::finishStores;
using simd::store;

// Flat channel arrays, n channels, 16 channels per step.
template <bool kStream>
void floatToU8Channels(const float* src, uint8_t* dst, std::size_t n) {
    const __m128 scale = _mm_set1_ps(255.0f);
    std::size_t i = alignDestination<kStream>(src, dst, n);
    for (; i + 16 <= n; i += 16) {
        const __m128i a = quantise4(src + i, scale), b = quantise4(src + i + 4, scale);
        const __m128i c = quantise4(src + i + 8, scale), d = quantise4(src + i + 12, scale);
        // Values are 0..255: the signed 32->16 pack and the unsigned 16->8 pack are exact.
        store<kStream>(dst + i, _mm_packus_epi16(_mm_packs_epi32(a, b), _mm_packs_epi32(c, d)));
    }
    for (; i < n; ++i) dst[i] = floatToInt<uint8_t>(src[i]);
    finishStores<kStream>();
}

template <bool kStream>
void floatToU16Channels(const float* src, uint16_t* dst, std::size_t n) {
    const __m128 scale = _mm_set1_ps(65535.0f);
    // SSE2 has only the signed 32->16 pack: shift 0..65535 to -32768..32767, pack, and
    // flip the top bit back.
    const __m128i bias = _mm_set1_epi32(32768);
    const __m128i flip = _mm_set1_epi16(static_cast<short>(0x8000));
    std::size_t i = alignDestination<kStream>(src, dst, n);
    for (; i + 16 <= n; i += 16) {
        const __m128i a = _mm_sub_epi32(quantise4(src + i, scale), bias);
        const __m128i b = _mm_sub_epi32(quantise4(src + i + 4, scale), bias);
        const __m128i c = _mm_sub_epi32(quantise4(src + i + 8, scale), bias);
        const __m128i d = _mm_sub_epi32(quantise4(src + i + 12, scale), bias);
        store<kStream>(dst + i, _mm_xor_si128(_mm_packs_epi32(a, b), flip));
        store<kStream>(dst + i + 8, _mm_xor_si128(_mm_packs_epi32(c, d), flip));
    }
    for (; i < n; ++i) dst[i] = floatToInt<uint16_t>(src[i]);
    finishStores<kStream>();
}

inline __m128 scaled(__m128i v, __m128 inv) { return _mm_mul_ps(_mm_cvtepi32_ps(v), inv); }

template <bool kStream>
void u8ToFloatChannels(const uint8_t* src, float* dst, std::size_t n) {
    const __m128 inv = _mm_set1_ps(kInv255);
    const __m128i zero = _mm_setzero_si128();
    std::size_t i = alignDestination<kStream>(src, dst, n);
    for (; i + 16 <= n; i += 16) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + i));
        const __m128i lo = _mm_unpacklo_epi8(bytes, zero), hi = _mm_unpackhi_epi8(bytes, zero);
        store<kStream>(dst + i, scaled(_mm_unpacklo_epi16(lo, zero), inv));
        store<kStream>(dst + i + 4, scaled(_mm_unpackhi_epi16(lo, zero), inv));
        store<kStream>(dst + i + 8, scaled(_mm_unpacklo_epi16(hi, zero), inv));
        store<kStream>(dst + i + 12, scaled(_mm_unpackhi_epi16(hi, zero), inv));
    }
    for (; i < n; ++i) dst[i] = intToFloat(src[i]);
    finishStores<kStream>();
}

template <bool kStream>
void u16ToFloatChannels(const uint16_t* src, float* dst, std::size_t n) {
    const __m128 inv = _mm_set1_ps(kInv65535);
    const __m128i zero = _mm_setzero_si128();
    std::size_t i = alignDestination<kStream>(src, dst, n);
    for (; i + 16 <= n; i += 16) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + i));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + i + 8));
        store<kStream>(dst + i, scaled(_mm_unpacklo_epi16(a, zero), inv));
        store<kStream>(dst + i + 4, scaled(_mm_unpackhi_epi16(a, zero), inv));
        store<kStream>(dst + i + 8, scaled(_mm_unpacklo_epi16(b, zero), inv));
        store<kStream>(dst + i + 12, scaled(_mm_unpackhi_epi16(b, zero), inv));
    }
    for (; i < n; ++i) dst[i] = intToFloat(src[i]);
    finishStores<kStream>();
}

template <class S, class D>
constexpr bool kHasChannelKernel = (std::is_same_v<S, float> && (std::is_same_v<D, uint8_t> || std::is_same_v<D, uint16_t>)) ||
                                   (std::is_same_v<D, float> && (std::is_same_v<S, uint8_t> || std::is_same_v<S, uint16_t>));

template <bool kStream, class S, class D>
inline void convertChannelRange(const S* src, D* dst, std::size_t n) {
    if constexpr (std::is_same_v<S, float> && std::is_same_v<D, uint8_t>)
        floatToU8Channels<kStream>(src, dst, n);
    else if constexpr (std::is_same_v<S, float> && std::is_same_v<D, uint16_t>)
        floatToU16Channels<kStream>(src, dst, n);
    else if constexpr (std::is_same_v<S, uint8_t>)
        u8ToFloatChannels<kStream>(src, dst, n);
    else
        u16ToFloatChannels<kStream>(src, dst, n);
}

// One contiguous range of n pixels, by the kernel resolved for the pair at compile time.
template <class Src, class Dst>
void convertRange(const Src* src, Dst* dst, std::size_t n, bool stream) {
    using SC = typename PixelTraits<Src>::Channel;
    using DC = typename PixelTraits<Dst>::Channel;
    constexpr int kChannels = PixelTraits<Src>::channels;
    if constexpr (LayoutOf<Src>::value == LayoutOf<Dst>::value && kHasChannelKernel<SC, DC>) {
        const SC* s = reinterpret_cast<const SC*>(src);
        DC* d = reinterpret_cast<DC*>(dst);
        if (stream)
            convertChannelRange<true>(s, d, n * kChannels);
        else
            convertChannelRange<false>(s, d, n * kChannels);
    } else {
        convertPixelRange(src, dst, n);
    }
}

// The whole buffer, in blocks of kBlockPixels spread over the TBB pool.
template <class Src, class Dst>
void convertPixels(const Src* src, Dst* dst, uint64_t count) {
    const uint64_t blocks = (count + kBlockPixels - 1) / kBlockPixels;
    const bool stream = count * sizeof(Dst) >= kStreamingBytes;
    parallelFor<uint64_t>(0, blocks, [&](uint64_t b, uint64_t e) {
        const uint64_t first = b * kBlockPixels;
        const uint64_t last = std::min(e * kBlockPixels, count);
        convertRange(src + first, dst + first, static_cast<std::size_t>(last - first), stream);
    });
}

// ---------------------------------------------------------------- signature texts

// A template argument list as the log texts spell it: "<a,b>", with a space before the
// closing bracket when the last argument is a template ("<struct zorl::PixelRGB<float> >")
// or const-qualified ("<class zorl::_ImageData<...> const >").
std::string templateArgs(std::initializer_list<std::string> args) {
    std::string out = "<";
    bool first = true;
    std::string last;
    for (const std::string& a : args) {
        if (!first) out += ",";
        out += a;
        last = a;
        first = false;
    }
    if (last.ends_with('>') || last.ends_with(" const")) out += " ";
    return out + ">";
}

template <class Src, class Dst>
std::string convertLoopSignature() {
    return "void __cdecl zorl::convertLoop" + templateArgs({sig::typeName<Src>(), sig::typeName<Dst>()}) + "(const " +
           sig::typeName<Src>() + " *," + sig::typeName<Dst>() + " *," + sig::typeName<uint64_t>() + ")";
}

// "class std::shared_ptr<class zorl::_ImageData<struct zorl::PixelRGB<T> > >"
template <class P>
std::string imagePtrName(bool constImage) {
    const std::string image = "class zorl::_ImageData" + templateArgs({sig::typeName<P>()});
    return "class std::shared_ptr" + templateArgs({constImage ? image + " const" : image});
}

template <class SrcPixel, class DstPixel, class T>
std::string imageConversionSignature(const char* name) {
    return imagePtrName<DstPixel>(false) + " __cdecl zorl::" + name + templateArgs({sig::typeName<T>()}) + "(const " +
           imagePtrName<SrcPixel>(true) + " &)";
}

}  // namespace

// ---------------------------------------------------------------- entry points

template <class Src, class Dst>
void convertLoop(const Src* src, Dst* dst, uint64_t count) {
    if (count == 0) return;
    if (!src || !dst) {
        logError(convertLoopSignature<Src, Dst>(), !src && !dst ? "source and destination are null"
                                                   : !src       ? "source is null"
                                                                : "destination is null");
        return;
    }
    convertPixels(src, dst, count);
}

template <class T>
std::shared_ptr<_ImageData<PixelRGB<T>>> floatToIntImageData(const std::shared_ptr<const _ImageData<PixelRGB<float>>>& src) {
    if (!src) {
        logError(imageConversionSignature<PixelRGB<float>, PixelRGB<T>, T>("floatToIntImageData"),
                 "[floatToIntImageData]: no srcImageData");
        return nullptr;
    }
    auto dst = std::make_shared<_ImageData<PixelRGB<T>>>(src->size(), src->colorProfile());
    convertPixels(src->data(), dst->data(), src->pixelCount());
    return dst;
}

template <class T>
std::shared_ptr<_ImageData<PixelRGB<float>>> intToFloatImageData(const std::shared_ptr<const _ImageData<PixelRGB<T>>>& src) {
    if (!src) {
        logError(imageConversionSignature<PixelRGB<T>, PixelRGB<float>, T>("intToFloatImageData"),
                 "[intToFloatImageData]: no srcImageData");
        return nullptr;
    }
    auto dst = std::make_shared<_ImageData<PixelRGB<float>>>(src->size(), src->colorProfile());
    convertPixels(src->data(), dst->data(), src->pixelCount());
    return dst;
}

// ---------------------------------------------------------------- instantiations

#define ZORL_CONVERT_LOOP(S, D) template ZORL_IP_EXPORT void convertLoop<S, D>(const S*, D*, uint64_t);
ZORL_CONVERT_LOOP(float, uint8_t)
ZORL_CONVERT_LOOP(float, PixelRGB<uint8_t>)
ZORL_CONVERT_LOOP(float, PixelRGB<uint16_t>)
ZORL_CONVERT_LOOP(float, PixelRGB<float>)
ZORL_CONVERT_LOOP(PixelARGB<float>, PixelRGB<float>)
ZORL_CONVERT_LOOP(PixelBGR<uint8_t>, PixelRGB<float>)
ZORL_CONVERT_LOOP(PixelBGR<uint16_t>, PixelRGB<float>)
ZORL_CONVERT_LOOP(PixelBGRA<uint8_t>, PixelRGB<float>)
ZORL_CONVERT_LOOP(PixelRGB<uint8_t>, PixelRGB<float>)
ZORL_CONVERT_LOOP(PixelRGB<uint8_t>, PixelRGBA<float>)
ZORL_CONVERT_LOOP(PixelRGB<uint16_t>, PixelRGB<float>)
ZORL_CONVERT_LOOP(PixelRGB<float>, PixelBGRA<uint8_t>)
ZORL_CONVERT_LOOP(PixelRGB<float>, PixelRGB<uint8_t>)
ZORL_CONVERT_LOOP(PixelRGB<float>, PixelRGB<uint16_t>)
ZORL_CONVERT_LOOP(PixelRGB<float>, PixelRGBA<uint8_t>)
ZORL_CONVERT_LOOP(PixelRGB<float>, PixelRGBA<uint16_t>)
ZORL_CONVERT_LOOP(PixelRGB<float>, PixelRGBA<float>)
ZORL_CONVERT_LOOP(PixelRGBA<uint8_t>, PixelBGRA<uint8_t>)
ZORL_CONVERT_LOOP(PixelRGBA<uint8_t>, PixelRGBA<float>)
ZORL_CONVERT_LOOP(PixelRGBA<float>, PixelRGB<uint8_t>)
ZORL_CONVERT_LOOP(PixelRGBA<float>, PixelRGBA<uint8_t>)
ZORL_CONVERT_LOOP(PixelRGBA<float>, PixelRGBA<uint16_t>)
#undef ZORL_CONVERT_LOOP

template ZORL_IP_EXPORT std::shared_ptr<_ImageData<PixelRGB<uint8_t>>> floatToIntImageData<uint8_t>(
    const std::shared_ptr<const _ImageData<PixelRGB<float>>>&);
template ZORL_IP_EXPORT std::shared_ptr<_ImageData<PixelRGB<uint16_t>>> floatToIntImageData<uint16_t>(
    const std::shared_ptr<const _ImageData<PixelRGB<float>>>&);
template ZORL_IP_EXPORT std::shared_ptr<_ImageData<PixelRGB<float>>> intToFloatImageData<uint8_t>(
    const std::shared_ptr<const _ImageData<PixelRGB<uint8_t>>>&);
template ZORL_IP_EXPORT std::shared_ptr<_ImageData<PixelRGB<float>>> intToFloatImageData<uint16_t>(
    const std::shared_ptr<const _ImageData<PixelRGB<uint16_t>>>&);

}  // namespace zorl
