#pragma once
// The error line of the whole library: message type 3, the failing function's
// signature text, ": ", the message. After logging, the function returns without
// output; it does not throw. The check* helpers log once and return false.

#include <string_view>

#include <imageprocessing/export.h>

namespace zorl {

// Exported (though the header is private) so that the tests and the tools share the format.
ZORL_IP_EXPORT void logError(std::string_view signature, std::string_view message);

// Logs message and returns false when ptr is null (or an empty smart pointer).
template <class P>
bool checkNotNull(const P& ptr, std::string_view signature, std::string_view message) {
    if (ptr) return true;
    logError(signature, message);
    return false;
}

// Logs message and returns false when condition does not hold.
inline bool checkThat(bool condition, std::string_view signature, std::string_view message) {
    if (condition) return true;
    logError(signature, message);
    return false;
}

// Reports a broken internal expectation (file, line and expression) as an error line
// and carries on: a shared library never aborts its host.
ZORL_IP_EXPORT void reportAssertion(const char* file, int line, const char* expression);

}  // namespace zorl

#define ZORL_ASSERT_REPORT(expr) \
    ((expr) ? void(0) : ::zorl::reportAssertion(__FILE__, __LINE__, #expr))
