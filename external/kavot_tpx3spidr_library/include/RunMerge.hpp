#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "PixelActivation.hpp"
#include "Spill.hpp"

namespace kavot_tpx3spidr {

/// The time a record is ordered by, and a record to fill buffers with, for the records `RunMerge` merges.
[[nodiscard]] inline long timeOf(const PixelActivation& activation) noexcept {
    return activation.get_toa().get_value();
}
[[nodiscard]] inline long timeOf(Time time) noexcept {
    return time.get_value();
}
[[nodiscard]] inline PixelActivation blankRecord(std::type_identity<PixelActivation> /*record*/) noexcept {
    return PixelActivation(0, 0, Time(0), 0);
}
[[nodiscard]] inline Time blankRecord(std::type_identity<Time> /*record*/) noexcept {
    return Time(0);
}

/// Grows `records` to at least `size` with blank records, its memory by doubling. The vector's own fill (`resize`
/// with a value) copies an activation through the stack one at a time, at about 6 ns each (g++ 12); these are
/// copied from a block of blanks, as memmove copies.
template <typename Record>
void grow_blank(std::vector<Record>& records, std::size_t size) {
    constexpr std::size_t block = 1024;
    static const std::vector<Record> blanks(block, blankRecord(std::type_identity<Record>{}));
    if (size > records.capacity()) {
        records.reserve(std::max(size, 2 * records.capacity()));
    }
    while (records.size() < size) {
        const std::size_t more = std::min(block, size - records.size());
        records.insert(records.end(), blanks.begin(), blanks.begin() + static_cast<std::ptrdiff_t>(more));
    }
}

/// Merges runs of records (activations, or plain times), each in stable time order and each holding later file
/// positions than the runs added before it, into the stable time order of all of them: the smallest time first,
/// and among equal times the run added first.
///
/// Activations are released only up to a bound given by the caller: the smallest time that any activation not
/// yet added can have. An activation not later than the bound that is first among all the runs is first among
/// everything still to come (a later run has no earlier time and, with an equal time, a later file position), so
/// what is released is a prefix of the order of the whole recording.
///
/// Runs wait in memory up to a limit. Beyond it, the runs in memory are merged into one run in a temporary file
/// (they are the newest, and together they keep their place in the order of runs), which is read back a window
/// at a time. Every `fanIn` files of one generation are merged into one of the next, so that a recording of any
/// size and disorder is merged from a few dozen files at most, each activation written about log_fanIn(n / limit)
/// times.
template <typename Record>
class RunMerge {
public:
    /// Without a folder, everything is held in memory.
    RunMerge() = default;
    RunMerge(std::string spillFolder_, std::size_t memoryLimit_hits)
        : spillFolder(std::move(spillFolder_)), memoryLimit(memoryLimit_hits) {}

    void add_run(std::vector<Record>&& activations) {
        if (activations.empty()) {
            return;
        }
        memoryHits += activations.size();
        runs.push_back(Run{std::move(activations), 0, std::nullopt, 0, 0, 0});
        if (!spillFolder.empty() && memoryHits > memoryLimit) {
            spill();
        }
    }

    [[nodiscard]] bool empty() const noexcept { return runs.empty(); }

    /// The memory of the largest run in memory used up so far (its old records still in it), to fill with the next
    /// run: a new run then costs no fresh pages.
    [[nodiscard]] std::vector<Record> take_spare() noexcept { return std::move(spare); }

    /// Appends to `out`, in order, at most `most` of the activations that precede all others still held and are
    /// not later than `bound`. Returns how many.
    std::size_t
    release(long bound, std::vector<Record>& out, std::size_t most = std::numeric_limits<std::size_t>::max()) {
        return merge(0, runs.size(), bound, most,
                     [&](const Record* first, const Record* last) { out.insert(out.end(), first, last); });
    }

private:
    static constexpr std::size_t fanIn = 16;
    static constexpr std::size_t window_hits = 4096; ///< read at a time from a run in a file

    /// A run, in memory (`buffer` is all of it) or in a file (`buffer` is the window read last).
    struct Run {
        std::vector<Record> buffer;
        std::size_t cursor;
        std::optional<SpillFile> file;
        std::uint64_t fileHits;
        std::uint64_t fileNext; ///< the first activation of the file not yet in the buffer
        unsigned generation;    ///< of a run in a file: how many merges of files it went through

        [[nodiscard]] long next() const noexcept { return timeOf(buffer[cursor]); }
        /// How many of the buffered activations from the cursor on are earlier than `limit`, or not later with
        /// `inclusive`: searched by doubling steps from the cursor, as it is usually a few.
        [[nodiscard]] std::size_t countUpTo(long limit, bool inclusive) const noexcept {
            const auto within = [&](std::size_t k) {
                const long time = timeOf(buffer[k]);
                return inclusive ? time <= limit : time < limit;
            };
            std::size_t low = cursor; // every position before it is within
            std::size_t step = 1;
            while (low + step <= buffer.size() && within(low + step - 1)) {
                low += step;
                step *= 2;
            }
            std::size_t high = std::min(buffer.size(), low + step); // not within at high - 1, or the end
            while (low < high) {
                const std::size_t middle = low + (high - low) / 2;
                if (within(middle)) {
                    low = middle + 1;
                } else {
                    high = middle;
                }
            }
            return low - cursor;
        }
        /// Reads the next window of a file once the buffer is used up. False when nothing is left.
        bool ready() {
            if (cursor == buffer.size() && file && fileNext < fileHits) {
                buffer.resize(static_cast<std::size_t>(std::min<std::uint64_t>(window_hits, fileHits - fileNext)),
                              blankRecord(std::type_identity<Record>{}));
                file->read(fileNext * sizeof(Record), buffer.data(), buffer.size() * sizeof(Record));
                fileNext += buffer.size();
                cursor = 0;
            }
            return cursor < buffer.size();
        }
    };

    /// Merges runs [first, last), handing `out(begin, end)` ranges of activations in order, at most `most` of
    /// them and none later than `bound`; drops the runs it used up. Returns how many it handed over.
    ///
    /// The runs wait in a heap ordered by their next activation, ties to the older run. The top run hands over
    /// everything up to the next activation of the run below it: up to and including it when that run is newer,
    /// strictly before it when it is older.
    template <typename Out>
    std::size_t merge(std::size_t first, std::size_t last, long bound, std::size_t most, Out&& out) {
        heap.clear();
        for (std::size_t r = first; r < last; ++r) {
            if (runs[r].ready()) {
                heap.push_back({runs[r].next(), r, &runs[r]});
            }
        }
        std::make_heap(heap.begin(), heap.end(), Waiting::later);
        std::size_t handed = 0;
        while (handed < most && !heap.empty()) {
            std::pop_heap(heap.begin(), heap.end(), Waiting::later);
            const Waiting top = heap.back();
            heap.pop_back();
            // Up to the bound, and up to the next run's next activation (included when that run is newer).
            long upTo = bound;
            bool inclusive = true;
            if (!heap.empty() && heap.front().next <= upTo) {
                upTo = heap.front().next;
                inclusive = heap.front().index > top.index;
            }
            Run& run = *top.run;
            const std::size_t n = std::min(run.countUpTo(upTo, inclusive), most - handed);
            if (n == 0) {
                break; // the first activation of all is later than the bound
            }
            const Record* begin = run.buffer.data() + run.cursor;
            out(begin, begin + n);
            handed += n;
            run.cursor += n;
            if (!run.file) {
                memoryHits -= n;
            }
            if (run.ready()) {
                heap.push_back({run.next(), top.index, &run});
                std::push_heap(heap.begin(), heap.end(), Waiting::later);
            }
        }
        for (std::size_t r = last; r-- > first;) {
            if (!runs[r].ready()) {
                if (!runs[r].file && runs[r].buffer.capacity() > spare.capacity()) {
                    spare = std::move(runs[r].buffer);
                }
                runs.erase(runs.begin() + static_cast<std::ptrdiff_t>(r));
            }
        }
        return handed;
    }

    /// Merges runs [first, last) into one run in a new file of the given generation, in their place.
    void mergeIntoFile(std::size_t first, std::size_t last, unsigned generation) {
        SpillFile file(spillFolder);
        std::vector<Record> batch;
        batch.reserve(window_hits);
        std::uint64_t written = 0;
        const auto flush = [&] {
            file.append(batch.data(), batch.size() * sizeof(Record));
            written += batch.size();
            batch.clear();
        };
        merge(first, last, std::numeric_limits<long>::max(), std::numeric_limits<std::size_t>::max(),
              [&](const Record* from, const Record* to) {
                  for (; from != to; ++from) {
                      batch.push_back(*from);
                      if (batch.size() == window_hits) {
                          flush();
                      }
                  }
              });
        flush();
        // Every run of the range was used up and dropped: the merged one takes their place.
        runs.insert(runs.begin() + static_cast<std::ptrdiff_t>(first),
                    Run{{}, 0, std::move(file), written, 0, generation});
    }

    /// Puts the runs in memory (the newest ones, at the end) into one file; then merges every `fanIn` files of
    /// one generation at the end into one of the next.
    void spill() {
        std::size_t firstInMemory = runs.size();
        while (firstInMemory > 0 && !runs[firstInMemory - 1].file) {
            --firstInMemory;
        }
        mergeIntoFile(firstInMemory, runs.size(), 0);
        memoryHits = 0;
        for (;;) {
            const std::size_t n = runs.size();
            if (n < fanIn) {
                return;
            }
            const unsigned generation = runs[n - 1].generation;
            bool sameGeneration = true;
            for (std::size_t r = n - fanIn; r < n; ++r) {
                sameGeneration = sameGeneration && runs[r].file && runs[r].generation == generation;
            }
            if (!sameGeneration) {
                return;
            }
            mergeIntoFile(n - fanIn, n, generation + 1);
        }
    }

    std::string spillFolder;
    std::size_t memoryLimit = std::numeric_limits<std::size_t>::max();
    std::size_t memoryHits = 0;
    /// A run in the heap of `merge`: its next time, its place in the order of runs (the older first on ties).
    struct Waiting {
        long next;
        std::size_t index;
        Run* run;
        static bool later(const Waiting& a, const Waiting& b) noexcept {
            return a.next > b.next || (a.next == b.next && a.index > b.index);
        }
    };

    std::deque<Run> runs;      ///< oldest first: those in files, then those in memory
    std::vector<Waiting> heap; ///< of `merge`, kept to reuse its memory
    std::vector<Record> spare; ///< see `take_spare`
};

/// The activations of a recording's blocks merged into its time order.
using HitMerge = RunMerge<PixelActivation>;

} // namespace kavot_tpx3spidr
