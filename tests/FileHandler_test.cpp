// The photon event file, byte by byte, and its readers.

#include <random>
#include <sstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "PhotonEvents.hpp"
#include "TestSupport.hpp"
#include "Units.hpp"

using namespace testsupport;
using kavot_tpx3spidr::Length;
using kavot_tpx3spidr::Time;
using ::testing::StrEq;
using ::testing::ThrowsMessage;

namespace {

using kavot_tpx3spidr::PhotonFile;
using Photon = PhotonFile::PhotonEvent_type;
using Result = PhotonFile::Data_type;

std::string
write(const TempDir& dir, const std::vector<Photon>& photons, const std::optional<std::vector<Time>>& triggers) {
    const std::string path = dir / "f.kavotphot";
    std::vector<std::unique_ptr<PhotonFile::IO_Block>> blocks;
    blocks.push_back(std::make_unique<PhotonFile::IO_PhotonEvents>(photons));
    if (triggers) {
        blocks.push_back(std::make_unique<PhotonFile::IO_ExtTriggers>(*triggers));
    }
    std::ofstream stream(path, std::ios::out | std::ios::binary);
    const PhotonFile::IO_File file(std::move(blocks));
    file.write(stream);
    stream.close();
    return path;
}

std::string le64(std::uint64_t v) {
    std::string s(8, '\0');
    kavot::store_littleEndian<8>(s.data(), v);
    return s;
}
std::string header(const char* id, std::uint64_t size) {
    return std::string(id, 8) + le64(size);
}
const std::string build = header("build\0\0\0", 16) + le64(0) + le64(2);

/// Reads content blocks from `bytes` (which start at the first content block).
Result readContent(const TempDir& dir, const std::string& bytes) {
    const std::string path = dir / "content.bin";
    writeFile(path, bytes);
    std::ifstream stream(path, std::ios::in | std::ios::binary);
    return PhotonFile().read_implementationSpecific(stream, static_cast<std::streamoff>(bytes.size()));
}

} // namespace

TEST(PhotonFile, WritesTheLayoutByteForByte) {
    const TempDir dir;
    // An empty file without triggers: the file block, the build information and an empty photon block.
    EXPECT_EQ(readFile(write(dir, {}, std::nullopt)), header("KAVOT\0\0\0", 48) + build + header("photons\0", 0));
    // x = -1 px is stored as 00 00 FF FF; the golden file was written from the documented layout, not by us.
    const std::vector<Photon> two{Photon(Length(-65536), Length(0x01020304), Time(-2)),
                                  Photon(Length(65536), Length(8192), Time(0x0102030405060708))};
    EXPECT_EQ(readFile(write(dir, two, std::vector<Time>{Time(5), Time(-1)})),
              readFile(TEST_DATA_DIR "/two_photons_two_triggers.kavotphot"));
}

TEST(PhotonFile, ReadersReturnTheWrittenListsAndTriggerPresence) {
    const TempDir dir;
    std::mt19937_64 random(11);
    for (int round = 0; round < 12; ++round) {
        std::vector<Photon> photons;
        const std::size_t n = random() % (round < 6 ? 20 : 20000); // beyond one batch of the readers
        for (std::size_t i = 0; i < n; ++i) {
            photons.emplace_back(Length(static_cast<int>(random())), Length(static_cast<int>(random())),
                                 Time(static_cast<long>(random())));
        }
        std::optional<std::vector<Time>> triggers;
        if (round % 3 != 0) {
            triggers.emplace();
            for (std::size_t i = 0, m = random() % 10000; i < m; ++i) {
                triggers->emplace_back(static_cast<long>(random()));
            }
        }
        const std::string path = write(dir, photons, triggers);
        const auto read = PhotonFile().read_fromFile(path);
        EXPECT_EQ(read.photonEvents, photons);
        EXPECT_EQ(read.extTriggers, triggers);
        PhotonFile::Reader reader(path);
        std::vector<Photon> batched;
        reader.for_eachPhoton([&](const Photon& photon) { batched.push_back(photon); });
        EXPECT_EQ(batched, photons);
        EXPECT_EQ(reader.triggerCount().has_value(), triggers.has_value());
        std::vector<Time> batchedTriggers;
        reader.for_eachTrigger([&](Time time) { batchedTriggers.push_back(time); });
        EXPECT_EQ(batchedTriggers, triggers.value_or(std::vector<Time>{}));
    }
}

TEST(PhotonFile, ContentReaderHandlesBlockOrderAndReplacement) {
    const TempDir dir;
    const std::string photon = std::string(4, '\x01') + std::string(4, '\x02') + le64(3);
    const auto triggersFirst = readContent(dir, header("extTrigs", 8) + le64(7) + header("photons\0", 16) + photon);
    ASSERT_EQ(triggersFirst.photonEvents.size(), 1u);
    EXPECT_EQ(triggersFirst.photonEvents[0], Photon(Length(0x01010101), Length(0x02020202), Time(3)));
    EXPECT_EQ(triggersFirst.extTriggers, std::vector<Time>{Time(7)});
    const auto second = readContent(dir, header("photons\0", 16) + photon + header("photons\0", 0));
    EXPECT_TRUE(second.photonEvents.empty());
    EXPECT_FALSE(second.extTriggers.has_value());
}

TEST(PhotonFile, ContentReaderRefusesMalformedBlocks) {
    const TempDir dir;
    struct Case {
        std::string bytes;
        std::string message;
    };
    const Case cases[] = {
        {"", "File does not contain photon data!"},
        {header("extTrigs", 0), "File does not contain photon data!"},
        {header("build\0\0\0", 0), "Block identifier not recognized!"},
        {header("photons\0", 20) + std::string(20, '\0'), "File contains partial photons!"},
        {header("extTrigs", 12) + std::string(12, '\0'), "File contains partial external triggers!"},
        {header("photons\0", 16) + std::string(8, '\0'),
         "Block size is indicated as 16 but only 8 bytes are left in the file!"},
        {header("photons\0", 1ULL << 63),
         "Block size is indicated as 9223372036854775808 but only 0 bytes are left in the file!"},
        {header("extTrigs", ~0ULL),
         "Block size is indicated as 18446744073709551615 but only 0 bytes are left in the file!"},
        {std::string("photons"), "Read Error!"},
        {std::string("photons\0\x10\0", 10), "Read Error!"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        EXPECT_THAT([&] { (void)readContent(dir, c.bytes); }, ThrowsMessage<std::invalid_argument>(StrEq(c.message)));
    }
}

TEST(PhotonFile, WholeFileReaderChecksFileAndBuildBlocks) {
    const TempDir dir;
    const std::string photons = header("photons\0", 0);
    struct Case {
        std::string bytes;
        std::string message;
    };
    const Case cases[] = {
        {"", "File is too short to hold a file block!"},
        {header("KAVOX\0\0\0", 48) + build + photons, "File identifier not recognized!"},
        {header("KAVOT\0\0\0", 40) + build + photons, "File block ends at byte 56 but the file has 64 bytes!"},
        {header("KAVOT\0\0\0", 64) + build + photons,
         "Block size is indicated as 64 but only 48 bytes are left in the file!"},
        {header("KAVOT\0\0\0", 0), "File does not contain build information!"},
        {header("KAVOT\0\0\0", 16) + photons, "File does not contain build information!"},
        {header("KAVOT\0\0\0", 56) + header("build\0\0\0", 24) + le64(0) + le64(2) + le64(0) + photons,
         "Build information block has size 24 instead of 16!"},
        {header("KAVOT\0\0\0", 48) + header("build\0\0\0", 16) + le64(1) + le64(2) + photons,
         "File version 1 is not supported (expected 0)!"},
        {header("KAVOT\0\0\0", 48) + header("build\0\0\0", 16) + le64(0) + le64(3) + photons,
         "File type 3 is not the expected type 2!"},
        {header("KAVOT\0\0\0", 48) + build + header("extTrigs", 0), "File does not contain photon data!"},
        {header("KAVOT\0\0\0", 52) + build + header("photons\0", 4) + "abcd", "File contains partial photons!"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        writeFile(dir / "bad.kavotphot", c.bytes);
        EXPECT_THAT([&] { (void)PhotonFile().read_fromFile(dir / "bad.kavotphot"); },
                    ThrowsMessage<std::invalid_argument>(StrEq(c.message)));
        EXPECT_THAT([&] { PhotonFile::Reader reader(dir / "bad.kavotphot"); },
                    ThrowsMessage<std::invalid_argument>(StrEq(c.message)));
    }
    const std::string missing = dir / "missing.kavotphot";
    EXPECT_THAT([&] { (void)PhotonFile().read_fromFile(missing); },
                ThrowsMessage<std::invalid_argument>(StrEq("Unable to open file \"" + missing + "\" !")));
}

TEST(PhotonFile, WriteToAFailedStreamIsReportedNotAsserted) {
    const std::vector<Photon> photons(10000, Photon(Length(1), Length(2), Time(3)));
    std::vector<std::unique_ptr<PhotonFile::IO_Block>> blocks;
    blocks.push_back(std::make_unique<PhotonFile::IO_PhotonEvents>(photons));
    const PhotonFile::IO_File file(std::move(blocks));
    std::ofstream closed;
    EXPECT_THAT([&] { file.write(closed); }, ThrowsMessage<std::invalid_argument>(StrEq("Write Error!")));
    std::ofstream full("/dev/full", std::ios::out | std::ios::binary);
    EXPECT_THAT([&] { file.write(full); }, ThrowsMessage<std::invalid_argument>(StrEq("Write Error!")));
}
