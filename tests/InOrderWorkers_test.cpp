// Tasks run side by side, their items consumed in task order; failures end the run in that order too.

#include <atomic>
#include <span>
#include <stdexcept>

#include <pthread.h>
#include <signal.h>

#include "InOrderWorkers.hpp"
#include "TestSupport.hpp"

namespace {

/// Task t's items: t * 100000 + i for i below its size, which is 0 for every fifth task.
std::size_t sizeOf(std::size_t task) {
    return task % 5 == 0 ? 0 : (task * 7919) % 30000;
}

} // namespace

TEST(InOrderWorkers, GiveEveryItemInTaskOrderWhateverTheTiming) {
    std::vector<long> expected;
    for (std::size_t task = 0; task < 60; ++task) {
        for (std::size_t i = 0; i < sizeOf(task); ++i) {
            expected.push_back(static_cast<long>(task * 100000 + i));
        }
    }
    // With the least that may be held (a batch per task), the larger tasks wait for the consumer.
    const auto produce = [](std::size_t task, kavot::TaskOutput<long>& output) {
        std::minstd_rand random(static_cast<unsigned>(task));
        for (std::size_t i = 0; i < sizeOf(task); ++i) {
            if (random() % 2000 == 0) {
                std::this_thread::yield();
            }
            output.push(static_cast<long>(task * 100000 + i));
        }
    };
    for (const std::size_t held : {std::size_t{1}, std::size_t{1} << 21}) {
        for (const unsigned workers : {1U, 2U, 7U}) {
            SCOPED_TRACE(testing::Message() << workers << " workers, " << held << " held");
            std::vector<long> consumed;
            kavot::run_inOrder<long>(
                60, workers, produce, [&](long item) { consumed.push_back(item); }, held);
            ASSERT_EQ(consumed, expected);
            // A consumer of batches gets the same items; no batch is empty.
            std::vector<long> batched;
            kavot::run_inOrder<long>(
                60, workers, produce,
                [&](std::span<const long> batch) {
                    ASSERT_FALSE(batch.empty());
                    batched.insert(batched.end(), batch.begin(), batch.end());
                },
                held);
            ASSERT_EQ(batched, expected);
        }
    }
}

TEST(InOrderWorkers, EndAtTheFirstFailureInTaskOrderAfterTheItemsBeforeIt) {
    // Task 7 fails after 4999 items, task 9 at once; the tasks after 7 would never end unless cancelled, some
    // pushing items, some only checking.
    const auto produce = [](std::size_t task, kavot::TaskOutput<long>& output) {
        if (task == 9) {
            throw std::runtime_error("nine");
        }
        for (long i = 0; task > 7 || i < 5000; ++i) {
            if (task == 7 && i == 4999) {
                throw std::runtime_error("seven");
            }
            if (task % 2 == 0) {
                output.push(i);
            } else {
                output.checkpoint();
            }
        }
    };
    for (const unsigned workers : {1U, 2U, 7U}) {
        SCOPED_TRACE(workers);
        std::size_t consumed = 0;
        EXPECT_THROW_MESSAGE(kavot::run_inOrder<long>(20, workers, produce, [&](long) { ++consumed; }),
                             std::runtime_error, "seven");
        // Tasks 0, 2, 4 and 6 push 5000 items each; task 7 only checks.
        EXPECT_EQ(consumed, 4U * 5000);
    }
    // A failing consumer stops the workers as well.
    const auto failAt100 = [](long item) {
        if (item == 100) {
            throw std::invalid_argument("consumer");
        }
    };
    EXPECT_THROW_MESSAGE(kavot::run_inOrder<long>(20, 3, produce, failAt100), std::invalid_argument, "consumer");
}

TEST(InOrderWorkers, WorkersAndReadersTakeNoSignals) {
    // A stop signal must reach the thread that installed its handler: every thread the engine starts blocks them
    // all but the faults it may cause itself (a blocked bus error on a cut input would end the process), and the
    // caller's own mask is left as it was.
    const auto blocked = [] {
        sigset_t mask;
        pthread_sigmask(SIG_SETMASK, nullptr, &mask);
        return sigismember(&mask, SIGINT) == 1 && sigismember(&mask, SIGTERM) == 1 && sigismember(&mask, SIGBUS) == 0 &&
               sigismember(&mask, SIGSEGV) == 0;
    };
    const bool callerBlocked = blocked();
    std::atomic<int> workersBlocked = 0;
    kavot::run_inOrder<int>(
        6, 3, [&](std::size_t, kavot::TaskOutput<int>&) { workersBlocked += blocked() ? 1 : 0; }, [](int) {});
    EXPECT_EQ(workersBlocked.load(), 6);
    bool readerBlocked = false;
    kavot::thread_withoutSignals([&] { readerBlocked = blocked(); }).join();
    EXPECT_TRUE(readerBlocked);
    EXPECT_EQ(blocked(), callerBlocked);
}
