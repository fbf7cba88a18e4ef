// What MemoryManager's large-block cache saves: a fresh 288 MB block (a 24-megapixel
// RGB float image) pays a page fault per page on first touch; a cached block does not.
// Peers in the same binary: malloc + touch, and a memcpy of the same size.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>

#include <zorl/common/memory_manager.h>

namespace {

constexpr std::size_t kBytes = std::size_t(6000) * 4000 * 3 * sizeof(float);  // 288 MB
constexpr std::size_t kPage = 4096;

zorl::MemoryManager& mm() { return zorl::MemoryManager::instance(); }

// Writes one byte per 4 KiB page: the first touch that maps the memory.
void touchPages(uint8_t* p, std::size_t n) {
    for (std::size_t i = 0; i < n; i += kPage) p[i] = 1;
    benchmark::DoNotOptimize(p);
}

// allocate + first touch of a block the cache cannot serve.
void BM_FreshAllocateTouch(benchmark::State& state) {
    mm().trimCache();
    for (auto _ : state) {
        uint8_t* p = mm().allocate(kBytes, false);
        touchPages(p, kBytes);
        state.PauseTiming();
        mm().free(p);
        mm().trimCache();  // next round is fresh again
        state.ResumeTiming();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kBytes));
}

// allocate + touch of a block the cache serves (the freed block of the previous round).
void BM_CachedAllocateTouch(benchmark::State& state) {
    mm().trimCache();
    mm().free(mm().allocate(kBytes, false));
    for (auto _ : state) {
        uint8_t* p = mm().allocate(kBytes, false);
        touchPages(p, kBytes);
        mm().free(p);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kBytes));
    mm().trimCache();
}

// The C heap's way: glibc maps and unmaps blocks this large on every call.
void BM_MallocTouch(benchmark::State& state) {
    for (auto _ : state) {
        auto* p = static_cast<uint8_t*>(std::malloc(kBytes));
        touchPages(p, kBytes);
        std::free(p);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kBytes));
}

// A copy of the whole block between two touched buffers: the work a filter pass costs.
void BM_Memcpy(benchmark::State& state) {
    uint8_t* a = mm().allocate(kBytes, false);
    uint8_t* b = mm().allocate(kBytes, false);
    std::memset(a, 1, kBytes);
    std::memset(b, 2, kBytes);
    for (auto _ : state) {
        std::memcpy(b, a, kBytes);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kBytes));
    mm().free(a);
    mm().free(b);
    mm().trimCache();
}

BENCHMARK(BM_FreshAllocateTouch)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_CachedAllocateTouch)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_MallocTouch)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Memcpy)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
