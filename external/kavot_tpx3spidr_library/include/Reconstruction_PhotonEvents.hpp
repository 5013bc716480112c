#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <vector>

#include "Data_PhotonEvents.hpp"
#include "PhotonEvent.hpp"
#include "PixelActivationChain.hpp"
#include "ReconstructionParameters_PhotonEvents.hpp"
#include "Tpx3DataSet.hpp"

namespace kavot_tpx3spidr {

using PhotonEvent_type = kavot::PhotonEvent<Length, Time>;
using PhotonResult = kavot::Data_PhotonEvents<PhotonEvent_type>;

/// Sees which cluster every position of the time order joins; the reconstruction itself does not need it.
/// `cluster` numbers the clusters in the order in which they were opened, from 0.
struct NoClusterObserver {
    void assign(std::size_t /*position*/, std::size_t /*cluster*/) const noexcept {}
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

/// The photon list is reserved for one photon per activation, the most any algorithm can produce, so it never
/// reallocates. Reserved but unwritten memory costs no physical pages, so only the photons found are paid for.
inline std::vector<PhotonEvent_type> reserved_photonList(std::size_t n) {
    std::vector<PhotonEvent_type> photons;
    photons.reserve(n);
    return photons;
}

/// The full-chain search. A candidate at position j is linked when some position k in the window [k0, kend)
/// carries the cluster number c and lies within d of it, where kend is the first position later than
/// t_j + dTime and k0 is found by stepping back from j - 1 while k > i (the seed) and the position before k is
/// not earlier than t_j - dTime. Only existence matters, so instead of walking the window the positions that carry
/// c are tested against its bounds: k >= k0 holds exactly when k >= i and (k >= j - 1 or t_k >= t_j - dTime),
/// since times do not decrease with the position; k < kend exactly when t_k <= t_j + dTime. Positions carrying c
/// are the members of the current cluster and those of the rejected clusters just before it (a rejected cluster
/// leaves its number to the next one); those before the seed can never be in a window again.
template <typename Mark, typename Observer>
PhotonResult fullChain_direct(const Data_Tpx3Spidr& data,
                              const ReconstructionParameters_PhotonEvents& parameters,
                              Observer& observer) {
    const std::size_t N = data.size();
    std::vector<PhotonEvent_type> photons = reserved_photonList(N);
    // The cluster number of a position, or `unmarked`. Cluster numbers count accepted photons, so they stay
    // below N and fit the narrowest type that can also hold the `unmarked` value.
    constexpr Mark unmarked = std::numeric_limits<Mark>::max();
    std::vector<Mark> clusterOfPixel(N, unmarked);
    const short d = spaceLimit_px(parameters.dSpace);
    const long dT = parameters.dTime.get_value();
    std::size_t clusterOrdinal = 0;
    std::vector<std::size_t> carryingC; // positions at or after the seed marked with the current number
    Mark currentC = unmarked;

    for (std::size_t i = 0; i < N; ++i) {
        if (clusterOfPixel[i] != unmarked) {
            continue;
        }
        const Mark c = static_cast<Mark>(photons.size());
        if (c != currentC) {
            carryingC.clear();
            currentC = c;
        } else {
            std::erase_if(carryingC, [i](std::size_t k) { return k < i; });
        }
        const PixelActivation& seed = data[i];
        PixelActivationChain chain(seed);
        clusterOfPixel[i] = c;
        carryingC.push_back(i);
        observer.assign(i, clusterOrdinal);
        long horizon = seed.get_toa().get_value() + dT;

        for (std::size_t j = i + 1; j < N; ++j) {
            const PixelActivation& candidate = data[j];
            const long tj = candidate.get_toa().get_value();
            if (tj > horizon) {
                break;
            }
            if (clusterOfPixel[j] != unmarked) {
                continue;
            }
            const long lower = tj - dT;
            const long upper = tj + dT;
            bool linked = false;
            for (const std::size_t k : carryingC) {
                const PixelActivation& other = data[k];
                const long tk = other.get_toa().get_value();
                if ((k + 1 >= j || tk >= lower) && tk <= upper &&
                    PixelActivation::distSpace_smallerEqualThan(other, candidate, d)) {
                    linked = true;
                    break;
                }
            }
            if (linked) {
                chain.add_pixelActivation_notFirst(candidate);
                clusterOfPixel[j] = c;
                carryingC.push_back(j);
                observer.assign(j, clusterOrdinal);
                horizon = std::max(horizon, upper);
            }
        }
        if (accept_chain(chain, static_cast<double>(chain.weightSum), parameters)) {
            photons.push_back(photonEvent_fromChain(chain));
        }
        ++clusterOrdinal;
    }
    return assemble_result(std::move(photons), data, parameters);
}

} // namespace detail

/// Grows one cluster at a time from its seed: a later activation joins when it lies within dTime and the
/// distance dSpace (truncated to whole pixels, inclusive) of an activation already marked with the cluster's
/// number, tested once when the scan reaches it.
template <typename Observer = NoClusterObserver>
PhotonResult reconstruct_photonEvents_fullChain_direct(const Data_Tpx3Spidr& data,
                                                       const ReconstructionParameters_PhotonEvents& parameters,
                                                       Observer&& observer = Observer{}) {
    if (data.size() < std::numeric_limits<std::uint32_t>::max()) {
        return detail::fullChain_direct<std::uint32_t>(data, parameters, observer);
    }
    return detail::fullChain_direct<std::uint64_t>(data, parameters, observer);
}

/// Cuts the time order into runs in which every activation lies within dSpace in x and in y (strictly, on the
/// unrounded distance) and strictly less than dTime after its predecessor; bounds the mean weight.
///
/// Positions are counted in `std::size_t`, so data sets of any size are handled.
template <typename Observer = NoClusterObserver>
PhotonResult reconstruct_photonEvents_checkNextOnly(const Data_Tpx3Spidr& data,
                                                    const ReconstructionParameters_PhotonEvents& parameters,
                                                    Observer&& observer = Observer{}) {
    const std::size_t N = data.size();
    std::vector<PhotonEvent_type> photons = detail::reserved_photonList(N);
    const double dSpace = parameters.dSpace;
    const long dT = parameters.dTime.get_value();
    std::size_t clusterOrdinal = 0;
    std::size_t s = 0;
    while (s < N) {
        const PixelActivation* predecessor = &data[s];
        PixelActivationChain chain(*predecessor);
        observer.assign(s, clusterOrdinal);
        std::size_t j = s + 1;
        while (j < N) {
            const PixelActivation& candidate = data[j];
            const bool linked = static_cast<double>(predecessor->calcDist_x_px(candidate)) < dSpace &&
                                static_cast<double>(predecessor->calcDist_y_px(candidate)) < dSpace &&
                                candidate.get_toa().get_value() - predecessor->get_toa().get_value() < dT;
            if (!linked) {
                break;
            }
            chain.add_pixelActivation_notFirst(candidate);
            observer.assign(j, clusterOrdinal);
            predecessor = &candidate;
            ++j;
        }
        const double meanWeight = static_cast<double>(chain.weightSum / chain.nPx);
        if (detail::accept_chain(chain, meanWeight, parameters)) {
            photons.push_back(detail::photonEvent_fromChain(chain));
        }
        ++clusterOrdinal;
        s = j;
    }
    return detail::assemble_result(std::move(photons), data, parameters);
}

/// One forward pass: every activation joins the chain of the most recent earlier activation within dTime
/// (inclusive) and dSpace (truncated to whole pixels, inclusive), or opens a chain. Chains never merge.
template <typename Observer = NoClusterObserver>
PhotonResult reconstruct_photonEvents_forwardChain_pixelBuildup(const Data_Tpx3Spidr& data,
                                                                const ReconstructionParameters_PhotonEvents& parameters,
                                                                Observer&& observer = Observer{}) {
    const std::size_t N = data.size();
    const short d = spaceLimit_px(parameters.dSpace);
    const long dT = parameters.dTime.get_value();
    std::vector<PixelActivationChain> chains;
    chains.reserve(N);
    // The chain of each placed position, as its place in `chains`: equivalent to a reference, since the
    // chain list never reallocates.
    std::vector<std::size_t> chainOfPixel(N);
    for (std::size_t i = 0; i < N; ++i) {
        const PixelActivation& P = data[i];
        const long ti = P.get_toa().get_value();
        std::optional<std::size_t> neighbour;
        for (std::size_t k = i; k-- > 0;) {
            const PixelActivation& Q = data[k];
            if (ti - Q.get_toa().get_value() > dT) {
                break;
            }
            if (PixelActivation::distSpace_smallerEqualThan(P, Q, d)) {
                neighbour = k;
                break;
            }
        }
        if (neighbour) {
            chainOfPixel[i] = chainOfPixel[*neighbour];
            chains[chainOfPixel[i]].add_pixelActivation_notFirst(P);
        } else {
            chainOfPixel[i] = chains.size();
            chains.emplace_back(P);
        }
        observer.assign(i, chainOfPixel[i]);
    }
    std::vector<PhotonEvent_type> photons;
    photons.reserve(chains.size());
    for (const auto& chain : chains) {
        if (detail::accept_chain(chain, static_cast<double>(chain.weightSum), parameters)) {
            photons.push_back(detail::photonEvent_fromChain(chain));
        }
    }
    return detail::assemble_result(std::move(photons), data, parameters);
}

/// The library's default reconstruction: the full-chain search.
inline PhotonResult reconstruct_photonEvents(const Data_Tpx3Spidr& data,
                                             const ReconstructionParameters_PhotonEvents& parameters) {
    return reconstruct_photonEvents_fullChain_direct(data, parameters);
}

} // namespace kavot_tpx3spidr
