#include "PhotonFileStream.hpp"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

#include "LittleEndian.hpp"
#include "PhotonEvents.hpp"

using namespace kavot_tpx3spidr;

namespace {

constexpr std::size_t bufferSize_bytes = std::size_t{1} << 20;
constexpr off_t fileSize_offset = 8;
constexpr off_t photonSize_offset = 56;

bool writeAll(int fd, const char* bytes, std::size_t n, off_t* at = nullptr) {
    while (n > 0) {
        const ssize_t written = at != nullptr ? ::pwrite(fd, bytes, n, *at) : ::write(fd, bytes, n);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return false;
        }
        bytes += written;
        n -= static_cast<std::size_t>(written);
        if (at != nullptr) {
            *at += written;
        }
    }
    return true;
}

} // namespace

PhotonFileStream::PhotonFileStream(int fd_) : fd(fd_) {
    buffer.resize(bufferSize_bytes);
    reset();
}

PhotonFileStream::~PhotonFileStream() {
    if (fd >= 0) {
        ::close(fd);
    }
}

void PhotonFileStream::reset() {
    used = 0;
    photons = 0;
    triggers = 0;
    withTriggers = false;
    if (::ftruncate(fd, 0) != 0 || ::lseek(fd, 0, SEEK_SET) != 0) {
        failed = true;
    }
    char header[64];
    std::copy_n(PhotonFile::IO_File::identifier, 8, header);
    kavot::store_littleEndian<8>(header + 8, 0); // file size: filled in by finish
    std::copy_n(PhotonFile::IO_BuildInfo::identifier, 8, header + 16);
    kavot::store_littleEndian<8>(header + 24, 16);
    kavot::store_littleEndian<8>(header + 32, PhotonFile::file_version_index);
    kavot::store_littleEndian<8>(header + 40, PhotonFile::file_type_index);
    std::copy_n(PhotonFile::IO_PhotonEvents::identifier, 8, header + 48);
    kavot::store_littleEndian<8>(header + 56, 0); // photon block size: filled in by finish
    append(header, sizeof header);
}

void PhotonFileStream::beginTriggers(std::uint64_t count) {
    char header[16];
    std::copy_n(PhotonFile::IO_ExtTriggers::identifier, 8, header);
    kavot::store_littleEndian<8>(header + 8, 8 * count);
    append(header, sizeof header);
    withTriggers = true;
}

void PhotonFileStream::pushTrigger(Time trigger) {
    char value[8];
    kavot::store_littleEndian<8>(value, static_cast<std::uint64_t>(trigger.get_value()));
    append(value, sizeof value);
    ++triggers;
}

bool PhotonFileStream::finish() {
    flush();
    const std::uint64_t photonBytes = 16 * photons;
    const std::uint64_t content = 48 + photonBytes + (withTriggers ? 16 + 8 * triggers : 0);
    char size[8];
    off_t at = fileSize_offset;
    kavot::store_littleEndian<8>(size, content);
    failed = failed || !writeAll(fd, size, 8, &at);
    at = photonSize_offset;
    kavot::store_littleEndian<8>(size, photonBytes);
    failed = failed || !writeAll(fd, size, 8, &at);
    failed = ::close(fd) != 0 || failed;
    fd = -1;
    return !failed;
}

void PhotonFileStream::append(const char* bytes, std::size_t n) {
    if (used + n > buffer.size()) {
        flush();
    }
    std::copy_n(bytes, n, buffer.data() + used);
    used += n;
}

void PhotonFileStream::flush() {
    if (!failed && used > 0) {
        failed = !writeAll(fd, buffer.data(), used);
    }
    used = 0;
}
