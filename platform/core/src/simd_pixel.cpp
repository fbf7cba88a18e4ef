#include <zorl/core/simd_pixel.h>

#include <new>

#include <zorl/common/memory_manager.h>

namespace grfx {
namespace {

float* allocPlane(std::size_t width, std::size_t height, std::size_t channels) {
    if (height && width > (std::size_t(1) << 60) / height / channels / sizeof(float)) throw std::bad_alloc();
    return reinterpret_cast<float*>(zorl::MemoryManager::instance().allocate(width * height * channels * sizeof(float), false));
}

void freePlane(float* plane) { zorl::MemoryManager::instance().free(reinterpret_cast<uint8_t*>(plane)); }

}  // namespace

float* pixel_t::alloc(std::size_t width, std::size_t height) { return allocPlane(width, height, 4); }
void pixel_t::free(float* plane) { freePlane(plane); }
float* pixel_rgb_t::alloc(std::size_t width, std::size_t height) { return allocPlane(width, height, 3); }
void pixel_rgb_t::free(float* plane) { freePlane(plane); }
float* pixel_gray_t::alloc(std::size_t width, std::size_t height) { return allocPlane(width, height, 1); }
void pixel_gray_t::free(float* plane) { freePlane(plane); }

}  // namespace grfx
