// Every input a fuzz target ever failed on (and a few hand-made ones), replayed through the same harness.

#include "TestSupport.hpp"
#include "fuzz/FuzzTargets.hpp"

TEST(FuzzRegressions, EveryKeptInputPassesItsHarness) {
    using Harness = int (*)(const std::uint8_t*, std::size_t);
    for (const auto& [target, harness] : {std::pair<const char*, Harness>{"tpx3", fuzztargets::tpx3},
                                          {"paramsFile", fuzztargets::paramsFile},
                                          {"kavotphot", fuzztargets::kavotphot},
                                          {"commandLine", fuzztargets::commandLine},
                                          {"layout", fuzztargets::layout},
                                          {"convertOptions", fuzztargets::convertOptions}}) {
        std::size_t count = 0;
        for (const auto& entry :
             std::filesystem::directory_iterator(std::filesystem::path(FUZZ_REGRESSIONS_DIR) / target)) {
            SCOPED_TRACE(entry.path().string());
            const std::string bytes = testsupport::readFile(entry.path().string());
            EXPECT_EQ(harness(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()), 0);
            ++count;
        }
        EXPECT_GT(count, 0u) << target;
    }
}
