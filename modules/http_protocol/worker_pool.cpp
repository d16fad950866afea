#include "modules/http_protocol/worker_pool.h"

namespace kelhttp {

WorkerPool::WorkerPool(std::size_t threads, std::size_t queueLimit)
    : queueLimit_(queueLimit), idle_(threads), live_(threads) {
    threads_.reserve(threads);
    for (std::size_t i = 0; i < threads; ++i)
        threads_.emplace_back([this] { Run(); });
}

WorkerPool::~WorkerPool() {
    Stop(std::chrono::milliseconds(0));
    for (std::thread& thread : threads_)
        thread.join();
}

bool WorkerPool::TryPost(Task task) {
    {
        const std::lock_guard lock(mutex_);
        // Each idle thread takes one task at once: only further tasks count as waiting.
        if (stopping_ || queue_.size() >= queueLimit_ + idle_) return false;
        queue_.push_back(std::move(task));
    }
    wakeUp_.notify_one();
    return true;
}

bool WorkerPool::Stop(std::chrono::milliseconds patience) {
    std::deque<Task> dropped;  // destroyed without the lock: what a task holds may be large
    std::unique_lock lock(mutex_);
    stopping_ = true;
    dropped.swap(queue_);
    wakeUp_.notify_all();
    return ended_.wait_for(lock, patience, [this] { return live_ == 0; });
}

void WorkerPool::Run() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        if (queue_.empty()) {
            wakeUp_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
            continue;
        }
        Task task = std::move(queue_.front());
        queue_.pop_front();
        --idle_;
        lock.unlock();
        task();
        task = nullptr;
        lock.lock();
        ++idle_;
    }
    --live_;
    ended_.notify_all();
}

}  // namespace kelhttp
