#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace kelhttp {

/// Threads that run blocking tasks in the order in which they came, with a bounded queue. All operations but
/// the destructor may be called from any thread outside the pool.
///
/// A task must not throw and must not use anything that is destroyed before the pool.
class WorkerPool {
  public:
    using Task = std::function<void()>;

    /// `queueLimit`: tasks that may wait while every thread is busy.
    WorkerPool(std::size_t threads, std::size_t queueLimit);
    /// Drops waiting tasks and waits for the running ones without a time limit.
    ~WorkerPool();
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    /// Queues a task; false when the queue is full or the pool stops.
    bool TryPost(Task task);

    /// Drops waiting tasks, accepts no more, and waits at most `patience` for the running ones; false when
    /// some still run then (the destructor waits for them).
    bool Stop(std::chrono::milliseconds patience);

  private:
    void Run();

    std::mutex mutex_;  ///< guards everything below but threads_; not held while a task runs
    std::condition_variable wakeUp_;
    std::condition_variable ended_;
    std::deque<Task> queue_;
    std::size_t queueLimit_;
    std::size_t idle_;  ///< threads that run no task, those not started yet included
    std::size_t live_ = 0;
    bool stopping_ = false;
    std::vector<std::thread> threads_;
};

}  // namespace kelhttp
