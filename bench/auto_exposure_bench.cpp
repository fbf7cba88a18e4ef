// Auto exposure on a 6000 x 4000 RGB float image, in one run:
//   Adjust     autoExposureAdjustRGB: estimate with every search, then apply (the
//              target in dst is restored outside the timing before each iteration)
//   Estimate   autoExposureEstimateRGB alone (flags 7)
//   Apply      autoExposureApplyRGB alone (table path)
//   memcpy     of the image: the floor of one pass that reads and writes it
// Wall-clock time in milliseconds: the loops are parallel.
//
//   auto_exposure_bench --benchmark_min_time=0.3s

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <vector>

#include <imageprocessing/auto_exposure.h>

namespace {

constexpr int kWidth = 6000;
constexpr int kHeight = 4000;
constexpr std::size_t kValues = std::size_t(kWidth) * kHeight * 3;

struct Buffers {
    std::vector<float> src, target, dst;
    Buffers() : src(kValues), target(kValues), dst(kValues) {
        for (int y = 0; y < kHeight; ++y)
            for (int x = 0; x < kWidth; ++x)
                for (int c = 0; c < 3; ++c) {
                    const std::size_t i = (std::size_t(y) * kWidth + x) * 3 + c;
                    src[i] = 0.1f + 0.4f * float(x) / kWidth + 0.3f * float(y) / kHeight + 0.05f * float(c) +
                             0.05f * std::sin(0.01f * float(x * (c + 1)));
                }
        const auto_exposure_data_t known{1.4f, 0.9f, 0.5f, 0.2f};
        autoExposureApplyRGB(src.data(), target.data(), kWidth, kHeight, &known);
    }
    static Buffers& get() {
        static Buffers b;
        return b;
    }
};

void BM_Memcpy_Image(benchmark::State& state) {
    Buffers& b = Buffers::get();
    for (auto _ : state) {
        std::memcpy(b.dst.data(), b.src.data(), kValues * sizeof(float));
        benchmark::ClobberMemory();
    }
}

void BM_AutoExposure_Adjust(benchmark::State& state) {
    Buffers& b = Buffers::get();
    for (auto _ : state) {
        state.PauseTiming();
        std::memcpy(b.dst.data(), b.target.data(), kValues * sizeof(float));
        state.ResumeTiming();
        autoExposureAdjustRGB(b.src.data(), b.dst.data(), kWidth, kHeight);
        benchmark::ClobberMemory();
    }
}

void BM_AutoExposure_Estimate(benchmark::State& state) {
    Buffers& b = Buffers::get();
    auto_exposure_data_t d;
    for (auto _ : state) {
        autoExposureEstimateRGB(b.src.data(), b.target.data(), kWidth, kHeight, &d, 7);
        benchmark::DoNotOptimize(d);
    }
}

void BM_AutoExposure_Apply(benchmark::State& state) {
    Buffers& b = Buffers::get();
    const auto_exposure_data_t d{1.4f, 0.9f, 0.5f, 0.2f};
    for (auto _ : state) {
        autoExposureApplyRGB(b.src.data(), b.dst.data(), kWidth, kHeight, &d);
        benchmark::ClobberMemory();
    }
}

}  // namespace

BENCHMARK(BM_Memcpy_Image)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_AutoExposure_Adjust)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_AutoExposure_Estimate)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_AutoExposure_Apply)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_MAIN();
