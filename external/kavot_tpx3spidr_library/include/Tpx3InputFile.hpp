#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "FileTransfer.hpp"
#include "GuardedMapping.hpp"

namespace kavot_tpx3spidr {

/// A .tpx3 input file. A small one is also mapped whole (`words_inMemory`): the census and the decoding then
/// read the page cache in place, where copying it to buffers of their own cost a recording of 1 M hits about a
/// millisecond in each pass. A larger one is read in pieces into the readers' buffers, so that what the run
/// holds stays small. A file that shrinks while it is read gives a short read, or zeros in the mapping (see
/// `GuardedMapping`); either is reported as a changed file.
///
/// Only regular files are read. The size of a pipe, a device or a socket is not known before it ends (if it
/// ends at all), so anything else is refused with the open error, like a file that cannot be opened; the file
/// is opened without blocking, so that a FIFO with no writer cannot hold the open.
class Tpx3InputFile {
public:
    explicit Tpx3InputFile(const std::string& path_) : path(path_) {
        fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
        if (fd < 0) {
            throw std::invalid_argument("Unable to open file \"" + path + "\" !");
        }
        if (::fstat(fd, &opened) != 0 || !S_ISREG(opened.st_mode)) {
            ::close(fd);
            throw std::invalid_argument("Unable to open file \"" + path + "\" !");
        }
        if (size_bytes() <= mappedMost_bytes) {
            mapping.emplace(fd, static_cast<std::size_t>(size_bytes()));
        }
    }
    Tpx3InputFile(const Tpx3InputFile&) = delete;
    Tpx3InputFile& operator=(const Tpx3InputFile&) = delete;
    ~Tpx3InputFile() { ::close(fd); }

    [[nodiscard]] std::uint64_t size_bytes() const noexcept { return static_cast<std::uint64_t>(opened.st_size); }
    [[nodiscard]] std::uint64_t size_words() const noexcept { return size_bytes() / 8; }
    [[nodiscard]] const std::string& get_path() const noexcept { return path; }
    /// The file's identity, to recognise it under another name.
    [[nodiscard]] dev_t get_device() const noexcept { return opened.st_dev; }
    [[nodiscard]] ino_t get_inode() const noexcept { return opened.st_ino; }

    /// Files up to this size are mapped whole.
    static constexpr std::uint64_t mappedMost_bytes = std::uint64_t{64} << 20;

    /// The whole file in memory, or null (a larger file, or no mapping to be had): then `read_words`. Whoever
    /// reads it asks `cut()` afterwards.
    [[nodiscard]] const std::uint64_t* words_inMemory() const noexcept { return mapping ? mapping->words() : nullptr; }
    /// The file was found shorter than mapped: what was read from the mapping beyond its end were zeros.
    [[nodiscard]] bool cut() const noexcept { return mapping && mapping->cut(); }

    /// Reads `count` words from word `first` on. Safe to call from several threads at once.
    void read_words(std::uint64_t first, std::size_t count, std::uint64_t* destination) const {
        auto* to = reinterpret_cast<char*>(destination);
        if (!transfer_all(count * 8, [&](std::size_t done) {
                return ::pread(fd, to + done, count * 8 - done, static_cast<off_t>(first * 8 + done));
            })) {
            throw changed();
        }
    }

    /// Refuses a file whose size or modification time differ from what they were when it was opened: its
    /// passes would have read different data.
    void check_unchanged() const {
        struct stat now {};
        if (cut() || ::fstat(fd, &now) != 0 || now.st_size != opened.st_size ||
            now.st_mtim.tv_sec != opened.st_mtim.tv_sec || now.st_mtim.tv_nsec != opened.st_mtim.tv_nsec) {
            throw changed();
        }
    }

    /// The error of a file that changed while it was read.
    [[nodiscard]] std::invalid_argument changed() const {
        return std::invalid_argument("Input file \"" + path + "\" changed while it was read!");
    }

private:
    std::string path;
    int fd = -1;
    struct stat opened {};
    std::optional<GuardedMapping> mapping; ///< unmapped after the file is closed (a mapping needs no descriptor)
};

} // namespace kavot_tpx3spidr
