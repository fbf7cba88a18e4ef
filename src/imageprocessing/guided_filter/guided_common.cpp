// Signature texts and input checks shared by the entry points of the guided filter family.

#include "imageprocessing/guided_filter/guided_common.h"

#include "core/error_log.h"

namespace grfx::guided {

std::string signatureOf(const char* name, const char* parameters) {
    return std::string("void __cdecl ") + name + "(" + parameters + ")";
}

bool checkBuffers(const std::string& signature, const float* src, const float* guidance, bool needGuidance,
                  const float* dst) {
    return zorl::checkNotNull(src, signature, "source is null") &&
           (!needGuidance || zorl::checkNotNull(guidance, signature, "guidance is null")) &&
           zorl::checkNotNull(dst, signature, "destination is null");
}

bool checkSizeAndRadius(const std::string& signature, std::size_t width, std::size_t height, float radius) {
    return zorl::checkThat(width <= INT_MAX && height <= INT_MAX, signature, "image is too large") &&
           zorl::checkThat(radiusInRange(radius), signature, "radius is too large");
}

}  // namespace grfx::guided
