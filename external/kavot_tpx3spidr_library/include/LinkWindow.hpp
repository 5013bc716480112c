#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

#include "PixelActivation.hpp"
#include "PixelTable.hpp"

namespace kavot_tpx3spidr::fullChainSearch {

/// The activations that can link a candidate: those carrying the current cluster number, at or after the
/// seed, within dTime of the candidate. They enter in two streams, each in ascending time: the members the
/// scan links, and the marks of rejected clusters before (which keep their number for the next cluster)
/// as the candidate's window reaches them. Both leave at the front once they are more than dTime behind.
///
/// The test looks at the activations in the window one by one while they are few, and otherwise at the
/// pixels within the distance d of the candidate, in a table that counts the window's activations per pixel
/// (kept only while it is in use). Either way it answers exactly whether one of them lies within d, and its
/// work is bounded by what lies within dTime and dSpace of the candidate, not by the size of the cluster.
class LinkWindow {
public:
    explicit LinkWindow(std::int64_t d_)
        : d(d_ < 0 ? -d_ : d_), dSquared(d * d), counts(d <= maxTableDistance ? d : 0) {
        // The pixels within d; only for distances whose disc is small enough to be worth looking at pixel by pixel
        // (every larger one reaches so far that the activations in the window are the fewer).
        if (d <= maxTableDistance) {
            for (std::int64_t dy = -d; dy <= d; ++dy) {
                for (std::int64_t dx = -d; dx <= d; ++dx) {
                    if (dx * dx + dy * dy <= dSquared) {
                        disc.push_back({dx, dy});
                    }
                }
            }
            tableFrom = std::max(2 * disc.size(), lazyDrop);
        }
    }

    /// Adds a member the scan linked; those earlier than `lower` may leave. Kept inline: the scan calls it for
    /// most activations, and a call costs the run several percent where the caller is large.
    [[gnu::always_inline]] void add_linked(const PixelActivation& activation, long lower) {
        add(linked, activation, lower);
    }
    [[gnu::noinline]] void add_carried(const PixelActivation& activation, long lower) {
        add(carried, activation, lower);
    }

    /// Whether an activation not earlier than `lower` lies within d of (x, y). Those earlier leave the window:
    /// at once while the table is in use, otherwise when a stream grows beyond a few of them (until then the
    /// test passes over them by their time, which costs less than deciding each time whether they leave).
    [[nodiscard]] bool links(short x, short y, long lower) {
        // Most candidates belong to other clusters: outside the box around every member since `clear`, grown
        // by d, none of the window's activations can be near.
        if (x < minX - d || x > maxX + d || y < minY - d || y > maxY + d) {
            return false;
        }
        if (tableActive || carried.head != carried.members.size()) [[unlikely]] {
            return links_everyWay(x, y, lower);
        }
        return near(linked, x, y, lower);
    }

    void clear() {
        if (tableActive) [[unlikely]] {
            drop(linked, std::numeric_limits<long>::max());
            drop(carried, std::numeric_limits<long>::max());
            tableActive = false;
        }
        linked.members.clear();
        linked.head = 0;
        carried.members.clear();
        carried.head = 0;
        minX = minY = std::numeric_limits<std::int64_t>::max() / 2;
        maxX = maxY = std::numeric_limits<std::int64_t>::min() / 2;
    }

private:
    struct Member {
        long toa;
        std::int32_t x;
        std::int32_t y;
    };
    /// Members in ascending time; those before `head` have left.
    struct Stream {
        std::vector<Member> members;
        std::size_t head = 0;
    };

    static constexpr std::int64_t maxTableDistance = 16;
    static constexpr std::size_t lazyDrop = 32;

    [[gnu::always_inline]] void add(Stream& stream, const PixelActivation& activation, long lower) {
        stream.members.push_back({activation.get_toa().get_value(), activation.get_x_px(), activation.get_y_px()});
        minX = std::min<std::int64_t>(minX, activation.get_x_px());
        maxX = std::max<std::int64_t>(maxX, activation.get_x_px());
        minY = std::min<std::int64_t>(minY, activation.get_y_px());
        maxY = std::max<std::int64_t>(maxY, activation.get_y_px());
        if (stream.members.size() - stream.head > lazyDrop) [[unlikely]] {
            drop(stream, lower);
        }
        if (tableActive || stream.members.size() - stream.head > tableFrom) [[unlikely]] {
            followTable(stream.members.back());
        }
    }
    [[gnu::noinline]] bool links_everyWay(short x, short y, long lower) {
        drop(carried, lower);
        if (tableActive) {
            drop(linked, lower);
            return linksByTable(x, y, lower);
        }
        return near(linked, x, y, lower) || near(carried, x, y, lower);
    }
    void drop(Stream& stream, long lower) {
        while (stream.head < stream.members.size() && stream.members[stream.head].toa < lower) {
            if (tableActive) [[unlikely]] {
                counts.at(stream.members[stream.head].x, stream.members[stream.head].y) -= 1;
            }
            ++stream.head;
        }
        if (stream.head >= 4096 && 2 * stream.head >= stream.members.size()) [[unlikely]] {
            stream.members.erase(stream.members.begin(),
                                 stream.members.begin() + static_cast<std::ptrdiff_t>(stream.head));
            stream.head = 0;
        }
    }
    [[nodiscard]] bool near(const Stream& stream, std::int64_t x, std::int64_t y, long lower) const noexcept {
        for (std::size_t k = stream.head; k < stream.members.size(); ++k) {
            const Member& member = stream.members[k];
            const std::int64_t dx = member.x - x;
            const std::int64_t dy = member.y - y;
            if (static_cast<int>(member.toa >= lower) & static_cast<int>(dx * dx + dy * dy <= dSquared)) {
                return true;
            }
        }
        return false;
    }

    /// Keeps the table of counts per pixel: counts a new member while the table is in use, and starts using it
    /// once a stream holds twice as many activations as the disc has pixels (the window is then dropped to its
    /// bounds and counted). A pixel that no canvas has cannot be counted: the activations are then looked at one
    /// by one for the rest of the run.
    [[gnu::noinline]] void followTable(const Member& added) {
        if (disc.empty() || outsideSeen) {
            return;
        }
        if (tableActive) {
            if (counts.reach(added.x, added.y)) {
                counts.at(added.x, added.y) += 1;
            } else {
                outsideSeen = true;
                tableActive = false;
                counts.reset();
            }
            return;
        }
        for (const Stream* stream : {&linked, &carried}) {
            for (std::size_t k = stream->head; k < stream->members.size(); ++k) {
                if (!counts.reach(stream->members[k].x, stream->members[k].y)) {
                    outsideSeen = true;
                    return;
                }
            }
        }
        for (const Stream* stream : {&linked, &carried}) {
            for (std::size_t k = stream->head; k < stream->members.size(); ++k) {
                counts.at(stream->members[k].x, stream->members[k].y) += 1;
            }
        }
        tableActive = true;
    }
    [[gnu::noinline]] bool linksByTable(short x, short y, long lower) const noexcept {
        // Every member of the window is counted in the table; a candidate beyond it can still lie within d of one
        // near its edge.
        if (!counts.holds(x, y)) {
            return near(linked, x, y, lower) || near(carried, x, y, lower);
        }
        const std::uint32_t* centre = counts.address(x, y);
        const std::int64_t stride = counts.stride();
        for (const auto& [dx, dy] : disc) {
            if (centre[dy * stride + dx] != 0) {
                return true;
            }
        }
        return false;
    }

    std::int64_t d;
    std::int64_t dSquared;
    // The box around every activation added since the last `clear` (empty: min above max).
    std::int64_t minX = std::numeric_limits<std::int64_t>::max() / 2;
    std::int64_t maxX = std::numeric_limits<std::int64_t>::min() / 2;
    std::int64_t minY = std::numeric_limits<std::int64_t>::max() / 2;
    std::int64_t maxY = std::numeric_limits<std::int64_t>::min() / 2;
    Stream linked;
    Stream carried;
    /// The pixels within d: (dx, dy) offsets from the centre.
    std::vector<std::pair<std::int64_t, std::int64_t>> disc;
    /// The table is used once a stream holds more activations than this (never without a disc).
    std::size_t tableFrom = std::numeric_limits<std::size_t>::max();
    PixelTable<std::uint32_t> counts; ///< activations of the window per pixel, with a margin of d
    bool tableActive = false;
    bool outsideSeen = false; ///< an activation that no canvas holds: the table is not used any more
};

} // namespace kavot_tpx3spidr::fullChainSearch
