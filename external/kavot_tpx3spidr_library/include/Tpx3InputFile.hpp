#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "FileTransfer.hpp"

namespace kavot_tpx3spidr {

/// A .tpx3 input file, read in pieces into buffers of the reader's own (never mapped: a file that shrinks
/// while it is read then gives a short read, which is reported, instead of a fault in the middle of a pass).
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
        if (::fstat(fd, &now) != 0 || now.st_size != opened.st_size || now.st_mtim.tv_sec != opened.st_mtim.tv_sec ||
            now.st_mtim.tv_nsec != opened.st_mtim.tv_nsec) {
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
};

} // namespace kavot_tpx3spidr
