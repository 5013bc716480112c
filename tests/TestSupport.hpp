#pragma once

// Helpers shared by the tests: temporary folders, running the program as a process, building .tpx3 words.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

namespace testsupport {

/// A fresh folder below the system's temporary folder, removed with everything in it at the end of the test.
class TempDir {
public:
    TempDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "vundrel_test_XXXXXX").string();
        path = mkdtemp(pattern.data());
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::permissions(path, std::filesystem::perms::owner_all, ignored);
        std::filesystem::remove_all(path, ignored);
    }
    [[nodiscard]] std::string operator/(const std::string& name) const { return (path / name).string(); }
    std::filesystem::path path;
};

inline std::string readFile(const std::string& path) {
    std::ifstream stream(path, std::ios::in | std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

inline void writeFile(const std::string& path, const std::string& bytes) {
    std::ofstream stream(path, std::ios::out | std::ios::binary | std::ios::trunc);
    stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

inline void writeWords(const std::string& path, const std::vector<std::uint64_t>& words) {
    std::ofstream stream(path, std::ios::out | std::ios::binary | std::ios::trunc);
    stream.write(reinterpret_cast<const char*>(words.data()), static_cast<std::streamsize>(words.size() * 8));
}

struct ProcessResult {
    int status = -1;
    std::string out;
    std::string err;
};

/// Runs `program` with `args` in `workingDirectory`, TZ set to `tz`, standard output and error captured; on the
/// first CPU of the test's own only, when `oneCpu`.
inline ProcessResult runProcess(const std::string& program,
                                const std::vector<std::string>& args,
                                const std::string& workingDirectory,
                                const std::string& tz = "UTC0",
                                bool oneCpu = false) {
    const TempDir capture;
    const std::string outPath = capture / "out";
    const std::string errPath = capture / "err";
    const pid_t pid = fork();
    if (pid == 0) {
        const int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(out, 1);
        dup2(err, 2);
        if (chdir(workingDirectory.c_str()) != 0) {
            _exit(127);
        }
        setenv("TZ", tz.c_str(), 1);
        cpu_set_t cpus;
        if (oneCpu && sched_getaffinity(0, sizeof(cpus), &cpus) == 0) {
            std::size_t cpu = 0;
            while (!CPU_ISSET(cpu, &cpus)) {
                ++cpu;
            }
            CPU_ZERO(&cpus);
            CPU_SET(cpu, &cpus);
            sched_setaffinity(0, sizeof(cpus), &cpus);
        }
        std::vector<char*> argv;
        argv.push_back(const_cast<char*>(program.c_str()));
        for (const auto& arg : args) {
            argv.push_back(const_cast<char*>(arg.c_str()));
        }
        argv.push_back(nullptr);
        execv(program.c_str(), argv.data());
        _exit(127);
    }
    int wstatus = 0;
    waitpid(pid, &wstatus, 0);
    ProcessResult result;
    result.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus);
    result.out = readFile(outPath);
    result.err = readFile(errPath);
    return result;
}

/// Splits text into lines without their line breaks.
inline std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> result;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        result.push_back(line);
    }
    return result;
}

// ---- .tpx3 words, field by field ----

inline std::uint64_t chunkHeader(std::uint64_t sizeBytes) {
    return 0x33585054ULL | (sizeBytes << 48);
}

/// A pixel packet from its raw fields: 0xB | dcol | spix | pix | ToA | ToT | FToA | spidr time.
inline std::uint64_t pixelFields(std::uint64_t dcol,
                                 std::uint64_t spix,
                                 std::uint64_t pix,
                                 std::uint64_t toa,
                                 std::uint64_t tot,
                                 std::uint64_t ftoa,
                                 std::uint64_t spidr) {
    return (0xBULL << 60) | (dcol << 53) | (spix << 47) | (pix << 44) | (toa << 30) | (tot << 20) | (ftoa << 16) |
           spidr;
}

/// A pixel packet at column x, row y whose raw time (before the column correction) is `raw` ticks.
inline std::uint64_t pixelWord(std::uint64_t x, std::uint64_t y, std::uint64_t raw, std::uint64_t tot) {
    return pixelFields(x >> 1, y >> 2, ((x & 1) << 2) | (y & 3), (raw >> 4) & 0x3FFF, tot, 15 - (raw & 15), raw >> 18);
}

/// A TDC packet: 0x6 | event type | counter | coarse (35 bits) | fine (4 bits).
inline std::uint64_t tdcWord(std::uint64_t coarse, std::uint64_t fine, std::uint64_t eventType = 0xF) {
    return (0x6ULL << 60) | (eventType << 56) | (coarse << 9) | (fine << 5);
}

inline std::uint64_t globalLow(std::uint64_t low32) {
    return (0x44ULL << 56) | (low32 << 16);
}
inline std::uint64_t globalHigh(std::uint64_t high16) {
    return (0x45ULL << 56) | (high16 << 16);
}

/// `packets` in chunks of at most `perChunk` packets (one chunk holds at most 8191).
inline std::vector<std::uint64_t> chunk(const std::vector<std::uint64_t>& packets, std::size_t perChunk = 8000) {
    std::vector<std::uint64_t> words;
    for (std::size_t at = 0; at < packets.size() || words.empty(); at += perChunk) {
        const std::size_t n = std::min(perChunk, packets.size() - at);
        words.push_back(chunkHeader(n * 8));
        words.insert(words.end(), packets.begin() + static_cast<std::ptrdiff_t>(at),
                     packets.begin() + static_cast<std::ptrdiff_t>(at + n));
    }
    return words;
}

} // namespace testsupport
