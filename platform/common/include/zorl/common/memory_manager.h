#pragma once
// The process-wide allocator of the zorl libraries.
//
// Every block is aligned to kAlignment bytes. Blocks of kLargeBlockBytes or more are
// mapped directly with transparent huge pages advised, and a freed large block is kept
// in a small cache so that the next request of a similar size skips the page faults of
// fresh memory. The cache holds at most kCacheMaxBlocks blocks and kCacheMaxBytes bytes;
// the oldest block goes first when either limit would be passed; a request takes the
// smallest cached block that is at least as large and at most twice as large. Mappings
// of 2 MiB or more start on a huge-page boundary. trimCache() empties the cache.
//
// allocate(bytes, zeroed): zeroed = true returns memory filled with zero bytes.
// Thread-safe. Exhaustion throws std::bad_alloc; callers do not test for null.

#include <atomic>
#include <cstddef>
#include <cstdint>

#include <zorl/common/export.h>

namespace zorl {

class ZORL_COMMON_EXPORT MemoryManager {
public:
    static constexpr std::size_t kAlignment = 64;                       // one cache line, and AVX-512 loads
    static constexpr std::size_t kLargeBlockBytes = std::size_t(1) << 20; // below: the C heap is cheap enough
    static constexpr std::size_t kCacheMaxBlocks = 8;                   // enough for the planes of one filter call
    static constexpr std::size_t kCacheMaxBytes = std::size_t(1) << 30; // 1 GiB of address space at most

    static MemoryManager& instance();

    uint8_t* allocate(std::size_t bytes, bool zeroed);
    void free(uint8_t* block);

    // What callers hold now: blocks allocated and not yet freed, and their requested bytes.
    std::size_t liveBytes() const { return liveBytes_.load(std::memory_order_relaxed); }
    std::size_t liveBlocks() const { return liveBlocks_.load(std::memory_order_relaxed); }

    // Memory kept for reuse, not held by any caller.
    std::size_t cachedBytes() const;
    std::size_t cachedBlocks() const;
    void trimCache();

    MemoryManager(const MemoryManager&) = delete;
    MemoryManager& operator=(const MemoryManager&) = delete;

private:
    MemoryManager() = default;
    ~MemoryManager();

    std::atomic<std::size_t> liveBytes_{0};
    std::atomic<std::size_t> liveBlocks_{0};
};

}  // namespace zorl
