// libFuzzer target: arbitrary bytes through zorl::fuzz::tiledMask (see storage/fuzz_entry_points.h).

#include <cstddef>
#include <cstdint>

#include <zorl/logger/logger.h>

#include "storage/fuzz_entry_points.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    zorl::setLogSink([](zorl::LogMessageType, const std::string&) {});  // refusals are expected
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    zorl::fuzz::tiledMask(data, size);
    return 0;
}
