#pragma once

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
            void* mapped = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0);
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
    /// The data as 64-bit words (the mapping is page-aligned); null for an empty file.
    [[nodiscard]] const std::uint64_t* words() const noexcept { return mapping; }

private:
    const std::uint64_t* mapping = nullptr;
    std::size_t size = 0;
};

} // namespace kavot_tpx3spidr
