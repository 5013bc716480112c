#pragma once

#include <cstddef>
#include <string>

// What a run may use besides its inputs and outputs: the CPUs, memory for the hits that wait for their place in
// the time order, and a folder for what does not fit in memory. vundrel and kavot convert use the same.

/// Hits that may wait in memory for their place in the time order (32 MiB); the rest waits in temporary files.
constexpr std::size_t waitingHits_limit = std::size_t{1} << 21;

/// Where what does not fit in memory goes (hits too far out of time order, very many trigger times): beside
/// the output file, in temporary files without a name that vanish when the run ends in any way; in the system's
/// temporary folder while the output's folder does not exist.
std::string spillFolder(const std::string& outputPath);

/// The CPUs the run may use (its affinity mask), at most 16: more threads would hold more memory than they
/// save time on the slower steps that stay on one thread (the census, writing the photons).
unsigned usableCpus();

/// Lets the memory a run frees stay with the process for what it allocates next. A run clusters its parts one after
/// the other on each worker, and each part allocates and frees the same buffers; returned to the system, their
/// pages were faulted in and cleared again for every part (11 000 page faults of a 20 M-hit run on two CPUs, and
/// a few percent of its time). The largest amount held at once stays what it was; a few MiB more stay resident.
/// For programs only (it sets the C library's allocator for the whole process).
void keepFreedMemory();
