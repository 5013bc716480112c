#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kavot_tpx3spidr {

/// The bytes of a whole input file, read-only, mapped from the page cache (no copy into a buffer of our own).
/// Only regular files are read: the size of a pipe or a device is not known before it ends (if it ends at all),
/// so anything else is refused with the open error, like a file that cannot be opened.
class MappedFile {
public:
    explicit MappedFile(const std::string& path) {
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            throw std::invalid_argument("Unable to open file \"" + path + "\" !");
        }
        struct stat info {};
        if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
            ::close(fd);
            throw std::invalid_argument("Unable to open file \"" + path + "\" !");
        }
        size = static_cast<std::size_t>(info.st_size);
        if (size > 0) {
            void* mapped = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
            if (mapped == MAP_FAILED) {
                ::close(fd);
                throw std::invalid_argument("Unable to open file \"" + path + "\" !");
            }
            ::madvise(mapped, size, MADV_SEQUENTIAL);
            mapping = static_cast<const std::uint64_t*>(mapped);
        }
        ::close(fd);
    }
    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;
    ~MappedFile() {
        if (mapping != nullptr) {
            ::munmap(const_cast<std::uint64_t*>(mapping), size);
        }
    }

    [[nodiscard]] std::size_t size_bytes() const noexcept { return size; }
    void restart_dropping() const noexcept { dropped = 0; }

    /// Gives back the mapped pages before word `wordIndex` (they stay in the page cache), so that a pass over a
    /// large file does not add the whole file to the process's resident memory. Reading them again maps them anew;
    /// a later pass starts giving back from its own start (`restart_dropping`).
    void drop_before(std::size_t wordIndex) const noexcept {
        constexpr std::size_t page = 4096;
        const std::size_t bytes = std::min(wordIndex * 8, size) / page * page;
        if (mapping != nullptr && bytes > dropped) {
            ::madvise(reinterpret_cast<char*>(const_cast<std::uint64_t*>(mapping)) + dropped, bytes - dropped,
                      MADV_DONTNEED);
            dropped = bytes;
        }
    }
    /// The data as 64-bit words (the mapping is page-aligned); null for an empty file.
    [[nodiscard]] const std::uint64_t* words() const noexcept { return mapping; }

private:
    const std::uint64_t* mapping = nullptr;
    std::size_t size = 0;
    mutable std::size_t dropped = 0; ///< bytes from the start already given back
};

} // namespace kavot_tpx3spidr
