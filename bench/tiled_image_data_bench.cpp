// Tiled RGB image stores, in one run:
//   Memory/<scheme>       three 200 x 200 dabs painted into a fresh 20000 x 15000 store
//                         (300 megapixels); counters: bytes held against the dense size
//   ReadRect/<scheme>     readRect of 2000 x 2000 (every tile present), against
//   ReadRect/Dense        _ImageData::copy of the same rectangle of a dense image and
//   ReadRect/memcpy       the row-by-row memcpy floor
//   Preview/<scheme>      the 500 x 375 preview of a 20000 x 15000 store with 1% of its
//                         tiles present (Barc: the compute unit's preview; Kel:
//                         updateTransformedRoi into a preview-sized destination)
//   Encode/<scheme>, Decode/<scheme>, Encode/Mask, Decode/Mask
//                         2048 x 2048 of painted content (smooth ramps and noise dabs)
//                         through the stream; the tiled mask of the same size and
//                         content (one channel) is the peer. Throughput in raw pixel
//                         bytes per second.
//
//   tiled_image_data_bench --benchmark_min_time=0.3s

#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include <imageprocessing/image_data_compute_unit.h>
#include <imageprocessing/tiled_image_data_stores.h>
#include <imageprocessing/tiled_mask_image.h>
#include <imageprocessing/transform_computer.h>

namespace {

using namespace zorl;
using Pixel = PixelRGB<float>;
using Image = _ImageData<Pixel>;

constexpr _Size<int> kLarge{20000, 15000};
constexpr Pixel kFill{0.2f, 0.3f, 0.4f};

std::shared_ptr<Image> dab(int side, uint32_t seed) {
    auto img = std::make_shared<Image>(_Size<int>{side, side}, ColorProfileType::sRGB());
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(0.f, 1.f);
    for (std::size_t i = 0; i < img->pixelCount(); ++i) img->data()[i] = {u(rng), u(rng), u(rng)};
    return img;
}

// ---- memory ----

template <class Store>
void Memory(benchmark::State& state) {
    const auto d = dab(200, 1);
    uint64_t held = 0;
    for (auto _ : state) {
        Store s(kLarge, kFill, ColorProfileType::sRGB());
        s.writeRect(*d, kNoRegion, {1000, 1000});
        s.writeRect(*d, kNoRegion, {9950, 7450});  // across tile borders
        s.writeRect(*d, kNoRegion, {18000, 13000});
        held = s.heldBytes();
        benchmark::DoNotOptimize(held);
    }
    state.counters["held_bytes"] = double(held);
    state.counters["dense_bytes"] = double(kLarge.area() * sizeof(Pixel));
}
BENCHMARK(Memory<KelTiledImageData>)->Name("Memory/Kel")->Unit(benchmark::kMillisecond);
BENCHMARK(Memory<BarcTiledImageData>)->Name("Memory/Barc")->Unit(benchmark::kMillisecond);

// ---- rectangle reads ----

constexpr _Rect<int> kReadRect{300, 200, 2000, 2000};
constexpr _Size<int> kReadSource{2600, 2400};

std::shared_ptr<Image> readSource() {
    static const auto dense = [] {
        auto d = std::make_shared<Image>(kReadSource, ColorProfileType::sRGB());
        for (int y = 0; y < d->height(); ++y)
            for (int x = 0; x < d->width(); ++x) d->at(x, y) = {x * 1e-4f, y * 1e-4f, 0.5f};
        return d;
    }();
    return dense;
}

template <class Store>
void ReadRect(benchmark::State& state) {
    Store s(kReadSource, kFill, ColorProfileType::sRGB());
    s.writeRect(*readSource(), kNoRegion, {0, 0});
    for (auto _ : state) benchmark::DoNotOptimize(s.readRect(kReadRect));
    state.SetBytesProcessed(state.iterations() * kReadRect.size().area() * int64_t(sizeof(Pixel)));
}
BENCHMARK(ReadRect<KelTiledImageData>)->Name("ReadRect/Kel")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(ReadRect<BarcTiledImageData>)->Name("ReadRect/Barc")->Unit(benchmark::kMillisecond)->UseRealTime();

void ReadRectDense(benchmark::State& state) {
    const auto src = readSource();
    for (auto _ : state) benchmark::DoNotOptimize(src->copy(kReadRect));
    state.SetBytesProcessed(state.iterations() * kReadRect.size().area() * int64_t(sizeof(Pixel)));
}
BENCHMARK(ReadRectDense)->Name("ReadRect/Dense")->Unit(benchmark::kMillisecond)->UseRealTime();

void ReadRectMemcpy(benchmark::State& state) {
    const auto src = readSource();
    Image dst(kReadRect.size(), nullptr);
    std::memset(dst.data(), 0, dst.byteCount());
    for (auto _ : state) {
        for (int j = 0; j < kReadRect.height; ++j)
            std::memcpy(dst.row(j), src->row(kReadRect.y + j) + kReadRect.x, sizeof(Pixel) * kReadRect.width);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * kReadRect.size().area() * int64_t(sizeof(Pixel)));
}
BENCHMARK(ReadRectMemcpy)->Name("ReadRect/memcpy")->Unit(benchmark::kMillisecond)->UseRealTime();

// ---- preview ----

// 1% of the tiles present, spread over the image.
template <class Store>
std::shared_ptr<Store> sparseLarge() {
    auto s = std::make_shared<Store>(kLarge, kFill, ColorProfileType::sRGB());
    const auto tile = dab(Store::kTileSide, 2);
    std::mt19937 rng(3);
    const int target = s->tileCount() / 100;
    while (s->presentTileCount() < target) {
        const int i = int(rng() % s->tileCount());
        const _Rect<int> r = s->getTileRect(i);
        s->writeRect(*tile, {0, 0, r.width, r.height}, {r.x, r.y});
    }
    return s;
}

ImageTransformSettings wholeCanvas() {
    ImageTransformSettings t;
    t.canvasSize = kLarge;
    t.region = {0, 0, float(kLarge.width), float(kLarge.height)};
    t.workingSize = {2000, 1500};
    return t;
}

void PreviewBarc(benchmark::State& state) {
    const auto s = sparseLarge<BarcTiledImageData>();
    ImageDataComputeUnit<Image, BarcTiledImageData> unit(s);
    unit.setTransform(wholeCanvas());
    for (auto _ : state) {
        unit.clearCache();
        benchmark::DoNotOptimize(unit.preview());
    }
    state.counters["tiles"] = s->presentTileCount();
}
BENCHMARK(PreviewBarc)->Name("Preview/Barc")->Unit(benchmark::kMillisecond)->UseRealTime();

void PreviewKel(benchmark::State& state) {
    const auto s = sparseLarge<KelTiledImageData>();
    const TransformComputer tc(wholeCanvas(), TransformComputer::DataSourceType::ImageData);
    auto dst = std::make_shared<Image>(_Size<int>{500, 375}, ColorProfileType::sRGB());
    for (auto _ : state) tc.updateTransformedRoi(*s, dst, tc.calculateCanvasRoi(), kEmptyRect);
    state.counters["tiles"] = s->presentTileCount();
}
BENCHMARK(PreviewKel)->Name("Preview/Kel")->Unit(benchmark::kMillisecond)->UseRealTime();

// ---- encode / decode ----

constexpr _Size<int> kCodecSize{2048, 2048};

// Painted content: a smooth ramp everywhere and noisy dabs on a tenth of it.
float paintedValue(int x, int y, int channel) {
    const bool dabbed = ((x / 256) + (y / 256)) % 10 == 0;
    const float ramp = float(x + 2 * y + 500 * channel) / 8192.0f;
    if (!dabbed) return ramp;
    const uint32_t h = uint32_t(x) * 2654435761u ^ uint32_t(y) * 40503u ^ uint32_t(channel) * 97u;
    return ramp + float(h % 1000) * 1e-4f;
}

template <class Store>
std::shared_ptr<Store> codecStore() {
    auto s = std::make_shared<Store>(kCodecSize, kFill, ColorProfileType::sRGB());
    Image img(kCodecSize, nullptr);
    for (int y = 0; y < kCodecSize.height; ++y)
        for (int x = 0; x < kCodecSize.width; ++x)
            img.at(x, y) = {paintedValue(x, y, 0), paintedValue(x, y, 1), paintedValue(x, y, 2)};
    s->writeRect(img, kNoRegion, {0, 0});
    return s;
}

template <class Store>
void Encode(benchmark::State& state) {
    const auto s = codecStore<Store>();
    uint64_t bytes = 0;
    for (auto _ : state) {
        auto e = std::make_shared<Encoder>();
        s->encode(e);
        bytes = e->size();
    }
    state.SetBytesProcessed(state.iterations() * kCodecSize.area() * int64_t(sizeof(Pixel)));
    state.counters["stream_bytes"] = double(bytes);
}
BENCHMARK(Encode<KelTiledImageData>)->Name("Encode/Kel")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Encode<BarcTiledImageData>)->Name("Encode/Barc")->Unit(benchmark::kMillisecond)->UseRealTime();

template <class Store>
void Decode(benchmark::State& state) {
    auto e = std::make_shared<Encoder>();
    codecStore<Store>()->encode(e);
    const std::vector<uint8_t> bytes = e->take();
    for (auto _ : state) benchmark::DoNotOptimize(Store::decode(std::make_shared<Decoder>(bytes)));
    state.SetBytesProcessed(state.iterations() * kCodecSize.area() * int64_t(sizeof(Pixel)));
}
BENCHMARK(Decode<KelTiledImageData>)->Name("Decode/Kel")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Decode<BarcTiledImageData>)->Name("Decode/Barc")->Unit(benchmark::kMillisecond)->UseRealTime();

std::shared_ptr<TiledMaskImage> codecMask() {
    auto m = std::make_shared<TiledMaskImage>(kCodecSize, 0.0f);
    for (int y = 0; y < kCodecSize.height; ++y)
        for (int x = 0; x < kCodecSize.width; ++x) m->setValue(std::min(1.0f, paintedValue(x, y, 0)), x, y);
    return m;
}

void EncodeMask(benchmark::State& state) {
    const auto m = codecMask();
    uint64_t bytes = 0;
    for (auto _ : state) {
        auto e = std::make_shared<Encoder>();
        m->encode(e, true);
        bytes = e->size();
    }
    state.SetBytesProcessed(state.iterations() * kCodecSize.area() * int64_t(sizeof(float)));
    state.counters["stream_bytes"] = double(bytes);
}
BENCHMARK(EncodeMask)->Name("Encode/Mask")->Unit(benchmark::kMillisecond)->UseRealTime();

void DecodeMask(benchmark::State& state) {
    auto e = std::make_shared<Encoder>();
    codecMask()->encode(e, true);
    const std::vector<uint8_t> bytes = e->take();
    for (auto _ : state) {
        TiledMaskImage m(std::make_shared<Decoder>(bytes));
        benchmark::DoNotOptimize(m.width());
    }
    state.SetBytesProcessed(state.iterations() * kCodecSize.area() * int64_t(sizeof(float)));
}
BENCHMARK(DecodeMask)->Name("Decode/Mask")->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
