#include <zorl/logger/logger.h>

#include <cstdio>
#include <mutex>
#include <utility>

namespace zorl {
namespace {

std::mutex& sinkMutex() {
    static std::mutex m;
    return m;
}

LogSink& currentSink() {
    static LogSink sink;
    return sink;
}

void writeToStderr(const std::string& line) {
    // One fwrite per line so that lines from different threads do not interleave.
    std::string out = line;
    out.push_back('\n');
    std::fwrite(out.data(), 1, out.size(), stderr);
    std::fflush(stderr);
}

}  // namespace

logstream::~logstream() = default;

logstream& logstream::operator<<(LogMessageType type) {
    type_ = type;
    return *this;
}
logstream& logstream::operator<<(const char* text) {
    buffer_ << (text ? text : "(null)");
    return *this;
}
logstream& logstream::operator<<(const std::string& text) {
    buffer_ << text;
    return *this;
}
logstream& logstream::operator<<(std::string_view text) {
    buffer_ << text;
    return *this;
}
logstream& logstream::operator<<(long long value) {
    buffer_ << value;
    return *this;
}
logstream& logstream::operator<<(unsigned long long value) {
    buffer_ << value;
    return *this;
}
logstream& logstream::operator<<(double value) {
    buffer_ << value;
    return *this;
}

logstream __zorllog() { return logstream(); }

void LOG(const logstream& stream) {
    const std::string line = stream.text();
    LogSink sink;
    {
        std::lock_guard<std::mutex> lock(sinkMutex());
        sink = currentSink();
    }
    if (sink)
        sink(stream.type(), line);
    else
        writeToStderr(line);
}

LogSink setLogSink(LogSink sink) {
    std::lock_guard<std::mutex> lock(sinkMutex());
    return std::exchange(currentSink(), std::move(sink));
}

namespace details {
void logErrorMessage(const std::string& message) {
    logstream s;
    s << LogMessageType::Error << message;
    LOG(s);
}
}  // namespace details

}  // namespace zorl
