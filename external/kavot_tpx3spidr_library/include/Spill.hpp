#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "FileTransfer.hpp"

namespace kavot_tpx3spidr {

/// A temporary file of the run's own, for data that does not fit in memory: a file without a name in the given
/// folder, which vanishes when it is closed, also when the process is killed. Failures (a full disk, a folder
/// that cannot be written) end the run with one error line.
class SpillFile {
public:
    explicit SpillFile(const std::string& folder_) : folder(folder_) {
        fd = ::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
        if (fd < 0) { // a file system without unnamed files: name one and remove the name at once
            std::string pattern = folder + "/.vundrel-spill.XXXXXX";
            fd = ::mkostemp(pattern.data(), O_CLOEXEC);
            if (fd >= 0) {
                ::unlink(pattern.c_str());
            }
        }
        if (fd < 0) {
            throw failed();
        }
    }
    SpillFile(SpillFile&& other) noexcept
        : folder(std::move(other.folder)), fd(std::exchange(other.fd, -1)), size(other.size) {}
    SpillFile& operator=(SpillFile&& other) noexcept {
        std::swap(folder, other.folder);
        std::swap(fd, other.fd);
        std::swap(size, other.size);
        return *this;
    }
    SpillFile(const SpillFile&) = delete;
    SpillFile& operator=(const SpillFile&) = delete;
    ~SpillFile() {
        if (fd >= 0) {
            ::close(fd);
        }
    }

    [[nodiscard]] std::uint64_t size_bytes() const noexcept { return size; }

    void append(const void* bytes, std::size_t n) {
        const auto* from = static_cast<const char*>(bytes);
        if (!transfer_all(n, [&](std::size_t done) {
                return ::pwrite(fd, from + done, n - done, static_cast<off_t>(size + done));
            })) {
            throw failed();
        }
        size += n;
    }

    /// Keeps the first `bytes` bytes and drops the rest.
    void truncate(std::uint64_t bytes) {
        if (::ftruncate(fd, static_cast<off_t>(bytes)) != 0) {
            throw failed();
        }
        size = bytes;
    }

    void read(std::uint64_t offset, void* bytes, std::size_t n) const {
        auto* to = static_cast<char*>(bytes);
        if (!transfer_all(n, [&](std::size_t done) {
                return ::pread(fd, to + done, n - done, static_cast<off_t>(offset + done));
            })) {
            throw failed();
        }
    }

private:
    [[nodiscard]] std::invalid_argument failed() const {
        return std::invalid_argument("Unable to write temporary file in \"" + folder + "\" !");
    }

    std::string folder;
    int fd = -1;
    std::uint64_t size = 0;
};

/// Values appended in order and read back in order: the first `memoryLimit` in memory, the rest in a temporary
/// file in `folder` (never, without a folder).
template <typename T>
class SpillingList {
public:
    SpillingList() = default;
    SpillingList(std::string folder_, std::size_t memoryLimit_)
        : folder(std::move(folder_)), memoryLimit(memoryLimit_) {}

    void push_back(const T& value) {
        if (!folder.empty() && inMemory.size() >= memoryLimit) {
            if (!file) {
                file.emplace(folder);
            }
            file->append(inMemory.data(), inMemory.size() * sizeof(T));
            spilled += inMemory.size();
            inMemory.clear();
        }
        inMemory.push_back(value);
    }

    [[nodiscard]] std::size_t size() const noexcept { return spilled + inMemory.size(); }

    /// Keeps the first `count` values and drops the rest.
    void truncate(std::size_t count) {
        if (count >= spilled) {
            const std::size_t keep = std::min(inMemory.size(), count - spilled);
            inMemory.erase(inMemory.begin() + static_cast<std::ptrdiff_t>(keep), inMemory.end());
            return;
        }
        file->truncate(count * sizeof(T));
        spilled = count;
        inMemory.clear();
    }

    /// Calls `consume(value)` for every value, in order.
    template <typename Consume>
    void for_each(Consume&& consume) const {
        std::vector<T> batch;
        for (std::size_t at = 0; at < spilled; at += batch.size()) {
            batch.resize(std::min(memoryLimit, spilled - at), inMemory.empty() ? T(0) : inMemory.front());
            file->read(at * sizeof(T), batch.data(), batch.size() * sizeof(T));
            std::for_each(batch.begin(), batch.end(), consume);
        }
        std::for_each(inMemory.begin(), inMemory.end(), consume);
    }

    /// Reads the `count` values from position `from` on (within the list) into `destination`.
    void read(std::size_t from, std::size_t count, T* destination) const {
        if (from < spilled) {
            const std::size_t fromFile = std::min(count, spilled - from);
            file->read(from * sizeof(T), destination, fromFile * sizeof(T));
            from += fromFile;
            count -= fromFile;
            destination += fromFile;
        }
        std::copy_n(inMemory.begin() + static_cast<std::ptrdiff_t>(from - spilled), count, destination);
    }

    /// All values in one vector (for lists that live in memory anyway).
    [[nodiscard]] std::vector<T> to_vector() && {
        if (spilled == 0) {
            return std::move(inMemory);
        }
        return static_cast<const SpillingList&>(*this).to_vector();
    }
    [[nodiscard]] std::vector<T> to_vector() const& {
        std::vector<T> all;
        all.reserve(size());
        for_each([&](const T& value) { all.push_back(value); });
        return all;
    }

private:
    std::string folder;
    std::size_t memoryLimit = 0;
    std::vector<T> inMemory;
    std::optional<SpillFile> file; ///< from the first value spilled on
    std::size_t spilled = 0;
};

} // namespace kavot_tpx3spidr
