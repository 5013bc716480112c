#pragma once

#include <thread>
#include <utility>

#include <pthread.h>
#include <signal.h>

namespace kavot {

/// A thread that takes no signals: it starts with every signal blocked (a thread inherits the mask it is created
/// under), so that the process's handlers run on the thread whose signal mask the program controls. The faults a
/// thread causes itself (a bus error, a bad address, an illegal instruction or arithmetic) stay unblocked: they
/// reach it whatever its mask, blocked ones ending the process, and a handler may act on them (as the guard of a
/// mapped input file does). The caller's mask is as before, also when no thread can be made (the
/// std::system_error is passed on).
template <typename Function>
[[nodiscard]] std::thread thread_withoutSignals(Function&& function) {
    sigset_t all;
    sigset_t previous;
    sigfillset(&all);
    for (const int fault : {SIGBUS, SIGSEGV, SIGILL, SIGFPE}) {
        sigdelset(&all, fault);
    }
    pthread_sigmask(SIG_BLOCK, &all, &previous);
    try {
        std::thread thread(std::forward<Function>(function));
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
        return thread;
    } catch (...) {
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
        throw;
    }
}

} // namespace kavot
