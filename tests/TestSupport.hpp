#pragma once

// What the tests share: temporary folders, files, command lines, .tpx3 words, and the headers most use.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <map>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

/// Expects `statement` to throw exactly `type` with exactly `message`.
#define EXPECT_THROW_MESSAGE(statement, type, message)                                                                 \
    EXPECT_THAT([&] { (void)(statement); }, ::testing::ThrowsMessage<type>(::testing::StrEq(message)))

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
    std::ofstream(path, std::ios::out | std::ios::binary | std::ios::trunc) << bytes;
}

inline void writeWords(const std::string& path, const std::vector<std::uint64_t>& words) {
    writeFile(path, std::string(reinterpret_cast<const char*>(words.data()), words.size() * 8));
}

/// The argument vector of `args`, ended by a null pointer.
inline std::vector<char*> argvOf(std::vector<std::string>& args) {
    std::vector<char*> argv;
    for (auto& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    return argv;
}

/// `Parsed(argc, argv, threshold)` from a command line after the program name, such as the program's settings.
template <typename Parsed>
Parsed parseCommandLine(std::vector<std::string> args, std::int32_t& threshold) {
    args.insert(args.begin(), "vundrel");
    return Parsed(static_cast<int>(args.size()), argvOf(args).data(), threshold);
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

using u64 = std::uint64_t;

/// A chunk header: "TPX3", the chip index in byte 4, the size in bytes in bytes 6-7.
inline u64 chunkHeader(u64 sizeBytes, u64 chip = 0) {
    return 0x33585054ULL | (chip << 32) | (sizeBytes << 48);
}

/// A pixel packet from its raw fields: 0xB | dcol | spix | pix | ToA | ToT | FToA | spidr time.
inline u64 pixelFields(u64 dcol, u64 spix, u64 pix, u64 toa, u64 tot, u64 ftoa, u64 spidr) {
    return (0xBULL << 60) | (dcol << 53) | (spix << 47) | (pix << 44) | (toa << 30) | (tot << 20) | (ftoa << 16) |
           spidr;
}

/// A pixel packet at column x, row y whose raw time (before the column correction) is `raw` ticks.
inline u64 pixelWord(u64 x, u64 y, u64 raw, u64 tot) {
    return pixelFields(x >> 1, y >> 2, ((x & 1) << 2) | (y & 3), (raw >> 4) & 0x3FFF, tot, 15 - (raw & 15), raw >> 18);
}

/// A TDC packet: 0x6 | event type | counter | coarse (35 bits) | fine (4 bits).
inline u64 tdcWord(u64 coarse, u64 fine, u64 eventType = 0xF) {
    return (0x6ULL << 60) | (eventType << 56) | (coarse << 9) | (fine << 5);
}

inline u64 globalLow(u64 low32) {
    return (0x44ULL << 56) | (low32 << 16);
}
inline u64 globalHigh(u64 high16) {
    return (0x45ULL << 56) | (high16 << 16);
}

/// `packets` in chunks of chip `chip` of at most `perChunk` packets (one chunk holds at most 8191).
inline std::vector<u64> chunk(const std::vector<u64>& packets, std::size_t perChunk = 8000, u64 chip = 0) {
    std::vector<u64> words;
    for (std::size_t at = 0; at < packets.size() || words.empty(); at += perChunk) {
        const std::size_t n = std::min(perChunk, packets.size() - at);
        words.push_back(chunkHeader(n * 8, chip));
        words.insert(words.end(), packets.begin() + static_cast<std::ptrdiff_t>(at),
                     packets.begin() + static_cast<std::ptrdiff_t>(at + n));
    }
    return words;
}

} // namespace testsupport
