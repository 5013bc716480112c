#pragma once

// Moving a whole range of bytes with pread or pwrite, which may move less than asked or be interrupted.

#include <cerrno>
#include <cstddef>

#include <sys/types.h>

namespace kavot_tpx3spidr {

/// Calls `step(done)` (one pread or pwrite of what is left, `done` bytes into the range) until `n` bytes have
/// moved, and again after an interrupted call. False when a call fails or moves nothing (the end of a file).
template <typename Step>
[[nodiscard]] bool transfer_all(std::size_t n, Step step) {
    for (std::size_t done = 0; done < n;) {
        const ssize_t moved = step(done);
        if (moved < 0 && errno == EINTR) {
            continue;
        }
        if (moved <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(moved);
    }
    return true;
}

} // namespace kavot_tpx3spidr
