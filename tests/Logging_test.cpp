#include <cstdlib>
#include <ctime>
#include <iostream>
#include <regex>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "Logging.hpp"

namespace {

/// Captures both standard streams while logging under a given zone and threshold.
class Captured {
public:
    Captured(const char* tz, std::int32_t threshold)
        : savedOut(std::cout.rdbuf(out.rdbuf())), savedErr(std::cerr.rdbuf(err.rdbuf())) {
        setenv("TZ", tz, 1);
        tzset();
        logLevel = threshold;
    }
    ~Captured() {
        std::cout.rdbuf(savedOut);
        std::cerr.rdbuf(savedErr);
        logLevel = 4;
    }
    std::ostringstream out;
    std::ostringstream err;

private:
    std::streambuf* savedOut;
    std::streambuf* savedErr;
};

void logAll() {
    logging<LogLevel::error>("e");
    logging<LogLevel::info>("i");
    logging<LogLevel::trace>("t");
}

} // namespace

TEST(Logging, LineHasLabelLocalStampAndMessage) {
    Captured captured("EST5", 4);
    logging<LogLevel::info>("data/run1.tpx3: Total number of TDC1 triggers = 0");
    logging<LogLevel::error>("");
    logging<LogLevel::trace>("x");
    const std::regex info(
        R"(info:    \d{4}-\d\d-\d\d \d\d:\d\d:\d\d UTC-0500: data/run1\.tpx3: Total number of TDC1 triggers = 0\n)"
        R"(trace:   \d{4}-\d\d-\d\d \d\d:\d\d:\d\d UTC-0500: x\n)");
    EXPECT_TRUE(std::regex_match(captured.out.str(), info)) << captured.out.str();
    const std::regex error(R"(ERROR:   \d{4}-\d\d-\d\d \d\d:\d\d:\d\d UTC-0500: \n)");
    EXPECT_TRUE(std::regex_match(captured.err.str(), error)) << captured.err.str();
}

TEST(Logging, ThresholdSelectsLevels) {
    struct Case {
        std::int32_t threshold;
        std::size_t outLines;
        std::size_t errLines;
    };
    const Case cases[] = {{4, 2, 1}, {5, 2, 1}, {3, 1, 1}, {2, 1, 1}, {1, 0, 1}, {0, 0, 1}, {-1, 0, 1}, {-2, 0, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.threshold);
        Captured captured("UTC0", c.threshold);
        logAll();
        const auto count = [](const std::string& s) {
            return static_cast<std::size_t>(std::count(s.begin(), s.end(), '\n'));
        };
        EXPECT_EQ(count(captured.out.str()), c.outLines);
        EXPECT_EQ(count(captured.err.str()), c.errLines);
    }
}
