#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>
#include <iomanip>
#include <iostream>
#include <string>

enum class LogLevel : std::int32_t {
    error = -1,
    info = 2,
    trace = 4,
};

/// The log threshold: a line is written when it is at least the line's level. Only the command line sets it.
extern std::int32_t logLevel;

namespace logging_detail {

template <LogLevel level>
constexpr const char* label() {
    if constexpr (level == LogLevel::error) {
        return "ERROR:   ";
    } else if constexpr (level == LogLevel::info) {
        return "info:    ";
    } else {
        return "trace:   ";
    }
}

} // namespace logging_detail

/// Writes one line: the 9-character label, the local time stamp, ": " and the message. Errors go to standard
/// error, the other levels to standard output; each line is flushed.
template <LogLevel level>
void logging(const std::string& message) {
    if (logLevel < static_cast<std::int32_t>(level)) {
        return;
    }
    const auto nanoseconds =
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch());
    const std::time_t seconds = static_cast<std::time_t>(nanoseconds.count() / 1000000000);
    const std::tm* local = std::localtime(&seconds);
    std::ostream& stream = level == LogLevel::error ? std::cerr : std::cout;
    stream << logging_detail::label<level>() << std::put_time(local, "%Y-%m-%d %X UTC%z") << ": " << message
           << std::endl;
}
