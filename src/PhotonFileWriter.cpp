#include "PhotonFileWriter.hpp"

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

using kavot_tpx3spidr::PhotonFile;

namespace {

constexpr std::size_t bufferSize_bytes = std::size_t{1} << 20;
/// How much written data waits before the system is asked to start putting it on disk.
constexpr off_t writeBackStep_bytes = off_t{8} << 20;

bool writeAll(int fd, const char* bytes, std::size_t n, off_t at = -1) {
    while (n > 0) {
        const ssize_t written = at >= 0 ? ::pwrite(fd, bytes, n, at) : ::write(fd, bytes, n);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return false;
        }
        bytes += written;
        n -= static_cast<std::size_t>(written);
        if (at >= 0) {
            at += written;
        }
    }
    return true;
}

} // namespace

PhotonFileWriter::PhotonFileWriter(int fd_) : fd(fd_), buffer(bufferSize_bytes) {
    // The sizes that depend on the photon count are written as 0 and filled in by finish.
    char start[PhotonFile::photons_offset];
    PhotonFile::store_fileStart(start, 0);
    PhotonFile::store_blockHeader(start + PhotonFile::photonBlock_offset, PhotonFile::IO_PhotonEvents::identifier, 0);
    append(start, sizeof start);
}

void PhotonFileWriter::write_triggers(const kavot_tpx3spidr::SpillingList<kavot_tpx3spidr::Time>& times) {
    char header[PhotonFile::headerSize_bytes];
    PhotonFile::store_blockHeader(header, PhotonFile::IO_ExtTriggers::identifier,
                                  PhotonFile::trigger_bytes * times.size());
    append(header, sizeof header);
    times.for_each([&](kavot_tpx3spidr::Time time) {
        char value[PhotonFile::trigger_bytes];
        PhotonFile::store_trigger(value, time);
        append(value, sizeof value);
    });
    triggers = times.size();
}

bool PhotonFileWriter::finish() {
    flush();
    char start[PhotonFile::photons_offset];
    PhotonFile::store_fileStart(start, PhotonFile::contentBlocks_bytes(photons, triggers));
    PhotonFile::store_blockHeader(start + PhotonFile::photonBlock_offset, PhotonFile::IO_PhotonEvents::identifier,
                                  PhotonFile::photonRecord_bytes * photons);
    failed = failed || !writeAll(fd, start, sizeof start, 0);
    return !failed;
}

void PhotonFileWriter::append(const char* bytes, std::size_t n) {
    if (used + n > buffer.size()) {
        flush();
    }
    std::copy_n(bytes, n, buffer.data() + used);
    used += n;
}

void PhotonFileWriter::push_all(std::span<const kavot_tpx3spidr::PhotonEvent_type> batch) {
    if constexpr (PhotonFile::recordIsMemory) {
        // A batch as large as a good part of the buffer goes to the file from where it lies, without a copy.
        if (batch.size_bytes() >= buffer.size() / 4) {
            flush();
            writeOut(reinterpret_cast<const char*>(batch.data()), batch.size_bytes());
            photons += batch.size();
            return;
        }
    }
    while (!batch.empty()) {
        if (used + PhotonFile::photonRecord_bytes > buffer.size()) {
            flush();
        }
        const std::size_t n = std::min(batch.size(), (buffer.size() - used) / PhotonFile::photonRecord_bytes);
        PhotonFile::store_photonRecords(buffer.data() + used, batch.first(n));
        used += n * PhotonFile::photonRecord_bytes;
        photons += n;
        batch = batch.subspan(n);
    }
}

void PhotonFileWriter::flush() {
    if (used > 0) {
        writeOut(buffer.data(), used);
    }
    used = 0;
}

void PhotonFileWriter::writeOut(const char* bytes, std::size_t n) {
    if (failed) {
        return;
    }
    failed = !writeAll(fd, bytes, n);
    written += static_cast<off_t>(n);
    // The file is flushed to disk before it replaces the destination; starting the disk writes of each
    // finished stretch now lets them run while the photons are still being found, instead of all of them
    // after the last one. Only a hint: its failure changes nothing, and the final flush reports errors.
    if (written - writtenBack >= writeBackStep_bytes) {
        ::sync_file_range(fd, writtenBack, written - writtenBack, SYNC_FILE_RANGE_WRITE);
        writtenBack = written;
    }
}
