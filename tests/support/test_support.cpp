#include "support/test_support.h"

#include <tbb/global_control.h>

#include <cstdlib>

namespace zorl::test {

LogCapture::LogCapture() {
    previous_ = setLogSink([this](LogMessageType type, const std::string& line) {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back(line);
        types_.push_back(type);
    });
}

LogCapture::~LogCapture() { setLogSink(previous_); }

std::vector<std::string> LogCapture::lines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
}

std::vector<LogMessageType> LogCapture::types() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return types_;
}

std::size_t LogCapture::count() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_.size();
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
    types_.clear();
}

MemoryBalance::MemoryBalance()
    : blocks_(MemoryManager::instance().liveBlocks()), bytes_(MemoryManager::instance().liveBytes()) {}

::testing::AssertionResult MemoryBalance::balanced() const {
    const auto& mm = MemoryManager::instance();
    if (mm.liveBlocks() == blocks_ && mm.liveBytes() == bytes_) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "MemoryManager holds " << mm.liveBlocks() << " blocks / " << mm.liveBytes()
                                         << " bytes, expected " << blocks_ << " / " << bytes_;
}

std::vector<float> noise(std::size_t count, uint32_t seed, float lo, float hi) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> dist(lo, hi);
    std::vector<float> v(count);
    for (float& x : v) x = dist(rng);
    return v;
}

std::filesystem::path fuzzCorpusDir(const std::string& target) {
    const char* root = std::getenv("ZORL_FUZZ_CORPUS");
    return std::filesystem::path(root ? root : "fuzz/corpus") / target;
}

void onOneThread(const std::function<void()>& fn) {
    tbb::global_control limit(tbb::global_control::max_allowed_parallelism, 1);
    fn();
}

}  // namespace zorl::test
