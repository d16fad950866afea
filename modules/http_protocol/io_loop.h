#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <span>

namespace boost::asio {
class io_context;
}

namespace kelhttp {

/// Something that lives on a loop and has time-outs. Both calls come on the loop's thread.
class LoopMember {
  public:
    using Clock = std::chrono::steady_clock;
    virtual ~LoopMember() = default;
    /// Called several times a second.
    virtual void OnTick(Clock::time_point now) = 0;
    /// The loop ends: close everything at once.
    virtual void Abort() = 0;
};

/// One I/O thread with the connections that belong to it: what belongs to a loop is touched by its thread
/// only and needs no locks. Start, Stop and Post may be called from any thread, the rest on the loop's
/// thread (or before Start).
class IoLoop {
  public:
    IoLoop();
    /// Stops, then destroys what still waits on the loop.
    ~IoLoop();
    IoLoop(const IoLoop&) = delete;
    IoLoop& operator=(const IoLoop&) = delete;

    void Start();
    /// Aborts all members, joins the thread and runs what had been posted before. Tasks posted later are
    /// dropped with the loop.
    void Stop();

    /// Runs `task` on the loop's thread soon. It must not own a member (a member must not outlive the loop).
    void Post(std::function<void()> task);

    /// A member that comes after Stop is aborted at once.
    void Add(std::shared_ptr<LoopMember> member);
    void Remove(LoopMember* member);

    /// A buffer for what is read and used up at once.
    std::span<char> Scratch();

    boost::asio::io_context& Context();

  private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace kelhttp
