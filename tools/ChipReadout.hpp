#pragma once

// The readout of a detector's chips, streamed: each packet waits until its readout time, then joins the chunk
// its chip is filling; a chunk goes to the recording when it is full, or when its first packet has waited 1 ms
// (a quiet chip does not hold its hits back for long). So each chip's packets keep their readout order, and
// the chunks of the chips interleave as they fill, as a SPIDR readout writes them.

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <queue>
#include <vector>

#include "Random.hpp"

namespace tpx3gen {

class ChipReadout {
public:
    /// Readout before everything else: the packets a readout still holds from an earlier acquisition.
    static constexpr std::int64_t first_ticks = std::numeric_limits<std::int64_t>::min();
    /// A chunk leaves at the latest this long after the readout of its first packet.
    static constexpr std::int64_t maxHold_ticks = 640000; // 1 ms

    /// Chunks of 1 to `maxChunkPackets` packets (at most 8191, what the 16-bit byte count of a header holds);
    /// a packet given with `add_late` is read out up to `maxLag_ticks` after its time.
    ChipReadout(unsigned chips, unsigned maxChunkPackets, double maxLag_ticks, std::uint64_t seed)
        : chunks(chips), maxChunk(std::clamp<std::uint64_t>(maxChunkPackets, 1, 8191)), maxLag(maxLag_ticks),
          random(seed) {
        for (Chunk& chunk : chunks) {
            chunk.target = drawTarget();
        }
    }

    /// Lags as a real readout has them, with a long tail: most packets a few microseconds late (exponentially, a
    /// hundredth of the largest lag on average), one in a thousand up to the largest lag, like the hits of a busy
    /// chip (about half of them behind the packet before).
    void lag_withTail() { tailed = true; }

    /// A packet of `chip` from time `time_ticks`, read out after a random lag.
    void add_late(unsigned chip, std::int64_t time_ticks, std::uint64_t word) {
        double lag = random.uniform() * maxLag;
        if (tailed && random.uniform() >= 0.001) {
            lag = std::min(random.exponential(maxLag / 100), maxLag);
        }
        queue.push({time_ticks + static_cast<std::int64_t>(lag), order++, word, 0, chip, false});
    }
    /// Two packets of `chip` read out at `readout_ticks`, next to each other in one chunk (a global time).
    void add_pair(unsigned chip, std::int64_t readout_ticks, std::uint64_t first, std::uint64_t second) {
        assert(maxChunk >= 2);
        queue.push({readout_ticks, order++, first, second, chip, true});
    }

    /// Reads out every packet due at or before `ticks`. Nothing added later may be due before `ticks`.
    template <typename Write>
    void release_upTo(std::int64_t ticks, Write&& write) {
        while (!queue.empty() && queue.top().readout <= ticks) {
            const Waiting& packet = queue.top();
            closeHeld(packet.readout, write);
            Chunk& chunk = chunks[packet.chip];
            if (chunk.words.size() == 1) {
                chunk.openedAt = packet.readout;
            }
            // A global time's two halves never straddle chunks: the chunk closes early if the pair would not fit.
            if (packet.pair && chunk.words.size() + 2 > chunk.target + 1) {
                close(packet.chip, write);
                chunk.target = std::max<std::uint64_t>(chunk.target, 2);
            }
            chunk.words.push_back(packet.first);
            if (packet.pair) {
                chunk.words.push_back(packet.second);
            }
            if (chunk.words.size() == chunk.target + 1) {
                close(packet.chip, write);
            }
            queue.pop();
        }
        closeHeld(ticks, write);
    }

    /// Reads out everything still waiting and closes the chunks left open, chip by chip.
    template <typename Write>
    void finish(Write&& write) {
        release_upTo(std::numeric_limits<std::int64_t>::max(), write);
        for (unsigned chip = 0; chip < chunks.size(); ++chip) {
            close(chip, write);
        }
    }

    /// Packets added but not yet in a chunk that went to the recording.
    [[nodiscard]] std::size_t waiting() const noexcept {
        std::size_t open = 0;
        for (const Chunk& chunk : chunks) {
            open += chunk.words.size() - 1;
        }
        return queue.size() + open;
    }

private:
    struct Waiting {
        std::int64_t readout;
        std::uint64_t order; ///< ties in readout time go in the order added
        std::uint64_t first;
        std::uint64_t second;
        unsigned chip;
        bool pair;
    };
    struct Later {
        bool operator()(const Waiting& a, const Waiting& b) const noexcept {
            return a.readout != b.readout ? a.readout > b.readout : a.order > b.order;
        }
    };
    /// The chunk a chip is filling: its header's place, then its packets.
    struct Chunk {
        std::vector<std::uint64_t> words{0};
        std::uint64_t target = 1;
        std::int64_t openedAt = 0; ///< readout time of its first packet
    };

    std::uint64_t drawTarget() { return 1 + random.below(maxChunk); }

    /// Closes the chunks whose first packet was read out more than `maxHold_ticks` before `now`.
    template <typename Write>
    void closeHeld(std::int64_t now, Write& write) {
        for (unsigned chip = 0; chip < chunks.size(); ++chip) {
            // openedAt + maxHold_ticks: no overflow from `first_ticks`, and `now` is never that close to the top.
            if (chunks[chip].words.size() > 1 && now > chunks[chip].openedAt + maxHold_ticks) {
                close(chip, write);
            }
        }
    }

    template <typename Write>
    void close(unsigned chip, Write& write) {
        Chunk& chunk = chunks[chip];
        const std::uint64_t packets = chunk.words.size() - 1;
        if (packets == 0) {
            return;
        }
        // "TPX3", the chip index, mode 0 and the size of the packets in bytes.
        chunk.words[0] = 0x33585054ULL | std::uint64_t{chip} << 32 | (packets * 8) << 48;
        write(chunk.words.data(), chunk.words.size());
        chunk.words.resize(1);
        chunk.target = drawTarget();
    }

    std::priority_queue<Waiting, std::vector<Waiting>, Later> queue;
    std::vector<Chunk> chunks;
    std::uint64_t maxChunk;
    double maxLag;
    Random random;
    bool tailed = false;
    std::uint64_t order = 0;
};

} // namespace tpx3gen
