#pragma once
// Vector stores, plain or non-temporal, chosen at compile time. A non-temporal store
// skips reading the destination line before writing it and keeps the result out of the
// caches: worth it for destinations far larger than the caches, which the next pass
// cannot find cached anyway. Non-temporal stores need a 16-byte aligned address; a
// kernel that streams peels scalar elements until the destination is aligned, and calls
// finishStores once its stores are done.

#include <emmintrin.h>

#include <cstdint>

namespace zorl::simd {

inline bool isAligned16(const void* p) { return (reinterpret_cast<uintptr_t>(p) & 15u) == 0; }

template <bool Stream>
inline void store(float* p, __m128 v) {
    if constexpr (Stream)
        _mm_stream_ps(p, v);
    else
        _mm_storeu_ps(p, v);
}

template <bool Stream>
inline void store(uint8_t* p, __m128i v) {
    if constexpr (Stream)
        _mm_stream_si128(reinterpret_cast<__m128i*>(p), v);
    else
        _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v);
}

template <bool Stream>
inline void store(uint16_t* p, __m128i v) {
    store<Stream>(reinterpret_cast<uint8_t*>(p), v);
}

// Orders the non-temporal stores before whatever follows (a no-op for plain stores).
template <bool Stream>
inline void finishStores() {
    if constexpr (Stream) _mm_sfence();
}

}  // namespace zorl::simd
