#include "ReplacingFile.hpp"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

// The temporary files of the process, for the signal handler: a path is written before its flag is set, and
// the handler reads only flagged paths.
constexpr int maxTemporary = 8;
std::array<std::array<char, PATH_MAX>, maxTemporary> temporaryPaths{};
std::array<volatile std::sig_atomic_t, maxTemporary> temporaryUsed{};

constexpr std::array stopSignals{SIGINT, SIGTERM, SIGHUP};

// What each stop signal did before the handler below took it over.
std::array<struct sigaction, stopSignals.size()> previousActions{};

extern "C" void removeTemporaryAndStop(int signal, siginfo_t* info, void* context) {
    std::size_t k = 0;
    while (k + 1 < stopSignals.size() && stopSignals[k] != signal) {
        ++k;
    }
    // A program that embeds the run and handles the signal itself (Python turns Ctrl-C into KeyboardInterrupt)
    // keeps its handler: it ends the run at the next checkpoint, and unwinding the run removes the files.
    const struct sigaction& previous = previousActions[k];
    if ((previous.sa_flags & SA_SIGINFO) != 0) {
        previous.sa_sigaction(signal, info, context);
        return;
    }
    if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN) {
        previous.sa_handler(signal);
        return;
    }
    ReplacingFile::remove_allTemporary();
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

void installHandlers() {
    static const bool installed = [] {
        struct sigaction action {};
        action.sa_sigaction = removeTemporaryAndStop;
        action.sa_flags = SA_SIGINFO | SA_RESTART;
        sigemptyset(&action.sa_mask);
        for (std::size_t k = 0; k < stopSignals.size(); ++k) {
            sigaction(stopSignals[k], &action, &previousActions[k]);
        }
        return true;
    }();
    (void)installed;
}

/// Blocks the stop signals while it lives, so that a temporary file is never without its entry in the list:
/// a signal that arrives meanwhile is handled when the block ends.
class StopSignalsBlocked {
public:
    StopSignalsBlocked() {
        sigset_t stop;
        sigemptyset(&stop);
        for (const int signal : stopSignals) {
            sigaddset(&stop, signal);
        }
        pthread_sigmask(SIG_BLOCK, &stop, &previous);
    }
    StopSignalsBlocked(const StopSignalsBlocked&) = delete;
    StopSignalsBlocked& operator=(const StopSignalsBlocked&) = delete;
    ~StopSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &previous, nullptr); }

private:
    sigset_t previous{};
};

int registerTemporary(const std::string& path) {
    for (int slot = 0; slot < maxTemporary; ++slot) {
        if (temporaryUsed[static_cast<std::size_t>(slot)] == 0 && path.size() < PATH_MAX) {
            std::memcpy(temporaryPaths[static_cast<std::size_t>(slot)].data(), path.c_str(), path.size() + 1);
            temporaryUsed[static_cast<std::size_t>(slot)] = 1;
            return slot;
        }
    }
    return -1; // not expected (a run has two such files at most); the file is then only removed on failures
}

void unregisterTemporary(int slot) noexcept {
    if (slot >= 0) {
        temporaryUsed[static_cast<std::size_t>(slot)] = 0;
    }
}

/// The path a symbolic link finally leads to (which may not exist yet); the path itself when it is no link.
fs::path followLinks(fs::path path) {
    for (int hops = 0; hops < 40; ++hops) {
        std::error_code error;
        if (!fs::is_symlink(path, error)) {
            break;
        }
        const fs::path target = fs::read_symlink(path, error);
        if (error) {
            break;
        }
        path = target.is_absolute() ? target : path.parent_path() / target;
    }
    return path;
}

/// A temporary file without a name, in the system's temporary folder: it vanishes when it is closed.
int unnamedTemporary() {
    const std::string folder = fs::temp_directory_path().string();
    int fd = ::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (fd < 0) { // a file system without unnamed files: name one and remove the name at once
        std::string pattern = folder + "/vundrel.XXXXXX";
        fd = ::mkostemp(pattern.data(), O_CLOEXEC);
        if (fd >= 0) {
            ::unlink(pattern.c_str());
        }
    }
    return fd;
}

bool copyAll(int from, int to) {
    if (::lseek(from, 0, SEEK_SET) != 0) {
        return false;
    }
    char buffer[1 << 16];
    for (;;) {
        const ssize_t got = ::read(from, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            return false;
        }
        if (got == 0) {
            return true;
        }
        for (ssize_t done = 0; done < got;) {
            const ssize_t put = ::write(to, buffer + done, static_cast<std::size_t>(got - done));
            if (put < 0 && errno == EINTR) {
                continue;
            }
            if (put <= 0) {
                return false;
            }
            done += put;
        }
    }
}

} // namespace

ReplacingFile::ReplacingFile(const std::string& path, dev_t input_device, ino_t input_inode) {
    const auto cannotOpen = [&] { return std::invalid_argument("Unable to open output file \"" + path + "\" !"); };
    struct stat existing {};
    const bool exists = ::stat(path.c_str(), &existing) == 0;
    const bool isInput = exists && existing.st_dev == input_device && existing.st_ino == input_inode;
    destination = isInput ? path : followLinks(path).string();
    if (exists && S_ISDIR(existing.st_mode)) {
        throw cannotOpen();
    }
    // New files get the usual permissions; an existing file keeps its own, as when it is overwritten in place.
    const mode_t mask = ::umask(0);
    ::umask(mask);
    const mode_t mode = exists ? (existing.st_mode & 07777) : (0666 & ~mask);

    if (exists && !S_ISREG(existing.st_mode)) {
        // Opened without blocking, so that a FIFO nobody reads is refused instead of waiting for a reader.
        direct = ::open(destination.c_str(), O_WRONLY | O_CLOEXEC | O_NONBLOCK);
        if (direct < 0) {
            throw cannotOpen();
        }
        ::fcntl(direct, F_SETFL, ::fcntl(direct, F_GETFL) & ~O_NONBLOCK);
        temporary = unnamedTemporary();
        if (temporary < 0) {
            ::close(direct);
            throw cannotOpen();
        }
        return;
    }
    const fs::path target(destination);
    std::string pattern = (target.parent_path() / ("." + target.filename().string() + ".XXXXXX")).string();
    installHandlers();
    {
        const StopSignalsBlocked blocked;
        temporary = ::mkostemp(pattern.data(), O_CLOEXEC);
        if (temporary < 0) {
            throw cannotOpen();
        }
        temporaryPath = pattern;
        slot = registerTemporary(temporaryPath);
    }
    ::fchmod(temporary, mode);
}

ReplacingFile::~ReplacingFile() {
    discard();
}

bool ReplacingFile::commit() {
    bool done = false;
    if (direct >= 0) {
        done = copyAll(temporary, direct);
        done = ::close(direct) == 0 && done;
        direct = -1;
    } else {
        done = ::fdatasync(temporary) == 0;
        done = ::close(temporary) == 0 && done;
        temporary = -1;
        done = done && ::rename(temporaryPath.c_str(), destination.c_str()) == 0;
        if (done) {
            temporaryPath.clear();
        }
    }
    discard();
    return done;
}

void ReplacingFile::remove_allTemporary() noexcept {
    for (std::size_t slot = 0; slot < maxTemporary; ++slot) {
        if (temporaryUsed[slot] != 0) {
            ::unlink(temporaryPaths[slot].data());
        }
    }
}

void ReplacingFile::discard() noexcept {
    if (temporary >= 0) {
        ::close(temporary);
        temporary = -1;
    }
    if (direct >= 0) {
        ::close(direct);
        direct = -1;
    }
    if (!temporaryPath.empty()) {
        ::unlink(temporaryPath.c_str());
        temporaryPath.clear();
    }
    unregisterTemporary(slot);
    slot = -1;
}
