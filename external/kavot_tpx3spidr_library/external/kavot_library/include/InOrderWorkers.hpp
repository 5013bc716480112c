#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <span>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "ThreadWithoutSignals.hpp"

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
/// `consume` takes the items one at a time, or, when it can be called with a `std::span<const Item>`, a batch of
/// consecutive items at a time.
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

/// The same run, for a consumer that asks for the items a batch at a time (`next`) instead of being handed them.
/// The workers start when it is made and are stopped and joined when it goes, wherever the consumption stands.
template <typename Item>
class InOrderRun {
public:
    using Produce = std::function<void(std::size_t, TaskOutput<Item>&)>;

    /// `batchItems`: how many items a task hands over at a time. Larger batches take the lock less often, where the
    /// consumer does little with each item.
    InOrderRun(std::size_t count_,
               unsigned workers,
               Produce produce_,
               std::size_t heldItems = 1 << 21,
               std::size_t batchItems = TaskOutput<Item>::defaultBatchItems);
    InOrderRun(const InOrderRun&) = delete;
    InOrderRun& operator=(const InOrderRun&) = delete;
    ~InOrderRun();

    /// Puts the next items in order at `batch` (what it held is replaced); false once every task's items are
    /// given. Rethrows the first exception of a task, in task order, after the items before it. While it waits,
    /// it calls `whileWaiting` (if given) every `waitStep`; it may throw.
    bool next(std::vector<Item>& batch, const std::function<void()>& whileWaiting = {});

private:
    void work();

    typename TaskOutput<Item>::Shared shared;
    std::size_t count;
    std::size_t ahead;
    Produce produce;
    std::size_t head = 0;
    std::vector<std::thread> threads;
};

/// How often a waiting caller of `run_inOrder` is given `whileWaiting`.
constexpr std::chrono::milliseconds waitStep{50};

template <typename Item>
class TaskOutput {
public:
    using Record = Item; ///< what a task pushes, as a photon sink names it

    /// Inline, onto a small stage that moves to the batch a few hundred items at a time: a call per item made
    /// the producer store each item on its stack and load it back whole, which stalls (3 % of a clustering run).
    [[gnu::always_inline]] void push(const Item& item) {
        std::construct_at(reinterpret_cast<Item*>(stage.data()) + staged, item);
        if (++staged == stageItems) [[unlikely]] {
            unstage();
        }
    }
    void checkpoint() const {
        if (shared.stopping.load(std::memory_order_relaxed)) { // at worst the task runs a step longer
            throw TaskCancelled{};
        }
    }

private:
    friend class InOrderRun<Item>;

    /// Items go over in batches, so that the lock is taken once per batch.
    static constexpr std::size_t defaultBatchItems = 16384;

    struct Task {
        std::deque<std::vector<Item>> batches;
        std::size_t held = 0; ///< items in `batches`
        bool done = false;
        std::exception_ptr error;
    };
    struct Shared {
        std::mutex mutex;
        std::condition_variable changed; ///< the workers wait on it
        /// The consumer waits on it, for the task it consumes: told only of that task's batches and end, it
        /// does not wake (and take a CPU from a worker) for the batches of tasks after it.
        std::condition_variable headChanged;
        std::vector<Task> tasks;
        std::size_t next = 0;               ///< the next task to start
        std::size_t head = 0;               ///< the task being consumed
        std::atomic<bool> stopping = false; ///< written under the lock; a checkpoint reads it without
        std::size_t heldItems;              ///< per task
        std::size_t batchItems;
    };

    TaskOutput(Shared& shared_, std::size_t task_) : shared(shared_), task(task_) { batch.reserve(shared.batchItems); }

    /// Moves the staged items to the batch, and hands the batch over once it is full.
    [[gnu::noinline]] void unstage() {
        const Item* first = std::launder(reinterpret_cast<const Item*>(stage.data()));
        batch.insert(batch.end(), first, first + staged);
        staged = 0;
        if (batch.size() >= shared.batchItems) {
            publish();
        }
    }
    void publish() {
        std::unique_lock lock(shared.mutex);
        if (shared.stopping) {
            throw TaskCancelled{};
        }
        Task& mine = shared.tasks[task];
        mine.held += batch.size();
        mine.batches.push_back(std::move(batch));
        batch = {};
        batch.reserve(shared.batchItems);
        if (task == shared.head) {
            shared.headChanged.notify_one();
        }
        shared.changed.wait(lock, [&] { return shared.stopping || mine.held <= shared.heldItems; });
        if (shared.stopping) {
            throw TaskCancelled{};
        }
    }

    static_assert(std::is_trivially_copyable_v<Item>, "items are staged and handed over as bytes");
    static constexpr std::size_t stageItems = 256;

    Shared& shared;
    std::size_t task;
    std::vector<Item> batch;
    alignas(Item) std::array<std::byte, stageItems * sizeof(Item)> stage;
    std::size_t staged = 0;
};

template <typename Item>
InOrderRun<Item>::InOrderRun(
    std::size_t count_, unsigned workers, Produce produce_, std::size_t heldItems, std::size_t batchItems)
    : count(count_), ahead(2 * static_cast<std::size_t>(std::max(workers, 1U))), produce(std::move(produce_)) {
    workers = std::max(workers, 1U);
    shared.tasks.resize(count);
    shared.batchItems = batchItems;
    shared.heldItems = std::max<std::size_t>(heldItems / (ahead + 1), batchItems);
    try {
        while (threads.size() < workers) {
            threads.push_back(thread_withoutSignals([this] { work(); }));
        }
    } catch (...) {
        if (threads.empty()) {
            throw;
        }
    }
}

template <typename Item>
InOrderRun<Item>::~InOrderRun() {
    {
        const std::lock_guard lock(shared.mutex);
        shared.stopping = true;
        shared.changed.notify_all();
        shared.headChanged.notify_all();
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

template <typename Item>
void InOrderRun<Item>::work() {
    using Output = TaskOutput<Item>;
    for (;;) {
        std::size_t task = 0;
        {
            std::unique_lock lock(shared.mutex);
            shared.changed.wait(
                lock, [&] { return shared.stopping || shared.next == count || shared.next <= shared.head + ahead; });
            if (shared.stopping || shared.next == count) {
                return;
            }
            task = shared.next++;
        }
        std::exception_ptr error;
        try {
            Output output(shared, task);
            produce(task, output);
            output.unstage();
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
        if (task == shared.head) {
            shared.headChanged.notify_one();
        }
    }
}

template <typename Item>
bool InOrderRun<Item>::next(std::vector<Item>& batch, const std::function<void()>& whileWaiting) {
    while (head < count) {
        std::unique_lock lock(shared.mutex);
        auto& task = shared.tasks[head];
        const auto ready = [&] { return !task.batches.empty() || task.done; };
        if (whileWaiting) {
            while (!shared.headChanged.wait_for(lock, waitStep, ready)) {
                lock.unlock();
                whileWaiting();
                lock.lock();
            }
        } else {
            shared.headChanged.wait(lock, ready);
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
        return true;
    }
    return false;
}

template <typename Item, typename Produce, typename Consume>
void run_inOrder(std::size_t count,
                 unsigned workers,
                 Produce produce,
                 Consume consume,
                 std::size_t heldItems,
                 const std::function<void()>& whileWaiting) {
    InOrderRun<Item> run(count, workers, std::move(produce), heldItems);
    std::vector<Item> batch;
    while (run.next(batch, whileWaiting)) {
        if constexpr (std::is_invocable_v<Consume&, std::span<const Item>>) {
            consume(std::span<const Item>(batch));
        } else {
            for (const Item& item : batch) {
                consume(item);
            }
        }
    }
}

} // namespace kavot
