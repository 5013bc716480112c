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
