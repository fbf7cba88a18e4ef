// Pixel format conversion on a 6000 x 4000 RGB image against its peers, in one run:
//   convertLoop   RGB float -> RGB uint8, RGB float -> RGB uint16, RGB uint8 -> RGB float
//   OpenCV        cv::Mat::convertTo on the same buffers (it rounds and saturates where we
//                 truncate: the comparison is of speed only)
//   memcpy        of the RGB float buffer, the larger side of every pair: the memory
//                 bandwidth floor.
// Buffers are allocated and touched once and reused by every iteration (a fresh 288 MB
// buffer would add 90-130 ms of page faults). Wall-clock time, as the conversions are
// parallel.
//
//   conversion_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include <opencv2/core.hpp>

#include <imageprocessing/conversion.h>

namespace {

constexpr int kWidth = 6000;
constexpr int kHeight = 4000;
constexpr std::size_t kPixels = std::size_t(kWidth) * kHeight;

template <class T>
T* allocateTouched(std::size_t count) {
    constexpr std::size_t kAlignment = 64;
    void* p = std::aligned_alloc(kAlignment, (count * sizeof(T) + kAlignment - 1) / kAlignment * kAlignment);
    std::memset(p, 0, count * sizeof(T));
    return static_cast<T*>(p);
}

// The buffers of every benchmark, made once. The float source is a ramp over -0.1..1.1
// so that both clamps and the interior are exercised.
struct Buffers {
    zorl::PixelRGB<float>* rgbF = allocateTouched<zorl::PixelRGB<float>>(kPixels);
    zorl::PixelRGB<float>* rgbF2 = allocateTouched<zorl::PixelRGB<float>>(kPixels);
    zorl::PixelRGB<uint8_t>* rgb8 = allocateTouched<zorl::PixelRGB<uint8_t>>(kPixels);
    zorl::PixelRGB<uint16_t>* rgb16 = allocateTouched<zorl::PixelRGB<uint16_t>>(kPixels);

    Buffers() {
        float* f = &rgbF[0].r;
        for (std::size_t i = 0; i < kPixels * 3; ++i) f[i] = -0.1f + 1.2f * float(i % 4099) / 4098.0f;
        zorl::convertLoop(rgbF, rgb8, kPixels);
    }
    static Buffers& get() {
        static Buffers buffers;
        return buffers;
    }
};

void setBytes(benchmark::State& state, std::size_t srcBytes, std::size_t dstBytes) {
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(srcBytes + dstBytes));
}

void BM_Memcpy_RGBf(benchmark::State& state) {
    Buffers& b = Buffers::get();
    for (auto _ : state) {
        std::memcpy(b.rgbF2, b.rgbF, kPixels * sizeof(zorl::PixelRGB<float>));
        benchmark::ClobberMemory();
    }
    setBytes(state, kPixels * 12, kPixels * 12);
}

void BM_Zorl_RGBf_to_RGB8(benchmark::State& state) {
    Buffers& b = Buffers::get();
    for (auto _ : state) {
        zorl::convertLoop(b.rgbF, b.rgb8, kPixels);
        benchmark::ClobberMemory();
    }
    setBytes(state, kPixels * 12, kPixels * 3);
}

void BM_OpenCV_RGBf_to_RGB8(benchmark::State& state) {
    Buffers& b = Buffers::get();
    const cv::Mat src(kHeight, kWidth, CV_32FC3, b.rgbF);
    cv::Mat dst(kHeight, kWidth, CV_8UC3, b.rgb8);
    for (auto _ : state) {
        src.convertTo(dst, CV_8U, 255.0);
        benchmark::ClobberMemory();
    }
    setBytes(state, kPixels * 12, kPixels * 3);
}

void BM_Zorl_RGBf_to_RGB16(benchmark::State& state) {
    Buffers& b = Buffers::get();
    for (auto _ : state) {
        zorl::convertLoop(b.rgbF, b.rgb16, kPixels);
        benchmark::ClobberMemory();
    }
    setBytes(state, kPixels * 12, kPixels * 6);
}

void BM_OpenCV_RGBf_to_RGB16(benchmark::State& state) {
    Buffers& b = Buffers::get();
    const cv::Mat src(kHeight, kWidth, CV_32FC3, b.rgbF);
    cv::Mat dst(kHeight, kWidth, CV_16UC3, b.rgb16);
    for (auto _ : state) {
        src.convertTo(dst, CV_16U, 65535.0);
        benchmark::ClobberMemory();
    }
    setBytes(state, kPixels * 12, kPixels * 6);
}

void BM_Zorl_RGB8_to_RGBf(benchmark::State& state) {
    Buffers& b = Buffers::get();
    for (auto _ : state) {
        zorl::convertLoop(b.rgb8, b.rgbF2, kPixels);
        benchmark::ClobberMemory();
    }
    setBytes(state, kPixels * 3, kPixels * 12);
}

void BM_OpenCV_RGB8_to_RGBf(benchmark::State& state) {
    Buffers& b = Buffers::get();
    const cv::Mat src(kHeight, kWidth, CV_8UC3, b.rgb8);
    cv::Mat dst(kHeight, kWidth, CV_32FC3, b.rgbF2);
    for (auto _ : state) {
        src.convertTo(dst, CV_32F, 1.0 / 255.0);
        benchmark::ClobberMemory();
    }
    setBytes(state, kPixels * 3, kPixels * 12);
}

#define CONVERSION_BENCHMARK(fn) BENCHMARK(fn)->UseRealTime()->Unit(benchmark::kMillisecond)
CONVERSION_BENCHMARK(BM_Memcpy_RGBf);
CONVERSION_BENCHMARK(BM_Zorl_RGBf_to_RGB8);
CONVERSION_BENCHMARK(BM_OpenCV_RGBf_to_RGB8);
CONVERSION_BENCHMARK(BM_Zorl_RGBf_to_RGB16);
CONVERSION_BENCHMARK(BM_OpenCV_RGBf_to_RGB16);
CONVERSION_BENCHMARK(BM_Zorl_RGB8_to_RGBf);
CONVERSION_BENCHMARK(BM_OpenCV_RGB8_to_RGBf);

}  // namespace

BENCHMARK_MAIN();
