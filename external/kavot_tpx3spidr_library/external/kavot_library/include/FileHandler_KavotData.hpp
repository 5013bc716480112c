#pragma once

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "LittleEndian.hpp"

namespace kavot {

/// The generic block file: every block is an 8-byte identifier, an 8-byte little-endian content size and the
/// content; the whole file is one block ("KAVOT") whose content is a build information block followed by the
/// blocks particular to the file type:
///   0   "KAVOT\0\0\0"   8   size of the file block's content
///   16  "build\0\0\0"   24  16       32  file_version_index   40  file_type_index
///   48  the first block particular to the file type
/// The offsets below are the one description of this layout: the block classes and every writer and reader
/// of such files take theirs from them.
template <std::uint64_t file_type_index_, typename ReadOutput_Type>
class FileHandler_KavotData {
public:
    static constexpr std::uint64_t file_version_index = 0;
    static constexpr std::uint64_t file_type_index = file_type_index_;
    static constexpr std::uint64_t headerSize_bytes = 16;
    static constexpr std::uint64_t fileSize_offset = 8; ///< where the file block's content size stands
    static constexpr std::uint64_t buildContent_bytes = 16;
    /// The first content block after the build information block.
    static constexpr std::uint64_t firstContentBlock_offset = headerSize_bytes + headerSize_bytes + buildContent_bytes;

    /// An identifier's 8 bytes read as one little-endian 64-bit value, the form `read_header` returns.
    static constexpr std::uint64_t identifier_asNumber(const char (&identifier)[8]) noexcept {
        return load_littleEndian<8>(identifier);
    }

    struct BlockHeader {
        std::uint64_t identifier;
        std::uint64_t size_content;
    };

    /// A block header as stored: the identifier's 8 bytes, then the content size.
    static void store_blockHeader(char* destination, const char* identifier, std::uint64_t size_content) noexcept {
        std::copy_n(identifier, 8, destination);
        store_littleEndian<8>(destination + 8, size_content);
    }

    /// The file block's header and the build information block, as the first `firstContentBlock_offset` bytes
    /// of a file whose content blocks sum (headers included) to `contentBlocks_bytes`.
    static void store_fileStart(char* destination, std::uint64_t contentBlocks_bytes) noexcept {
        constexpr std::uint64_t buildBlock_bytes = headerSize_bytes + buildContent_bytes;
        store_blockHeader(destination, IO_File::identifier, buildBlock_bytes + contentBlocks_bytes);
        store_blockHeader(destination + headerSize_bytes, IO_BuildInfo::identifier, buildContent_bytes);
        IO_BuildInfo::store_content(destination + 2 * headerSize_bytes);
    }

    class IO_Block {
    public:
        explicit IO_Block(std::uint64_t size_content_) noexcept : size_content(size_content_) {}
        IO_Block(const IO_Block&) = delete;
        IO_Block& operator=(const IO_Block&) = delete;
        virtual ~IO_Block() = default;

        [[nodiscard]] virtual const char* get_identifier() const = 0;

        virtual void write_header(std::ofstream& stream) const {
            char header[headerSize_bytes];
            store_blockHeader(header, get_identifier(), size_content);
            stream.write(header, sizeof header);
        }

        virtual void write_content(std::ofstream& stream) const = 0;

        /// Writes header and content and checks that the content has exactly its stated size. A stream that
        /// failed has no valid positions, so the size check is impossible: it is reported as "Write Error!"
        /// (std::invalid_argument) instead, and the caller must treat the file as incomplete.
        void write(std::ofstream& stream) const {
            write_header(stream);
            const std::streampos begin_content = stream.tellp();
            if (!stream || begin_content == std::streampos(-1)) {
                throw std::invalid_argument("Write Error!");
            }
            write_content(stream);
            const std::streampos end_content = stream.tellp();
            if (!stream || end_content == std::streampos(-1)) {
                throw std::invalid_argument("Write Error!");
            }
            // A block whose content differs from its stated size would make the file unreadable; the writer
            // stops with the condition that broke, and the caller discards the file.
            if (end_content - begin_content != static_cast<std::streamoff>(size_content)) {
                throw std::logic_error("end_content - begin_content == size_content");
            }
        }

        /// Reads the header of the block at the stream's position and leaves the stream at its first content
        /// byte. The content must fit before `end`.
        static BlockHeader read_header(std::ifstream& stream, std::streampos end) {
            char bytes[8];
            stream.read(bytes, 8);
            if (stream.fail() || stream.bad()) {
                throw std::invalid_argument("Read Error!");
            }
            const std::uint64_t identifier = load_littleEndian<8>(bytes);
            stream.read(bytes, 8);
            if (stream.fail() || stream.bad()) {
                throw std::invalid_argument("Read Error!");
            }
            const std::uint64_t size_content = load_littleEndian<8>(bytes);
            const std::streamoff left = end - stream.tellg();
            // Compared without converting size_content to a signed type, so sizes of 2^63 and more are refused.
            if (left < 0 || size_content > static_cast<std::uint64_t>(left)) {
                throw std::invalid_argument("Block size is indicated as " + std::to_string(size_content) +
                                            " but only " + std::to_string(static_cast<long long>(left)) +
                                            " bytes are left in the file!");
            }
            return {identifier, size_content};
        }

        std::uint64_t size_content;
    };

    class IO_Block_Combined : public IO_Block {
    public:
        explicit IO_Block_Combined(std::vector<std::unique_ptr<IO_Block>>&& blocks_)
            : IO_Block(sumOfSizes(blocks_)), blocks(std::move(blocks_)) {}

        void write_content(std::ofstream& stream) const override {
            for (const auto& block : blocks) {
                block->write(stream);
            }
        }

        std::vector<std::unique_ptr<IO_Block>> blocks;

    private:
        static std::uint64_t sumOfSizes(const std::vector<std::unique_ptr<IO_Block>>& blocks_) noexcept {
            std::uint64_t sum = 0;
            for (const auto& block : blocks_) {
                sum += headerSize_bytes + block->size_content;
            }
            return sum;
        }
    };

    class IO_BuildInfo : public IO_Block {
    public:
        static constexpr char identifier[8] = {'b', 'u', 'i', 'l', 'd', 0, 0, 0};

        IO_BuildInfo() noexcept : IO_Block(buildContent_bytes) {}

        [[nodiscard]] const char* get_identifier() const override { return identifier; }

        void write_content(std::ofstream& stream) const override {
            char content[buildContent_bytes];
            store_content(content);
            stream.write(content, sizeof content);
        }

        static void store_content(char* destination) noexcept {
            store_littleEndian<8>(destination, file_version_index);
            store_littleEndian<8>(destination + 8, file_type_index);
        }
    };

    class IO_File : public IO_Block_Combined {
    public:
        static constexpr char identifier[8] = {'K', 'A', 'V', 'O', 'T', 0, 0, 0};

        explicit IO_File(std::vector<std::unique_ptr<IO_Block>>&& contentBlocks)
            : IO_Block_Combined(withBuildInfo(std::move(contentBlocks))) {}

        [[nodiscard]] const char* get_identifier() const override { return identifier; }

    private:
        static std::vector<std::unique_ptr<IO_Block>>
        withBuildInfo(std::vector<std::unique_ptr<IO_Block>>&& contentBlocks) {
            std::vector<std::unique_ptr<IO_Block>> all;
            all.reserve(contentBlocks.size() + 1);
            all.push_back(std::make_unique<IO_BuildInfo>());
            for (auto& block : contentBlocks) {
                all.push_back(std::move(block));
            }
            return all;
        }
    };

    /// Reads and checks the file block's header and the build information block of a whole file. Returns the
    /// position where the file block's content ends, with the stream at the first content block.
    static std::streampos read_fileHeader(std::ifstream& stream) {
        stream.seekg(0, std::ios::end);
        const std::streampos fileEnd = stream.tellg();
        stream.seekg(0, std::ios::beg);
        if (!stream || fileEnd == std::streampos(-1)) {
            throw std::invalid_argument("Read Error!");
        }
        if (fileEnd < static_cast<std::streamoff>(headerSize_bytes)) {
            throw std::invalid_argument("File is too short to hold a file block!");
        }
        const BlockHeader file = IO_Block::read_header(stream, fileEnd);
        if (file.identifier != identifier_asNumber(IO_File::identifier)) {
            throw std::invalid_argument("File identifier not recognized!");
        }
        const std::streampos end = stream.tellg() + static_cast<std::streamoff>(file.size_content);
        if (end != fileEnd) {
            throw std::invalid_argument("File block ends at byte " + std::to_string(static_cast<long long>(end)) +
                                        " but the file has " + std::to_string(static_cast<long long>(fileEnd)) +
                                        " bytes!");
        }
        if (file.size_content == 0) {
            throw std::invalid_argument("File does not contain build information!");
        }
        const BlockHeader build = IO_Block::read_header(stream, end);
        if (build.identifier != identifier_asNumber(IO_BuildInfo::identifier)) {
            throw std::invalid_argument("File does not contain build information!");
        }
        if (build.size_content != buildContent_bytes) {
            throw std::invalid_argument("Build information block has size " + std::to_string(build.size_content) +
                                        " instead of " + std::to_string(buildContent_bytes) + "!");
        }
        char content[buildContent_bytes];
        stream.read(content, sizeof content);
        if (stream.fail() || stream.bad()) {
            throw std::invalid_argument("Read Error!");
        }
        const std::uint64_t version = load_littleEndian<8>(content);
        const std::uint64_t type = load_littleEndian<8>(content + 8);
        if (version != file_version_index) {
            throw std::invalid_argument("File version " + std::to_string(version) + " is not supported (expected " +
                                        std::to_string(file_version_index) + ")!");
        }
        if (type != file_type_index) {
            throw std::invalid_argument("File type " + std::to_string(type) + " is not the expected type " +
                                        std::to_string(file_type_index) + "!");
        }
        return end;
    }
};

} // namespace kavot
