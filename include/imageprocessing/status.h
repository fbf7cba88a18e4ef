#pragma once
// The frame every long operation shares: cancellation and the scope guard.

#include <cstdint>
#include <exception>
#include <utility>

#include <imageprocessing/export.h>

namespace zorl {

// Passed by pointer to long operations (null allowed). The caller owns the one-byte
// flag; setting it non-zero asks the operation to stop. An operation finishes the
// parallel loop in progress, then throws cancelException; partial output stays as is.
struct ZORL_IP_EXPORT ImageProcessingStatus {
    uint8_t* cancelFlag = nullptr;

    class ZORL_IP_EXPORT cancelException : public std::exception {
    public:
        const char* what() const noexcept override;
    };

    // True when the flag pointer is set and the flag byte is non-zero.
    bool isCancelled() const noexcept;
    // Throws cancelException when status is non-null and cancelled.
    static void throwIfCancelled(const ImageProcessingStatus* status);
};

namespace detail {
ZORL_IP_EXPORT void logScopeExitException(const std::exception& e) noexcept;
ZORL_IP_EXPORT void logScopeExitUnknownException() noexcept;
}  // namespace detail

// Runs an action when it leaves scope. An exception thrown by the action is caught and
// logged ("Exception thrown during ~ScopeExit. Cause: " and its what(), or "Unknown
// exception thrown during ~ScopeExit."); it never leaves the destructor.
template <class F>
class ScopeExit {
public:
    explicit ScopeExit(F action) : action_(std::move(action)) {}
    ScopeExit(const ScopeExit&) = delete;
    ScopeExit& operator=(const ScopeExit&) = delete;
    ~ScopeExit() {
        if (!active_) return;
        try {
            action_();
        } catch (const std::exception& e) {
            detail::logScopeExitException(e);
        } catch (...) {
            detail::logScopeExitUnknownException();
        }
    }
    // The action will not run.
    void dismiss() noexcept { active_ = false; }

private:
    F action_;
    bool active_ = true;
};

}  // namespace zorl
