#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "Data_PhotonEvents.hpp"
#include "PhotonEvent.hpp"
#include "PixelActivationChain.hpp"
#include "ReconstructionParameters_PhotonEvents.hpp"
#include "SlidingTable.hpp"
#include "Tpx3DataSet.hpp"

namespace kavot_tpx3spidr {

using PhotonEvent_type = kavot::PhotonEvent<Length, Time>;
using PhotonResult = kavot::Data_PhotonEvents<PhotonEvent_type>;

/// Sees which cluster every position of the time order joins; the reconstruction itself does not need it.
/// `cluster` numbers the clusters in the order in which they were opened, from 0.
struct NoClusterObserver {
    void assign(std::size_t /*position*/, std::size_t /*cluster*/) const noexcept {}
};

/// The activations of a data set as a sequence for the clustering algorithms, which are written against this
/// small interface so that the same code also runs on activations streamed from a file:
///   has(j)            position j exists (a stream decodes up to it first)
///   operator[](j)     the activation at position j (valid until the next call of has)
///   discardBefore(i)  positions before i will not be read again
class DataSetSequence {
public:
    explicit DataSetSequence(const Data_Tpx3Spidr& data_) noexcept : data(data_) {}
    [[nodiscard]] bool has(std::size_t position) const noexcept { return position < data.size(); }
    [[nodiscard]] const PixelActivation& operator[](std::size_t position) const { return data[position]; }
    void discardBefore(std::size_t /*position*/) const noexcept {}

private:
    const Data_Tpx3Spidr& data;
};

/// Collects the photons in a list reserved for one photon per activation, the most any algorithm can produce,
/// so it never reallocates. Reserved but unwritten memory costs no physical pages.
struct VectorPhotonSink {
    explicit VectorPhotonSink(std::size_t n) { photons.reserve(n); }
    void push(const PhotonEvent_type& photon) { photons.push_back(photon); }
    std::vector<PhotonEvent_type> photons;
};

namespace detail {

/// Photon acceptance: all four bounds inclusive; a NaN weight bound accepts nothing.
[[nodiscard]] inline bool accept_chain(const PixelActivationChain& chain,
                                       double quantity,
                                       const ReconstructionParameters_PhotonEvents& parameters) noexcept {
    return parameters.nPxMin <= chain.nPx && chain.nPx <= parameters.nPxMax && parameters.weightMin <= quantity &&
           quantity <= parameters.weightMax;
}

/// The weighted centroid in 1/65536 pixel: the sums shifted by 16 bits and divided without sign, truncating;
/// the low 32 bits of the quotient are the raw length.
[[nodiscard]] inline PhotonEvent_type photonEvent_fromChain(const PixelActivationChain& chain) noexcept {
    const auto raw = [&](std::uint64_t weightedSum) {
        return Length(static_cast<int>(static_cast<std::uint32_t>((weightedSum << 16) / chain.weightSum)));
    };
    return PhotonEvent_type(raw(chain.xWeightedSum), raw(chain.yWeightedSum), chain.toa);
}

[[nodiscard]] inline PhotonResult assemble_result(std::vector<PhotonEvent_type>&& photonEvents,
                                                  const Data_Tpx3Spidr& data,
                                                  const ReconstructionParameters_PhotonEvents& parameters) {
    auto triggers = parameters.TDC1 ? std::optional<std::vector<Time>>(std::in_place, data.get_tdc1Triggers())
                                    : std::optional<std::vector<Time>>();
    return PhotonResult(std::move(photonEvents), std::move(triggers));
}

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
///    reads no table, and it is evaluated without a branch per condition.
///  - Apart from that, the cluster number of a position is only ever tested for being set, so one flag per
///    position is kept. The seed's own flag is never read again (later seeds and candidates lie after it).
///  - The next seed is the first candidate of this scan that stayed unmarked, if any: every position between
///    lies in the scan and was marked before or by it. Otherwise the search for it starts at the position that
///    ended the scan.
///  - Positions before the seed are never read again, so the sequence and the flags are only kept from it on.
template <typename Sequence, typename Sink, typename Observer>
void fullChain_direct(Sequence& sequence,
                      const ReconstructionParameters_PhotonEvents& parameters,
                      Sink& sink,
                      Observer& observer) {
    enum class Mark : std::uint8_t { free, taken }; // not a character type: its stores alias nothing else
    SlidingTable<Mark> marks(Mark::free);
    const std::int64_t d = spaceLimit_px(parameters.dSpace);
    const std::int64_t dSquared = d * d;
    const long dT = parameters.dTime.get_value();
    struct Member {
        long toa;
        std::int64_t x;
        std::int64_t y;
        std::size_t position;
    };
    std::vector<Member> members; // positions at or after the seed that carry the current cluster number
    bool previousAccepted = true;
    std::size_t clusterOrdinal = 0;
    std::size_t i = 0;
    for (;;) {
        while (sequence.has(i) && marks.get(i) == Mark::taken) {
            ++i;
        }
        if (!sequence.has(i)) {
            break;
        }
        sequence.discardBefore(i);
        marks.discardBefore(i);
        if (previousAccepted) {
            members.clear();
        } else {
            std::erase_if(members, [i](const Member& member) { return member.position < i; });
        }
        const PixelActivation seed = sequence[i];
        PixelActivationChain chain(seed);
        members.push_back({seed.get_toa().get_value(), seed.get_x_px(), seed.get_y_px(), i});
        observer.assign(i, clusterOrdinal);
        long horizon = seed.get_toa().get_value() + dT;
        std::size_t nextSeed = 0; // none yet: no seed lies at position 0 after the first

        std::size_t j = i + 1;
        for (; sequence.has(j); ++j) {
            const PixelActivation candidate = sequence[j];
            const long tj = candidate.get_toa().get_value();
            if (tj > horizon) {
                break;
            }
            if (marks.get(j) == Mark::taken) {
                continue;
            }
            const long lower = tj - dT;
            const long upper = tj + dT;
            const std::int64_t xj = candidate.get_x_px();
            const std::int64_t yj = candidate.get_y_px();
            bool linked = false;
            for (const Member& member : members) {
                const std::int64_t dx = member.x - xj;
                const std::int64_t dy = member.y - yj;
                if (static_cast<int>(member.toa >= lower) & static_cast<int>(member.toa <= upper) &
                    static_cast<int>(dx * dx + dy * dy <= dSquared)) {
                    linked = true;
                    break;
                }
            }
            if (linked) {
                chain.add_pixelActivation_notFirst(candidate);
                marks.at(j) = Mark::taken;
                members.push_back({tj, xj, yj, j});
                observer.assign(j, clusterOrdinal);
                horizon = std::max(horizon, upper);
            } else if (nextSeed == 0) {
                nextSeed = j;
            }
        }
        previousAccepted = accept_chain(chain, static_cast<double>(chain.weightSum), parameters);
        if (previousAccepted) {
            sink.push(photonEvent_fromChain(chain));
        }
        ++clusterOrdinal;
        i = nextSeed != 0 ? nextSeed : j;
    }
}

/// Runs of positions in which every activation lies within dSpace of its predecessor in x and in y (strictly,
/// on the unrounded distance) and strictly less than dTime after it; the mean weight is bounded. Positions are
/// counted in std::size_t, so data sets of any size are handled.
template <typename Sequence, typename Sink, typename Observer>
void checkNextOnly(Sequence& sequence,
                   const ReconstructionParameters_PhotonEvents& parameters,
                   Sink& sink,
                   Observer& observer) {
    const double dSpace = parameters.dSpace;
    const long dT = parameters.dTime.get_value();
    std::size_t clusterOrdinal = 0;
    std::size_t s = 0;
    while (sequence.has(s)) {
        sequence.discardBefore(s);
        PixelActivation predecessor = sequence[s];
        PixelActivationChain chain(predecessor);
        observer.assign(s, clusterOrdinal);
        std::size_t j = s + 1;
        for (; sequence.has(j); ++j) {
            const PixelActivation candidate = sequence[j];
            const bool linked = static_cast<double>(predecessor.calcDist_x_px(candidate)) < dSpace &&
                                static_cast<double>(predecessor.calcDist_y_px(candidate)) < dSpace &&
                                candidate.get_toa().get_value() - predecessor.get_toa().get_value() < dT;
            if (!linked) {
                break;
            }
            chain.add_pixelActivation_notFirst(candidate);
            observer.assign(j, clusterOrdinal);
            predecessor = candidate;
            sequence.discardBefore(j);
        }
        const double meanWeight = static_cast<double>(chain.weightSum / chain.nPx);
        if (accept_chain(chain, meanWeight, parameters)) {
            sink.push(photonEvent_fromChain(chain));
        }
        ++clusterOrdinal;
        s = j;
    }
}

/// One forward pass: every activation joins the chain of the most recent earlier activation within dTime
/// (inclusive) and dSpace (truncated to whole pixels, inclusive), or opens a chain; chains never merge. Photons
/// come from the chains in the order in which they were opened.
///
/// A chain can only grow through a member at most dTime before the new activation, so once the activation at
/// hand is more than dTime after a chain's latest member, that chain is complete. The chains are therefore
/// emitted from the front of the list as they complete, instead of all at the end: the same photons in the
/// same order, with only the open chains held.
template <typename Sequence, typename Sink, typename Observer>
void forwardChain_pixelBuildup(Sequence& sequence,
                               const ReconstructionParameters_PhotonEvents& parameters,
                               Sink& sink,
                               Observer& observer) {
    const short d = spaceLimit_px(parameters.dSpace);
    const long dT = parameters.dTime.get_value();
    struct OpenChain {
        PixelActivationChain chain;
        long latest_ticks;
    };
    std::deque<OpenChain> chains; // from chain number `firstOpen` on
    std::size_t firstOpen = 0;
    SlidingTable<std::size_t> chainOfPixel(0);
    const auto emit = [&](const OpenChain& open) {
        if (accept_chain(open.chain, static_cast<double>(open.chain.weightSum), parameters)) {
            sink.push(photonEvent_fromChain(open.chain));
        }
    };
    std::size_t oldestNeeded = 0; // the backward search never reads before this position
    for (std::size_t i = 0; sequence.has(i); ++i) {
        const PixelActivation P = sequence[i];
        const long ti = P.get_toa().get_value();
        while (!chains.empty() && ti > chains.front().latest_ticks + dT) {
            emit(chains.front());
            chains.pop_front();
            ++firstOpen;
        }
        // The search stops at the first position more than dTime before P; earlier ones are not needed.
        while (oldestNeeded + 1 < i && ti - sequence[oldestNeeded + 1].get_toa().get_value() > dT) {
            ++oldestNeeded;
        }
        sequence.discardBefore(oldestNeeded);
        chainOfPixel.discardBefore(oldestNeeded);

        std::optional<std::size_t> neighbour;
        for (std::size_t k = i; k-- > 0;) {
            const PixelActivation& Q = sequence[k];
            if (ti - Q.get_toa().get_value() > dT) {
                break;
            }
            if (PixelActivation::distSpace_smallerEqualThan(P, Q, d)) {
                neighbour = k;
                break;
            }
        }
        std::size_t chainNumber = 0;
        if (neighbour) {
            chainNumber = chainOfPixel.get(*neighbour);
            OpenChain& open = chains[chainNumber - firstOpen];
            open.chain.add_pixelActivation_notFirst(P);
            open.latest_ticks = ti;
        } else {
            chainNumber = firstOpen + chains.size();
            chains.push_back({PixelActivationChain(P), ti});
        }
        chainOfPixel.at(i) = chainNumber;
        observer.assign(i, chainNumber);
    }
    for (const auto& open : chains) {
        emit(open);
    }
}

} // namespace detail

/// Grows one cluster at a time from its seed: a later activation joins when it lies within dTime and the
/// distance dSpace (truncated to whole pixels, inclusive) of an activation already marked with the cluster's
/// number, tested once when the scan reaches it.
template <typename Observer = NoClusterObserver>
PhotonResult reconstruct_photonEvents_fullChain_direct(const Data_Tpx3Spidr& data,
                                                       const ReconstructionParameters_PhotonEvents& parameters,
                                                       Observer&& observer = Observer{}) {
    DataSetSequence sequence(data);
    VectorPhotonSink sink(data.size());
    detail::fullChain_direct(sequence, parameters, sink, observer);
    return detail::assemble_result(std::move(sink.photons), data, parameters);
}

/// Cuts the time order into runs of close neighbours in time order; see `detail::checkNextOnly`.
template <typename Observer = NoClusterObserver>
PhotonResult reconstruct_photonEvents_checkNextOnly(const Data_Tpx3Spidr& data,
                                                    const ReconstructionParameters_PhotonEvents& parameters,
                                                    Observer&& observer = Observer{}) {
    DataSetSequence sequence(data);
    VectorPhotonSink sink(data.size());
    detail::checkNextOnly(sequence, parameters, sink, observer);
    return detail::assemble_result(std::move(sink.photons), data, parameters);
}

/// Builds all chains in one forward pass; see `detail::forwardChain_pixelBuildup`.
template <typename Observer = NoClusterObserver>
PhotonResult reconstruct_photonEvents_forwardChain_pixelBuildup(const Data_Tpx3Spidr& data,
                                                                const ReconstructionParameters_PhotonEvents& parameters,
                                                                Observer&& observer = Observer{}) {
    DataSetSequence sequence(data);
    VectorPhotonSink sink(data.size());
    detail::forwardChain_pixelBuildup(sequence, parameters, sink, observer);
    return detail::assemble_result(std::move(sink.photons), data, parameters);
}

/// The library's default reconstruction: the full-chain search.
inline PhotonResult reconstruct_photonEvents(const Data_Tpx3Spidr& data,
                                             const ReconstructionParameters_PhotonEvents& parameters) {
    return reconstruct_photonEvents_fullChain_direct(data, parameters);
}

} // namespace kavot_tpx3spidr
