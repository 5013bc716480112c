#pragma once

#include <cstddef>
#include <memory>

namespace kavot_tpx3spidr {

/// Storage for values that are written before they are read (words read from a file, bytes waiting to be
/// written): unlike a vector it does not zero what it allocates. Zeroing a reader's window of several MiB cost a
/// small recording most of its run, and a large one a pass over memory for nothing.
template <typename T>
class ReadBuffer {
public:
    ReadBuffer() = default;
    explicit ReadBuffer(std::size_t size_) : values(new T[size_]), count(size_), room(size_) {}

    /// Holds `size_` values of no particular content; grows (without keeping the old ones) only when it must.
    void resize(std::size_t size_) {
        if (size_ > room) {
            values.reset(new T[size_]);
            room = size_;
        }
        count = size_;
    }

    [[nodiscard]] T* data() noexcept { return values.get(); }
    [[nodiscard]] const T* data() const noexcept { return values.get(); }
    [[nodiscard]] std::size_t size() const noexcept { return count; }
    [[nodiscard]] T& operator[](std::size_t index) noexcept { return values[index]; }
    [[nodiscard]] const T& operator[](std::size_t index) const noexcept { return values[index]; }

private:
    std::unique_ptr<T[]> values;
    std::size_t count = 0;
    std::size_t room = 0;
};

} // namespace kavot_tpx3spidr
