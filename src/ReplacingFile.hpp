#pragma once

#include <string>

#include <sys/types.h>

/// A file the run writes (the photon file, the image) that appears at its path complete or not at all, and
/// never by writing into the input. The rules, in one place:
///  - The bytes go to a temporary file in the directory of the destination, which `commit` flushes and renames
///    over the destination. A failed or interrupted run removes the temporary file (also on SIGINT and SIGTERM)
///    and leaves whatever was at the path as it was; a killed one leaves at most a temporary file beside it.
///  - A symbolic link at the path is followed: the file replaces the link's target, as writing through the
///    link would. Except when the path is the input itself under another name (a symbolic link to it, or a hard
///    link): then the name is replaced and the input keeps its bytes.
///  - A destination that exists and is no regular file (a device, a FIFO) cannot be renamed over: the file is
///    put together in a temporary file elsewhere and copied into it at `commit`.
///  - A destination that is a directory is refused with "Unable to open output file".
class ReplacingFile {
public:
    /// `input_device` and `input_inode` identify the input, which the file must never replace through a link.
    ReplacingFile(const std::string& path, dev_t input_device, ino_t input_inode);
    ReplacingFile(const ReplacingFile&) = delete;
    ReplacingFile& operator=(const ReplacingFile&) = delete;
    ~ReplacingFile();

    /// Where to write: a seekable file, empty at first.
    [[nodiscard]] int fd() const noexcept { return temporary; }
    /// Its name, for writers that open a file by name; empty where it has none (a destination that is no
    /// regular file is put together in a file without a name).
    [[nodiscard]] const std::string& writingPath() const noexcept { return temporaryPath; }
    /// Flushes the written bytes and puts them at the destination. False if that failed; the temporary file is
    /// then removed and the destination left as it was.
    [[nodiscard]] bool commit();

    /// Removes every temporary file of the process at once: for a signal handler (uses async-signal-safe
    /// calls only).
    static void remove_allTemporary() noexcept;

private:
    void discard() noexcept;

    std::string destination;
    std::string temporaryPath; ///< empty when the temporary file has no name (it vanishes when closed)
    int temporary = -1;
    int direct = -1; ///< the destination itself, open for writing, when it is no regular file
    int slot = -1;   ///< its entry in the list of temporary files to remove on a signal
};
