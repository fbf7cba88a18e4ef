#include <imageprocessing/status.h>

#include <atomic>
#include <string>

#include <zorl/logger/logger.h>

namespace zorl {

const char* ImageProcessingStatus::cancelException::what() const noexcept { return "ImageProcessingStatus cancelled"; }

bool ImageProcessingStatus::isCancelled() const noexcept {
    // The caller may set the flag from another thread while a loop runs.
    return cancelFlag && std::atomic_ref<uint8_t>(*cancelFlag).load(std::memory_order_relaxed) != 0;
}

void ImageProcessingStatus::throwIfCancelled(const ImageProcessingStatus* status) {
    if (status && status->isCancelled()) throw cancelException();
}

namespace detail {

void logScopeExitException(const std::exception& e) noexcept {
    try {
        details::logErrorMessage(std::string("Exception thrown during ~ScopeExit. Cause: ") + e.what());
    } catch (...) {
    }
}

void logScopeExitUnknownException() noexcept {
    try {
        details::logErrorMessage("Unknown exception thrown during ~ScopeExit.");
    } catch (...) {
    }
}

}  // namespace detail
}  // namespace zorl
