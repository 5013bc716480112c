#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include <pthread.h>
#include <signal.h>

namespace kavot {

/// Thrown inside a task whose results are no longer wanted (an earlier task failed); the workers catch it.
struct TaskCancelled {};

/// What a task hands its items to, on its worker thread.
template <typename Item>
class TaskOutput;

/// Runs tasks 0 .. count-1 on up to `workers` threads and gives their items to `consume` on the calling thread:
/// all items of task 0 in the order pushed, then those of task 1, and so on. So the consumer sees exactly what
/// running the tasks one after the other on the calling thread would give it.
///
/// `produce(task, output)` pushes its items with `output.push(item)` and may call `output.checkpoint()` now and
/// then: both throw `TaskCancelled` once the run is over. Memory stays bounded: at most `2 * workers` tasks are
/// started beyond the one being consumed, and a task waits while more than its share of `heldItems` (spread
/// over the tasks that may be under way) of its items are not consumed yet.
///
/// The first exception of a task, in task order, ends the run: the workers are stopped and joined and it is
/// rethrown here, after the items of the tasks before it (of the failed task, some may be consumed). The worker threads
/// take no signals (the process's handlers run on the calling thread, whose signal mask the caller controls). When no
/// more threads can be made, the run goes on with those there are.
///
/// While the calling thread waits for items, it calls `whileWaiting` (if given) every `waitStep`: it may throw to end
/// the run, as `consume` may.
template <typename Item, typename Produce, typename Consume>
void run_inOrder(std::size_t count,
                 unsigned workers,
                 Produce produce,
                 Consume consume,
                 std::size_t heldItems = 1 << 21,
                 const std::function<void()>& whileWaiting = {});

/// How often a waiting caller of `run_inOrder` is given `whileWaiting`.
constexpr std::chrono::milliseconds waitStep{50};

template <typename Item>
class TaskOutput {
public:
    using Record = Item; ///< what a task pushes, as a photon sink names it

    void push(const Item& item) {
        batch.push_back(item);
        if (batch.size() == batchItems) {
            publish();
        }
    }
    void checkpoint() const {
        if (shared.stopping.load(std::memory_order_relaxed)) { // at worst the task runs a step longer
            throw TaskCancelled{};
        }
    }

private:
    template <typename I, typename P, typename C>
    friend void run_inOrder(std::size_t, unsigned, P, C, std::size_t, const std::function<void()>&);

    /// Items go over in batches, so that the lock is taken once per batch.
    static constexpr std::size_t batchItems = 4096;

    struct Task {
        std::deque<std::vector<Item>> batches;
        std::size_t held = 0; ///< items in `batches`
        bool done = false;
        std::exception_ptr error;
    };
    struct Shared {
        std::mutex mutex;
        std::condition_variable changed;
        std::vector<Task> tasks;
        std::size_t next = 0;               ///< the next task to start
        std::size_t head = 0;               ///< the task being consumed
        std::atomic<bool> stopping = false; ///< written under the lock; a checkpoint reads it without
        std::size_t heldItems;              ///< per task
    };

    TaskOutput(Shared& shared_, std::size_t task_) : shared(shared_), task(task_) { batch.reserve(batchItems); }

    void publish() {
        std::unique_lock lock(shared.mutex);
        if (shared.stopping) {
            throw TaskCancelled{};
        }
        Task& mine = shared.tasks[task];
        mine.held += batch.size();
        mine.batches.push_back(std::move(batch));
        batch = {};
        batch.reserve(batchItems);
        shared.changed.notify_all();
        shared.changed.wait(lock, [&] { return shared.stopping || mine.held <= shared.heldItems; });
        if (shared.stopping) {
            throw TaskCancelled{};
        }
    }

    Shared& shared;
    std::size_t task;
    std::vector<Item> batch;
};

template <typename Item, typename Produce, typename Consume>
void run_inOrder(std::size_t count,
                 unsigned workers,
                 Produce produce,
                 Consume consume,
                 std::size_t heldItems,
                 const std::function<void()>& whileWaiting) {
    using Output = TaskOutput<Item>;
    workers = std::max(workers, 1U);
    const std::size_t ahead = 2 * static_cast<std::size_t>(workers);
    typename Output::Shared shared;
    shared.tasks.resize(count);
    shared.heldItems = std::max<std::size_t>(heldItems / (ahead + 1), Output::batchItems);

    const auto work = [&] {
        for (;;) {
            std::size_t task = 0;
            {
                std::unique_lock lock(shared.mutex);
                shared.changed.wait(lock, [&] {
                    return shared.stopping || shared.next == count || shared.next <= shared.head + ahead;
                });
                if (shared.stopping || shared.next == count) {
                    return;
                }
                task = shared.next++;
            }
            std::exception_ptr error;
            try {
                Output output(shared, task);
                produce(task, output);
                if (!output.batch.empty()) {
                    output.publish();
                }
            } catch (const TaskCancelled&) {
                return;
            } catch (...) {
                error = std::current_exception();
            }
            const std::lock_guard lock(shared.mutex);
            shared.tasks[task].done = true;
            shared.tasks[task].error = error;
            shared.changed.notify_all();
        }
    };

    std::vector<std::thread> threads;
    // Stops and joins the workers however the consumption ends.
    struct Join {
        typename Output::Shared& shared;
        std::vector<std::thread>& threads;
        ~Join() {
            {
                const std::lock_guard lock(shared.mutex);
                shared.stopping = true;
                shared.changed.notify_all();
            }
            for (auto& thread : threads) {
                thread.join();
            }
        }
    } join{shared, threads};
    {
        // The threads start with every signal blocked, as they inherit the mask they are created under.
        sigset_t all;
        sigset_t previous;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, &previous);
        try {
            while (threads.size() < workers) {
                threads.emplace_back(work);
            }
        } catch (...) {
            if (threads.empty()) {
                pthread_sigmask(SIG_SETMASK, &previous, nullptr);
                throw;
            }
        }
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    }

    std::vector<Item> batch;
    for (std::size_t head = 0; head < count;) {
        {
            std::unique_lock lock(shared.mutex);
            auto& task = shared.tasks[head];
            const auto ready = [&] { return !task.batches.empty() || task.done; };
            if (whileWaiting) {
                while (!shared.changed.wait_for(lock, waitStep, ready)) {
                    lock.unlock();
                    whileWaiting();
                    lock.lock();
                }
            } else {
                shared.changed.wait(lock, ready);
            }
            if (task.batches.empty()) {
                if (task.error) {
                    std::rethrow_exception(task.error);
                }
                shared.tasks[head] = {}; // frees its queue
                shared.head = ++head;
                shared.changed.notify_all();
                continue;
            }
            batch = std::move(task.batches.front());
            task.batches.pop_front();
            task.held -= batch.size();
            shared.changed.notify_all();
        }
        for (const Item& item : batch) {
            consume(item);
        }
    }
}

} // namespace kavot
