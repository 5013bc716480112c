// Every input the fuzz targets ever failed on (and a few hand-made edge inputs) stays here as a test: replayed
// through the same harness, now with the gcc sanitizer build.

#include <filesystem>

#include <gtest/gtest.h>

#include "TestSupport.hpp"
#include "fuzz/FuzzTargets.hpp"

namespace {

std::size_t replay(const char* target, int (*harness)(const std::uint8_t*, std::size_t)) {
    std::size_t count = 0;
    for (const auto& entry :
         std::filesystem::directory_iterator(std::filesystem::path(FUZZ_REGRESSIONS_DIR) / target)) {
        SCOPED_TRACE(entry.path().string());
        const std::string bytes = testsupport::readFile(entry.path().string());
        EXPECT_EQ(harness(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()), 0);
        ++count;
    }
    return count;
}

} // namespace

TEST(FuzzRegressions, EveryKeptInputPassesItsHarness) {
    EXPECT_GT(replay("tpx3", fuzztargets::tpx3), 0u);
    EXPECT_GT(replay("paramsFile", fuzztargets::paramsFile), 0u);
    EXPECT_GT(replay("kavotphot", fuzztargets::kavotphot), 0u);
    EXPECT_GT(replay("commandLine", fuzztargets::commandLine), 0u);
}
