// MemoryManager: alignment, the zeroed flag, the live counters, the large-block cache and
// its limits, and many threads at once; ManagedAllocator and ManagedBuffer over it.
#include <zorl/common/managed_memory.h>
#include <zorl/common/memory_manager.h>

#include <algorithm>
#include <cstring>
#include <thread>
#include <vector>

#include "support/test_support.h"

#if defined(__SANITIZE_ADDRESS__)
#define ZORL_TEST_PLAIN_HEAP 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZORL_TEST_PLAIN_HEAP 1
#endif
#endif

namespace zorl {
namespace {

constexpr std::size_t kMiB = std::size_t(1) << 20;
constexpr std::size_t kPage = 4096;
// Bytes of the mapping behind a large block of n bytes: one 64-byte header, whole pages.
std::size_t mappedBytes(std::size_t n) { return (n + MemoryManager::kAlignment + kPage - 1) / kPage * kPage; }

MemoryManager& mm() { return MemoryManager::instance(); }

// Allocates n bytes and frees them at once: the block the cache may now hold.
uint8_t* freed(std::size_t n) {
    uint8_t* p = mm().allocate(n, false);
    mm().free(p);
    return p;
}

// The cache exists only outside AddressSanitizer builds (there every block is the C heap's).
#ifdef ZORL_TEST_PLAIN_HEAP
#define SKIP_WITHOUT_CACHE() GTEST_SKIP() << "no large-block cache under AddressSanitizer"
#else
#define SKIP_WITHOUT_CACHE() (void)0
#endif

TEST(MemoryManager, BlocksAreAlignedCountedAndZeroedOnRequest) {
    mm().trimCache();
    for (std::size_t n : {0ul, 1ul, 63ul, 64ul, 65ul, 4095ul, kMiB - 65, kMiB - 64, kMiB, 3 * kMiB + 7}) {
        test::MemoryBalance balance;
        const std::size_t bytes0 = mm().liveBytes(), blocks0 = mm().liveBlocks();
        uint8_t* p = mm().allocate(n, false);
        ASSERT_NE(p, nullptr) << n;
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % MemoryManager::kAlignment, 0u) << n;
        EXPECT_TRUE(mm().liveBytes() == bytes0 + n && mm().liveBlocks() == blocks0 + 1) << n;
        // Dirty it and ask again, zeroed: the heap and the cache hand back dirty memory
        // unless told otherwise.
        std::memset(p, 0xab, n);
        mm().free(p);
        uint8_t* clean = mm().allocate(n, true);
        EXPECT_TRUE(std::all_of(clean, clean + n, [](uint8_t b) { return b == 0; })) << n;
        mm().free(clean);
        EXPECT_TRUE(balance.balanced()) << n;
    }
    mm().free(nullptr);  // a no-op
}

TEST(MemoryManager, LargeBlockCacheReuseAndLimits) {
    SKIP_WITHOUT_CACHE();
    mm().trimCache();
    test::MemoryBalance balance;
    // A freed large block serves the next similar request.
    uint8_t* a = freed(4 * kMiB);
    EXPECT_EQ(mm().cachedBytes(), mappedBytes(4 * kMiB));
    uint8_t* b = mm().allocate(3 * kMiB, false);  // smaller, but more than half: reused, out of the cache
    EXPECT_TRUE(b == a && mm().cachedBlocks() == 0);
    mm().free(b);
    uint8_t* c = mm().allocate(kMiB + kMiB / 2, false);  // less than half of it: fresh
    uint8_t* d = mm().allocate(5 * kMiB, false);         // larger than any cached block: fresh
    EXPECT_TRUE(c != a && d != a && mm().cachedBlocks() == 1);
    mm().free(c);
    mm().free(d);
    // The smallest block that fits is taken, not the oldest.
    mm().trimCache();
    uint8_t* big = mm().allocate(8 * kMiB, false);
    uint8_t* small = mm().allocate(5 * kMiB, false);
    mm().free(big);
    mm().free(small);
    EXPECT_EQ(freed(4 * kMiB + kMiB / 2), small);
    mm().trimCache();
    EXPECT_EQ(mm().cachedBytes(), 0u);

    // Distinct sizes 2, 3, ... MiB, one more than the cache holds, freed in that order:
    // the 2 MiB block leaves.
    std::vector<uint8_t*> blocks;
    std::size_t expected = 0;
    for (std::size_t k = 0; k <= MemoryManager::kCacheMaxBlocks; ++k) {
        blocks.push_back(mm().allocate((k + 2) * kMiB, false));
        expected += k ? mappedBytes((k + 2) * kMiB) : 0;
    }
    for (uint8_t* p : blocks) mm().free(p);
    EXPECT_TRUE(balance.balanced());
    EXPECT_EQ(mm().cachedBlocks(), MemoryManager::kCacheMaxBlocks);
    EXPECT_EQ(mm().cachedBytes(), expected);
    // Two blocks that together pass the byte limit: the older one is released. A block
    // larger than the whole cache is released at once and leaves the cache alone.
    // (Address space only: these blocks are never touched beyond their header page.)
    mm().trimCache();
    const std::size_t part = MemoryManager::kCacheMaxBytes / 2 + kMiB;
    for (uint8_t* p : {mm().allocate(part, false), mm().allocate(part, false),
                       mm().allocate(MemoryManager::kCacheMaxBytes, false)})
        mm().free(p);
    EXPECT_EQ(mm().cachedBlocks(), 1u);
    EXPECT_EQ(mm().cachedBytes(), mappedBytes(part));
    mm().trimCache();
}

TEST(MemoryManager, ManyThreadsAllocateAndFreeAtOnce) {
    constexpr int kRounds = 300;
    test::MemoryBalance balance;
    std::atomic<int> corrupted{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([t, &corrupted] {
            struct { uint8_t* p = nullptr; std::size_t n = 0; uint8_t mark = 0; } ring[4];  // held blocks
            for (int i = 0; i < kRounds + 4; ++i) {
                auto& h = ring[i % 4];
                if (h.p) {  // free the oldest, after checking that nobody wrote into it
                    corrupted += h.p[0] != h.mark || h.p[h.n - 1] != h.mark;
                    mm().free(h.p);
                }
                if (i >= kRounds) continue;
                // Mostly small blocks, now and then a large (cached) one.
                h.n = (i % 50 == 7) ? 2 * kMiB + 4096 * t : 16 + 97 * ((i * 31 + t) % 400);
                h.p = mm().allocate(h.n, i % 3 == 0);
                h.mark = h.p[0] = h.p[h.n - 1] = static_cast<uint8_t>(t * 16 + i);
            }
        });
    for (auto& th : threads) th.join();
    EXPECT_EQ(corrupted.load(), 0);
    EXPECT_TRUE(balance.balanced());
}

TEST(ManagedMemory, AllocatorAndBufferReturnEverything) {
    test::MemoryBalance balance;
    const std::size_t blocks0 = mm().liveBlocks();
    {
        std::vector<float, ManagedAllocator<float>> v;
        for (int i = 0; i < 10000; ++i) v.push_back(float(i));
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(v.data()) % MemoryManager::kAlignment, 0u);
        ManagedBuffer<double> a(1000, true);
        EXPECT_EQ(a[999], 0.0);
        ManagedBuffer<double> b(std::move(a));
        EXPECT_TRUE(a.empty() && a.data() == nullptr);
        ManagedBuffer<double> c(10);
        c = std::move(b);  // frees c's own block
        EXPECT_EQ(c.size(), 1000u);
        EXPECT_EQ(mm().liveBlocks(), blocks0 + 2);  // v and c
    }
    EXPECT_TRUE(balance.balanced());
}

}  // namespace
}  // namespace zorl
