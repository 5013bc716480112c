#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <tuple>
#include <type_traits>
#include <vector>

#include "FileWindows.hpp"
#include "Tpx3InputFile.hpp"
#include "Tpx3Packet.hpp"

namespace kavot_tpx3spidr {

/// Checks the chunk that starts at word `header` of a stream of `size` words: it must start with "TPX3"
/// (checked first: the size field of a word that is no header means nothing) and end within the data. Returns
/// the word index just past the chunk.
[[nodiscard]] inline std::uint64_t
chunkEnd_checked(std::uint64_t headerWord, std::uint64_t header, std::uint64_t size) {
    if (!tpx3::is_chunkHeader(headerWord)) {
        throw std::logic_error("Invalid header entry!");
    }
    const std::uint64_t end = header + 1 + tpx3::chunkWords(headerWord);
    if (end > size) {
        throw std::logic_error("End of data reached before block is complete!");
    }
    return end;
}

namespace detail {

/// Calls `onChunk`; a chunk handler that returns a bool ends the walk by returning false.
template <typename OnChunk>
bool continueAfter(OnChunk& onChunk, const std::uint64_t* first, const std::uint64_t* last, std::uint64_t header) {
    if constexpr (std::is_same_v<decltype(onChunk(first, last, header)), bool>) {
        return onChunk(first, last, header);
    } else {
        onChunk(first, last, header);
        return true;
    }
}

} // namespace detail

/// Calls `onChunk(first, last, headerIndex)` with the packet words of every chunk of words in memory, in order,
/// and the word index of the chunk's header; from the chunk at word `from` on (a chunk header).
template <typename OnChunk>
void for_eachChunk_tpx3(const std::uint64_t* data, std::size_t size, OnChunk&& onChunk, std::uint64_t from = 0) {
    std::uint64_t i = from;
    while (i < size) {
        const std::uint64_t end = chunkEnd_checked(data[i], i, size);
        if (!detail::continueAfter(onChunk, data + i + 1, data + end, i)) {
            return;
        }
        i = end;
    }
}

/// The largest chunk in words, header included: the size field counts at most 65535 bytes.
constexpr std::size_t maxChunk_words = 1 + 0xFFFF / 8;

/// Calls `onChunk(first, last, headerIndex)` for every chunk of a file, in order, with the packet words of the
/// chunk and the word index of its header (a handler returning a bool ends the walk with false); from the chunk at
/// word `from` on (a chunk header). The file is read in windows of about `window_words`, so memory does not grow
/// with the file; `beforeRefill()` is called before the window's words move, are overwritten or freed at the end of
/// the walk (a handler may keep pointers into it until then). With `readAhead` the windows are read on a thread
/// of their own while the handler works (see `WindowsReadAhead`). A file in memory (a small one, see
/// `Tpx3InputFile`) is walked in place, as one window. A file whose size is no multiple of 8 bytes is refused
/// first.
template <typename OnChunk, typename BeforeRefill = void (*)()>
void for_eachChunk_tpx3(
    const Tpx3InputFile& file,
    OnChunk&& onChunk,
    std::size_t window_words = std::size_t{1} << 20,
    std::uint64_t from = 0,
    BeforeRefill&& beforeRefill = [] {},
    bool readAhead = false) {
    if (file.size_bytes() % 8 != 0) {
        throw std::logic_error("File contains incomplete lines!");
    }
    if (const std::uint64_t* words = file.words_inMemory()) {
        // Where the file was cut, the walk read zeros: whatever the handler made of them, the file changed.
        try {
            for_eachChunk_tpx3(words, file.size_words(), onChunk, from);
            beforeRefill();
        } catch (...) {
            if (!file.cut()) {
                throw;
            }
        }
        if (file.cut()) {
            throw file.changed();
        }
        return;
    }
    const std::uint64_t size = file.size_words();
    // No larger than the file: a small recording needs no window of several MiB.
    const auto stretch = static_cast<std::size_t>(std::min<std::uint64_t>(window_words, size - std::min(from, size)));
    const auto walk = [&](auto&& windows) {
        const std::uint64_t* window = nullptr;
        std::uint64_t windowStart = from; // word index of window[0]
        std::size_t filled = 0;
        std::size_t at = 0;
        while (windowStart + at < size) {
            while (at == filled || at + 1 + tpx3::chunkWords(window[at]) > filled) {
                // Not a whole chunk left in the window: keep the rest and read on behind it (read ahead in
                // stretches shorter than the chunk, more than once). At the end of the file the check below
                // refuses the cut chunk.
                beforeRefill();
                windowStart += at;
                const std::size_t keep = filled - at;
                std::tie(window, filled) = windows.next(window + at, keep);
                at = 0;
                if (filled == keep) {
                    break;
                }
            }
            const std::uint64_t header = windowStart + at;
            const std::uint64_t end = chunkEnd_checked(window[at], header, size);
            if (!detail::continueAfter(onChunk, window + at + 1, window + (end - windowStart), header)) {
                break;
            }
            at = static_cast<std::size_t>(end - windowStart);
        }
        beforeRefill();
    };
    if (readAhead && size > from + stretch) {
        std::optional<WindowsReadAhead> ahead;
        try {
            ahead.emplace(file, from, stretch, maxChunk_words);
        } catch (const std::system_error&) {
            // No thread to be had (a process at its limit): the file is read on this one, as with one CPU.
        }
        if (ahead) {
            walk(*ahead);
            return;
        }
    }
    walk(WindowsInPlace(file, from, stretch + maxChunk_words));
}

} // namespace kavot_tpx3spidr
