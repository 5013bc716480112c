#pragma once

// A file mapped into memory for reading, guarded against the file being cut while it is mapped.
//
// Reading a mapped page beyond the end of a file that was cut raises a bus error. The guard catches it: the pages
// of the mapping from the faulting one on are replaced with pages of zeros, the mapping is marked cut, and the
// read goes on, reading zeros. Whoever reads the mapping asks `cut()` when done (and whenever an error comes up
// while reading) and reports the file as changed. Bus errors at other addresses go to the handler that was there
// before (or end the process, as they would have). A handler installed for bus errors after the first mapping
// takes them over: a file cut while mapped then ends the process, as any bus error would.

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>

#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace kavot_tpx3spidr {

namespace detail {

/// A mapping the guard acts for, written under a sequence count (odd while it changes) so that the handler,
/// which cannot wait, reads either a whole entry or none.
struct GuardedRange {
    std::atomic<unsigned> sequence{0};
    std::atomic<std::uintptr_t> begin{0}; ///< 0: a free entry
    std::atomic<std::uintptr_t> end{0};
    std::atomic<std::atomic<bool>*> cut{nullptr};
};

struct Guard {
    std::array<GuardedRange, 64> ranges;
    std::mutex changing; ///< taken to change an entry (never by the handler)
    struct sigaction previous {};
    std::uintptr_t pageSize = 4096;
    bool installed = false;
};

inline Guard guard;

inline void onBusError(int signal, siginfo_t* info, void* context) {
    const auto address = reinterpret_cast<std::uintptr_t>(info->si_addr);
    for (GuardedRange& range : guard.ranges) {
        const unsigned before = range.sequence.load();
        const std::uintptr_t begin = range.begin.load();
        const std::uintptr_t end = range.end.load();
        std::atomic<bool>* cut = range.cut.load();
        if (before % 2 == 1 || range.sequence.load() != before || begin == 0 || address < begin || address >= end) {
            continue;
        }
        // The system call itself: the library's wrapper may be watched by tools that do not expect it here.
        const std::uintptr_t page = address & ~(guard.pageSize - 1);
        ::syscall(SYS_mmap, page, end - page, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
        cut->store(true, std::memory_order_relaxed);
        return;
    }
    const struct sigaction& previous = guard.previous;
    if ((previous.sa_flags & SA_SIGINFO) != 0 && previous.sa_sigaction != nullptr) {
        previous.sa_sigaction(signal, info, context);
    } else if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN) {
        previous.sa_handler(signal);
    } else {
        // The fault repeats on return, now with the default action: the process ends as it would have.
        struct sigaction fallback {};
        fallback.sa_handler = SIG_DFL;
        ::sigaction(SIGBUS, &fallback, nullptr);
    }
}

} // namespace detail

/// `length` bytes of a file from its start, mapped read-only and guarded; `words()` is null when the mapping
/// could not be made (no guard entry left, no address space, no handler), and the file is then to be read.
class GuardedMapping {
public:
    GuardedMapping(int fd, std::size_t length_) : length(length_) {
        if (length == 0) {
            return;
        }
        detail::Guard& guard = detail::guard;
        const std::lock_guard<std::mutex> lock(guard.changing);
        if (!guard.installed) {
            guard.pageSize = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
            struct sigaction action {};
            action.sa_sigaction = detail::onBusError;
            action.sa_flags = SA_SIGINFO;
            sigemptyset(&action.sa_mask);
            if (::sigaction(SIGBUS, &action, &guard.previous) != 0) {
                return;
            }
            guard.installed = true;
        }
        for (detail::GuardedRange& range : guard.ranges) {
            if (range.begin.load(std::memory_order_relaxed) != 0) {
                continue;
            }
            // Filled in before its pages can be read: a fault on the first read finds it.
            void* mapped = ::mmap(nullptr, length, PROT_READ, MAP_SHARED | MAP_POPULATE, fd, 0);
            if (mapped == MAP_FAILED) {
                return;
            }
            base = mapped;
            entry = &range;
            write(reinterpret_cast<std::uintptr_t>(base), reinterpret_cast<std::uintptr_t>(base) + length, &cutFlag);
            return;
        }
    }
    GuardedMapping(const GuardedMapping&) = delete;
    GuardedMapping& operator=(const GuardedMapping&) = delete;
    ~GuardedMapping() {
        if (entry != nullptr) {
            const std::lock_guard<std::mutex> lock(detail::guard.changing);
            write(0, 0, nullptr);
            ::munmap(base, length);
        }
    }

    [[nodiscard]] const std::uint64_t* words() const noexcept { return static_cast<const std::uint64_t*>(base); }
    /// Some page was found beyond the end of the file: what was read from there on were zeros.
    [[nodiscard]] bool cut() const noexcept { return cutFlag.load(std::memory_order_relaxed); }

private:
    /// Sequentially consistent throughout (an entry changes twice a run): a handler that read any field of a
    /// change then reads the count it changed.
    void write(std::uintptr_t begin, std::uintptr_t end, std::atomic<bool>* cut) noexcept {
        const unsigned sequence = entry->sequence.load();
        entry->sequence.store(sequence + 1);
        entry->begin.store(begin);
        entry->end.store(end);
        entry->cut.store(cut);
        entry->sequence.store(sequence + 2);
    }

    std::size_t length;
    void* base = nullptr;
    detail::GuardedRange* entry = nullptr;
    std::atomic<bool> cutFlag{false};
};

} // namespace kavot_tpx3spidr
