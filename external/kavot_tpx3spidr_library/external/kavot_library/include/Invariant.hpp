#pragma once

#include <cstdio>
#include <cstdlib>

namespace kavot {

/// Stops the program like a failed `assert`, also in builds with NDEBUG: for invariants whose breach would
/// otherwise leave a corrupt file behind and that are cheap enough to check always.
[[noreturn]] inline void invariant_failed(const char* condition, const char* file, int line, const char* function) {
    std::fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", file, line, function, condition);
    std::abort();
}

} // namespace kavot

/// `text` is the condition as the reader should see it in the failure message.
#define KAVOT_INVARIANT(condition, text)                                                                               \
    ((condition) ? static_cast<void>(0) : ::kavot::invariant_failed(text, __FILE__, __LINE__, __func__))
