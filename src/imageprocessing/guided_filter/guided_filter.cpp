// Entry points of the plain guided filters: the self-guided filters, the two-image
// filters with the caller's or the built-in box mean, and the two overloads. Each checks
// its input (one error line and no output on failure), truncates the radius, squares
// epsilon and hands over to the kernels of self_guided.cpp and two_image.cpp.

#include <imageprocessing/guided_filter.h>

#include <algorithm>
#include <string>

#include "imageprocessing/guided_filter/guided_kernels.h"

using namespace grfx;
using namespace grfx::guided;

namespace {

const std::string& selfParameters() {
    static const std::string text = "const float *,float *,unsigned __int64,unsigned __int64,float,float";
    return text;
}
const std::string& boxParameters() {
    static const std::string text =
        "const float *,const float *,float *,unsigned __int64,unsigned __int64,float,float,"
        "class std::function<void __cdecl(float *,const float *,int,int,int)>";
    return text;
}
const std::string& guidedParameters() {
    static const std::string text = "const float *,const float *,float *,unsigned __int64,unsigned __int64,float,float";
    return text;
}

template <class P>
void runSelfGuided(const char* name, const float* src, float* dst, std::size_t width, std::size_t height, float radius,
                   float epsilon) {
    const std::string signature = signatureOf(name, selfParameters().c_str());
    if (!checkBuffers(signature, src, nullptr, false, dst) || !checkSizeAndRadius(signature, width, height, radius))
        return;
    if (width == 0 || height == 0) return;
    selfGuided<P>(src, dst, width, height, truncateRadius(radius), Regulariser{epsilon * epsilon});
}

template <class P>
void runGuided(const char* name, const std::string& parameters, const float* src, const float* guidance, float* dst,
               std::size_t width, std::size_t height, float radius, float epsilon, grfx_box_filter_t* boxFilter) {
    const std::string signature = signatureOf(name, parameters.c_str());
    if (!checkBuffers(signature, src, guidance, true, dst) || !checkSizeAndRadius(signature, width, height, radius))
        return;
    width = std::max<std::size_t>(width, 1);
    height = std::max<std::size_t>(height, 1);
    const int r = truncateRadius(radius);
    MeanFn mean;
    if (boxFilter) {
        const int w = static_cast<int>(width), h = static_cast<int>(height);
        mean = [&, w, h, r](float* d, const float* s) { (*boxFilter)(d, s, w, h, r); };
    } else {
        mean = [&, r](float* d, const float* s) { boxMeanOf<P>(s, d, width, height, r); };
    }
    twoImage<P>(src, guidance, dst, width, height, Regulariser{epsilon * epsilon}, mean);
}

}  // namespace

void grfx_guided_filter_gray(const float* src, float* dst, size_t width, size_t height, float radius, float epsilon) {
    runSelfGuided<pixel_gray_t>("grfx_guided_filter_gray", src, dst, width, height, radius, epsilon);
}

void grfx_guided_filter_rgb(const float* src, float* dst, size_t width, size_t height, float radius, float epsilon) {
    runSelfGuided<pixel_rgb_t>("grfx_guided_filter_rgb", src, dst, width, height, radius, epsilon);
}

void grfx_guided_filter_argb(const float* src, float* dst, size_t width, size_t height, float radius, float epsilon) {
    runSelfGuided<pixel_t>("grfx_guided_filter_argb", src, dst, width, height, radius, epsilon);
}

void grfx_guided_filter_gray_guided(const float* src, const float* guidance, float* dst, size_t width, size_t height,
                                    float radius, float epsilon, grfx_box_filter_t boxFilter) {
    runGuided<pixel_gray_t>("grfx_guided_filter_gray_guided", boxParameters(), src, guidance, dst, width, height,
                            radius, epsilon, &boxFilter);
}

void grfx_guided_filter_rgb_guided(const float* src, const float* guidance, float* dst, size_t width, size_t height,
                                   float radius, float epsilon, grfx_box_filter_t boxFilter) {
    runGuided<pixel_rgb_t>("grfx_guided_filter_rgb_guided", boxParameters(), src, guidance, dst, width, height,
                           radius, epsilon, &boxFilter);
}

void grfx_guided_filter_argb_guided(const float* src, const float* guidance, float* dst, size_t width, size_t height,
                                    float radius, float epsilon) {
    runGuided<pixel_t>("grfx_guided_filter_argb_guided", guidedParameters(), src, guidance, dst, width, height, radius,
                       epsilon, nullptr);
}

void grfx_guided_filter(const float* src, float* dst, size_t width, size_t height, float radius, float epsilon) {
    grfx_guided_filter_gray(src, dst, width, height, radius, epsilon);
}

void grfx_guided_filter(const zorl::PixelRGB<float>* src, zorl::PixelRGB<float>* dst, size_t width, size_t height,
                        float radius, float epsilon) {
    grfx_guided_filter_rgb(reinterpret_cast<const float*>(src), reinterpret_cast<float*>(dst), width, height, radius,
                           epsilon);
}
