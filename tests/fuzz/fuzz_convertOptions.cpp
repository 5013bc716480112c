// libFuzzer entry point; the work is in FuzzTargets.hpp.

#include <cstddef>
#include <cstdint>

#include "FuzzTargets.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return fuzztargets::convertOptions(data, size);
}
