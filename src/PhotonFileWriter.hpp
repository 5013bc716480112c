#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "PhotonEvents.hpp"
#include "ReadBuffer.hpp"
#include "Spill.hpp"

/// Writes a photon event file while the photons are still being found: the bytes of the block writer (file
/// block, build information, photon block, trigger block), with the two sizes that depend on the photon count
/// written as placeholders first and filled in by `finish`. Failures are remembered, not thrown: the run
/// reports them where it would report a failed write of the finished file.
class PhotonFileWriter {
public:
    /// Writes to `fd`, a seekable file open for writing and empty (not taken over).
    explicit PhotonFileWriter(int fd_);

    /// Inline: it runs once per photon, and a call per photon showed in profiles of the whole run.
    void push(const kavot_tpx3spidr::PhotonEvent_type& photon) {
        if (used + kavot_tpx3spidr::PhotonFile::photonRecord_bytes > buffer.size()) {
            flush();
        }
        kavot_tpx3spidr::PhotonFile::store_photonRecord(buffer.data() + used, photon);
        used += kavot_tpx3spidr::PhotonFile::photonRecord_bytes;
        ++photons;
    }
    /// The photons of `batch`, in order: as `push` of each, with less work per photon.
    void push_all(std::span<const kavot_tpx3spidr::PhotonEvent_type> batch);
    /// Ends the photon block with a trigger block holding `triggers`.
    void write_triggers(const kavot_tpx3spidr::SpillingList<kavot_tpx3spidr::Time>& triggers);
    /// Writes what is buffered and fills in the sizes. False if anything failed.
    [[nodiscard]] bool finish();

private:
    void append(const char* bytes, std::size_t n);
    void flush();
    /// Hands `n` bytes to the file, after those before.
    void writeOut(const char* bytes, std::size_t n);

    int fd;
    bool failed = false;
    std::uint64_t photons = 0;
    std::optional<std::uint64_t> triggers;
    kavot_tpx3spidr::ReadBuffer<char> buffer; ///< fixed size; bytes [0, used) wait to be written
    std::size_t used = 0;
    off_t written = 0;     ///< bytes handed to the file so far
    off_t writtenBack = 0; ///< bytes the system was asked to start writing to disk
};
