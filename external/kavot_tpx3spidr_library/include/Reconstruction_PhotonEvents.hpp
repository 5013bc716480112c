#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "PhotonEvents.hpp"
#include "PixelActivationChain.hpp"
#include "ReconstructionParameters_PhotonEvents.hpp"
#include "SlidingTable.hpp"
#include "Tpx3DataSet.hpp"
#include "WideCode.hpp"

namespace kavot_tpx3spidr {

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
///   readableEnd()     positions from the last discardBefore up to this one exist and lie next to each other in
///                     memory, where they stay until a call of has for a position at or after it
class DataSetSequence {
public:
    explicit DataSetSequence(const Data_Tpx3Spidr& data_) noexcept : data(data_) {}
    [[nodiscard]] bool has(std::size_t position) const noexcept { return position < data.size(); }
    [[nodiscard]] const PixelActivation& operator[](std::size_t position) const { return data[position]; }
    void discardBefore(std::size_t /*position*/) const noexcept {}
    [[nodiscard]] std::size_t readableEnd() const noexcept { return data.size(); }

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

    /// Positions [first, end) as plain arrays, valid until the next `has` for a position at or after `end`.
    struct Span {
        const PixelActivation* activations;
        Flag* flags;
        std::size_t first;
        std::size_t end;
    };
    [[nodiscard]] Span span() noexcept { return {first, flags.data(), firstPosition, end}; }
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

/// One algorithm over a whole data set: `search(sequence, sink)` fills the sink, which is reserved for one
/// photon per activation; the result carries the triggers when asked for.
template <typename Search>
[[nodiscard]] PhotonResult reconstruct_dataSet(const Data_Tpx3Spidr& data,
                                               const ReconstructionParameters_PhotonEvents& parameters,
                                               Search&& search) {
    DataSetSequence sequence(data);
    VectorPhotonSink sink(data.size());
    search(sequence, sink);
    auto triggers = parameters.TDC1 ? std::optional<std::vector<Time>>(std::in_place, data.get_tdc1Triggers())
                                    : std::optional<std::vector<Time>>();
    return PhotonResult(std::move(sink.photons), std::move(triggers));
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
///  - On processors with 512-bit vectors the members are held as lanes of registers, and a candidate is tested
///    against all of them at once (see `FullChainLanes`); a scan the lanes cannot hold goes on the portable way.
///  - The activations and the flags are read through plain arrays (`FlaggedReader`), the sequence being asked
///    for more only at their end.
enum class FullChainMark : std::uint8_t { free, taken }; // not a character type: its stores alias nothing else

/// A position that carries the current cluster number, with what the link test reads of it.
struct FullChainMember {
    long toa;
    std::int64_t x;
    std::int64_t y;
    std::size_t position;
};

/// The link test of the full-chain search: some member lies within dTime and the distance d of the candidate.
[[nodiscard]] inline bool links(const std::vector<FullChainMember>& members,
                                const PixelActivation& candidate,
                                long dT,
                                std::int64_t dSquared) noexcept {
    const long tj = candidate.get_toa().get_value();
    const long lower = tj - dT;
    const long upper = tj + dT;
    const std::int64_t xj = candidate.get_x_px();
    const std::int64_t yj = candidate.get_y_px();
    for (const FullChainMember& member : members) {
        const std::int64_t dx = member.x - xj;
        const std::int64_t dy = member.y - yj;
        if (static_cast<int>(member.toa >= lower) & static_cast<int>(member.toa <= upper) &
            static_cast<int>(dx * dx + dy * dy <= dSquared)) {
            return true;
        }
    }
    return false;
}

/// Where the scan of a seed stands: the next position to look at, the horizon, and the first candidate left
/// unmarked so far (0 for none: no seed lies at position 0 after the first).
struct FullChainScan {
    std::size_t j;
    long horizon;
    std::size_t firstFree;
};

/// Scans on from `scan.j` the portable way, with `members` holding the cluster so far; `scan.j` ends at the
/// position that ended the scan.
template <typename Reader, typename Observer>
void fullChain_scan(Reader& sequence,
                    FullChainScan& scan,
                    std::vector<FullChainMember>& members,
                    PixelActivationChain& chain,
                    long dT,
                    std::int64_t dSquared,
                    Observer& observer,
                    std::size_t clusterOrdinal) {
    for (; sequence.has(scan.j); ++scan.j) {
        const std::size_t j = scan.j;
        const PixelActivation candidate = sequence[j];
        const long tj = candidate.get_toa().get_value();
        if (tj > scan.horizon) {
            break;
        }
        if (sequence.flag(j) == FullChainMark::taken) {
            continue;
        }
        if (links(members, candidate, dT, dSquared)) {
            chain.add_pixelActivation_notFirst(candidate);
            sequence.flag(j) = FullChainMark::taken;
            members.push_back({tj, candidate.get_x_px(), candidate.get_y_px(), j});
            observer.assign(j, clusterOrdinal);
            scan.horizon = std::max(scan.horizon, tj + dT);
        } else if (scan.firstFree == 0) {
            scan.firstFree = j;
        }
    }
}

#ifdef KAVOT_WIDE_CODE
/// The members of the full-chain search as sixteen lanes of 32-bit integers: times relative to the seed's
/// and the pixel as two 16-bit halves. A candidate is tested against every occupied lane at once:
///   |t_m - t_j| <= dT        as |r_m - r_j| <= dT on relative times r. The horizon starts dT after the seed
///                            and each of at most sixteen joining members moves it by at most dT, so with
///                            dT <= 2^26 every candidate lies within 17 * 2^26 < 2^31 after the seed. Members
///                            kept from a rejected cluster lie between the new seed and the old horizon, as
///                            close (and no others are taken over).
///   dx^2 + dy^2 <= d^2       as one multiply-add of 16-bit differences: coordinates in [0, 32767] differ by
///                            at most 32767, so the sum (below 2^31) is exact, and d^2 is at most 2^30.
/// The values are exactly those of the portable test, so the same candidates link. Where a scan no longer
/// fits (a seventeenth member, a negative coordinate), the lanes hand their members over and the scan goes on
/// the portable way from the same candidate.
class FullChainLanes {
public:
    static constexpr unsigned lanes = 16;
    static constexpr long dTimeLimit = 1L << 26;

    /// Whether the settings fit the lanes at all.
    [[nodiscard]] static bool usable(long dT) noexcept { return dT >= 0 && dT <= dTimeLimit; }

    /// `dSquared` is the square of a 16-bit distance, at most 2^30.
    FullChainLanes(long dT_, std::int64_t dSquared_) noexcept
        : dT(dT_), dSquared(static_cast<std::int32_t>(dSquared_)) {}

    /// Starts the cluster of a seed at time `seedTime_`: with no members, or with those of the previous
    /// (rejected) cluster at or after the seed's position i.
    void restart(std::size_t i, long seedTime_, bool keepMembers) noexcept {
        unsigned kept = 0;
        // Members are kept only where the new seed lay within the old horizon: the shift is then at most 17 dT.
        const auto shift = static_cast<std::int32_t>(seedTime - seedTime_);
        for (unsigned k = 0; keepMembers && k < count; ++k) {
            if (positions[k] >= i) {
                times[kept] = times[k] + shift;
                pixels[kept] = pixels[k];
                positions[kept] = positions[k];
                ++kept;
            }
        }
        count = kept;
        seedTime = seedTime_;
    }

    /// Takes over `members` (positions at or after the seed, at time `seedTime_`) when they fit, emptying it.
    [[nodiscard]] bool take(std::vector<FullChainMember>& members, long seedTime_) noexcept {
        if (members.size() >= lanes) {
            return false;
        }
        for (const auto& member : members) {
            if (member.toa - seedTime_ > 17 * dT || !fits(static_cast<short>(member.x), static_cast<short>(member.y))) {
                return false;
            }
        }
        count = 0;
        seedTime = seedTime_;
        for (const auto& member : members) {
            times[count] = static_cast<std::int32_t>(member.toa - seedTime_);
            pixels[count] = packed(static_cast<short>(member.x), static_cast<short>(member.y));
            positions[count] = member.position;
            ++count;
        }
        members.clear();
        return true;
    }

    /// Hands the members over to `members` (empty before).
    void give(std::vector<FullChainMember>& members) const {
        for (unsigned k = 0; k < count; ++k) {
            members.push_back({seedTime + times[k], pixels[k] & 0xFFFF, pixels[k] >> 16, positions[k]});
        }
    }

    /// Whether a pixel fits the lanes: both coordinates in [0, 32767].
    [[nodiscard]] static bool fits(short x, short y) noexcept { return (x | y) >= 0; }

    /// Scans seed i (at the time of the last restart, the seed not yet a member) like `fullChain_scan`. Returns
    /// false where the scan no longer fits, with `scan` and `chain` as far as it got; the members are then
    /// ready to be handed over.
    template <typename Reader>
    [[gnu::target(KAVOT_WIDE_TARGET)]] bool
    scan(Reader& sequence, std::size_t i, PixelActivationChain& chain, FullChainScan& state) {
        const PixelActivation seed = sequence[i];
        // Kept in locals while scanning: the stores into the lane arrays could otherwise alias the count, and
        // the chain and the state live behind references.
        unsigned n = count;
        PixelActivationChain grown = chain;
        long horizon = seedTime + dT;
        std::size_t firstFree = 0;
        std::size_t j = i + 1;
        __m512i laneTimes = _mm512_setzero_si512();
        __m512i lanePixels = _mm512_setzero_si512();
        if (n != 0) [[unlikely]] {
            // Members carried over from a rejected cluster (most clusters start empty, and then nothing is
            // loaded that the last scan has just stored).
            laneTimes = _mm512_maskz_loadu_epi32(occupiedLanes(n), times);
            lanePixels = _mm512_maskz_loadu_epi32(occupiedLanes(n), pixels);
        }
        const __m512i dTLanes = _mm512_set1_epi32(static_cast<std::int32_t>(dT));
        const __m512i dSquaredLanes = _mm512_set1_epi32(dSquared);
        constexpr __mmask16 allLanes = 0xFFFF; // the plain abs leaves an undefined source that g++ 12 warns about
        bool fitted = n < lanes && fits(seed.get_x_px(), seed.get_y_px());
        lastCarried = n;
        if (fitted) {
            add(laneTimes, lanePixels, n, 0, packed(seed.get_x_px(), seed.get_y_px()), i);
        }
        bool scanning = fitted;
        // The inner loop runs over the positions at hand and calls nothing, so that its values stay in registers;
        // the sequence decodes more between its runs.
        while (scanning && sequence.has(j)) {
            const auto at = sequence.span();
            for (; j < at.end; ++j) {
                const PixelActivation candidate = at.activations[j - at.first];
                const long tj = candidate.get_toa().get_value();
                if (tj > horizon) {
                    scanning = false;
                    break;
                }
                if (at.flags[j - at.first] == FullChainMark::taken) {
                    continue;
                }
                const short xj = candidate.get_x_px();
                const short yj = candidate.get_y_px();
                if (!fits(xj, yj)) [[unlikely]] {
                    fitted = false;
                    scanning = false;
                    break;
                }
                const auto time = static_cast<std::int32_t>(tj - seedTime);
                const std::int32_t pixel = packed(xj, yj);
                const __m512i dt = _mm512_sub_epi32(laneTimes, _mm512_set1_epi32(time));
                const __m512i dxy = _mm512_sub_epi16(lanePixels, _mm512_set1_epi32(pixel));
                const __mmask16 inTime =
                    _mm512_mask_cmple_epu32_mask(occupiedLanes(n), _mm512_mask_abs_epi32(dt, allLanes, dt), dTLanes);
                const __mmask16 near = _mm512_mask_cmple_epi32_mask(inTime, _mm512_madd_epi16(dxy, dxy), dSquaredLanes);
                if (near != 0) {
                    if (n == lanes) [[unlikely]] {
                        fitted = false;
                        scanning = false;
                        break;
                    }
                    grown.add_pixelActivation_notFirst(candidate);
                    at.flags[j - at.first] = FullChainMark::taken;
                    add(laneTimes, lanePixels, n, time, pixel, j);
                    horizon = std::max(horizon, tj + dT);
                } else if (firstFree == 0) {
                    firstFree = j;
                }
            }
        }
        count = n;
        chain = grown;
        state = {j, horizon, firstFree};
        return fitted;
    }

    /// The positions that joined in the last scan, the seed first.
    [[nodiscard]] const std::size_t* joinedBegin() const noexcept { return positions + lastCarried; }
    [[nodiscard]] const std::size_t* joinedEnd() const noexcept { return positions + count; }

private:
    /// A new member, in lane n and in the arrays that keep the lanes between scans.
    [[gnu::target(KAVOT_WIDE_TARGET), gnu::always_inline]] void add(__m512i& laneTimes,
                                                                    __m512i& lanePixels,
                                                                    unsigned& n,
                                                                    std::int32_t time,
                                                                    std::int32_t pixel,
                                                                    std::size_t position) noexcept {
        const auto lane = static_cast<__mmask16>(1U << n);
        laneTimes = _mm512_mask_set1_epi32(laneTimes, lane, time);
        lanePixels = _mm512_mask_set1_epi32(lanePixels, lane, pixel);
        times[n] = time;
        pixels[n] = pixel;
        positions[n] = position;
        ++n;
    }

    [[nodiscard]] static __mmask16 occupiedLanes(unsigned n) noexcept { return static_cast<__mmask16>((1U << n) - 1); }

    [[nodiscard]] static std::int32_t packed(short x, short y) noexcept {
        return static_cast<std::int32_t>(static_cast<std::uint32_t>(x) | (static_cast<std::uint32_t>(y) << 16));
    }

    long dT;
    std::int32_t dSquared;
    long seedTime = 0;
    unsigned count = 0;
    unsigned lastCarried = 0;
    alignas(64) std::int32_t times[lanes] = {};
    alignas(64) std::int32_t pixels[lanes] = {};
    std::size_t positions[lanes] = {};
};
#endif

/// The full-chain search; `wide` holds the members in lanes where they fit (see `FullChainLanes`).
template <bool wide, typename Sequence, typename Sink, typename Observer>
void fullChain_search(Sequence& activations,
                      const ReconstructionParameters_PhotonEvents& parameters,
                      Sink& sink,
                      Observer& observer) {
    FlaggedReader<Sequence, FullChainMark> sequence(activations);
    const std::int64_t d = spaceLimit_px(parameters.dSpace);
    const std::int64_t dSquared = d * d;
    const long dT = parameters.dTime.get_value();
    std::vector<FullChainMember> members; // positions at or after the seed that carry the current cluster number
#ifdef KAVOT_WIDE_CODE
    FullChainLanes lanes(dT, dSquared);
    bool inLanes = wide; // the members are held by `lanes`, not by `members`
#endif
    bool previousAccepted = true;
    std::size_t clusterOrdinal = 0;
    std::size_t i = 0;
    for (;;) {
        while (sequence.has(i) && sequence.flag(i) == FullChainMark::taken) {
            ++i;
        }
        if (!sequence.has(i)) {
            break;
        }
        sequence.discardBefore(i);
        const PixelActivation seed = sequence[i];
        PixelActivationChain chain(seed);
        FullChainScan scan{i + 1, seed.get_toa().get_value() + dT, 0};
        bool scanned = false;
        bool seedIsMember = false;
        if (previousAccepted) {
            members.clear();
        } else {
            std::erase_if(members, [i](const FullChainMember& member) { return member.position < i; });
        }
#ifdef KAVOT_WIDE_CODE
        if constexpr (wide) {
            const long seedTime = seed.get_toa().get_value();
            if (inLanes || previousAccepted) {
                lanes.restart(i, seedTime, !previousAccepted);
                inLanes = true;
            } else {
                inLanes = lanes.take(members, seedTime);
            }
            if (inLanes) {
                scanned = lanes.scan(sequence, i, chain, scan);
                seedIsMember = lanes.joinedBegin() != lanes.joinedEnd();
                for (const std::size_t* p = lanes.joinedBegin(); p != lanes.joinedEnd(); ++p) {
                    observer.assign(*p, clusterOrdinal);
                }
                if (!scanned) {
                    lanes.give(members);
                    inLanes = false;
                }
            }
        }
#endif
        if (!scanned) {
            if (!seedIsMember) {
                members.push_back({seed.get_toa().get_value(), seed.get_x_px(), seed.get_y_px(), i});
                observer.assign(i, clusterOrdinal);
            }
            fullChain_scan(sequence, scan, members, chain, dT, dSquared, observer, clusterOrdinal);
        }
        previousAccepted = accept_chain(chain, static_cast<double>(chain.weightSum), parameters);
        if (previousAccepted) {
            sink.push(photonEvent_fromChain(chain));
        }
        ++clusterOrdinal;
        i = scan.firstFree != 0 ? scan.firstFree : scan.j;
    }
}

/// The full-chain search the portable way only; `fullChain_direct` gives the same result.
template <typename Sequence, typename Sink, typename Observer>
void fullChain_direct_portable(Sequence& activations,
                               const ReconstructionParameters_PhotonEvents& parameters,
                               Sink& sink,
                               Observer& observer) {
    fullChain_search<false>(activations, parameters, sink, observer);
}

template <typename Sequence, typename Sink, typename Observer>
void fullChain_direct(Sequence& activations,
                      const ReconstructionParameters_PhotonEvents& parameters,
                      Sink& sink,
                      Observer& observer) {
#ifdef KAVOT_WIDE_CODE
    if (FullChainLanes::usable(parameters.dTime.get_value()) && wideCode_supported()) {
        fullChain_search<true>(activations, parameters, sink, observer);
        return;
    }
#endif
    fullChain_search<false>(activations, parameters, sink, observer);
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
    return detail::reconstruct_dataSet(data, parameters, [&](DataSetSequence& sequence, VectorPhotonSink& sink) {
        detail::fullChain_direct(sequence, parameters, sink, observer);
    });
}

/// Cuts the time order into runs of close neighbours in time order; see `detail::checkNextOnly`.
template <typename Observer = NoClusterObserver>
PhotonResult reconstruct_photonEvents_checkNextOnly(const Data_Tpx3Spidr& data,
                                                    const ReconstructionParameters_PhotonEvents& parameters,
                                                    Observer&& observer = Observer{}) {
    return detail::reconstruct_dataSet(data, parameters, [&](DataSetSequence& sequence, VectorPhotonSink& sink) {
        detail::checkNextOnly(sequence, parameters, sink, observer);
    });
}

/// Builds all chains in one forward pass; see `detail::forwardChain_pixelBuildup`.
template <typename Observer = NoClusterObserver>
PhotonResult reconstruct_photonEvents_forwardChain_pixelBuildup(const Data_Tpx3Spidr& data,
                                                                const ReconstructionParameters_PhotonEvents& parameters,
                                                                Observer&& observer = Observer{}) {
    return detail::reconstruct_dataSet(data, parameters, [&](DataSetSequence& sequence, VectorPhotonSink& sink) {
        detail::forwardChain_pixelBuildup(sequence, parameters, sink, observer);
    });
}

/// The library's default reconstruction: the full-chain search.
inline PhotonResult reconstruct_photonEvents(const Data_Tpx3Spidr& data,
                                             const ReconstructionParameters_PhotonEvents& parameters) {
    return reconstruct_photonEvents_fullChain_direct(data, parameters);
}

} // namespace kavot_tpx3spidr
