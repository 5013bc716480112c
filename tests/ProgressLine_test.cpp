// The progress line: its text, and when it is drawn and erased (a run on a terminal: Program_test.cpp).

#include <chrono>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "ProgressLine.hpp"

using namespace std::chrono_literals;

namespace {

/// What has been written into a pipe so far.
std::string drain(int fd) {
    std::string text;
    char buffer[256];
    for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;) {
        text.append(buffer, static_cast<std::size_t>(n));
    }
    return text;
}

} // namespace

TEST(ProgressLine, TextGivesShareRateAndTimeLeft) {
    const struct {
        std::uint64_t done, total;
        std::chrono::milliseconds elapsed;
        const char* text;
    } cases[] = {
        {0, 100, 500ms, "vundrel:   0 % of the hits"},
        {25, 100, 0ms, "vundrel:  25 % of the hits"},
        {25000000, 100000000, 500ms, "vundrel:  25 % of the hits, 50.0 M hits/s, 2 s left"},
        {100, 100, 2000ms, "vundrel: 100 % of the hits, 0.0 M hits/s, 0 s left"},
        {0, 0, 10ms, "vundrel: 100 % of the hits"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ProgressLine::text(c.done, c.total, c.elapsed), c.text);
    }
}

TEST(ProgressLine, DrawsAtMostEveryIntervalAndErasesItselfOnlyIfDrawn) {
    int pipe[2];
    ASSERT_EQ(::pipe2(pipe, O_NONBLOCK), 0);
    kavot_tpx3spidr::Tpx3Census census;
    // Three blocks of 10, 20 and 30 hits; the later blocks start at 100 and 200 ticks.
    census.blocks = {{0, 0, 10, 0, 0, 100, 0, false, 0, 0},
                     {0, 0, 20, 0, 0, 200, 0, false, 0, 0},
                     {0, 0, 30, 0, 0, 1000, 0, false, 0, 0}};
    const auto t0 = ProgressLine::Clock::now();
    const std::string erase = "\r\033[K";
    { const ProgressLine never(pipe[1], census, t0); }
    EXPECT_EQ(drain(pipe[0]), "");
    {
        ProgressLine line(pipe[1], census, t0);
        const auto interval = ProgressLine::redraw_interval;
        line.photonAt(99, t0); // the first photon draws at once
        EXPECT_EQ(drain(pipe[0]), erase + ProgressLine::text(0, 60, 0ms));
        line.photonAt(150, t0 + interval - 1ms);
        EXPECT_EQ(drain(pipe[0]), "");
        line.photonAt(150, t0 + interval);
        EXPECT_EQ(drain(pipe[0]), erase + ProgressLine::text(10, 60, interval));
        line.photonAt(200, t0 + 2 * interval - 1ms);
        EXPECT_EQ(drain(pipe[0]), "");
        line.photonAt(200, t0 + 2 * interval);
        EXPECT_EQ(drain(pipe[0]), erase + ProgressLine::text(30, 60, 2 * interval));
    }
    EXPECT_EQ(drain(pipe[0]), erase);
    ::close(pipe[0]);
    ::close(pipe[1]);
}
