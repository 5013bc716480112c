#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Data_Tpx3Spidr.hpp"
#include "LittleEndian.hpp"

/// Writes a photon event file while the photons are still being found: the same bytes as the block writer
/// (file block, build information, photon block, trigger block), with the two sizes that depend on the photon
/// count written as placeholders first and filled in by `finish`. Failures are remembered, not thrown: the run
/// reports them where it would report a failed write of the finished file.
class PhotonFileStream {
public:
    /// Takes over `fd`, a regular file open for writing.
    explicit PhotonFileStream(int fd_);
    PhotonFileStream(const PhotonFileStream&) = delete;
    PhotonFileStream& operator=(const PhotonFileStream&) = delete;
    ~PhotonFileStream();

    /// Empties the file and writes the headers again (a restarted run).
    void reset();
    /// Inline: it runs once per photon, and a call per photon showed in profiles of the whole run.
    void push(const kavot_tpx3spidr::PhotonEvent_type& photon) {
        if (used + 16 > buffer.size()) {
            flush();
        }
        char* record = buffer.data() + used;
        kavot::store_littleEndian<4>(record, static_cast<std::uint64_t>(photon.x.get_value()));
        kavot::store_littleEndian<4>(record + 4, static_cast<std::uint64_t>(photon.y.get_value()));
        kavot::store_littleEndian<8>(record + 8, static_cast<std::uint64_t>(photon.toa.get_value()));
        used += 16;
        ++photons;
    }
    /// Ends the photon block and starts a trigger block of `count` times.
    void beginTriggers(std::uint64_t count);
    void pushTrigger(kavot_tpx3spidr::Time trigger);
    /// Writes what is buffered, fills in the sizes and closes the file. False if anything failed.
    [[nodiscard]] bool finish();

private:
    void append(const char* bytes, std::size_t n);
    void flush();

    int fd;
    bool failed = false;
    std::uint64_t photons = 0;
    std::uint64_t triggers = 0;
    bool withTriggers = false;
    std::vector<char> buffer; ///< fixed size; bytes [0, used) wait to be written
    std::size_t used = 0;
};
