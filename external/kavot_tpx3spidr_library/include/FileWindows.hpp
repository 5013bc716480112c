#pragma once

#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "ReadBuffer.hpp"
#include "ThreadWithoutSignals.hpp"
#include "Tpx3InputFile.hpp"

namespace kavot_tpx3spidr {

// A file walked from front to back in windows of words. A walk keeps the last words of a window that do not
// make a whole chunk and asks for the next window with them at its front: `next(kept, keep)` returns the new
// window (its first `keep` words are those at `kept`, the rest the file's next words) and its length. What a
// window held stays readable until the next call.

/// Windows read on the walk's own thread: the kept words move to the front of one buffer and the file's next
/// words are read behind them.
class WindowsInPlace {
public:
    WindowsInPlace(const Tpx3InputFile& file_, std::uint64_t from, std::size_t window_words)
        : file(file_), buffer(window_words), readEnd(from) {}

    [[nodiscard]] std::pair<const std::uint64_t*, std::size_t> next(const std::uint64_t* kept, std::size_t keep) {
        std::copy(kept, kept + keep, buffer.data());
        const auto more =
            static_cast<std::size_t>(std::min<std::uint64_t>(buffer.size() - keep, file.size_words() - readEnd));
        file.read_words(readEnd, more, buffer.data() + keep);
        readEnd += more;
        return {buffer.data(), keep + more};
    }

private:
    const Tpx3InputFile& file;
    ReadBuffer<std::uint64_t> buffer;
    std::uint64_t readEnd; ///< the word after the last one read
};

/// Windows read ahead on a thread of their own, into a ring of buffers: the walk's thread finds the next words
/// read while it worked on the last ones, and a walk costs about the larger of the reading and the work instead
/// of their sum (the reading copies every word out of the page cache: a third of a census). The words are
/// those `WindowsInPlace` gives, in windows of the same or a smaller size: the same walk. The reading thread
/// takes no signals; when none can be made, the constructor throws std::system_error.
class WindowsReadAhead {
public:
    /// `room_words` words the walk may keep (less than the largest chunk) lie in front of each stretch read.
    WindowsReadAhead(const Tpx3InputFile& file_, std::uint64_t from, std::size_t stretch_words_, std::size_t room_words)
        : file(file_), stretch_words(stretch_words_), room(room_words), start(from) {
        const std::uint64_t left = file.size_words() - std::min(from, file.size_words());
        stretches = static_cast<std::size_t>((left + stretch_words - 1) / stretch_words);
        for (auto& buffer : ring) {
            buffer.resize(room + static_cast<std::size_t>(std::min<std::uint64_t>(stretch_words, left)));
        }
        reader = kavot::thread_withoutSignals([this] { read(); });
    }
    WindowsReadAhead(const WindowsReadAhead&) = delete;
    WindowsReadAhead& operator=(const WindowsReadAhead&) = delete;
    ~WindowsReadAhead() {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            stop = true;
        }
        changed.notify_all();
        reader.join();
    }

    [[nodiscard]] std::pair<const std::uint64_t*, std::size_t> next(const std::uint64_t* kept, std::size_t keep) {
        if (taken == stretches) {
            // The file has no more words: the kept ones stay where they are.
            return {kept, keep};
        }
        {
            std::unique_lock<std::mutex> lock(mutex);
            changed.wait(lock, [&] { return ready > taken || error; });
            if (error && ready <= taken) {
                std::rethrow_exception(error);
            }
        }
        std::uint64_t* window = ring[taken % ring.size()].data() + room - keep;
        std::copy(kept, kept + keep, window);
        const std::size_t length = keep + lengthOf(taken);
        {
            // The stretch before this one was left with the copy of the kept words: its buffer may be read into.
            const std::lock_guard<std::mutex> lock(mutex);
            ++taken;
        }
        changed.notify_all();
        return {window, length};
    }

private:
    [[nodiscard]] std::size_t lengthOf(std::size_t stretch) const noexcept {
        const std::uint64_t first = start + stretch * stretch_words;
        return static_cast<std::size_t>(std::min<std::uint64_t>(stretch_words, file.size_words() - first));
    }

    void read() {
        for (std::size_t stretch = 0; stretch < stretches; ++stretch) {
            {
                // The buffer of this stretch held the one ring.size() before; the walk is done with it once it
                // has taken the one after that.
                std::unique_lock<std::mutex> lock(mutex);
                changed.wait(lock, [&] { return stop || stretch + 1 < taken + ring.size(); });
                if (stop) {
                    return;
                }
            }
            try {
                file.read_words(start + stretch * stretch_words, lengthOf(stretch),
                                ring[stretch % ring.size()].data() + room);
            } catch (...) {
                const std::lock_guard<std::mutex> lock(mutex);
                error = std::current_exception();
                changed.notify_all();
                return;
            }
            {
                const std::lock_guard<std::mutex> lock(mutex);
                ready = stretch + 1;
            }
            changed.notify_all();
        }
    }

    const Tpx3InputFile& file;
    std::size_t stretch_words;
    std::size_t room;
    std::uint64_t start;
    std::size_t stretches = 0;
    std::vector<ReadBuffer<std::uint64_t>> ring = std::vector<ReadBuffer<std::uint64_t>>(4);
    std::mutex mutex;
    std::condition_variable changed;
    std::size_t ready = 0; ///< stretches read
    std::size_t taken = 0; ///< stretches given to the walk
    bool stop = false;
    std::exception_ptr error;
    std::thread reader; ///< last: it starts once everything above is there
};

} // namespace kavot_tpx3spidr
