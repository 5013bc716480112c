#include "RunResources.hpp"

#include <algorithm>
#include <filesystem>
#include <system_error>

#include <malloc.h>
#include <sched.h>

namespace fs = std::filesystem;

std::string spillFolder(const std::string& outputPath) {
    std::error_code error;
    const fs::path folder = fs::path(outputPath).parent_path();
    if (folder.empty()) {
        return ".";
    }
    return fs::is_directory(folder, error) ? folder.string() : fs::temp_directory_path(error).string();
}

unsigned usableCpus() {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof(set), &set) != 0) {
        return 1;
    }
    return static_cast<unsigned>(std::clamp(CPU_COUNT(&set), 1, 16));
}

void keepFreedMemory() {
    // Blocks below 32 MiB come from the heap instead of mappings of their own, and the heap is given back only
    // when 64 MiB at its top are free. Only a tuning: a refused setting changes nothing else.
    mallopt(M_MMAP_THRESHOLD, 32 << 20);
    mallopt(M_TRIM_THRESHOLD, 64 << 20);
}
