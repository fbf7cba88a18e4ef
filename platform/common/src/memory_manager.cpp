#include <zorl/common/memory_manager.h>

#include <sys/mman.h>

#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <new>

// Under AddressSanitizer every block comes from the C heap, uncached, so that the
// sanitizer sees overflows and uses after free of large blocks too.
#if defined(__SANITIZE_ADDRESS__)
#define ZORL_MM_PLAIN_HEAP 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZORL_MM_PLAIN_HEAP 1
#endif
#endif
#ifndef ZORL_MM_PLAIN_HEAP
#define ZORL_MM_PLAIN_HEAP 0
#endif

namespace zorl {
namespace {

constexpr uint64_t kMagicHeap = 0x5a4f524c48454150ull;    // "ZORLHEAP"
constexpr uint64_t kMagicMapped = 0x5a4f524c4d4d4150ull;  // "ZORLMMAP"
constexpr std::size_t kHeaderBytes = MemoryManager::kAlignment;  // keeps the payload aligned
constexpr std::size_t kPageBytes = 4096;
constexpr std::size_t kHugePageBytes = std::size_t(2) << 20;

// Sits just before every payload.
struct BlockHeader {
    uint64_t magic;
    std::size_t requested;  // bytes asked for
    std::size_t mapped;     // bytes of the whole mapping (header included), 0 for heap blocks
};
static_assert(sizeof(BlockHeader) <= kHeaderBytes);

struct CachedBlock {
    void* base;
    std::size_t mapped;
};

struct LargeBlockCache {
    std::mutex mutex;
    std::deque<CachedBlock> blocks;  // oldest first
    std::size_t bytes = 0;
};

LargeBlockCache& cache() {
    static LargeBlockCache* c = new LargeBlockCache;  // never destroyed: frees may run at exit
    return *c;
}

std::size_t roundUp(std::size_t n, std::size_t to) { return (n + to - 1) / to * to; }

// A fresh mapping whose start lies on a huge-page boundary, so that the kernel can back
// the whole block with huge pages from the first byte: over-map by one huge page, then
// give back the unaligned head and the unused tail.
void* mapFresh(std::size_t mapped) {
    const bool huge = mapped >= kHugePageBytes;
    const std::size_t span = huge ? mapped + kHugePageBytes : mapped;
    void* p = ::mmap(nullptr, span, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) throw std::bad_alloc();
    if (!huge) return p;
    const auto start = reinterpret_cast<std::uintptr_t>(p);
    const std::uintptr_t aligned = roundUp(start, kHugePageBytes);
    if (aligned > start) ::munmap(p, aligned - start);
    const std::uintptr_t end = aligned + mapped;
    if (start + span > end) ::munmap(reinterpret_cast<void*>(end), start + span - end);
#ifdef MADV_HUGEPAGE
    ::madvise(reinterpret_cast<void*>(aligned), mapped, MADV_HUGEPAGE);
#endif
    return reinterpret_cast<void*>(aligned);
}

// The smallest cached mapping that fits: large enough, and not more than twice the need
// (a bigger one would keep too much memory busy for a small request).
void* takeFromCache(std::size_t mapped, std::size_t& gotMapped) {
    LargeBlockCache& c = cache();
    std::lock_guard<std::mutex> lock(c.mutex);
    auto best = c.blocks.end();
    for (auto it = c.blocks.begin(); it != c.blocks.end(); ++it) {
        if (it->mapped >= mapped && it->mapped <= 2 * mapped && (best == c.blocks.end() || it->mapped < best->mapped))
            best = it;
    }
    if (best == c.blocks.end()) return nullptr;
    void* base = best->base;
    gotMapped = best->mapped;
    c.bytes -= best->mapped;
    c.blocks.erase(best);
    return base;
}

void giveToCache(void* base, std::size_t mapped) {
    if (mapped > MemoryManager::kCacheMaxBytes) {
        ::munmap(base, mapped);
        return;
    }
    std::deque<CachedBlock> evicted;
    {
        LargeBlockCache& c = cache();
        std::lock_guard<std::mutex> lock(c.mutex);
        while (!c.blocks.empty() &&
               (c.blocks.size() >= MemoryManager::kCacheMaxBlocks || c.bytes + mapped > MemoryManager::kCacheMaxBytes)) {
            evicted.push_back(c.blocks.front());
            c.bytes -= c.blocks.front().mapped;
            c.blocks.pop_front();
        }
        c.blocks.push_back({base, mapped});
        c.bytes += mapped;
    }
    for (const CachedBlock& b : evicted) ::munmap(b.base, b.mapped);
}

}  // namespace

MemoryManager& MemoryManager::instance() {
    static MemoryManager* manager = new MemoryManager;  // lives until the process ends
    return *manager;
}

MemoryManager::~MemoryManager() { trimCache(); }

uint8_t* MemoryManager::allocate(std::size_t bytes, bool zeroed) {
    if (bytes > std::size_t(-1) / 2) throw std::bad_alloc();
    BlockHeader* header = nullptr;
    if (ZORL_MM_PLAIN_HEAP || bytes < kLargeBlockBytes) {
        const std::size_t total = roundUp(kHeaderBytes + bytes, kAlignment);
        void* p = std::aligned_alloc(kAlignment, total);
        if (!p) throw std::bad_alloc();
        if (zeroed) std::memset(static_cast<uint8_t*>(p) + kHeaderBytes, 0, bytes);
        header = static_cast<BlockHeader*>(p);
        *header = {kMagicHeap, bytes, 0};
    } else {
        const std::size_t mapped = roundUp(kHeaderBytes + bytes, kPageBytes);
        std::size_t got = 0;
        void* base = takeFromCache(mapped, got);
        if (base) {
            if (zeroed) std::memset(static_cast<uint8_t*>(base) + kHeaderBytes, 0, bytes);
        } else {
            base = mapFresh(mapped);  // fresh anonymous pages are zero already
            got = mapped;
        }
        header = static_cast<BlockHeader*>(base);
        *header = {kMagicMapped, bytes, got};
    }
    liveBytes_.fetch_add(bytes, std::memory_order_relaxed);
    liveBlocks_.fetch_add(1, std::memory_order_relaxed);
    return reinterpret_cast<uint8_t*>(header) + kHeaderBytes;
}

void MemoryManager::free(uint8_t* block) {
    if (!block) return;
    auto* header = reinterpret_cast<BlockHeader*>(block - kHeaderBytes);
    const BlockHeader h = *header;
    if (h.magic != kMagicHeap && h.magic != kMagicMapped) {
        return;  // not a block of ours (or freed twice): leaking it is safer than guessing
    }
    header->magic = 0;
    liveBytes_.fetch_sub(h.requested, std::memory_order_relaxed);
    liveBlocks_.fetch_sub(1, std::memory_order_relaxed);
    if (h.magic == kMagicHeap)
        std::free(header);
    else
        giveToCache(header, h.mapped);
}

std::size_t MemoryManager::cachedBytes() const {
    LargeBlockCache& c = cache();
    std::lock_guard<std::mutex> lock(c.mutex);
    return c.bytes;
}

std::size_t MemoryManager::cachedBlocks() const {
    LargeBlockCache& c = cache();
    std::lock_guard<std::mutex> lock(c.mutex);
    return c.blocks.size();
}

void MemoryManager::trimCache() {
    std::deque<CachedBlock> all;
    {
        LargeBlockCache& c = cache();
        std::lock_guard<std::mutex> lock(c.mutex);
        all.swap(c.blocks);
        c.bytes = 0;
    }
    for (const CachedBlock& b : all) ::munmap(b.base, b.mapped);
}

}  // namespace zorl
