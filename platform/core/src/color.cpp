#include <zorl/core/color.h>

#include <lcms2.h>

#include <algorithm>
#include <cmath>

namespace zorl {
namespace {

// ---- Little CMS profiles -------------------------------------------------------------

cmsToneCurve* srgbCurve() {
    // IEC 61966-2-1: parametric type 4, Y = ((aX + b)^g) for X >= d, else cX.
    const cmsFloat64Number p[5] = {2.4, 1.0 / 1.055, 0.055 / 1.055, 1.0 / 12.92, 0.04045};
    return cmsBuildParametricToneCurve(nullptr, 4, p);
}

cmsHPROFILE rgbProfile(const cmsCIExyY& white, const cmsCIExyYTRIPLE& primaries, cmsToneCurve* curve) {
    cmsToneCurve* curves[3] = {curve, curve, curve};
    cmsHPROFILE profile = cmsCreateRGBProfile(&white, &primaries, curves);
    cmsFreeToneCurve(curve);
    return profile;
}

constexpr cmsCIExyYTRIPLE kSrgbPrimaries = {{0.6400, 0.3300, 1.0}, {0.3000, 0.6000, 1.0}, {0.1500, 0.0600, 1.0}};
constexpr cmsCIExyYTRIPLE kProPhotoPrimaries = {{0.7347, 0.2653, 1.0}, {0.1596, 0.8404, 1.0}, {0.0366, 0.0001, 1.0}};
constexpr cmsCIExyY kD65 = {0.3127, 0.3290, 1.0};
constexpr cmsCIExyY kD50 = {0.3457, 0.3585, 1.0};

cmsHPROFILE createProfile(const ColorProfile& p) {
    switch (p.kind()) {
        case ColorProfile::Kind::None:
        case ColorProfile::Kind::sRGB: return cmsCreate_sRGBProfile();
        case ColorProfile::Kind::sRGBLinear: return rgbProfile(kD65, kSrgbPrimaries, cmsBuildGamma(nullptr, 1.0));
        case ColorProfile::Kind::ProPhotoRGB: return rgbProfile(kD50, kProPhotoPrimaries, cmsBuildGamma(nullptr, 1.8));
        case ColorProfile::Kind::MelissaRGB: return rgbProfile(kD50, kProPhotoPrimaries, srgbCurve());
    }
    return nullptr;
}

cmsUInt32Number lcmsFormat(ImageDataType t) {
    switch (t) {
        case ImageDataType::RgbF32: return TYPE_RGB_FLT;
        case ImageDataType::RgbaF32: return TYPE_RGBA_FLT;
        case ImageDataType::ArgbF32: return TYPE_ARGB_FLT;
        case ImageDataType::RgbU8: return TYPE_RGB_8;
        case ImageDataType::RgbaU8: return TYPE_RGBA_8;
        case ImageDataType::BgrU8: return TYPE_BGR_8;
        case ImageDataType::BgraU8: return TYPE_BGRA_8;
        case ImageDataType::RgbU16: return TYPE_RGB_16;
        case ImageDataType::RgbaU16: return TYPE_RGBA_16;
        case ImageDataType::BgrU16: return TYPE_BGR_16;
        default: return 0;  // gray layouts would need gray profiles
    }
}

// ---- Per-pixel conversions -----------------------------------------------------------

struct Vec3 {
    float x, y, z;
};

Vec3 mul(const float m[9], Vec3 v) {
    return {m[0] * v.x + m[1] * v.y + m[2] * v.z, m[3] * v.x + m[4] * v.y + m[5] * v.z,
            m[6] * v.x + m[7] * v.y + m[8] * v.z};
}

float srgbDecode(float v) {
    const float a = std::fabs(v);
    const float l = a <= 0.04045f ? a / 12.92f : std::pow((a + 0.055f) / 1.055f, 2.4f);
    return std::copysign(l, v);
}
float srgbEncode(float v) {
    const float a = std::fabs(v);
    const float e = a <= 0.0031308f ? a * 12.92f : 1.055f * std::pow(a, 1.0f / 2.4f) - 0.055f;
    return std::copysign(e, v);
}
// ROMM RGB: gamma 1.8 with a linear toe below 1/512 (encoded 16/512).
float rommDecode(float v) {
    const float a = std::fabs(v);
    const float l = a < 16.0f / 512.0f ? a / 16.0f : std::pow(a, 1.8f);
    return std::copysign(l, v);
}
float rommEncode(float v) {
    const float a = std::fabs(v);
    const float e = a < 1.0f / 512.0f ? a * 16.0f : std::pow(a, 1.0f / 1.8f);
    return std::copysign(e, v);
}

constexpr float kSrgbToXyz[9] = {0.4124564f, 0.3575761f, 0.1804375f, 0.2126729f, 0.7151522f,
                                 0.0721750f, 0.0193339f, 0.1191920f, 0.9503041f};
constexpr float kXyzToSrgb[9] = {3.2404542f, -1.5371385f, -0.4985314f, -0.9692660f, 1.8760108f,
                                 0.0415560f, 0.0556434f,  -0.2040259f, 1.0572252f};
constexpr float kProPhotoToXyz[9] = {0.7976749f, 0.1351917f, 0.0313534f, 0.2880402f, 0.7118741f,
                                     0.0000857f, 0.0f,       0.0f,       0.8252100f};
constexpr float kXyzToProPhoto[9] = {1.3459433f, -0.2556075f, -0.0511118f, -0.5445989f, 1.5081673f,
                                     0.0205351f, 0.0f,        0.0f,        1.2118128f};
constexpr Vec3 kWhiteD65 = {0.95047f, 1.0f, 1.08883f};
constexpr Vec3 kWhiteD50 = {0.96422f, 1.0f, 0.82521f};

constexpr float kLabEpsilon = 216.0f / 24389.0f;
constexpr float kLabKappa = 24389.0f / 27.0f;

float labF(float t) { return t > kLabEpsilon ? std::cbrt(t) : (kLabKappa * t + 16.0f) / 116.0f; }
float labFInv(float f) {
    const float f3 = f * f * f;
    return f3 > kLabEpsilon ? f3 : (116.0f * f - 16.0f) / kLabKappa;
}

void xyzToLab(Vec3 xyz, Vec3 white, float* L, float* a, float* b) {
    const float fx = labF(xyz.x / white.x), fy = labF(xyz.y / white.y), fz = labF(xyz.z / white.z);
    *L = 116.0f * fy - 16.0f;
    *a = 500.0f * (fx - fy);
    *b = 200.0f * (fy - fz);
}

Vec3 labToXyz(float L, float a, float b, Vec3 white) {
    const float fy = (L + 16.0f) / 116.0f;
    const float fx = fy + a / 500.0f;
    const float fz = fy - b / 200.0f;
    return {labFInv(fx) * white.x, labFInv(fy) * white.y, labFInv(fz) * white.z};
}

float hueToRgb(float p, float q, float t) {
    if (t < 0.0f) t += 1.0f;
    if (t > 1.0f) t -= 1.0f;
    if (t < 1.0f / 6.0f) return p + (q - p) * 6.0f * t;
    if (t < 0.5f) return q;
    if (t < 2.0f / 3.0f) return p + (q - p) * (2.0f / 3.0f - t) * 6.0f;
    return p;
}

}  // namespace

void* colorCreateTransform(const ColorProfile& src, ImageDataType srcType, const ColorProfile& dst, ImageDataType dstType) {
    const cmsUInt32Number inFormat = lcmsFormat(srcType), outFormat = lcmsFormat(dstType);
    if (!inFormat || !outFormat) return nullptr;
    cmsHPROFILE in = createProfile(src), out = createProfile(dst);
    cmsHTRANSFORM t = nullptr;
    if (in && out)
        t = cmsCreateTransform(in, inFormat, out, outFormat, INTENT_RELATIVE_COLORIMETRIC,
                               cmsFLAGS_NOCACHE | cmsFLAGS_COPY_ALPHA);
    if (in) cmsCloseProfile(in);
    if (out) cmsCloseProfile(out);
    return t;
}

void colorDoTranform(void* handle, const void* src, void* dst, uint64_t pixelCount) {
    if (!handle || !src || !dst) return;
    // cmsDoTransform takes a 32-bit count: convert in slices.
    constexpr uint64_t kSlice = 1u << 24;
    const cmsUInt32Number inBytes = T_BYTES(cmsGetTransformInputFormat(handle));
    const cmsUInt32Number inChannels = T_CHANNELS(cmsGetTransformInputFormat(handle)) + T_EXTRA(cmsGetTransformInputFormat(handle));
    const cmsUInt32Number outBytes = T_BYTES(cmsGetTransformOutputFormat(handle));
    const cmsUInt32Number outChannels = T_CHANNELS(cmsGetTransformOutputFormat(handle)) + T_EXTRA(cmsGetTransformOutputFormat(handle));
    const uint64_t inPixel = uint64_t(inBytes ? inBytes : 8) * inChannels;    // T_BYTES 0 means double
    const uint64_t outPixel = uint64_t(outBytes ? outBytes : 8) * outChannels;
    for (uint64_t done = 0; done < pixelCount; done += kSlice) {
        const uint64_t n = std::min(kSlice, pixelCount - done);
        cmsDoTransform(handle, static_cast<const uint8_t*>(src) + done * inPixel, static_cast<uint8_t*>(dst) + done * outPixel,
                       static_cast<cmsUInt32Number>(n));
    }
}

void colorDeleteTransform(void* handle) {
    if (handle) cmsDeleteTransform(handle);
}

void Rgb2Lab(float* L, float* a, float* b, float r, float g, float blue) {
    xyzToLab(mul(kSrgbToXyz, {srgbDecode(r), srgbDecode(g), srgbDecode(blue)}), kWhiteD65, L, a, b);
}

void Lab2Rgb(float* r, float* g, float* blue, float L, float a, float b) {
    const Vec3 lin = mul(kXyzToSrgb, labToXyz(L, a, b, kWhiteD65));
    *r = srgbEncode(lin.x);
    *g = srgbEncode(lin.y);
    *blue = srgbEncode(lin.z);
}

void Rgb2Lab_ProPhoto(float* L, float* a, float* b, float r, float g, float blue) {
    xyzToLab(mul(kProPhotoToXyz, {rommDecode(r), rommDecode(g), rommDecode(blue)}), kWhiteD50, L, a, b);
}

void Lab2Rgb_ProPhoto(float* r, float* g, float* blue, float L, float a, float b) {
    const Vec3 lin = mul(kXyzToProPhoto, labToXyz(L, a, b, kWhiteD50));
    *r = rommEncode(lin.x);
    *g = rommEncode(lin.y);
    *blue = rommEncode(lin.z);
}

void Rgb2Hsl(float* h, float* s, float* l, float r, float g, float b) {
    const float mx = std::max({r, g, b}), mn = std::min({r, g, b});
    const float d = mx - mn;
    *l = 0.5f * (mx + mn);
    if (d <= 0.0f) {
        *h = 0.0f;
        *s = 0.0f;
        return;
    }
    *s = *l > 0.5f ? d / (2.0f - mx - mn) : d / (mx + mn);
    float hue;
    if (mx == r)
        hue = (g - b) / d + (g < b ? 6.0f : 0.0f);
    else if (mx == g)
        hue = (b - r) / d + 2.0f;
    else
        hue = (r - g) / d + 4.0f;
    *h = hue / 6.0f;
}

void Hsl2Rgb(float* r, float* g, float* b, float h, float s, float l) {
    if (s <= 0.0f) {
        *r = *g = *b = l;
        return;
    }
    h -= std::floor(h);
    const float q = l < 0.5f ? l * (1.0f + s) : l + s - l * s;
    const float p = 2.0f * l - q;
    *r = hueToRgb(p, q, h + 1.0f / 3.0f);
    *g = hueToRgb(p, q, h);
    *b = hueToRgb(p, q, h - 1.0f / 3.0f);
}

}  // namespace zorl
