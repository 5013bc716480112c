#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

#include "ClusterSteps.hpp"
#include "PixelActivationChain.hpp"
#include "ReconstructionParameters_PhotonEvents.hpp"
#include "Tpx3DataSet.hpp"

namespace kavot_tpx3spidr {

namespace fullChainSearch {

/// The mark of a position: the number of the cluster that took it, or `free`.
using Mark = std::uint64_t;
constexpr Mark free = std::numeric_limits<Mark>::max();

/// A sequence read through a pointer, with a mark per position beside it: positions below `readableEnd` cost
/// one comparison, and only a position past them goes to the sequence itself (which may decode and move its
/// storage; the pointer is taken again and the marks move along). Positions not reached before are free.
template <typename Sequence>
class MarkedReader {
public:
    explicit MarkedReader(Sequence& sequence_) noexcept : sequence(sequence_) {}

    [[nodiscard]] bool has(std::size_t position) { return position < end || reach(position); }
    [[nodiscard]] const PixelActivation& operator[](std::size_t position) const noexcept {
        return first[position - firstPosition];
    }
    [[nodiscard]] Mark& mark(std::size_t position) noexcept { return marks[position - firstPosition]; }

    /// Positions [first, end) as plain arrays, valid until the next `has` for a position at or after `end`.
    struct Span {
        const PixelActivation* activations;
        Mark* marks;
        std::size_t first;
        std::size_t end;
    };
    [[nodiscard]] Span span() noexcept { return {first, marks.data(), firstPosition, end}; }

    /// Positions before `position` will not be read again.
    void discardBefore(std::size_t position) {
        sequence.discardBefore(position);
        keepFrom = position;
    }

private:
    [[gnu::noinline]] bool reach(std::size_t position) {
        // The sequence may move what it holds even when it has nothing more, so the view is taken anew either way.
        const bool found = sequence.has(position);
        marks.erase(marks.begin(), marks.begin() + static_cast<std::ptrdiff_t>(keepFrom - firstPosition));
        end = sequence.readableEnd();
        first = keepFrom < end ? &sequence[keepFrom] : nullptr;
        firstPosition = keepFrom;
        marks.resize(end - firstPosition, free);
        return found;
    }

    Sequence& sequence;
    const PixelActivation* first = nullptr;
    std::size_t firstPosition = 0;
    std::size_t end = 0;      ///< positions [firstPosition, end) are read through `first` and `marks`
    std::size_t keepFrom = 0; ///< the last discard point: nothing before it is read
    std::vector<Mark> marks;
};

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
    explicit LinkWindow(std::int64_t d_) : d(d_ < 0 ? -d_ : d_), dSquared(d * d) {
        // The pixels within d, as offsets into the padded table; only for distances whose disc is small enough
        // to be worth looking at pixel by pixel (every larger one reaches so far that the activations in the
        // window are the fewer).
        if (d <= maxTableDistance) {
            const std::int64_t side = tableSide();
            for (std::int64_t dy = -d; dy <= d; ++dy) {
                for (std::int64_t dx = -d; dx <= d; ++dx) {
                    if (dx * dx + dy * dy <= dSquared) {
                        disc.push_back(dy * side + dx);
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
    static constexpr std::int64_t detectorPixels = 256;
    [[nodiscard]] std::int64_t tableSide() const noexcept { return detectorPixels + 2 * d; }
    [[nodiscard]] static bool inRange(std::int64_t x, std::int64_t y) noexcept {
        return x >= 0 && y >= 0 && x < detectorPixels && y < detectorPixels;
    }
    [[nodiscard]] std::size_t tableIndex(std::int64_t x, std::int64_t y) const noexcept {
        return static_cast<std::size_t>((y + d) * tableSide() + x + d);
    }

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
                counts[tableIndex(stream.members[stream.head].x, stream.members[stream.head].y)] -= 1;
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
    /// bounds and counted). A
    /// pixel outside the detector cannot be counted: the activations are then looked at one by one for the rest
    /// of the run.
    [[gnu::noinline]] void followTable(const Member& added) {
        if (disc.empty() || outsideSeen) {
            return;
        }
        if (tableActive) {
            if (inRange(added.x, added.y)) {
                counts[tableIndex(added.x, added.y)] += 1;
            } else {
                outsideSeen = true;
                tableActive = false;
                std::fill(counts.begin(), counts.end(), 0);
            }
            return;
        }
        for (const Stream* stream : {&linked, &carried}) {
            for (std::size_t k = stream->head; k < stream->members.size(); ++k) {
                if (!inRange(stream->members[k].x, stream->members[k].y)) {
                    outsideSeen = true;
                    return;
                }
            }
        }
        if (counts.empty()) {
            counts.assign(static_cast<std::size_t>(tableSide() * tableSide()), 0);
        }
        for (const Stream* stream : {&linked, &carried}) {
            for (std::size_t k = stream->head; k < stream->members.size(); ++k) {
                counts[tableIndex(stream->members[k].x, stream->members[k].y)] += 1;
            }
        }
        tableActive = true;
    }
    [[gnu::noinline]] bool linksByTable(short x, short y, long lower) const noexcept {
        if (!inRange(x, y)) {
            return near(linked, x, y, lower) || near(carried, x, y, lower);
        }
        const std::uint32_t* centre = counts.data() + tableIndex(x, y);
        for (const std::int64_t offset : disc) {
            if (centre[offset] != 0) {
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
    std::vector<std::int64_t> disc;
    /// The table is used once a stream holds more activations than this (never without a disc).
    std::size_t tableFrom = std::numeric_limits<std::size_t>::max();
    std::vector<std::uint32_t> counts; ///< activations of the window per pixel, padded by d on every side
    bool tableActive = false;
    bool outsideSeen = false; ///< an activation outside the detector: the table is not used any more
};

} // namespace fullChainSearch

/// The full-chain search, with the same result as the step-by-step description below, but less work.
///
/// Described step by step: every position carries an optional cluster number; seeds are taken in ascending
/// position, skipping marked ones; a seed i opens cluster number c (the number of photons accepted so far, so a
/// rejected cluster leaves its number to the next one) and marks itself; each later unmarked candidate j up to
/// the first one later than the horizon (latest member's time + dTime) is linked when some position k in the
/// window [k0, kend) carries c and lies within d of it, where kend is the first position later than
/// t_j + dTime and k0 is found by stepping back from j - 1 while k > i and the position before k is not earlier
/// than t_j - dTime; a linked candidate is marked with c.
///
/// What this implementation does instead, and why it is the same:
///  - Only existence of such a k matters, so the positions that carry c are tested against the window's bounds
///    instead of walking the window: k >= k0 holds exactly when k >= i and (k >= j - 1 or t_k >= t_j - dTime),
///    since times do not decrease with the position; k < kend exactly when t_k <= t_j + dTime. The clause
///    k >= j - 1 adds nothing: a candidate is only tested while t_j <= horizon = t_m + dTime for the cluster's
///    latest member m, which lies before j, so t_(j-1) >= t_m >= t_j - dTime. So the positions that can link j
///    are those at or after the seed that carry c with a time in [t_j - dTime, t_j + dTime]: `LinkWindow`.
///    Those before j carry c because the scan linked them or because a rejected cluster before marked them;
///    those after j only for the second reason (the scan has not reached them). A position enters the window
///    when it is marked by the scan, or, carrying c already, when t_j + dTime reaches it (a pointer walks
///    ahead of the scan for that, as far as rejected clusters have marked positions with c); it leaves when
///    t_j - dTime passes it.
///  - The next seed is the first candidate of this scan that stayed unmarked, if any: every position between
///    lies in the scan and was marked before or by it. Otherwise the search for it starts at the position that
///    ended the scan.
///  - Positions before the seed are never read again, and while the scan has left no candidate unmarked, none
///    before the scan's position either (the next seed lies after it): only the rest is kept.
template <typename Sequence, typename Sink>
void reconstruct_photonEvents_fullChain_direct(Sequence& activations,
                                               const ReconstructionParameters_PhotonEvents& parameters,
                                               Sink& sink) {
    using namespace fullChainSearch;
    MarkedReader<Sequence> sequence(activations);
    const long dT = parameters.dTime.get_value();
    LinkWindow window(spaceLimit_px(parameters.dSpace));
    std::uint64_t c = 0; // the number of photons accepted so far: the number of the next cluster
    // The last position marked with c by an earlier (rejected) cluster; 0 for none (position 0 can only be the
    // first seed, which no later cluster reaches). Only up to it can the window find marks of c ahead; it lies
    // within the positions read so far.
    std::size_t carriedEnd = 0;
    std::size_t i = 0;
    for (;;) {
        while (sequence.has(i) && sequence.mark(i) != free) {
            ++i;
        }
        if (!sequence.has(i)) {
            break;
        }
        sequence.discardBefore(i);
        const PixelActivation seed = sequence[i];
        PixelActivationChain chain(seed);
        sequence.mark(i) = c;
        window.clear();
        window.add_linked(seed, seed.get_toa().get_value() - dT);
        std::size_t ahead = i + 1; // the next position the window has not looked at for marks of c
        std::size_t lastMarked = i;
        long horizon = seed.get_toa().get_value() + dT;
        std::size_t firstFree = 0; // the first candidate left unmarked (0: none; no seed after the first is at 0)
        std::size_t j = i + 1;
        bool scanning = true;
        // The inner loop runs over the positions at hand and calls nothing that can move them; the sequence
        // decodes more between its runs.
        while (scanning && sequence.has(j)) {
            const auto at = sequence.span();
            for (; j < at.end; ++j) {
                const PixelActivation candidate = at.activations[j - at.first];
                const long tj = candidate.get_toa().get_value();
                if (tj > horizon) {
                    scanning = false;
                    break;
                }
                if (at.marks[j - at.first] != free) {
                    continue;
                }
                for (; ahead <= carriedEnd && at.activations[ahead - at.first].get_toa().get_value() <= tj + dT;
                     ++ahead) {
                    if (at.marks[ahead - at.first] == c) {
                        window.add_carried(at.activations[ahead - at.first], tj - dT);
                    }
                }
                if (window.links(candidate.get_x_px(), candidate.get_y_px(), tj - dT)) {
                    chain.add_pixelActivation_notFirst(candidate);
                    at.marks[j - at.first] = c;
                    window.add_linked(candidate, tj - dT);
                    lastMarked = j;
                    horizon = std::max(horizon, tj + dT);
                } else if (firstFree == 0) {
                    firstFree = j;
                }
            }
            if (firstFree == 0) {
                sequence.discardBefore(j);
            }
        }
        if (accept_chain(chain, static_cast<double>(chain.weightSum), parameters)) {
            sink.push(photonEvent_fromChain(chain));
            ++c;
            carriedEnd = 0;
        } else {
            carriedEnd = std::max(carriedEnd, lastMarked);
        }
        i = firstFree != 0 ? firstFree : j;
    }
}

/// Grows one cluster at a time from its seed: a later activation joins when it lies within dTime and the
/// distance dSpace (truncated to whole pixels, inclusive) of an activation already marked with the cluster's
/// number, tested once when the scan reaches it.
inline PhotonResult reconstruct_photonEvents_fullChain_direct(const Data_Tpx3Spidr& data,
                                                              const ReconstructionParameters_PhotonEvents& parameters) {
    return reconstruct_dataSet(data, parameters, [&](auto& sequence, auto& sink) {
        reconstruct_photonEvents_fullChain_direct(sequence, parameters, sink);
    });
}

} // namespace kavot_tpx3spidr
