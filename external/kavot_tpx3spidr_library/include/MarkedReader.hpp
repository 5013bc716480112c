#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "PixelActivation.hpp"

namespace kavot_tpx3spidr::fullChainSearch {

/// What the full-chain search knows of a position: free, or taken by a cluster. A cluster marks its members
/// `current`: they carry the number of the next photon, as every cluster since the last accepted one does (a
/// rejected cluster leaves its number to the next). When a cluster is accepted, the number moves on and the
/// search turns its `current` marks into `taken` (`settle`); so a mark is `current` exactly when it carries the
/// number of the cluster at hand, and one byte holds what the numbers told.
/// Not a character type: its stores alias nothing else.
enum class Mark : std::uint8_t { free, taken, current };

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

    /// Positions before `position` will not be read again. The sequence hears of it when it is next asked for
    /// more, which is the only time it can act on it.
    void discardBefore(std::size_t position) noexcept { keepFrom = position; }

    /// Turns the `current` marks of positions [from, to] into `taken`: the number they carry has been used.
    void settle(std::size_t from, std::size_t to) noexcept {
        for (std::size_t position = from; position <= to; ++position) {
            Mark& m = mark(position);
            m = m == Mark::current ? Mark::taken : m;
        }
    }

private:
    [[gnu::noinline]] bool reach(std::size_t position) {
        sequence.discardBefore(keepFrom);
        // The sequence may move what it holds even when it has nothing more, so the view is taken anew either way.
        const bool found = sequence.has(position);
        marks.erase(marks.begin(), marks.begin() + static_cast<std::ptrdiff_t>(keepFrom - firstPosition));
        end = sequence.readableEnd();
        first = keepFrom < end ? &sequence[keepFrom] : nullptr;
        firstPosition = keepFrom;
        marks.resize(end - firstPosition, Mark::free);
        return found;
    }

    Sequence& sequence;
    const PixelActivation* first = nullptr;
    std::size_t firstPosition = 0;
    std::size_t end = 0;      ///< positions [firstPosition, end) are read through `first` and `marks`
    std::size_t keepFrom = 0; ///< the last discard point: nothing before it is read
    std::vector<Mark> marks;
};

} // namespace kavot_tpx3spidr::fullChainSearch
