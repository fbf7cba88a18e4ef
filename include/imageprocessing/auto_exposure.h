#pragma once
// Automatic exposure correction of float RGB and ARGB buffers.
//
// A film-like response curve maps exposure (0..1) to pixel value (0..1); it and its
// inverse are two tables of 65,535 floats filled when the library loads and read-only
// afterwards, so every function here may run on any number of threads at once. Both
// directions are lookups: index = truncation of x * 65535, clamped to 0..65534 (NaN
// reads entry 0).
//
// The exposure model of a record (gain, scale, offset, contrast), per channel value x:
//   y = apply_exposure(x, gain, scale, offset)
//   y = y + (0.5 cos(pi y + pi) + 0.5 - y) * contrast      (the cosine S-curve)
// The S-curve step is left out when contrast is exactly 0.5, the value the estimator
// leaves in place when it does not fit the contrast (flags without bit 4): so a record
// applies exactly the model that was fitted.
//
// The estimator fits a record so that the model applied to a source reproduces a target
// (mean squared difference over a working copy of at most 512 columns). The adjusting
// functions take the target in dst, fit, and overwrite dst with the corrected source.

#include <imageprocessing/export.h>

// The four fitted parameters, in this order. The estimator starts them at
// (0.1, 0.9, 0.5, 0.5) and overwrites those it searches.
struct auto_exposure_data_t {
    float gain;      // exposure multiplier; searched in [0.1, 2.0] (always)
    float scale;     // contraction around offset before the curve; [0.87, 1.0] (flag 2)
    float offset;    // centre of that contraction; [0.4, 0.8] (flag 1)
    float contrast;  // weight of the cosine S-curve; [0, 1] (flag 4)
};

// Flag bits of autoExposureEstimateRGB.
inline constexpr unsigned int kAutoExposureFitOffset = 1;    // search the 3rd field
inline constexpr unsigned int kAutoExposureFitScale = 2;     // search the 2nd field
inline constexpr unsigned int kAutoExposureFitContrast = 4;  // search the 4th field

// The response tables, 65,535 entries each, the inverse directly after the forward one.
// pixelValueTable[i]: pixel value at exposure i / 65535; exposureTable[i]: exposure at
// pixel value i / 65535.
ZORL_IP_EXPORT extern const float* const pixelValueTable;
ZORL_IP_EXPORT extern const float* const exposureTable;

// Table lookups (index rule above).
ZORL_IP_EXPORT float pixel_value_from_exposure(float exposure);
ZORL_IP_EXPORT float exposure_from_pixel_value(float value);

// Moves value along the response curve by gain, after contracting it by scale around
// offset (and expanding back after). The part of value above 1 passes through
// unchanged; the result is never negative.
ZORL_IP_EXPORT float apply_exposure(float value, float gain, float scale, float offset);

// Fits data so that the model applied to src reproduces dst (both width x height
// interleaved RGB, read only). flags selects the optional searches (bits above). Null
// buffers or data, or a non-positive size, are logged and leave data untouched.
ZORL_IP_EXPORT void autoExposureEstimateRGB(float* src, float* dst, int width, int height,
                                            auto_exposure_data_t* data, unsigned int flags);

// dst = the model of data applied to every channel of src, in parallel over rows. Does
// nothing when height is not positive; null buffers are logged. dst may be src.
ZORL_IP_EXPORT void autoExposureApplyRGB(float* src, float* dst, int width, int height,
                                         const auto_exposure_data_t* data);

// Estimates with all three optional searches against the target held in dst, then
// overwrites dst with the corrected src.
ZORL_IP_EXPORT void autoExposureAdjustRGB(float* src, float* dst, int width, int height);

// The same for ARGB pixels (4 floats): the colour goes through two temporary RGB buffers;
// the alpha of dst is taken from src.
ZORL_IP_EXPORT void autoExposureAdjustARGB(float* src, float* dst, int width, int height);

// Fits the 3rd field (a highlight/shadow power, a) and the 4th (a contrast S-curve, b) of
// data so that the luminance of src under that model reproduces the luminance of dst
// (both ARGB). The first two fields are not touched.
ZORL_IP_EXPORT void autoScaleEstimateARGB(float* src, float* dst, int width, int height,
                                          auto_exposure_data_t* data);
