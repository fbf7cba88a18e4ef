// libFuzzer target: arbitrary bytes as a file for zorl::readFromFile (written to a private
// temporary file first, see storage/fuzz_entry_points.h).

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <zorl/logger/logger.h>

#include "storage/fuzz_entry_points.h"

namespace {
std::string& filePath() {
    static std::string path;
    return path;
}
std::string makePath() {
    const std::filesystem::path dir = std::filesystem::exists("/dev/shm") ? "/dev/shm" : std::filesystem::temp_directory_path();
    return (dir / ("zorl_fuzz_read_file_" + std::to_string(::getpid()))).string();
}
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    zorl::setLogSink([](zorl::LogMessageType, const std::string&) {});  // refusals are expected
    filePath() = makePath();
    std::atexit([] {
        std::error_code ignored;
        std::filesystem::remove(filePath(), ignored);
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    zorl::fuzz::readFile(data, size, filePath());
    return 0;
}
