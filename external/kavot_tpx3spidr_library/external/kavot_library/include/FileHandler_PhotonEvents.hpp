#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string>
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

    static constexpr std::size_t photonRecord_bytes = 2 * lengthBytes + timeBytes;
    static constexpr std::size_t trigger_bytes = timeBytes;

    class IO_PhotonEvents : public IO_Block {
    public:
        static constexpr char identifier[8] = {'p', 'h', 'o', 't', 'o', 'n', 's', 0};

        explicit IO_PhotonEvents(const std::vector<PhotonEvent_type>& photonEvents_) noexcept
            : IO_Block(photonRecord_bytes * photonEvents_.size()), photonEvents(photonEvents_) {}

        [[nodiscard]] const char* get_identifier() const override { return identifier; }

        void write_content(std::ofstream& stream) const override {
            // Records are staged in a fixed buffer and written in batches: the bytes are the same as one write
            // per record, with far fewer calls into the stream.
            std::array<char, photonRecord_bytes * 4096> buffer;
            std::size_t used = 0;
            for (const auto& photon : photonEvents) {
                char* record = buffer.data() + used;
                store_littleEndian<lengthBytes>(record, static_cast<std::uint64_t>(photon.x.get_value()));
                store_littleEndian<lengthBytes>(record + lengthBytes, static_cast<std::uint64_t>(photon.y.get_value()));
                store_littleEndian<timeBytes>(record + 2 * lengthBytes,
                                              static_cast<std::uint64_t>(photon.toa.get_value()));
                used += photonRecord_bytes;
                if (used == buffer.size()) {
                    stream.write(buffer.data(), static_cast<std::streamsize>(used));
                    used = 0;
                }
            }
            stream.write(buffer.data(), static_cast<std::streamsize>(used));
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
                store_littleEndian<timeBytes>(buffer.data() + used, static_cast<std::uint64_t>(trigger.get_value()));
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
        while (true) {
            if (stream.tellg() == end) {
                if (!photonEvents) {
                    throw std::invalid_argument("File does not contain photon data!");
                }
                return Data_type(std::move(*photonEvents), std::move(extTriggers));
            }
            const auto header = IO_Block::read_header(stream, end);
            if (header.identifier == Base::identifier_asNumber(IO_ExtTriggers::identifier)) {
                if (header.size_content % trigger_bytes != 0) {
                    throw std::invalid_argument("File contains partial external triggers!");
                }
                std::vector<TimeType> triggers;
                triggers.reserve(header.size_content / trigger_bytes);
                read_records<trigger_bytes>(stream, header.size_content / trigger_bytes, [&](const char* record) {
                    triggers.emplace_back(static_cast<typename TimeType::rep_type>(
                        signExtend<timeBytes>(load_littleEndian<timeBytes>(record))));
                });
                extTriggers = std::move(triggers);
                continue;
            }
            if (header.identifier != Base::identifier_asNumber(IO_PhotonEvents::identifier)) {
                throw std::invalid_argument("Block identifier not recognized!");
            }
            if (header.size_content % photonRecord_bytes != 0) {
                throw std::invalid_argument("File contains partial photons!");
            }
            std::vector<PhotonEvent_type> photons;
            photons.reserve(header.size_content / photonRecord_bytes);
            read_records<photonRecord_bytes>(stream, header.size_content / photonRecord_bytes, [&](const char* record) {
                photons.emplace_back(LengthType(static_cast<typename LengthType::rep_type>(
                                         signExtend<lengthBytes>(load_littleEndian<lengthBytes>(record)))),
                                     LengthType(static_cast<typename LengthType::rep_type>(signExtend<lengthBytes>(
                                         load_littleEndian<lengthBytes>(record + lengthBytes)))),
                                     TimeType(static_cast<typename TimeType::rep_type>(signExtend<timeBytes>(
                                         load_littleEndian<timeBytes>(record + 2 * lengthBytes)))));
            });
            photonEvents = std::move(photons);
        }
    }

    /// Reads a whole photon event file: the file block and build information are checked (see
    /// `read_fileHeader`), then the content blocks are read.
    [[nodiscard]] Data_type read_fromFile(const std::string& path) const {
        std::ifstream stream(path, std::ios::in | std::ios::binary);
        if (!stream.is_open()) {
            throw std::invalid_argument("Unable to open file \"" + path + "\" !");
        }
        const std::streampos end = Base::read_fileHeader(stream);
        return read_implementationSpecific(stream, end);
    }

private:
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
