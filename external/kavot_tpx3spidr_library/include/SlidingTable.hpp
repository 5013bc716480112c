#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

namespace kavot_tpx3spidr {

/// Values indexed by position in the time order, of which only a window [base, base + size) is kept: positions
/// are added at the end as they are reached, and those before a given position can be dropped once nothing
/// will read them again. Positions not yet written read as the fill value.
template <typename T>
class SlidingTable {
public:
    explicit SlidingTable(T fill_) : fill(fill_) {}

    [[nodiscard]] T get(std::size_t position) const {
        const std::size_t offset = position - base;
        return offset < items.size() ? items[offset] : fill;
    }

    T& at(std::size_t position) {
        const std::size_t offset = position - base;
        if (offset >= items.size()) {
            // Grown in steps, not by the one position a scan has just reached: positions are written in
            // ascending order, and a resize per position would cost a call each.
            items.resize(std::max(offset + 1, 2 * items.size() + 64), fill);
        }
        return items[offset];
    }

    /// Drops the positions before `position`. The kept values move to the front only when the dropped part is
    /// large and at least half of the table, so every value moves a bounded number of times.
    void discardBefore(std::size_t position) {
        if (position <= base) {
            return;
        }
        const std::size_t drop = position - base < items.size() ? position - base : items.size();
        if (drop >= 4096 && 2 * drop >= items.size()) {
            items.erase(items.begin(), items.begin() + static_cast<std::ptrdiff_t>(drop));
            base += drop;
        }
    }

private:
    std::vector<T> items;
    std::size_t base = 0;
    T fill;
};

} // namespace kavot_tpx3spidr
