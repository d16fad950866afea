#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <span>

namespace boost::asio {
class io_context;
}

namespace kelhttp {

/// A connection or listener that belongs to a loop. Both functions are called on the loop's thread.
class LoopMember {
  public:
    using Clock = std::chrono::steady_clock;
    virtual ~LoopMember() = default;
    /// Called several times a second.
    virtual void OnTick(Clock::time_point now) = 0;
    /// The loop stops: close everything at once.
    virtual void Abort() = 0;
};

/// One I/O thread with the connections that belong to it; only that thread uses them, so they need no locks.
/// Start, Stop and Post may be called from any thread, the rest on the loop's thread (or before Start).
class IoLoop {
  public:
    IoLoop();
    /// Stops, then destroys the tasks and operations that still wait on the loop.
    ~IoLoop();
    IoLoop(const IoLoop&) = delete;
    IoLoop& operator=(const IoLoop&) = delete;

    void Start();
    /// Aborts all members, joins the thread and runs the tasks posted before. Later tasks are destroyed with
    /// the loop without running.
    void Stop();

    /// Runs `task` on the loop's thread soon. It must not own a member (a member must not outlive the loop).
    void Post(std::function<void()> task);

    /// A member that comes after Stop is aborted at once.
    void Add(std::shared_ptr<LoopMember> member);
    void Remove(LoopMember* member);

    /// A buffer for bytes that are processed as soon as they are read; shared by all members.
    std::span<char> Scratch();

    boost::asio::io_context& Context();

  private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace kelhttp
