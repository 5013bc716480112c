// The program as a user runs it on recordings: exit status, standard output, standard error and the files it
// leaves. Command lines that end before any processing are in tests/data/command_lines.txt.

#include <chrono>
#include <csignal>
#include <functional>
#include <regex>

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "PhotonEvents.hpp"
#include "Reconstruction_switch.hpp"
#include "TestSupport.hpp"
#include "Tpx3Generator.hpp"

using namespace testsupport;
using kavot_tpx3spidr::PhotonFile;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
namespace fs = std::filesystem;

namespace {

struct ProcessResult {
    int status;
    std::string out, err;
};

/// Runs vundrel with `args` in `dir`, TZ set to `tz`, standard output and error captured; on the CPU it starts on
/// only, when `oneCpu`. `whileRunning` gets the process while it runs.
ProcessResult vundrel(
    std::vector<std::string> args,
    const std::string& dir,
    const char* tz = "UTC0",
    bool oneCpu = false,
    const std::function<void(pid_t)>& whileRunning = [](pid_t) {}) {
    const TempDir capture;
    const std::string outPath = capture / "out";
    const std::string errPath = capture / "err";
    args.insert(args.begin(), VUNDREL_BINARY);
    std::vector<char*> argv = argvOf(args);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(open(outPath.c_str(), O_WRONLY | O_CREAT, 0600), 1);
        dup2(open(errPath.c_str(), O_WRONLY | O_CREAT, 0600), 2);
        setenv("TZ", tz, 1);
        cpu_set_t cpus;
        CPU_ZERO(&cpus);
        CPU_SET(static_cast<std::size_t>(sched_getcpu()), &cpus);
        if ((!oneCpu || sched_setaffinity(0, sizeof(cpus), &cpus) == 0) && chdir(dir.c_str()) == 0) {
            execv(VUNDREL_BINARY, argv.data());
        }
        _exit(127);
    }
    whileRunning(pid);
    int status = 0;
    waitpid(pid, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), readFile(outPath), readFile(errPath)};
}

/// The messages of the log lines in `text`, after checking each line's label and time stamp.
std::vector<std::string> messages(const std::string& text, const char* labelPattern) {
    const std::regex line(std::string("^") + labelPattern + R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d UTC[+-]\d{4}: (.*)$)");
    std::vector<std::string> result;
    for (const auto& l : lines(text)) {
        std::smatch match;
        EXPECT_TRUE(std::regex_match(l, match, line)) << "not a log line: " << l;
        result.push_back(match.size() > 1 ? match[1].str() : l);
    }
    return result;
}
std::vector<std::string> errors(const std::string& text) {
    return messages(text, "ERROR:   ");
}
std::vector<std::string> progress(const std::string& text) {
    return messages(text, "(?:info:    |trace:   )");
}

/// A small generated recording in `dir`.
std::string sampleFile(const TempDir& dir, u64 hits = 20000) {
    const std::string path = dir / "sample.tpx3";
    writeWords(path, tpx3gen::generate({.hits = hits, .disorder_seconds = 2e-7}).words);
    return path;
}

/// A log line that gives the whole seconds since the run started, for a run of well under a second: the clock's
/// second may turn during it.
testing::Matcher<std::string> withinASecond(const std::string& text) {
    return testing::AnyOf(text + "0 seconds", text + "1 seconds");
}

/// No temporary file of an output is left in `dir`.
void expectNoTemporaryFiles(const fs::path& dir) {
    for (const auto& entry : fs::directory_iterator(dir)) {
        EXPECT_NE(entry.path().filename().string().front(), '.') << entry.path();
    }
}

} // namespace

TEST(Program, ConvertsARecordingAndLogsEachStepInOrder) {
    const TempDir dir;
    const std::string input = sampleFile(dir);
    const auto result = vundrel({"-i", input, "-o", "nested/dirs/out.kavotphot", "-T"}, dir.path.string());
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.err, IsEmpty());
    const auto photons = PhotonFile().read_fromFile(dir / "nested/dirs/out.kavotphot");
    ASSERT_TRUE(photons.extTriggers.has_value());
    EXPECT_THAT(
        progress(result.out),
        ElementsAre(withinASecond(input + ": Finished loading input at "),
                    input + ": Total number of pixel activations in file = 20000",
                    input + ": Total number of TDC1 triggers = " + std::to_string(photons.extTriggers->size()),
                    "Starting photon event reconstruction",
                    input + ": Total number of reconstructed photons = " + std::to_string(photons.photonEvents.size()),
                    withinASecond(input + ": Finished processing in ")));
    EXPECT_GT(photons.photonEvents.size(), 1000u);
    EXPECT_EQ(lines(result.out)[0].substr(0, 9), "trace:   ");
    EXPECT_EQ(lines(result.out)[1].substr(0, 9), "info:    ");
    expectNoTemporaryFiles(dir.path / "nested/dirs");

    for (const auto& [verbose, outLines] : {std::pair{"3", 3u}, {"2", 3u}, {"1", 0u}}) {
        EXPECT_EQ(
            lines(vundrel({"--verbose", verbose, "-i", input, "-o", "o.kavotphot"}, dir.path.string()).out).size(),
            outLines)
            << verbose;
    }
    EXPECT_THAT(vundrel({"-i", "x.tpx3"}, dir.path.string(), "EST5").err,
                HasSubstr(" UTC-0500: No output destination specified! Exiting..."));
}

TEST(Program, EndsWithOneClearErrorOrACompleteOutputNeverOverTheInput) {
    const TempDir dir;
    const std::string input = sampleFile(dir, 3000);
    const std::string recording = readFile(input);
    writeFile(dir / "truncated.tpx3", recording.substr(0, (recording.size() / 2) & ~std::size_t{7}));
    writeFile(dir / "odd.tpx3", recording.substr(0, 13));
    std::mt19937_64 random(9);
    std::string noise(4096, '\0');
    for (auto& byte : noise) {
        byte = static_cast<char>(random());
    }
    writeFile(dir / "random.tpx3", noise);
    fs::create_directory(dir / "folder.tpx3");
    fs::create_symlink("/dev/zero", dir / "endless.tpx3");
    writeFile(dir / "empty.tpx3", "");
    ASSERT_EQ(mkfifo((dir / "fifo.tpx3").c_str(), 0600), 0);
    writeFile(dir / "blocker", "a file where a directory should be");
    fs::create_directory(dir / "taken.kavotphot");
    fs::create_symlink("/dev/full", dir / "full.kavotphot");
    fs::create_symlink("sample.tpx3", dir / "link.kavotphot");
    fs::create_hard_link(input, dir / "hard.kavotphot");
    writeFile(dir / "old.kavotphot", "what was there before");
    fs::permissions(dir / "old.kavotphot", fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
    ASSERT_EQ(mkfifo((dir / "pipe.kavotphot").c_str(), 0600), 0);
    const struct {
        std::vector<std::string> args;
        int status;
        std::string error; // empty: a complete run; "*": any message
    } cases[] = {
        // Inputs and settings, each with -o out.kavotphot: refused before the photon file is created.
        {{"-i", "truncated.tpx3"}, 1, "End of data reached before block is complete!"},
        {{"-i", "odd.tpx3"}, 1, "File contains incomplete lines!"},
        {{"-i", "random.tpx3"}, 1, "Invalid header entry!"},
        {{"-i", "folder.tpx3"}, 1, "Unable to open file \"folder.tpx3\" !"},
        {{"-i", "endless.tpx3"}, 1, "Unable to open file \"endless.tpx3\" !"},
        {{"-i", "fifo.tpx3"}, 1, "Unable to open file \"fifo.tpx3\" !"},
        {{"-i", "missing.tpx3"}, 1, "Unable to open file \"missing.tpx3\" !"},
        {{"-i", "empty.tpx3"}, 1, "Supplied file does not contain a global timestamp!"},
        {{"-i", "empty.tpx3", "--globalTime_ignore"}, 0, ""},
        {{"-i", input, "-t", "-inf"}, 1, "Value -inf s out of range!"},
        {{"-i", input, "-s", "nan"}, 0, ""},
        {{"-i", input, "-s", "inf", "--algorithm", "forwardChain_pixelBuildup"}, 0, ""},
        {{"-i", input, "-s", "-1e300", "--algorithm", "checkNextOnly"}, 0, ""},
        {{"-i", input, "-t", "-1e-6"}, 0, ""},
        {{"-i", input, "-m", "nan", "-M", "-inf"}, 0, ""},
        {{"-i", input, "-k", "18446744073709551615", "-K", "0"}, 0, ""},
        {{"-i", input, "-f", "/dev/zero"}, 1, "Unable to open parameter file \"/dev/zero\" !"},
        {{"-i", input, "--algorithm", "bogus"}, 1, "Unrecognized algorithmbogus!"},
        // Outputs, each with -i sample.tpx3: written after the photons are found, completely or not at all.
        {{"-o", "taken.kavotphot"}, 1, "Unable to open output file \"taken.kavotphot\" !"},
        {{"-o", "pipe.kavotphot"}, 1, "Unable to open output file \"pipe.kavotphot\" !"}, // nobody reads it
        {{"-o", "full.kavotphot"}, 1, "Unable to write output file \"full.kavotphot\" completely; it was removed!"},
        {{"-o", "blocker/sub/out.kavotphot"}, 1, "*"}, // the file system's own message
        {{"-o", "link.kavotphot"}, 0, ""},             // the link is replaced, the input keeps its bytes
        {{"-o", "hard.kavotphot"}, 0, ""},
        {{"-o", "old.kavotphot"}, 0, ""},
        // The image is written before the output directory is created, so not into it; an image named like the
        // output is replaced by the photon file.
        {{"-o", "new/out.kavotphot", "--photImgPath", "new/image.raw"}, 0, ""},
        {{"-o", "same.kavotphot", "--photImgPath", "./same.kavotphot"}, 0, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        const bool output = c.args[0] == "-o";
        std::vector<std::string> args = c.args;
        const std::vector<std::string> other{output ? "-i" : "-o", output ? "sample.tpx3" : "out.kavotphot"};
        args.insert(args.end(), other.begin(), other.end());
        const std::string written = dir / (output ? c.args[1] : "out.kavotphot");
        fs::remove(dir / "out.kavotphot");
        const auto result = vundrel(args, dir.path.string());
        EXPECT_EQ(result.status, c.status);
        if (c.error.empty()) {
            EXPECT_THAT(result.err, IsEmpty());
            EXPECT_NO_THROW((void)PhotonFile().read_fromFile(written));
            continue;
        }
        ASSERT_EQ(errors(result.err).size(), 1u);
        EXPECT_TRUE(c.error == "*" || errors(result.err)[0] == c.error) << result.err;
        if (output) {
            EXPECT_THAT(progress(result.out).back(), HasSubstr("Total number of reconstructed photons"));
        } else {
            EXPECT_FALSE(fs::exists(written));
        }
    }
    EXPECT_EQ(readFile(input), recording);
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(dir / "link.kavotphot")));
    EXPECT_FALSE(fs::exists(dir / "new/image.raw"));
    EXPECT_EQ(fs::status(dir / "old.kavotphot").permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read)
        << "a replaced file keeps its permissions";
    expectNoTemporaryFiles(dir.path);
}

TEST(Program, AnInterruptedRunLeavesNoFileBehind) {
    const TempDir dir;
    sampleFile(dir, 4000000);
    for (const int signal : {SIGINT, SIGTERM}) {
        SCOPED_TRACE(signal);
        // Interrupted once the photon file is being written: its temporary file is there.
        bool writing = false;
        const auto interrupt = [&](pid_t pid) {
            for (int wait = 0; wait < 2000 && !writing; ++wait) {
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
                for (const auto& entry : fs::directory_iterator(dir.path)) {
                    writing = writing || entry.path().filename().string().starts_with(".out.kavotphot.");
                }
            }
            kill(pid, signal);
        };
        const std::vector<std::string> args{"-i", "sample.tpx3", "-o", "out.kavotphot", "--verbose", "-2"};
        EXPECT_EQ(vundrel(args, dir.path.string(), "UTC0", false, interrupt).status, 128 + signal);
        ASSERT_TRUE(writing) << "the run ended before it could be interrupted";
        expectNoTemporaryFiles(dir.path);
        EXPECT_FALSE(fs::exists(dir / "out.kavotphot"));
    }
}

TEST(Program, WritesTheLibraryResultOfEveryAlgorithm) {
    // The library's in-memory data set and algorithms, written by the block writer, are the reference.
    const TempDir dir;
    for (const bool reversed : {false, true}) {
        writeWords(dir / "in.tpx3",
                   tpx3gen::generate({.hits = 30000, .reverse = reversed, .maxChunkPackets = 300}).words);
        for (const char* algorithm : {"default", "checkNextOnly", "forwardChain_pixelBuildup"}) {
            SCOPED_TRACE(testing::Message() << algorithm << (reversed ? " reversed" : ""));
            const std::vector<std::string> args{"-i", "in.tpx3", "-o", "out.kavotphot", "--algorithm", algorithm, "-T",
                                                "-s", "1.5",     "-t", "2e-7"};
            const auto result = vundrel(args, dir.path.string());
            ASSERT_EQ(result.status, 0) << result.err;
            std::int32_t threshold = 4;
            const auto parameters = parseCommandLine<Parameters>(args, threshold);
            const auto expected = reconstruct_photonEvents_switchAlgoritms(
                kavot_tpx3spidr::Data_Tpx3Spidr::make_from_file_tpx3spidr<true>(dir / "in.tpx3"), parameters,
                make_reconstructionParameters(parameters));
            const auto written = PhotonFile().read_fromFile(dir / "out.kavotphot");
            EXPECT_EQ(written.photonEvents, expected.photonEvents);
            EXPECT_EQ(written.extTriggers, expected.extTriggers);
        }
    }
}

TEST(Program, WritesTheSameBytesOnOneCpuAndOnAll) {
    // Large enough for the recording to be clustered in parts side by side where more CPUs are there.
    const TempDir dir;
    sampleFile(dir, 2500000);
    std::string bytes[2];
    for (const bool oneCpu : {true, false}) {
        const auto result = vundrel({"-i", "sample.tpx3", "-o", "out.kavotphot", "--photImgPath", "image.raw", "-T"},
                                    dir.path.string(), "UTC0", oneCpu);
        ASSERT_EQ(result.status, 0) << result.err;
        bytes[oneCpu ? 0 : 1] = readFile(dir / "out.kavotphot") + readFile(dir / "image.raw");
    }
    EXPECT_TRUE(bytes[0] == bytes[1]);
    expectNoTemporaryFiles(dir.path);
}

TEST(Program, OnATerminalLeavesExactlyTheLog) {
    const TempDir dir;
    sampleFile(dir, 100000);
    const auto plain = vundrel({"-i", "sample.tpx3", "-o", "out.kavotphot"}, dir.path.string());
    // `script` gives the run a terminal as standard output and error, and copies what it shows.
    const std::string run = "cd '" + dir.path.string() +
                            "' && TZ=UTC0 /usr/bin/script -qec '" VUNDREL_BINARY
                            " -i sample.tpx3 -o out.kavotphot' /dev/null";
    FILE* pipe = popen(run.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    std::string shown;
    char buffer[4096];
    for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) {
        shown.append(buffer, n);
    }
    ASSERT_EQ(pclose(pipe), 0) << shown;
    EXPECT_NE(shown.find("vundrel:"), std::string::npos) << "the line was never drawn";
    // Every drawing of the line is erased before anything else is shown: taking away the drawings that an erase
    // follows, and then the erases, leaves the log.
    shown = std::regex_replace(shown, std::regex("\r\033\\[Kvundrel: [^\r\n\033]*(?=\r\033\\[K)"), "");
    shown = std::regex_replace(std::regex_replace(shown, std::regex("\r\033\\[K"), ""), std::regex("\r\n"), "\n");
    const std::regex stamp(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d|\d+ seconds)");
    EXPECT_EQ(std::regex_replace(shown, stamp, "T"), std::regex_replace(plain.out, stamp, "T"));
}
