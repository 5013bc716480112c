#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "RunMerge.hpp"
#include "Spill.hpp"
#include "Units.hpp"

namespace kavot_tpx3spidr {

/// The trigger times of a recording in ascending order, each once: several chips can carry the same trigger,
/// which then has the same time on each. `found` in any order; sorted a run of `runValues` at a time and merged,
/// through temporary files in `spillFolder` where there are many (kept in memory without one), so memory stays
/// bounded whatever the number of triggers.
[[nodiscard]] inline SpillingList<Time> sorted_triggers(const SpillingList<Time>& found,
                                                        const std::string& spillFolder,
                                                        std::size_t runValues = std::size_t{1} << 20) {
    RunMerge<Time> merge = spillFolder.empty() ? RunMerge<Time>() : RunMerge<Time>(spillFolder, runValues);
    std::vector<Time> run;
    const auto addRun = [&] {
        std::sort(run.begin(), run.end());
        run.erase(std::unique(run.begin(), run.end()), run.end());
        merge.add_run(std::move(run));
        run = {};
    };
    found.for_each([&](Time time) {
        run.push_back(time);
        if (run.size() == runValues) {
            addRun();
        }
    });
    addRun();
    SpillingList<Time> sorted = spillFolder.empty() ? SpillingList<Time>() : SpillingList<Time>(spillFolder, runValues);
    std::optional<Time> last;
    std::vector<Time> step;
    while (!merge.empty()) {
        step.clear();
        merge.release(std::numeric_limits<long>::max(), step, runValues);
        for (const Time time : step) {
            if (!last || time != *last) {
                sorted.push_back(time);
                last = time;
            }
        }
    }
    return sorted;
}

/// The latest trigger at or before each of a series of times that do not decrease (photon times in time order),
/// read from ascending trigger times a window at a time.
class LatestTrigger {
public:
    explicit LatestTrigger(const SpillingList<Time>& sorted_) : sorted(sorted_) {}

    /// The index (in `sorted`) and the time of the latest trigger at or before `time`; none before the first.
    [[nodiscard]] std::optional<std::pair<std::uint64_t, long>> at(long time) {
        while (next < sorted.size() && peek() <= time) {
            latest = {next, peek()};
            ++next;
        }
        return latest;
    }

private:
    static constexpr std::size_t window = 4096;

    [[nodiscard]] long peek() {
        if (next < windowStart || next >= windowStart + buffer.size()) {
            windowStart = next;
            buffer.resize(std::min(window, sorted.size() - next), Time(0));
            sorted.read(windowStart, buffer.size(), buffer.data());
        }
        return buffer[next - windowStart].get_value();
    }

    const SpillingList<Time>& sorted;
    std::vector<Time> buffer;
    std::size_t windowStart = 0;
    std::size_t next = 0;
    std::optional<std::pair<std::uint64_t, long>> latest;
};

} // namespace kavot_tpx3spidr
