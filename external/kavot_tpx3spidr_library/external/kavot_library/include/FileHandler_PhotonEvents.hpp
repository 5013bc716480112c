#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "Data_PhotonEvents.hpp"
#include "FileHandler_KavotData.hpp"
#include "LittleEndian.hpp"
#include "PhotonEvent.hpp"

namespace kavot {

/// The photon event file: a "photons" block of records (x, y as `lengthBytes` each, time as `timeBytes`) and,
/// when the run used external triggers, an "extTrigs" block of times.
template <typename LengthType,
          typename TimeType,
          std::size_t lengthBytes,
          std::size_t timeBytes,
          std::uint64_t fileTypeIndex>
class FileHandler_PhotonEvents
    : public FileHandler_KavotData<fileTypeIndex, Data_PhotonEvents<PhotonEvent<LengthType, TimeType>>> {
public:
    using Base = FileHandler_KavotData<fileTypeIndex, Data_PhotonEvents<PhotonEvent<LengthType, TimeType>>>;
    using IO_Block = typename Base::IO_Block;
    using PhotonEvent_type = PhotonEvent<LengthType, TimeType>;
    using Data_type = Data_PhotonEvents<PhotonEvent_type>;

    // The blocks of a photon event file, after the file block's header and the build information:
    //   48          "photons\0"   16 N     64          N records: x, y (lengthBytes each), time (timeBytes)
    //   64 + 16 N   "extTrigs"    8 M      80 + 16 N   M trigger times (timeBytes each); only with triggers
    static constexpr std::size_t photonRecord_bytes = 2 * lengthBytes + timeBytes;
    static constexpr std::size_t trigger_bytes = timeBytes;
    static constexpr std::uint64_t photonBlock_offset = Base::firstContentBlock_offset;
    static constexpr std::uint64_t photonSize_offset = photonBlock_offset + 8;
    static constexpr std::uint64_t photons_offset = photonBlock_offset + Base::headerSize_bytes;

    /// The content blocks of a file with `photons` photons and, when present, `triggers` trigger times: their
    /// headers and contents together.
    [[nodiscard]] static constexpr std::uint64_t contentBlocks_bytes(std::uint64_t photons,
                                                                     std::optional<std::uint64_t> triggers) noexcept {
        return Base::headerSize_bytes + photonRecord_bytes * photons +
               (triggers ? Base::headerSize_bytes + trigger_bytes * *triggers : 0);
    }

    static void store_photonRecord(char* destination, const PhotonEvent_type& photon) noexcept {
        store_littleEndian<lengthBytes>(destination, static_cast<std::uint64_t>(photon.x.get_value()));
        store_littleEndian<lengthBytes>(destination + lengthBytes, static_cast<std::uint64_t>(photon.y.get_value()));
        store_littleEndian<timeBytes>(destination + 2 * lengthBytes,
                                      static_cast<std::uint64_t>(photon.toa.get_value()));
    }
    /// Whether a photon in memory is, byte for byte, its record (x, y and time little-endian, in that order,
    /// nothing between): then photons are stored as they lie in memory.
    static constexpr bool recordIsMemory = [] {
        if constexpr (std::endian::native != std::endian::little || sizeof(PhotonEvent_type) != photonRecord_bytes ||
                      !std::is_trivially_copyable_v<PhotonEvent_type> || lengthBytes != sizeof(LengthType) ||
                      timeBytes != sizeof(TimeType)) {
            return false;
        } else {
            // Every byte of the photon distinct: its bytes in memory are those of its record in order.
            using Length_rep = typename LengthType::rep_type;
            using Time_rep = typename TimeType::rep_type;
            const auto bytes = std::bit_cast<std::array<unsigned char, photonRecord_bytes>>(PhotonEvent_type(
                LengthType(static_cast<Length_rep>(0x04030201)), LengthType(static_cast<Length_rep>(0x08070605)),
                TimeType(static_cast<Time_rep>(0x100F0E0D0C0B0A09))));
            for (std::size_t i = 0; i < bytes.size(); ++i) {
                if (bytes[i] != i + 1) {
                    return false;
                }
            }
            return true;
        }
    }();

    /// Stores the records of `photons`, one after the other, at `destination`.
    static void store_photonRecords(char* destination, std::span<const PhotonEvent_type> photons) noexcept {
        if constexpr (recordIsMemory) {
            if (!photons.empty()) {
                std::memcpy(destination, photons.data(), photons.size_bytes());
            }
        } else {
            for (const PhotonEvent_type& photon : photons) {
                store_photonRecord(destination, photon);
                destination += photonRecord_bytes;
            }
        }
    }
    [[nodiscard]] static PhotonEvent_type load_photonRecord(const char* source) noexcept {
        return PhotonEvent_type(
            LengthType(loadSigned<lengthBytes, typename LengthType::rep_type>(source)),
            LengthType(loadSigned<lengthBytes, typename LengthType::rep_type>(source + lengthBytes)),
            load_trigger(source + 2 * lengthBytes));
    }
    static void store_trigger(char* destination, TimeType trigger) noexcept {
        store_littleEndian<timeBytes>(destination, static_cast<std::uint64_t>(trigger.get_value()));
    }
    [[nodiscard]] static TimeType load_trigger(const char* source) noexcept {
        return TimeType(loadSigned<timeBytes, typename TimeType::rep_type>(source));
    }

    class IO_PhotonEvents : public IO_Block {
    public:
        static constexpr char identifier[8] = {'p', 'h', 'o', 't', 'o', 'n', 's', 0};

        explicit IO_PhotonEvents(const std::vector<PhotonEvent_type>& photonEvents_) noexcept
            : IO_Block(photonRecord_bytes * photonEvents_.size()), photonEvents(photonEvents_) {}

        [[nodiscard]] const char* get_identifier() const override { return identifier; }

        void write_content(std::ofstream& stream) const override {
            // Records are staged in a fixed buffer and written in batches: the bytes are the same as one write
            // per record, with far fewer calls into the stream.
            constexpr std::size_t perWrite = 4096;
            std::array<char, photonRecord_bytes * perWrite> buffer;
            std::span<const PhotonEvent_type> left(photonEvents);
            while (!left.empty()) {
                const std::size_t n = std::min(left.size(), perWrite);
                store_photonRecords(buffer.data(), left.first(n));
                stream.write(buffer.data(), static_cast<std::streamsize>(n * photonRecord_bytes));
                left = left.subspan(n);
            }
        }

    private:
        const std::vector<PhotonEvent_type>& photonEvents;
    };

    class IO_ExtTriggers : public IO_Block {
    public:
        static constexpr char identifier[8] = {'e', 'x', 't', 'T', 'r', 'i', 'g', 's'};

        explicit IO_ExtTriggers(const std::vector<TimeType>& extTriggers_) noexcept
            : IO_Block(trigger_bytes * extTriggers_.size()), extTriggers(extTriggers_) {}

        [[nodiscard]] const char* get_identifier() const override { return identifier; }

        void write_content(std::ofstream& stream) const override {
            std::array<char, trigger_bytes * 8192> buffer;
            std::size_t used = 0;
            for (const auto& trigger : extTriggers) {
                store_trigger(buffer.data() + used, trigger);
                used += trigger_bytes;
                if (used == buffer.size()) {
                    stream.write(buffer.data(), static_cast<std::streamsize>(used));
                    used = 0;
                }
            }
            stream.write(buffer.data(), static_cast<std::streamsize>(used));
        }

    private:
        const std::vector<TimeType>& extTriggers;
    };

    /// Reads the content blocks from the stream's position up to `end`. The last photon block and the last
    /// trigger block win; a file without a photon block is refused.
    [[nodiscard]] Data_type read_implementationSpecific(std::ifstream& stream, std::streampos end) const {
        std::optional<std::vector<PhotonEvent_type>> photonEvents;
        std::optional<std::vector<TimeType>> extTriggers;
        walk_contentBlocks(stream, end, [&](bool isPhotonBlock, std::uint64_t records) {
            if (isPhotonBlock) {
                std::vector<PhotonEvent_type> photons;
                photons.reserve(records);
                read_records<photonRecord_bytes>(
                    stream, records, [&](const char* record) { photons.push_back(load_photonRecord(record)); });
                photonEvents = std::move(photons);
            } else {
                std::vector<TimeType> triggers;
                triggers.reserve(records);
                read_records<trigger_bytes>(stream, records,
                                            [&](const char* record) { triggers.push_back(load_trigger(record)); });
                extTriggers = std::move(triggers);
            }
        });
        return Data_type(std::move(*photonEvents), std::move(extTriggers));
    }

    /// Reads a whole photon event file: the file block and build information are checked (see
    /// `read_fileHeader`), then the content blocks are read.
    [[nodiscard]] Data_type read_fromFile(const std::string& path) const {
        std::ifstream stream = open(path);
        const std::streampos end = Base::read_fileHeader(stream);
        return read_implementationSpecific(stream, end);
    }

    /// A photon event file read a batch of records at a time, in memory that does not grow with the file. The
    /// file is checked as `read_fromFile` checks it when it is opened; the last photon block and the last
    /// trigger block are the ones read, as there.
    class Reader {
    public:
        explicit Reader(const std::string& path) : stream(open(path)) {
            const std::streampos end = Base::read_fileHeader(stream);
            walk_contentBlocks(stream, end, [&](bool isPhotonBlock, std::uint64_t records) {
                const std::streampos at = stream.tellg();
                if (isPhotonBlock) {
                    photonBlock = {at, records};
                } else {
                    triggerBlock = Block{at, records};
                }
                stream.seekg(
                    static_cast<std::streamoff>(records * (isPhotonBlock ? photonRecord_bytes : trigger_bytes)),
                    std::ios::cur);
            });
        }

        [[nodiscard]] std::uint64_t photonCount() const noexcept { return photonBlock.records; }
        /// Absent when the file holds no trigger block (a run without triggers).
        [[nodiscard]] std::optional<std::uint64_t> triggerCount() const noexcept {
            return triggerBlock ? std::optional<std::uint64_t>(triggerBlock->records) : std::nullopt;
        }

        /// Calls `consume(photon)` for every photon, in file order.
        template <typename Consume>
        void for_eachPhoton(Consume&& consume) {
            stream.seekg(photonBlock.at);
            read_records<photonRecord_bytes>(stream, photonBlock.records,
                                             [&](const char* record) { consume(load_photonRecord(record)); });
        }
        /// Calls `consume(time)` for every trigger time, in file order; nothing when there is no trigger block.
        template <typename Consume>
        void for_eachTrigger(Consume&& consume) {
            if (triggerBlock) {
                stream.seekg(triggerBlock->at);
                read_records<trigger_bytes>(stream, triggerBlock->records,
                                            [&](const char* record) { consume(load_trigger(record)); });
            }
        }

    private:
        struct Block {
            std::streampos at;
            std::uint64_t records;
        };
        std::ifstream stream;
        Block photonBlock{0, 0};
        std::optional<Block> triggerBlock;
    };

private:
    static std::ifstream open(const std::string& path) {
        std::ifstream stream(path, std::ios::in | std::ios::binary);
        if (!stream.is_open()) {
            throw std::invalid_argument("Unable to open file \"" + path + "\" !");
        }
        return stream;
    }

    /// The content blocks from the stream's position up to `end`, checked in file order: a block must fit
    /// before `end`, be a photon block or a trigger block and hold whole records, and at least one photon block
    /// must be there. `onBlock(isPhotonBlock, records)` finds the stream at the block's first record and
    /// leaves it at the block's end. Sizes are checked before any content of their block is read.
    template <typename OnBlock>
    static void walk_contentBlocks(std::ifstream& stream, std::streampos end, OnBlock&& onBlock) {
        bool photonBlockSeen = false;
        while (stream.tellg() != end) {
            const auto header = IO_Block::read_header(stream, end);
            if (header.identifier == Base::identifier_asNumber(IO_ExtTriggers::identifier)) {
                if (header.size_content % trigger_bytes != 0) {
                    throw std::invalid_argument("File contains partial external triggers!");
                }
                onBlock(false, header.size_content / trigger_bytes);
                continue;
            }
            if (header.identifier != Base::identifier_asNumber(IO_PhotonEvents::identifier)) {
                throw std::invalid_argument("Block identifier not recognized!");
            }
            if (header.size_content % photonRecord_bytes != 0) {
                throw std::invalid_argument("File contains partial photons!");
            }
            onBlock(true, header.size_content / photonRecord_bytes);
            photonBlockSeen = true;
        }
        if (!photonBlockSeen) {
            throw std::invalid_argument("File does not contain photon data!");
        }
    }

    /// `width` bytes little-endian, sign-extended into `Rep`.
    template <std::size_t width, typename Rep>
    [[nodiscard]] static Rep loadSigned(const char* source) noexcept {
        return static_cast<Rep>(signExtend<width>(load_littleEndian<width>(source)));
    }

    /// Reads `count` records of `recordBytes` in batches (the sizes were checked against the block's end before,
    /// so a failing read is a stream error, reported as "Read Error!").
    template <std::size_t recordBytes, typename Consume>
    static void read_records(std::ifstream& stream, std::uint64_t count, Consume&& consume) {
        constexpr std::uint64_t batchRecords = 4096;
        std::vector<char> buffer(static_cast<std::size_t>(std::min(count, batchRecords)) * recordBytes);
        while (count > 0) {
            const std::uint64_t now = std::min(count, batchRecords);
            stream.read(buffer.data(), static_cast<std::streamsize>(now * recordBytes));
            if (stream.fail() || stream.bad()) {
                throw std::invalid_argument("Read Error!");
            }
            for (std::uint64_t r = 0; r < now; ++r) {
                consume(buffer.data() + r * recordBytes);
            }
            count -= now;
        }
    }
};

} // namespace kavot
