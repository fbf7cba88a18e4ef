#include "core/error_log.h"

#include <string>

#include <zorl/logger/logger.h>

namespace zorl {

void logError(std::string_view signature, std::string_view message) {
    logstream stream = __zorllog();
    stream << LogMessageType::Error << signature << ": " << message;
    LOG(stream);
}

void reportAssertion(const char* file, int line, const char* expression) {
    logstream stream = __zorllog();
    stream << LogMessageType::Error << file << "(" << line << "): " << expression;
    LOG(stream);
}

}  // namespace zorl
