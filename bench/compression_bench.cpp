// Throughput of the storage family: a 6000 x 4000 tiled mask encoded and decoded (about 1%
// of its tiles painted, and every tile painted), and tracked mask blocks. Bytes processed
// are the mask's float bytes (96 MB for 6000 x 4000), so the MB/s figures compare directly
// with the memcpy peer of the same bytes.

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>

#include <imageprocessing/compression.h>
#include <imageprocessing/tiled_mask_image.h>

namespace zorl {
namespace {

constexpr int kWidth = 6000;
constexpr int kHeight = 4000;
constexpr int64_t kMaskBytes = int64_t(kWidth) * kHeight * sizeof(float);

// A soft value in 0..1 that varies smoothly, as a brush or gradient mask does.
float soft(int x, int y) { return 0.5f + 0.5f * std::sin(x * 0.013f) * std::cos(y * 0.017f); }

std::shared_ptr<TiledMaskImage> makeMask(bool full) {
    auto m = std::make_shared<TiledMaskImage>(_Size<int>(kWidth, kHeight), 0.0f);
    if (full) {
        m->prepare(kNoRegion);
        auto whole = m->maskImage();
        for (int y = 0; y < kHeight; ++y)
            for (int x = 0; x < kWidth; ++x) whole->at(x, y) = soft(x, y);
        m->store();
    } else {
        // Three soft dabs, one tile each: about 1% of the 280 tiles.
        for (const auto& [cx, cy] : {std::pair{450, 450}, {3150, 1950}, {5250, 3450}})
            for (int y = cy - 140; y < cy + 140; ++y)
                for (int x = cx - 140; x < cx + 140; ++x) {
                    const float r = std::hypot(float(x - cx), float(y - cy)) / 140.0f;
                    if (r < 1.0f) m->setValue(1.0f - r, x, y);
                }
    }
    return m;
}

const std::shared_ptr<TiledMaskImage>& mask(bool full) {
    static auto sparse = makeMask(false), dense = makeMask(true);
    return full ? dense : sparse;
}

// Args: full (0: ~1% tiles painted, 1: every tile), compressed (0/1).
void BM_TiledMaskEncode(benchmark::State& state) {
    const auto& m = mask(state.range(0) != 0);
    const bool compressed = state.range(1) != 0;
    std::size_t bytes = 0;
    for (auto _ : state) {
        auto e = std::make_shared<Encoder>();
        m->encode(e, compressed);
        bytes = e->size();
        benchmark::DoNotOptimize(e->data().data());
    }
    state.SetBytesProcessed(state.iterations() * kMaskBytes);
    state.counters["stream_MB"] = double(bytes) / 1e6;
    state.counters["tiles"] = double(m->presentTileCount());
}
BENCHMARK(BM_TiledMaskEncode)->Args({0, 1})->Args({1, 1})->Args({0, 0})->Args({1, 0})->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_TiledMaskDecode(benchmark::State& state) {
    const auto& m = mask(state.range(0) != 0);
    auto e = std::make_shared<Encoder>();
    m->encode(e, state.range(1) != 0);
    const std::vector<uint8_t>& stream = e->data();
    for (auto _ : state) {
        TiledMaskImage back(std::make_shared<Decoder>(stream));
        benchmark::DoNotOptimize(back.getValue(0, 0));
    }
    state.SetBytesProcessed(state.iterations() * kMaskBytes);
}
BENCHMARK(BM_TiledMaskDecode)->Args({0, 1})->Args({1, 1})->Args({0, 0})->Args({1, 0})->Unit(benchmark::kMillisecond)->UseRealTime();

// A tracked mask block of one 2048 x 2048 soft mask (two byte planes), or a 0/1 mask (one).
MaskImage blockMask(bool binary) {
    MaskImage m(_Size<int>(2048, 2048), 0.0f);
    for (int y = 0; y < 2048; ++y)
        for (int x = 0; x < 2048; ++x) m.at(x, y) = binary ? float(soft(x, y) > 0.5f) : soft(x, y);
    return m;
}

void BM_TrackedMaskCompress(benchmark::State& state) {
    const MaskImage m = blockMask(state.range(0) != 0);
    std::vector<uint8_t> block;
    for (auto _ : state) {
        ImageCompressorProxy::compressMask(m, block);
        benchmark::DoNotOptimize(block.data());
    }
    state.SetBytesProcessed(state.iterations() * int64_t(m.byteCount()));
    state.counters["block_MB"] = double(block.size()) / 1e6;
}
BENCHMARK(BM_TrackedMaskCompress)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_TrackedMaskUncompress(benchmark::State& state) {
    const MaskImage m = blockMask(state.range(0) != 0);
    std::vector<uint8_t> block;
    ImageCompressorProxy::compressMask(m, block);
    for (auto _ : state) {
        std::shared_ptr<MaskImage> back;
        ImageCompressorProxy::uncompressMask(block, back);
        benchmark::DoNotOptimize(back->data());
    }
    state.SetBytesProcessed(state.iterations() * int64_t(m.byteCount()));
}
BENCHMARK(BM_TrackedMaskUncompress)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// Peer: copying the mask's bytes once.
void BM_MemcpyPeer(benchmark::State& state) {
    std::vector<float> src(std::size_t(kWidth) * kHeight, 0.5f), dst(src.size());
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), src.size() * sizeof(float));
        benchmark::DoNotOptimize(dst.data());
    }
    state.SetBytesProcessed(state.iterations() * kMaskBytes);
}
BENCHMARK(BM_MemcpyPeer)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace zorl

BENCHMARK_MAIN();
