#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kavot_tpx3spidr {

/// The bytes of a whole input file, read-only. A regular file is mapped from the page cache (no copy into a
/// buffer of our own); other readable files (pipes, devices) are read into memory. Directories and files that
/// cannot be opened are refused with the decoder's open error.
class MappedFile {
public:
    explicit MappedFile(const std::string& path) {
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) {
            throw std::invalid_argument("Unable to open file \"" + path + "\" !");
        }
        struct stat info {};
        if (::fstat(fd, &info) != 0 || S_ISDIR(info.st_mode)) {
            ::close(fd);
            throw std::invalid_argument("Unable to open file \"" + path + "\" !");
        }
        if (S_ISREG(info.st_mode)) {
            size = static_cast<std::size_t>(info.st_size);
            if (size > 0) {
                void* mapped = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0);
                if (mapped == MAP_FAILED) {
                    ::close(fd);
                    throw std::invalid_argument("Unable to open file \"" + path + "\" !");
                }
                ::madvise(mapped, size, MADV_SEQUENTIAL);
                mapping = static_cast<const unsigned char*>(mapped);
            }
        } else {
            readStream(fd, path);
        }
        ::close(fd);
    }
    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;
    ~MappedFile() {
        if (mapping != nullptr) {
            ::munmap(const_cast<unsigned char*>(mapping), size);
        }
    }

    [[nodiscard]] std::size_t size_bytes() const noexcept { return size; }
    /// The data as 64-bit words (the mapping is page-aligned, the copy is a word vector).
    [[nodiscard]] const std::uint64_t* words() const noexcept {
        return mapping != nullptr ? reinterpret_cast<const std::uint64_t*>(mapping) : copy.data();
    }

private:
    void readStream(int fd, const std::string& path) {
        std::vector<unsigned char> bytes;
        unsigned char chunk[1 << 16];
        while (true) {
            const ssize_t got = ::read(fd, chunk, sizeof chunk);
            if (got < 0) {
                ::close(fd);
                throw std::invalid_argument("Unable to open file \"" + path + "\" !");
            }
            if (got == 0) {
                break;
            }
            bytes.insert(bytes.end(), chunk, chunk + got);
        }
        size = bytes.size();
        copy.resize((size + 7) / 8);
        if (size > 0) {
            std::memcpy(copy.data(), bytes.data(), size);
        }
    }

    const unsigned char* mapping = nullptr;
    std::size_t size = 0;
    std::vector<std::uint64_t> copy;
};

} // namespace kavot_tpx3spidr
