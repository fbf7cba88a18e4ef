// Blend modes on two 6000 x 4000 RGB float images with a mask, in one run:
//   Normal        blendImages, mode Normal, with the mask (what the tiled stores call)
//   OpenCV        cv::addWeighted of the same two buffers into the same result (one
//                 weight for all pixels: it reads no mask, so it moves 4 bytes a pixel
//                 less)
//   memcpy        the bandwidth floor: a copy that moves as many bytes as the masked
//                 blend (reads 12 + 12 + 4, writes 12: 40 bytes a pixel, so a copy of
//                 20 bytes a pixel), on one thread and split over the cores
//   Mode/N        every other mode, reported in megapixels a second
//   NormalTile    a 256 x 256 tile, as the tiled stores blend it (serial below 128 K
//                 pixels)
// Buffers are made and touched once. Wall-clock time: the loops are parallel.
//
//   blending_bench --benchmark_min_time=0.3s

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include <opencv2/core.hpp>
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <imageprocessing/blending.h>

namespace {

using zorl::_ImageData;
using zorl::_Size;
using zorl::PixelRGB;

constexpr int kWidth = 6000;
constexpr int kHeight = 4000;
constexpr std::size_t kPixels = std::size_t(kWidth) * kHeight;
constexpr std::size_t kCopyBytes = kPixels * 20;

struct Buffers {
    std::shared_ptr<_ImageData<PixelRGB<float>>> layer, base, result;
    std::shared_ptr<_ImageData<float>> mask;
    std::vector<char> copyFrom, copyTo;

    explicit Buffers(_Size<int> size) {
        const auto profile = zorl::ColorProfileType::sRGB();
        layer = std::make_shared<_ImageData<PixelRGB<float>>>(size, profile);
        base = std::make_shared<_ImageData<PixelRGB<float>>>(size, profile);
        result = std::make_shared<_ImageData<PixelRGB<float>>>(size, PixelRGB<float>{0, 0, 0}, profile);
        mask = std::make_shared<_ImageData<float>>(size, profile);
        for (std::size_t i = 0; i < layer->pixelCount(); ++i) {
            const float t = float(i % 4099) / 4098.0f;
            layer->data()[i] = {t, 1.0f - t, 0.5f * t + 0.2f};
            base->data()[i] = {0.8f * (1.0f - t), 0.3f + 0.5f * t, t * t};
            mask->data()[i] = float(i % 257) / 256.0f;
        }
    }
    static Buffers& full() {
        static Buffers b({kWidth, kHeight});
        return b;
    }
    static Buffers& tile() {
        static Buffers b({256, 256});
        return b;
    }
};

void setRates(benchmark::State& state, std::size_t pixels, std::size_t bytesPerPixel) {
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(pixels * bytesPerPixel));
    state.counters["MP/s"] = benchmark::Counter(double(state.iterations()) * double(pixels) / 1e6,
                                                benchmark::Counter::kIsRate);
}

void blend(Buffers& b, zorl::BlendModeType mode) {
    std::shared_ptr<const _ImageData<float>> mask = b.mask;
    blendImages(b.layer, b.base, b.result, mask, 0.8f, mode, zorl::kNoRegion);
}

void BM_Memcpy_SameVolume(benchmark::State& state) {
    Buffers& b = Buffers::full();
    if (b.copyFrom.empty()) {
        b.copyFrom.assign(kCopyBytes, 1);
        b.copyTo.assign(kCopyBytes, 0);
    }
    for (auto _ : state) {
        std::memcpy(b.copyTo.data(), b.copyFrom.data(), kCopyBytes);
        benchmark::ClobberMemory();
    }
    setRates(state, kPixels, 40);
}

// The same copy split over the cores, as the blend is.
void BM_Memcpy_SameVolume_Parallel(benchmark::State& state) {
    Buffers& b = Buffers::full();
    if (b.copyFrom.empty()) {
        b.copyFrom.assign(kCopyBytes, 1);
        b.copyTo.assign(kCopyBytes, 0);
    }
    constexpr std::size_t kChunk = 1u << 22;
    for (auto _ : state) {
        tbb::parallel_for(tbb::blocked_range<std::size_t>(0, (kCopyBytes + kChunk - 1) / kChunk),
                          [&](const tbb::blocked_range<std::size_t>& r) {
                              const std::size_t begin = r.begin() * kChunk;
                              const std::size_t end = std::min(kCopyBytes, r.end() * kChunk);
                              std::memcpy(b.copyTo.data() + begin, b.copyFrom.data() + begin, end - begin);
                          });
        benchmark::ClobberMemory();
    }
    setRates(state, kPixels, 40);
}

void BM_Blend_Normal_Masked(benchmark::State& state) {
    Buffers& b = Buffers::full();
    for (auto _ : state) {
        blend(b, zorl::BlendModeType::Normal);
        benchmark::ClobberMemory();
    }
    setRates(state, kPixels, 40);
}

void BM_OpenCV_AddWeighted(benchmark::State& state) {
    Buffers& b = Buffers::full();
    const cv::Mat a(kHeight, kWidth, CV_32FC3, b.layer->data());
    const cv::Mat c(kHeight, kWidth, CV_32FC3, b.base->data());
    cv::Mat out(kHeight, kWidth, CV_32FC3, b.result->data());
    for (auto _ : state) {
        cv::addWeighted(a, 0.8, c, 0.2, 0.0, out);
        benchmark::ClobberMemory();
    }
    setRates(state, kPixels, 36);
}

void BM_Blend_Mode(benchmark::State& state) {
    Buffers& b = Buffers::full();
    const auto mode = zorl::BlendModeType(state.range(0));
    for (auto _ : state) {
        blend(b, mode);
        benchmark::ClobberMemory();
    }
    setRates(state, kPixels, 40);
}

void BM_Blend_NormalTile(benchmark::State& state) {
    Buffers& b = Buffers::tile();
    for (auto _ : state) {
        blend(b, zorl::BlendModeType::Normal);
        benchmark::ClobberMemory();
    }
    setRates(state, 256 * 256, 40);
}

}  // namespace

BENCHMARK(BM_Memcpy_SameVolume)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Memcpy_SameVolume_Parallel)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Blend_Normal_Masked)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_OpenCV_AddWeighted)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Blend_Mode)->DenseRange(1, 13)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Blend_NormalTile)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK_MAIN();
