// The guided filter family on 6000 x 4000 float images, radius 8 and 32, beside OpenCV's
// guided filter (ximgproc) on the same data. OpenCV's eps is the regulariser itself, so
// it receives epsilon^2. Run with repetitions and read the medians, e.g.
//   guided_filter_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true

#include <imageprocessing/guided_filter.h>

#include <benchmark/benchmark.h>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#if __has_include(<opencv2/ximgproc.hpp>)
#include <opencv2/ximgproc.hpp>
#define GRFX_HAVE_XIMGPROC 1
#endif

#include <random>
#include <vector>

#include "imageprocessing/guided_filter/guided_kernels.h"

namespace {

constexpr int kWidth = 6000;
constexpr int kHeight = 4000;
constexpr float kEpsilon = 0.05f;  // a pixel-value scale: the regulariser is 0.0025

// Seeded noise over a few large blocks: flat, textured and edge regions.
const std::vector<float>& data(int channels, unsigned seed) {
    static std::vector<float> planes[5][3];
    std::vector<float>& v = planes[channels][seed];
    if (v.empty()) {
        v.resize(std::size_t(kWidth) * kHeight * channels);
        std::mt19937 rng(seed + 1);
        std::uniform_real_distribution<float> noise(0.0f, 0.2f);
        for (std::size_t i = 0; i < v.size(); ++i) {
            const std::size_t pixel = i / channels;
            const std::size_t x = pixel % kWidth, y = pixel / kWidth;
            v[i] = noise(rng) + ((x / 700 + y / 500) % 2 ? 0.6f : 0.2f);
        }
    }
    return v;
}

std::vector<float>& output(int channels) {
    static std::vector<float> out[5];
    out[channels].resize(std::size_t(kWidth) * kHeight * channels);
    return out[channels];
}

void libraryBox(float* dst, const float* src, int width, int height, int radius, int channels) {
    grfx::guided::boxMean(src, dst, width, height, radius, channels);
}

void BM_Self(benchmark::State& state, void (*fn)(const float*, float*, size_t, size_t, float, float), int C) {
    const std::vector<float>& src = data(C, 0);
    std::vector<float>& dst = output(C);
    for (auto _ : state) {
        fn(src.data(), dst.data(), kWidth, kHeight, float(state.range(0)), kEpsilon);
        benchmark::DoNotOptimize(dst.data());
    }
}

void BM_Guided(benchmark::State& state, void (*fn)(const float*, const float*, float*, size_t, size_t, float, float),
               int C) {
    const std::vector<float>& src = data(C, 0);
    const std::vector<float>& guide = data(C, 1);
    std::vector<float>& dst = output(C);
    for (auto _ : state) {
        fn(src.data(), guide.data(), dst.data(), kWidth, kHeight, float(state.range(0)), kEpsilon);
        benchmark::DoNotOptimize(dst.data());
    }
}

void grayGuidedLibraryBox(const float* s, const float* g, float* d, size_t w, size_t h, float r, float e) {
    grfx_guided_filter_gray_guided(s, g, d, w, h, r, e, [](float* dd, const float* ss, int ww, int hh, int rr) {
        libraryBox(dd, ss, ww, hh, rr, 1);
    });
}
void rgbGuidedLibraryBox(const float* s, const float* g, float* d, size_t w, size_t h, float r, float e) {
    grfx_guided_filter_rgb_guided(s, g, d, w, h, r, e, [](float* dd, const float* ss, int ww, int hh, int rr) {
        libraryBox(dd, ss, ww, hh, rr, 3);
    });
}

#define GRFX_BENCH(name, body, fn, channels) \
    BENCHMARK_CAPTURE(body, name, fn, channels)->Arg(8)->Arg(32)->Unit(benchmark::kMillisecond)->UseRealTime()

GRFX_BENCH(gray, BM_Self, grfx_guided_filter_gray, 1);
GRFX_BENCH(rgb, BM_Self, grfx_guided_filter_rgb, 3);
GRFX_BENCH(argb, BM_Self, grfx_guided_filter_argb, 4);
GRFX_BENCH(gray_fast, BM_Self, grfx_guided_filter_gray_fast, 1);
GRFX_BENCH(rgb_fast, BM_Self, grfx_guided_filter_rgb_fast, 3);
GRFX_BENCH(argb_fast, BM_Self, grfx_guided_filter_argb_fast, 4);
GRFX_BENCH(gray_guided, BM_Guided, grayGuidedLibraryBox, 1);
GRFX_BENCH(rgb_guided, BM_Guided, rgbGuidedLibraryBox, 3);
GRFX_BENCH(argb_guided, BM_Guided, grfx_guided_filter_argb_guided, 4);
GRFX_BENCH(gray_guided_fast, BM_Guided, grfx_guided_filter_gray_guided_fast, 1);
GRFX_BENCH(rgb_guided_fast, BM_Guided, grfx_guided_filter_rgb_guided_fast, 3);
GRFX_BENCH(argb_guided_fast, BM_Guided, grfx_guided_filter_argb_guided_fast, 4);

#ifdef GRFX_HAVE_XIMGPROC
// OpenCV, self-guided gray.
void BM_OpenCV_Gray(benchmark::State& state) {
    cv::Mat src(kHeight, kWidth, CV_32F, const_cast<float*>(data(1, 0).data()));
    cv::Mat dst(kHeight, kWidth, CV_32F, output(1).data());
    for (auto _ : state) cv::ximgproc::guidedFilter(src, src, dst, int(state.range(0)), kEpsilon * kEpsilon);
}
// OpenCV, the gray filter on the three planes of an RGB image one by one.
void BM_OpenCV_GrayThreePlanes(benchmark::State& state) {
    std::vector<cv::Mat> planes;
    cv::split(cv::Mat(kHeight, kWidth, CV_32FC3, const_cast<float*>(data(3, 0).data())), planes);
    std::vector<cv::Mat> out(3);
    for (auto _ : state)
        for (int c = 0; c < 3; ++c)
            cv::ximgproc::guidedFilter(planes[c], planes[c], out[c], int(state.range(0)), kEpsilon * kEpsilon);
}
// OpenCV, gray source with a separate gray guide.
void BM_OpenCV_GrayGuided(benchmark::State& state) {
    cv::Mat src(kHeight, kWidth, CV_32F, const_cast<float*>(data(1, 0).data()));
    cv::Mat guide(kHeight, kWidth, CV_32F, const_cast<float*>(data(1, 1).data()));
    cv::Mat dst(kHeight, kWidth, CV_32F, output(1).data());
    for (auto _ : state) cv::ximgproc::guidedFilter(guide, src, dst, int(state.range(0)), kEpsilon * kEpsilon);
}
BENCHMARK(BM_OpenCV_Gray)->Arg(8)->Arg(32)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_OpenCV_GrayThreePlanes)->Arg(8)->Arg(32)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_OpenCV_GrayGuided)->Arg(8)->Arg(32)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif

}  // namespace

BENCHMARK_MAIN();
