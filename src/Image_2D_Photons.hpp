#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include <unistd.h>

#include "PhotonEvents.hpp"
#include "ReplacingFile.hpp"

/// A histogram of photon positions over the 256 x 256 pixel detector with square bins of `resolution`;
/// counters in rows of constant y, x running fastest.
class Image_2D_Photons {
public:
    using Length = kavot_tpx3spidr::Length;
    static constexpr std::size_t max_pixel_total = std::numeric_limits<std::size_t>::max();
    static constexpr double detectorWidth_raw = 16777216.0; // 256 px
    /// The bin width of a run's image: 0.125 px, 2048 x 2048 bins.
    static constexpr Length run_resolution = Length(8192);

    /// A bin width of zero or less has no image: it is refused instead of dividing by it.
    explicit Image_2D_Photons(Length resolution_) : resolution(resolution_) {
        if (resolution.get_value() <= 0) {
            throw std::invalid_argument("Resolution must be positive!");
        }
        nPixels_x = static_cast<std::size_t>(detectorWidth_raw / static_cast<double>(resolution.get_value()));
        nPixels_y = nPixels_x;
        // Checked before the counters are allocated, so an impossible size never reaches the allocator.
        if (nPixels_y != 0 && nPixels_x > max_pixel_total / nPixels_y) {
            throw std::invalid_argument("Resolution is to high! " + std::to_string(nPixels_x) + " * " +
                                        std::to_string(nPixels_y) + " >= " + std::to_string(max_pixel_total) +
                                        " (max_pixel_total)!");
        }
        counts.assign(nPixels_x * nPixels_y, 0);
    }

    template <bool checkRange>
    void add_photonEvent(const kavot_tpx3spidr::PhotonEvent_type& photonEvent) {
        const std::size_t bx = bin(photonEvent.x.get_value());
        const std::size_t by = bin(photonEvent.y.get_value());
        add_count_noCheck(calc_countsIndex<checkRange>(bx, by));
    }

    template <bool checkRange>
    [[nodiscard]] std::size_t calc_countsIndex(std::size_t x, std::size_t y) const {
        if constexpr (checkRange) {
            if (x >= nPixels_x) {
                throw std::out_of_range("X coordinate out of range! " + std::to_string(x) +
                                        " >= " + std::to_string(nPixels_x) + "!");
            }
            if (y >= nPixels_y) {
                throw std::out_of_range("Y coordinate out of range! " + std::to_string(y) +
                                        " >= " + std::to_string(nPixels_y) + "!");
            }
        }
        return nPixels_x * y + x;
    }

    void add_count_noCheck(std::size_t linIndex) {
        assert(linIndex < counts.size());
        ++counts[linIndex];
    }

    /// Writes the counters as raw native-endian 32-bit values, complete or not at all (see `ReplacingFile`;
    /// the input of the run, if given, is never replaced through a link). Failures are not reported.
    void write_toFile_raw(const std::string& path, dev_t inputDevice = 0, ino_t inputInode = 0) const {
        try {
            ReplacingFile file(path, inputDevice, inputInode);
            const auto* bytes = reinterpret_cast<const char*>(counts.data());
            std::size_t left = counts.size() * sizeof(std::uint32_t);
            while (left > 0) {
                const ssize_t written = ::write(file.fd(), bytes, left);
                if (written <= 0) {
                    return; // the temporary file is removed; nothing is reported
                }
                bytes += written;
                left -= static_cast<std::size_t>(written);
            }
            (void)file.commit();
        } catch (const std::invalid_argument&) {
            // The path cannot be written: nothing is reported.
        }
    }

    [[nodiscard]] const std::vector<std::uint32_t>& get_counts() const noexcept { return counts; }

    Length resolution;
    std::size_t nPixels_x = 0;
    std::size_t nPixels_y = 0;
    // Unsigned: counters only grow, and counts above 2^31 stay meaningful.
    std::vector<std::uint32_t> counts;

private:
    /// Quotient truncated toward zero, one less when negative with a remainder: raw positions from
    /// -(resolution - 1) to -1 have the quotient 0 and stay in bin 0. Sign-extended to std::size_t.
    [[nodiscard]] std::size_t bin(int raw) const noexcept {
        int quotient = raw / resolution.get_value();
        if (quotient < 0 && raw % resolution.get_value() != 0) {
            quotient -= 1;
        }
        return static_cast<std::size_t>(static_cast<std::int64_t>(quotient));
    }
};
