#pragma once
// Standard-conforming allocator and a move-only buffer, both over MemoryManager.

#include <cstddef>
#include <new>
#include <utility>

#include <zorl/common/memory_manager.h>

namespace zorl {

// Allocator for standard containers, e.g. std::vector<float, ManagedAllocator<float>>.
template <class T>
struct ManagedAllocator {
    using value_type = T;

    ManagedAllocator() noexcept = default;
    template <class U>
    ManagedAllocator(const ManagedAllocator<U>&) noexcept {}

    T* allocate(std::size_t n) {
        if (n > std::size_t(-1) / sizeof(T)) throw std::bad_array_new_length();
        return reinterpret_cast<T*>(MemoryManager::instance().allocate(n * sizeof(T), false));
    }
    void deallocate(T* p, std::size_t) noexcept { MemoryManager::instance().free(reinterpret_cast<uint8_t*>(p)); }

    template <class U>
    bool operator==(const ManagedAllocator<U>&) const noexcept { return true; }
};

// A scratch array of trivially copyable T, returned to MemoryManager on every exit path.
// Its contents are uninitialised unless constructed with zeroed = true.
template <class T>
class ManagedBuffer {
public:
    ManagedBuffer() = default;
    explicit ManagedBuffer(std::size_t count, bool zeroed = false) : count_(count) {
        if (count > std::size_t(-1) / sizeof(T)) throw std::bad_array_new_length();
        data_ = reinterpret_cast<T*>(MemoryManager::instance().allocate(count * sizeof(T), zeroed));
    }
    ManagedBuffer(ManagedBuffer&& other) noexcept
        : data_(std::exchange(other.data_, nullptr)), count_(std::exchange(other.count_, 0)) {}
    ManagedBuffer& operator=(ManagedBuffer&& other) noexcept {
        if (this != &other) {
            reset();
            data_ = std::exchange(other.data_, nullptr);
            count_ = std::exchange(other.count_, 0);
        }
        return *this;
    }
    ManagedBuffer(const ManagedBuffer&) = delete;
    ManagedBuffer& operator=(const ManagedBuffer&) = delete;
    ~ManagedBuffer() { reset(); }

    void reset() {
        if (data_) MemoryManager::instance().free(reinterpret_cast<uint8_t*>(data_));
        data_ = nullptr;
        count_ = 0;
    }

    T* data() { return data_; }
    const T* data() const { return data_; }
    std::size_t size() const { return count_; }
    bool empty() const { return count_ == 0; }
    T& operator[](std::size_t i) { return data_[i]; }
    const T& operator[](std::size_t i) const { return data_[i]; }
    T* begin() { return data_; }
    T* end() { return data_ + count_; }
    const T* begin() const { return data_; }
    const T* end() const { return data_ + count_; }

private:
    T* data_ = nullptr;
    std::size_t count_ = 0;
};

}  // namespace zorl
