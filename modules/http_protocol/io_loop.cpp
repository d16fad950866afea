#include "modules/http_protocol/io_loop.h"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <thread>
#include <unordered_map>
#include <vector>

namespace kelhttp {
namespace {

constexpr std::chrono::milliseconds kTick{250};
constexpr std::size_t kScratchBytes = 128 << 10;

}  // namespace

struct IoLoop::State {
    using Members = std::unordered_map<LoopMember*, std::shared_ptr<LoopMember>>;

    std::vector<char> scratch = std::vector<char>(kScratchBytes);
    Members members;
    std::vector<std::shared_ptr<LoopMember>> walked;  ///< members may leave during the iteration
    /// Only its thread uses the sockets: no locks in the reactor. Post may still be called from any thread.
    boost::asio::io_context context{BOOST_ASIO_CONCURRENCY_HINT_UNSAFE_IO};
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work{context.get_executor()};
    boost::asio::steady_timer timer{context};
    std::thread thread;
    bool stopped = false;  ///< set once the thread has ended

    template <class Call>
    void ForEach(const Call& call) {
        walked.reserve(members.size());
        for (const auto& [key, member] : members)
            walked.push_back(member);
        for (const auto& member : walked)
            call(*member);
        walked.clear();
    }

    void Tick() {
        timer.expires_after(kTick);
        timer.async_wait([this](const boost::system::error_code& error) {
            if (error) return;
            const auto now = LoopMember::Clock::now();
            ForEach([now](LoopMember& member) { member.OnTick(now); });
            Tick();
        });
    }
};

IoLoop::IoLoop() : state_(std::make_unique<State>()) {}

IoLoop::~IoLoop() {
    Stop();
}

void IoLoop::Start() {
    state_->Tick();
    state_->thread = std::thread([this] { state_->context.run(); });
}

void IoLoop::Stop() {
    if (state_->thread.joinable()) {
        Post([this] {
            state_->ForEach([](LoopMember& member) { member.Abort(); });
            state_->context.stop();
        });
        state_->thread.join();
        // Tasks posted before run now: a new connection among them is closed, so that its peer does not wait.
        state_->stopped = true;
        state_->context.restart();
        state_->context.poll();
    }
    state_->members.clear();
}

void IoLoop::Post(std::function<void()> task) {
    boost::asio::post(state_->context, std::move(task));
}

void IoLoop::Add(std::shared_ptr<LoopMember> member) {
    if (state_->stopped) return member->Abort();
    LoopMember* const key = member.get();
    state_->members.emplace(key, std::move(member));
}

void IoLoop::Remove(LoopMember* member) {
    state_->members.erase(member);
}

std::span<char> IoLoop::Scratch() {
    return state_->scratch;
}

boost::asio::io_context& IoLoop::Context() {
    return state_->context;
}

}  // namespace kelhttp
