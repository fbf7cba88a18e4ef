// libFuzzer target: arbitrary bytes through zorl::fuzz::tiledImageData (see
// storage/tiled_image_data_fuzz.h).

#include <cstddef>
#include <cstdint>

#include <zorl/logger/logger.h>

#include "storage/tiled_image_data_fuzz.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    zorl::setLogSink([](zorl::LogMessageType, const std::string&) {});  // refusals are expected
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    zorl::fuzz::tiledImageData(data, size);
    return 0;
}
