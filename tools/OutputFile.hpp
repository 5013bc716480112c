#pragma once

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

namespace kavot_tool {

/// An output that appears complete or not at all: it is written under a temporary name in the same folder
/// (so that the final rename stays within one file system and is atomic) and renamed to its name by `commit`.
/// Until then, destruction removes the temporary file, so a failure part way leaves neither a partial file
/// nor a stray temporary one, and never touches an older file of the final name.
class OutputFile {
public:
    explicit OutputFile(std::string path_) : path(std::move(path_)), temporaryPath(path + ".partXXXXXX") {
        const int fd = ::mkstemp(temporaryPath.data());
        if (fd < 0) {
            throw std::invalid_argument("Unable to create a file beside \"" + path + "\": " + std::strerror(errno));
        }
        // mkstemp makes the file private to its owner; the output gets the permissions of any new file.
        const mode_t mask = ::umask(0);
        ::umask(mask);
        ::fchmod(fd, 0666 & ~mask);
        ::close(fd);
    }
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    ~OutputFile() {
        if (!committed) {
            std::remove(temporaryPath.c_str());
        }
    }

    /// Where to write: the temporary file, created empty.
    [[nodiscard]] const std::string& writingPath() const noexcept { return temporaryPath; }

    /// Gives the written file its name; call once everything is written and closed.
    void commit() {
        if (std::rename(temporaryPath.c_str(), path.c_str()) != 0) {
            throw std::invalid_argument("Unable to write file \"" + path + "\": " + std::strerror(errno));
        }
        committed = true;
    }

private:
    std::string path;
    std::string temporaryPath;
    bool committed = false;
};

} // namespace kavot_tool
