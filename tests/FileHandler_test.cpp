// The photon event file, byte by byte, and its readers.

#include <span>

#include <fcntl.h>
#include <unistd.h>

#include "PhotonEvents.hpp"
#include "PhotonFileWriter.hpp"
#include "TestSupport.hpp"
#include "Units.hpp"

using namespace testsupport;
using kavot_tpx3spidr::Length;
using kavot_tpx3spidr::PhotonFile;
using kavot_tpx3spidr::Time;
using Photon = PhotonFile::PhotonEvent_type;

namespace {

PhotonFile::IO_File fileOf(const std::vector<Photon>& photons, const std::optional<std::vector<Time>>& triggers) {
    std::vector<std::unique_ptr<PhotonFile::IO_Block>> blocks;
    blocks.push_back(std::make_unique<PhotonFile::IO_PhotonEvents>(photons));
    if (triggers) {
        blocks.push_back(std::make_unique<PhotonFile::IO_ExtTriggers>(*triggers));
    }
    return PhotonFile::IO_File(std::move(blocks));
}

std::string
write(const TempDir& dir, const std::vector<Photon>& photons, const std::optional<std::vector<Time>>& triggers) {
    const std::string path = dir / "f.kavotphot";
    std::ofstream stream(path, std::ios::out | std::ios::binary);
    fileOf(photons, triggers).write(stream);
    return path;
}

std::string le64(u64 v) {
    std::string s(8, '\0');
    kavot::store_littleEndian<8>(s.data(), v);
    return s;
}
std::string header(const char* id, u64 size) {
    return std::string(id, 8) + le64(size);
}
const std::string build = header("build\0\0\0", 16) + le64(0) + le64(2);

/// A whole file around the content blocks `content`.
std::string wholeFile(const std::string& content) {
    return header("KAVOT\0\0\0", build.size() + content.size()) + build + content;
}

} // namespace

TEST(PhotonFile, WritesTheLayoutByteForByte) {
    const TempDir dir;
    // An empty file without triggers: the file block, the build information and an empty photon block.
    EXPECT_EQ(readFile(write(dir, {}, std::nullopt)), wholeFile(header("photons\0", 0)));
    // x = -1 px is stored as 00 00 FF FF; the golden file was written from the documented layout, not by us.
    const std::vector<Photon> two{Photon(Length(-65536), Length(0x01020304), Time(-2)),
                                  Photon(Length(65536), Length(8192), Time(0x0102030405060708))};
    EXPECT_EQ(readFile(write(dir, two, std::vector<Time>{Time(5), Time(-1)})),
              readFile(TEST_DATA_DIR "/two_photons_two_triggers.kavotphot"));
    // A failed stream is reported, not asserted.
    const std::vector<Photon> photons(10000, Photon(Length(1), Length(2), Time(3))); // the blocks refer to them
    const auto many = fileOf(photons, std::nullopt);
    std::ofstream closed;
    EXPECT_THROW_MESSAGE(many.write(closed), std::invalid_argument, "Write Error!");
    std::ofstream full("/dev/full", std::ios::out | std::ios::binary);
    EXPECT_THROW_MESSAGE(many.write(full), std::invalid_argument, "Write Error!");
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
    // Blocks in any order; a second photon block replaces the first.
    const std::string photon = std::string(4, '\x01') + std::string(4, '\x02') + le64(3);
    writeFile(dir / "f.kavotphot", wholeFile(header("extTrigs", 8) + le64(7) + header("photons\0", 16) + photon));
    const auto triggersFirst = PhotonFile().read_fromFile(dir / "f.kavotphot");
    EXPECT_EQ(triggersFirst.photonEvents, std::vector{Photon(Length(0x01010101), Length(0x02020202), Time(3))});
    EXPECT_EQ(triggersFirst.extTriggers, std::vector<Time>{Time(7)});
    writeFile(dir / "f.kavotphot", wholeFile(header("photons\0", 16) + photon + header("photons\0", 0)));
    const auto second = PhotonFile().read_fromFile(dir / "f.kavotphot");
    EXPECT_TRUE(second.photonEvents.empty());
    EXPECT_FALSE(second.extTriggers.has_value());
}

TEST(PhotonFile, TheRunsWriterGivesTheSameBytesWhetherPhotonsComeOneByOneOrInBatches) {
    // The photons of a run are stored as they lie in memory where that is their record, as on this machine:
    // the cases below then test that path.
    EXPECT_TRUE(PhotonFile::recordIsMemory);
    const TempDir dir;
    std::mt19937_64 random(5);
    std::vector<Photon> photons; // more than the writer's buffer of 1 MiB holds
    for (int i = 0; i < 150000; ++i) {
        photons.emplace_back(Length(static_cast<int>(random())), Length(static_cast<int>(random())),
                             Time(static_cast<long>(random())));
    }
    const std::vector<Time> triggers{Time(5), Time(-1)};
    const std::string expected = readFile(write(dir, photons, triggers));
    // Batch sizes in turn (0: one photon by `push`); batches of 16384 photons and more go to the file uncopied.
    const std::vector<std::vector<std::size_t>> patterns{
        {0}, {1}, {7, 0, 3}, {16383, 16384}, {65537, 0}, {150000}, {0, 100000, 1}, {40000, 65536, 0, 16385}};
    for (const auto& pattern : patterns) {
        SCOPED_TRACE(testing::PrintToString(pattern));
        const std::string path = dir / "run.kavotphot";
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ASSERT_GE(fd, 0);
        PhotonFileWriter writer(fd);
        std::span<const Photon> left(photons);
        for (std::size_t k = 0; !left.empty(); ++k) {
            const std::size_t size = std::min(pattern[k % pattern.size()], left.size());
            if (size == 0) {
                writer.push(left.front());
                left = left.subspan(1);
            } else {
                writer.push_all(left.first(size));
                left = left.subspan(size);
            }
        }
        writer.push_all({});
        kavot_tpx3spidr::SpillingList<Time> times;
        for (const Time time : triggers) {
            times.push_back(time);
        }
        writer.write_triggers(times);
        EXPECT_TRUE(writer.finish());
        ::close(fd);
        EXPECT_EQ(readFile(path), expected);
    }
}

TEST(PhotonFile, ReadersRefuseMalformedFiles) {
    const TempDir dir;
    const std::string photons = header("photons\0", 0);
    const std::string missing = dir / "missing.kavotphot";
    const std::pair<std::string, std::string> cases[] = {
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
        // Content blocks.
        {wholeFile(""), "File does not contain photon data!"},
        {wholeFile(header("extTrigs", 0)), "File does not contain photon data!"},
        {wholeFile(header("build\0\0\0", 0)), "Block identifier not recognized!"},
        {wholeFile(header("photons\0", 20) + std::string(20, '\0')), "File contains partial photons!"},
        {wholeFile(header("extTrigs", 12) + std::string(12, '\0')), "File contains partial external triggers!"},
        {wholeFile(header("photons\0", 16) + std::string(8, '\0')),
         "Block size is indicated as 16 but only 8 bytes are left in the file!"},
        {wholeFile(header("photons\0", 1ULL << 63)),
         "Block size is indicated as 9223372036854775808 but only 0 bytes are left in the file!"},
        {wholeFile(header("extTrigs", ~0ULL)),
         "Block size is indicated as 18446744073709551615 but only 0 bytes are left in the file!"},
        {wholeFile("photons"), "Read Error!"},
        {wholeFile(std::string("photons\0\x10\0", 10)), "Read Error!"},
    };
    for (const auto& [bytes, message] : cases) {
        SCOPED_TRACE(message);
        writeFile(dir / "bad.kavotphot", bytes);
        EXPECT_THROW_MESSAGE(PhotonFile().read_fromFile(dir / "bad.kavotphot"), std::invalid_argument, message);
        EXPECT_THROW_MESSAGE(PhotonFile::Reader(dir / "bad.kavotphot"), std::invalid_argument, message);
    }
    EXPECT_THROW_MESSAGE(PhotonFile().read_fromFile(missing), std::invalid_argument,
                         "Unable to open file \"" + missing + "\" !");
}
