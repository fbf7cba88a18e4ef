#pragma once
// Log streams of the zorl libraries.
//
// A line is built with __zorllog() << type << text ... and emitted with LOG(stream).
// By default every line goes to standard error, one line per message, carrying the
// text exactly as written. A host installs its own sink with setLogSink.

#include <functional>
#include <sstream>
#include <string>

#include <zorl/logger/export.h>

namespace zorl {

// Severity of a log line. Every error line of the image library uses Error (3).
enum class LogMessageType : int { Debug = 0, Info = 1, Warning = 2, Error = 3 };

class ZORL_LOGGER_EXPORT logstream {
public:
    logstream() = default;
    logstream(const logstream&) = delete;
    logstream& operator=(const logstream&) = delete;
    logstream(logstream&&) = default;
    ~logstream();

    logstream& operator<<(LogMessageType type);
    logstream& operator<<(const char* text);
    logstream& operator<<(const std::string& text);
    logstream& operator<<(std::string_view text);
    logstream& operator<<(long long value);
    logstream& operator<<(unsigned long long value);
    logstream& operator<<(int value) { return *this << static_cast<long long>(value); }
    logstream& operator<<(unsigned value) { return *this << static_cast<unsigned long long>(value); }
    logstream& operator<<(long value) { return *this << static_cast<long long>(value); }
    logstream& operator<<(unsigned long value) { return *this << static_cast<unsigned long long>(value); }
    logstream& operator<<(double value);

    LogMessageType type() const { return type_; }
    std::string text() const { return buffer_.str(); }

private:
    LogMessageType type_ = LogMessageType::Info;
    std::ostringstream buffer_;
};

// Opens a log stream.
ZORL_LOGGER_EXPORT logstream __zorllog();

// Emits the finished line of a stream to the current sink.
ZORL_LOGGER_EXPORT void LOG(const logstream& stream);

// Receives every emitted line. Called from whatever thread logs; must be thread-safe.
using LogSink = std::function<void(LogMessageType type, const std::string& line)>;

// Installs a sink and returns the previous one; an empty sink restores standard error.
ZORL_LOGGER_EXPORT LogSink setLogSink(LogSink sink);

namespace details {
// Logs a prepared error text as one line of type Error.
ZORL_LOGGER_EXPORT void logErrorMessage(const std::string& message);
}  // namespace details

}  // namespace zorl
