// The progress line: its text, when it is drawn and erased, and a run on a terminal that ends up showing
// exactly the log of a run without one.

#include <chrono>
#include <regex>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "ProgressLine.hpp"
#include "TestSupport.hpp"
#include "Tpx3Generator.hpp"

using namespace testsupport;
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
    census.blocks = {{0, 0, 10, 0, 0, 100}, {0, 0, 20, 0, 0, 200}, {0, 0, 30, 0, 0, 1000}};
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

TEST(Program, OnATerminalLeavesExactlyTheLog) {
    const TempDir dir;
    tpx3gen::Settings settings;
    settings.hits = 100000;
    writeWords(dir / "sample.tpx3", tpx3gen::generate(settings).words);
    const std::string run = std::string(VUNDREL_BINARY) + " -i sample.tpx3 -o out.kavotphot";
    const auto plain = runProcess("/bin/sh", {"-c", run}, dir.path.string());
    // `script` gives the run a terminal as standard output and error, and copies what it shows.
    const auto terminal = runProcess("/usr/bin/script", {"-qec", run, "/dev/null"}, dir.path.string());
    ASSERT_EQ(terminal.status, 0) << terminal.err;
    // Every drawing of the line is erased before anything else is shown: taking away the drawings that an erase
    // follows, and then the erases, leaves the log.
    std::string shown =
        std::regex_replace(terminal.out, std::regex("\r\033\\[Kvundrel: [^\r\n\033]*(?=\r\033\\[K)"), "");
    shown = std::regex_replace(shown, std::regex("\r\033\\[K"), "");
    shown = std::regex_replace(shown, std::regex("\r\n"), "\n");
    EXPECT_NE(terminal.out.find("vundrel:"), std::string::npos) << "the line was never drawn";
    const std::regex stamp(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d|\d+ seconds)");
    EXPECT_EQ(std::regex_replace(shown, stamp, "T"), std::regex_replace(plain.out, stamp, "T"));
    EXPECT_EQ(plain.err, "");
}
