// MemoryManager: alignment, the zeroed flag, the live counters, the large-block cache and
// its limits, and many threads at once; ManagedAllocator and ManagedBuffer over it.
#include <zorl/common/managed_memory.h>
#include <zorl/common/memory_manager.h>

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

// The cache exists only outside AddressSanitizer builds (there every block is the C heap's).
#ifdef ZORL_TEST_PLAIN_HEAP
#define SKIP_WITHOUT_CACHE() GTEST_SKIP() << "no large-block cache under AddressSanitizer"
#else
#define SKIP_WITHOUT_CACHE() (void)0
#endif

TEST(MemoryManager, BlocksAreAlignedWritableAndCounted) {
    const std::size_t sizes[] = {0, 1, 63, 64, 65, 4095, kMiB - 65, kMiB - 64, kMiB, 3 * kMiB + 7};
    for (std::size_t n : sizes) {
        test::MemoryBalance balance;
        const std::size_t bytes0 = mm().liveBytes(), blocks0 = mm().liveBlocks();
        uint8_t* p = mm().allocate(n, false);
        ASSERT_NE(p, nullptr) << n;
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % MemoryManager::kAlignment, 0u) << n;
        EXPECT_EQ(mm().liveBytes(), bytes0 + n);
        EXPECT_EQ(mm().liveBlocks(), blocks0 + 1);
        if (n) {
            std::memset(p, 0x5a, n);
            EXPECT_EQ(p[n - 1], 0x5a);
        }
        mm().free(p);
        EXPECT_TRUE(balance.balanced()) << n;
    }
    mm().free(nullptr);  // a no-op
}

TEST(MemoryManager, ZeroedFlagClearsReusedMemory) {
    mm().trimCache();
    // Dirty a small and a large block, free them, and ask for the same sizes zeroed: the
    // heap and the cache hand back dirty memory unless told otherwise.
    for (std::size_t n : {std::size_t(1000), 5 * kMiB}) {
        uint8_t* dirty = mm().allocate(n, false);
        std::memset(dirty, 0xab, n);
        mm().free(dirty);
        uint8_t* clean = mm().allocate(n, true);
        std::vector<uint8_t> zeros(n, 0);
        EXPECT_EQ(std::memcmp(clean, zeros.data(), n), 0) << n;
        mm().free(clean);
    }
}

TEST(MemoryManager, FreedLargeBlockServesTheNextSimilarRequest) {
    SKIP_WITHOUT_CACHE();
    mm().trimCache();
    uint8_t* a = mm().allocate(4 * kMiB, false);
    mm().free(a);
    EXPECT_EQ(mm().cachedBlocks(), 1u);
    EXPECT_EQ(mm().cachedBytes(), mappedBytes(4 * kMiB));

    // Smaller, but more than half: the cached block is reused.
    uint8_t* b = mm().allocate(3 * kMiB, false);
    EXPECT_EQ(b, a);
    EXPECT_EQ(mm().cachedBlocks(), 0u);
    mm().free(b);
    // Less than half of it: a fresh mapping, the cached one stays.
    uint8_t* c = mm().allocate(kMiB + kMiB / 2, false);
    EXPECT_NE(c, a);
    EXPECT_EQ(mm().cachedBlocks(), 1u);
    // Larger than any cached block: fresh.
    uint8_t* d = mm().allocate(5 * kMiB, false);
    EXPECT_NE(d, a);
    mm().free(c);
    mm().free(d);

    // The smallest block that fits is taken, not the oldest.
    mm().trimCache();
    uint8_t* big = mm().allocate(8 * kMiB, false);
    uint8_t* small = mm().allocate(5 * kMiB, false);
    mm().free(big);
    mm().free(small);
    uint8_t* e = mm().allocate(4 * kMiB + kMiB / 2, false);
    EXPECT_EQ(e, small);
    mm().free(e);
    mm().trimCache();
    EXPECT_EQ(mm().cachedBytes(), 0u);
}

TEST(MemoryManager, CacheKeepsAtMostItsBlockCountOldestLeavingFirst) {
    SKIP_WITHOUT_CACHE();
    mm().trimCache();
    test::MemoryBalance balance;
    // Distinct sizes 2, 3, ... MiB, one more than the cache holds, freed in that order.
    std::vector<uint8_t*> blocks;
    const std::size_t count = MemoryManager::kCacheMaxBlocks + 1;
    for (std::size_t k = 0; k < count; ++k) blocks.push_back(mm().allocate((k + 2) * kMiB, false));
    for (uint8_t* p : blocks) mm().free(p);
    EXPECT_TRUE(balance.balanced());
    EXPECT_EQ(mm().cachedBlocks(), MemoryManager::kCacheMaxBlocks);
    std::size_t expected = 0;
    for (std::size_t k = 1; k < count; ++k) expected += mappedBytes((k + 2) * kMiB);  // the 2 MiB block left
    EXPECT_EQ(mm().cachedBytes(), expected);
    mm().trimCache();
    EXPECT_EQ(mm().cachedBlocks(), 0u);
}

TEST(MemoryManager, CacheKeepsAtMostItsByteLimit) {
    SKIP_WITHOUT_CACHE();
    mm().trimCache();
    // Address space only: these blocks are never touched beyond their header page.
    const std::size_t part = MemoryManager::kCacheMaxBytes / 2 + kMiB;
    uint8_t* a = mm().allocate(part, false);
    uint8_t* b = mm().allocate(part, false);
    mm().free(a);
    mm().free(b);  // both together would pass the limit: the older one is released
    EXPECT_EQ(mm().cachedBlocks(), 1u);
    EXPECT_EQ(mm().cachedBytes(), mappedBytes(part));
    EXPECT_LE(mm().cachedBytes(), MemoryManager::kCacheMaxBytes);

    // A block larger than the whole cache is released at once, and leaves the cache alone.
    uint8_t* huge = mm().allocate(MemoryManager::kCacheMaxBytes, false);
    mm().free(huge);
    EXPECT_EQ(mm().cachedBlocks(), 1u);
    mm().trimCache();
}

TEST(MemoryManager, ManyThreadsAllocateAndFreeAtOnce) {
    test::MemoryBalance balance;
    constexpr int kThreads = 8, kRounds = 300;
    std::vector<std::thread> threads;
    std::atomic<int> corrupted{0};
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t, &corrupted] {
            struct Held {
                uint8_t* p;
                std::size_t n;
                uint8_t mark;
            };
            std::vector<Held> held;
            for (int i = 0; i < kRounds; ++i) {
                // Mostly small blocks, now and then a large (cached) one.
                const std::size_t n = (i % 50 == 7) ? 2 * kMiB + 4096 * t : 16 + 97 * ((i * 31 + t) % 400);
                uint8_t* p = mm().allocate(n, i % 3 == 0);
                const uint8_t mark = static_cast<uint8_t>(t * 16 + i);
                p[0] = mark;
                p[n - 1] = mark;
                held.push_back({p, n, mark});
                if (held.size() > 4) {  // free the oldest, after checking nobody wrote into it
                    const Held& h = held.front();
                    if (h.p[0] != h.mark || h.p[h.n - 1] != h.mark) corrupted++;
                    mm().free(h.p);
                    held.erase(held.begin());
                }
            }
            for (const Held& h : held) mm().free(h.p);
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
        EXPECT_EQ(v[9999], 9999.0f);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(v.data()) % MemoryManager::kAlignment, 0u);

        ManagedBuffer<double> a(1000, true);
        EXPECT_EQ(a[999], 0.0);
        ManagedBuffer<double> b(std::move(a));
        EXPECT_TRUE(a.empty());
        EXPECT_EQ(a.data(), nullptr);
        ManagedBuffer<double> c(10);
        c = std::move(b);  // frees c's own block
        EXPECT_EQ(c.size(), 1000u);
        EXPECT_EQ(mm().liveBlocks(), blocks0 + 2);  // v and c
    }
    EXPECT_TRUE(balance.balanced());
}

}  // namespace
}  // namespace zorl
