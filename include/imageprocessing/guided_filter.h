#pragma once
// The guided filter family: edge-preserving smoothing of packed float images.
//
// Within every (2r + 1) x (2r + 1) window the output is modelled as a * I + b, with I the
// guidance image; a and b are fitted by least squares with a regulariser, averaged over
// all windows covering a pixel and applied to the guidance. Layouts: gray is 1 float per
// pixel, rgb 3 (a packed PixelRGB<float>), argb 4; pixel (x, y) of a c-channel image
// starts at float (y * width + x) * c, without row padding. Colour images are filtered
// channel by channel (no cross-channel covariance); the argb functions treat all four
// lanes alike, alpha included.
//
// Shared rules of every function:
//   - radius is truncated toward zero to r; below 1 (also negative) r is 0, a one-pixel
//     window, and the output equals the input (for epsilon > 0). r above 65536 is
//     rejected as bad input.
//   - epsilon is squared: it has the unit of a pixel value, the regulariser is epsilon^2
//     (the weighted filters alone use epsilon itself, see below).
//   - box means replicate the edge pixels (clamp to edge) and divide by (2r + 1)^2
//     everywhere, borders included.
//   - epsilon = 0 on a constant region gives 0 / 0 and NaN there; it is not guarded.
//   - bad input (a null buffer, a size above 2^31 - 1 in either direction, a radius above
//     65536) writes one error line and leaves dst untouched. Self-guided functions with a
//     zero width or height have nothing to write and return; the functions that take a
//     guidance treat a zero width or height as 1.
//   - dst may equal src (and, where there is one, guidance): the result is the same as
//     out of place. Any other partial overlap is not allowed.
//   - scratch memory comes from MemoryManager and is returned before the call ends, also
//     when an exception passes. Results do not depend on the number of threads.

#include <cstddef>
#include <functional>

#include <imageprocessing/export.h>
#include <zorl/core/pixel.h>

// The caller's box mean of the _guided functions: dst = the box mean of src over the
// (2r + 1) x (2r + 1) window, for a plane of width x height pixels. It is called six
// times per filter call from the calling thread, always with the image's width, height
// and r, never in place. For gray the plane has one float per pixel. For rgb the planes
// are packed RGB like the image (3 floats per pixel, width and height in pixels): the box
// mean must average each channel on its own (e.g. a box filter on a 3-channel matrix).
// An empty function throws std::bad_function_call at its first call.
using grfx_box_filter_t = std::function<void(float* dst, const float* src, int width, int height, int radius)>;

// Self-guided filter (I = p = src), three band-parallel passes over the image.
ZORL_IP_EXPORT void grfx_guided_filter_gray(const float* src, float* dst, size_t width, size_t height, float radius,
                                            float epsilon);
ZORL_IP_EXPORT void grfx_guided_filter_rgb(const float* src, float* dst, size_t width, size_t height, float radius,
                                           float epsilon);
ZORL_IP_EXPORT void grfx_guided_filter_argb(const float* src, float* dst, size_t width, size_t height, float radius,
                                            float epsilon);

// Self-guided filter with the coefficients fitted on a grid reduced by 4 in each
// direction (max(width >> 2, 1) x max(height >> 2, 1), area averages, radius
// (int)(radius * 0.25f)) and interpolated bilinearly, corner to corner, back to full size.
ZORL_IP_EXPORT void grfx_guided_filter_gray_fast(const float* src, float* dst, size_t width, size_t height,
                                                 float radius, float epsilon);
ZORL_IP_EXPORT void grfx_guided_filter_rgb_fast(const float* src, float* dst, size_t width, size_t height,
                                                float radius, float epsilon);
ZORL_IP_EXPORT void grfx_guided_filter_argb_fast(const float* src, float* dst, size_t width, size_t height,
                                                 float radius, float epsilon);

// Two-image filter: src (p) smoothed under guidance (I), every box mean through boxFilter.
ZORL_IP_EXPORT void grfx_guided_filter_gray_guided(const float* src, const float* guidance, float* dst, size_t width,
                                                   size_t height, float radius, float epsilon,
                                                   grfx_box_filter_t boxFilter);
ZORL_IP_EXPORT void grfx_guided_filter_rgb_guided(const float* src, const float* guidance, float* dst, size_t width,
                                                  size_t height, float radius, float epsilon,
                                                  grfx_box_filter_t boxFilter);
// Two-image filter with the library's own box mean.
ZORL_IP_EXPORT void grfx_guided_filter_argb_guided(const float* src, const float* guidance, float* dst, size_t width,
                                                   size_t height, float radius, float epsilon);

// Two-image filter with the coefficients fitted on the reduced grid (as the _fast
// functions), applied to the full-resolution guidance.
ZORL_IP_EXPORT void grfx_guided_filter_gray_guided_fast(const float* src, const float* guidance, float* dst,
                                                        size_t width, size_t height, float radius, float epsilon);
ZORL_IP_EXPORT void grfx_guided_filter_rgb_guided_fast(const float* src, const float* guidance, float* dst,
                                                       size_t width, size_t height, float radius, float epsilon);
ZORL_IP_EXPORT void grfx_guided_filter_argb_guided_fast(const float* src, const float* guidance, float* dst,
                                                        size_t width, size_t height, float radius, float epsilon);

// Forward to grfx_guided_filter_gray and grfx_guided_filter_rgb.
ZORL_IP_EXPORT void grfx_guided_filter(const float* src, float* dst, size_t width, size_t height, float radius,
                                       float epsilon);
ZORL_IP_EXPORT void grfx_guided_filter(const zorl::PixelRGB<float>* src, zorl::PixelRGB<float>* dst, size_t width,
                                       size_t height, float radius, float epsilon);

// Edge-aware weighted filter. A weight map W (one float per pixel) is built from the
// guidance: the 3 x 3 local variance (mean of the channels' variances for rgb) plus
// 2e-6, times the image mean of its reciprocal, then box-smoothed with radius
// (int)(width * weightRadiusFraction). The regulariser is epsilon / W per pixel: epsilon
// itself, not its square. src == guidance takes the self-guided path.
ZORL_IP_EXPORT void grfx_weighted_guided_filter_gray(const float* src, const float* guidance, float* dst, size_t width,
                                                     size_t height, float radius, float epsilon,
                                                     float weightRadiusFraction);
ZORL_IP_EXPORT void grfx_weighted_guided_filter_rgb(const float* src, const float* guidance, float* dst, size_t width,
                                                    size_t height, float radius, float epsilon,
                                                    float weightRadiusFraction);
// The rgb weighted filter for large images: above 4,194,304 pixels it runs tile by tile
// (tiles of at most 2048 x 2048 pixels, each widened by (int)(2 * radius) pixels and
// clipped to the image) with the weight map of the whole image; up to that size it is
// grfx_weighted_guided_filter_rgb, with identical results. In-place calls copy the
// source (and guidance) once before the tiles run.
ZORL_IP_EXPORT void grfx_weighted_guided_filter_rgb_tiled(const float* src, const float* guidance, float* dst,
                                                          size_t width, size_t height, float radius, float epsilon,
                                                          float weightRadiusFraction);
