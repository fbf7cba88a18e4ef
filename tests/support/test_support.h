#pragma once
// Helpers shared by the tests: capturing log lines, checking MemoryManager balance,
// seeded test images, and running code on one thread.

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include <zorl/common/memory_manager.h>
#include <zorl/logger/logger.h>

namespace zorl::test {

// Records every log line while alive (and keeps them off standard error).
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    std::vector<std::string> lines() const;
    std::vector<LogMessageType> types() const;
    std::size_t count() const;
    void clear();

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
    std::vector<LogMessageType> types_;
    LogSink previous_;
};

// Remembers MemoryManager's live blocks and bytes at construction; balanced() tells
// whether they are the same now.
class MemoryBalance {
public:
    MemoryBalance();
    ::testing::AssertionResult balanced() const;

private:
    std::size_t blocks_;
    std::size_t bytes_;
};

// Seeded uniform noise in [lo, hi).
std::vector<float> noise(std::size_t count, uint32_t seed, float lo = 0.0f, float hi = 1.0f);

// The committed seed corpus of one fuzz target (fuzz/corpus/<target>), found through
// the ZORL_FUZZ_CORPUS environment variable that ctest sets.
std::filesystem::path fuzzCorpusDir(const std::string& target);

// Runs fn with oneTBB limited to one thread.
void onOneThread(const std::function<void()>& fn);

}  // namespace zorl::test
