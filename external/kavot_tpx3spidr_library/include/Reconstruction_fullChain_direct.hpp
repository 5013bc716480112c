#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "ClusterSteps.hpp"
#include "PixelActivationChain.hpp"
#include "ReconstructionParameters_PhotonEvents.hpp"
#include "Tpx3DataSet.hpp"

namespace kavot_tpx3spidr {

namespace fullChainSearch {

/// A sequence read through a pointer, with one flag per position beside it: positions below `readableEnd` cost
/// one comparison, and only a position past them goes to the sequence itself (which may decode and move its
/// storage; the pointer is taken again and the flags move along). Flags of positions not reached before read as
/// `Flag{}`.
template <typename Sequence, typename Flag>
class FlaggedReader {
public:
    explicit FlaggedReader(Sequence& sequence_) noexcept : sequence(sequence_) {}

    [[nodiscard]] bool has(std::size_t position) { return position < end || reach(position); }
    [[nodiscard]] const PixelActivation& operator[](std::size_t position) const noexcept {
        return first[position - firstPosition];
    }
    [[nodiscard]] Flag& flag(std::size_t position) noexcept { return flags[position - firstPosition]; }
    void discardBefore(std::size_t position) {
        sequence.discardBefore(position);
        keepFrom = position;
    }

private:
    [[gnu::noinline]] bool reach(std::size_t position) {
        if (!sequence.has(position)) {
            return false;
        }
        flags.erase(flags.begin(), flags.begin() + static_cast<std::ptrdiff_t>(keepFrom - firstPosition));
        first = &sequence[keepFrom];
        firstPosition = keepFrom;
        end = sequence.readableEnd();
        flags.resize(end - firstPosition, Flag{});
        return true;
    }

    Sequence& sequence;
    const PixelActivation* first = nullptr;
    std::size_t firstPosition = 0;
    std::size_t end = 0;      ///< positions [firstPosition, end) are read through `first` and `flags`
    std::size_t keepFrom = 0; ///< the last discard point: nothing before it is read
    std::vector<Flag> flags;
};

enum class Mark : std::uint8_t { free, taken }; // not a character type: its stores alias nothing else

/// A position that carries the current cluster number, with what the link test reads of it.
struct Member {
    long toa;
    std::int64_t x;
    std::int64_t y;
    std::size_t position;
};

/// The link test: some member lies within dTime and the distance d of the candidate.
[[nodiscard]] inline bool
links(const std::vector<Member>& members, const PixelActivation& candidate, long dT, std::int64_t dSquared) noexcept {
    const long tj = candidate.get_toa().get_value();
    const long lower = tj - dT;
    const long upper = tj + dT;
    const std::int64_t xj = candidate.get_x_px();
    const std::int64_t yj = candidate.get_y_px();
    for (const Member& member : members) {
        const std::int64_t dx = member.x - xj;
        const std::int64_t dy = member.y - yj;
        if (static_cast<int>(member.toa >= lower) & static_cast<int>(member.toa <= upper) &
            static_cast<int>(dx * dx + dy * dy <= dSquared)) {
            return true;
        }
    }
    return false;
}

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
///    latest member m, which lies before j, so t_(j-1) >= t_m >= t_j - dTime. Positions carrying c are the
///    members of the current cluster and those of the rejected clusters just before it; the ones before the
///    seed can never be in a window again. They are kept in `members` with their time and pixel, so the test
///    reads no table.
///  - Apart from that, the cluster number of a position is only ever tested for being set, so one flag per
///    position is kept. The seed's own flag is never read again (later seeds and candidates lie after it).
///  - The next seed is the first candidate of this scan that stayed unmarked, if any: every position between
///    lies in the scan and was marked before or by it. Otherwise the search for it starts at the position that
///    ended the scan.
///  - Positions before the seed are never read again, so the sequence and the flags are only kept from it on.
template <typename Sequence, typename Sink>
void reconstruct_photonEvents_fullChain_direct(Sequence& activations,
                                               const ReconstructionParameters_PhotonEvents& parameters,
                                               Sink& sink) {
    using fullChainSearch::Mark;
    fullChainSearch::FlaggedReader<Sequence, Mark> sequence(activations);
    const std::int64_t d = spaceLimit_px(parameters.dSpace);
    const std::int64_t dSquared = d * d;
    const long dT = parameters.dTime.get_value();
    std::vector<fullChainSearch::Member> members; // positions at or after the seed that carry the current number
    bool previousAccepted = true;
    std::size_t i = 0;
    for (;;) {
        while (sequence.has(i) && sequence.flag(i) == Mark::taken) {
            ++i;
        }
        if (!sequence.has(i)) {
            break;
        }
        sequence.discardBefore(i);
        const PixelActivation seed = sequence[i];
        PixelActivationChain chain(seed);
        if (previousAccepted) {
            members.clear();
        } else {
            std::erase_if(members, [i](const fullChainSearch::Member& member) { return member.position < i; });
        }
        members.push_back({seed.get_toa().get_value(), seed.get_x_px(), seed.get_y_px(), i});
        long horizon = seed.get_toa().get_value() + dT;
        std::size_t firstFree = 0; // the first candidate left unmarked (0: none; no seed after the first is at 0)
        std::size_t j = i + 1;
        for (; sequence.has(j); ++j) {
            const PixelActivation candidate = sequence[j];
            const long tj = candidate.get_toa().get_value();
            if (tj > horizon) {
                break;
            }
            if (sequence.flag(j) == Mark::taken) {
                continue;
            }
            if (fullChainSearch::links(members, candidate, dT, dSquared)) {
                chain.add_pixelActivation_notFirst(candidate);
                sequence.flag(j) = Mark::taken;
                members.push_back({tj, candidate.get_x_px(), candidate.get_y_px(), j});
                horizon = std::max(horizon, tj + dT);
            } else if (firstFree == 0) {
                firstFree = j;
            }
        }
        previousAccepted = accept_chain(chain, static_cast<double>(chain.weightSum), parameters);
        if (previousAccepted) {
            sink.push(photonEvent_fromChain(chain));
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
