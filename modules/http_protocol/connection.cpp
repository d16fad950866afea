#include "modules/http_protocol/connection.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace kelhttp {
namespace {

constexpr std::chrono::seconds kLingerTime{2};
/// Larger buffers are freed while the connection is idle.
constexpr std::size_t kIdleBufferBytes = 1024;

}  // namespace

Connection::Connection(ServerContext& context, IoLoop& loop, std::unique_ptr<Channel> channel,
                       PeerTable::Place place)
    : context_(context),
      loop_(loop),
      channel_(std::move(channel)),
      place_(std::move(place)),
      peer_(place_->Peer()),
      since_(Clock::now()) {}

Connection::~Connection() {
    Close();
}

void Connection::Start() {
    loop_.Add(shared_from_this());
    channel_->Open(shared_from_this());
}

void Connection::Close() {
    if (state_ == State::Closed) return;
    state_ = State::Closed;
    EndWork();
    channel_->Close();
    DropUpload();
    place_.reset();
    loop_.Remove(this);
}

void Connection::Enter(State state) {
    state_ = state;
    since_ = Clock::now();
    windowBytes_ = 0;
    headBegun_ = false;
    blankBytes_ = 0;
    headSearched_ = 0;
}

void Connection::OnOpened(bool ok) {
    if (state_ == State::Closed) return;
    if (!ok) return Close();
    sender_ = channel_->Peer();
    sender_.address = peer_;
    NoteCertificate();
    Enter(State::Head);
    ProcessInput();
}

void Connection::OnRead(bool ok, std::size_t count) {
    if (state_ == State::Closed) return;
    if (!ok) return Close();
    windowBytes_ += count;
    switch (state_) {
        case State::PutBody:
            chunkUsed_ += count;
            bodyLeft_ -= count;
            break;
        case State::Lingering:
            return ReadMore();
        case State::Head:
            // Only once: empty lines before a head must not give it more time.
            if (!std::exchange(headBegun_, true)) since_ = Clock::now();
            [[fallthrough]];
        default:
            input_.append(loop_.Scratch().data(), count);
    }
    ProcessInput();
}

void Connection::OnWritten(bool ok) {
    if (state_ == State::Closed) return;
    if (!ok) return Close();
    if (state_ == State::Continuing) {
        Enter(afterContinue_);
    } else {
        Advance(Channel::Outcome::Done);
    }
    ProcessInput();
}

void Connection::ProcessInput() {
    for (;;) {
        bool more = false;
        switch (state_) {
            case State::Head:
                more = TakeHead();
                break;
            case State::ActionBody:
                more = TakeActionBody();
                break;
            case State::PutBody:
                more = TakePutBody();
                break;
            case State::Discarding: {
                const std::size_t count = std::min<std::uint64_t>(bodyLeft_, input_.size());
                input_.erase(0, count);
                bodyLeft_ -= count;
                more = bodyLeft_ == 0;
                if (more) Enter(State::Head);
                break;
            }
            default:
                return;  // the operation in progress will call again
        }
        if (!more) return ReadMore();
    }
}

void Connection::ReadMore() {
    if (state_ == State::Closed) return;
    std::span<char> into = loop_.Scratch();
    if (state_ == State::PutBody)
        into = {chunk_.get() + chunkUsed_, std::min<std::uint64_t>(chunkSize_ - chunkUsed_, bodyLeft_)};
    if (state_ == State::Head && !input_.empty())
        headBegun_ = true;  // its first bytes came with the previous request
    if (state_ == State::Head && input_.empty()) {
        if (input_.capacity() > kIdleBufferBytes) input_ = {};
        if (output_.capacity() > kIdleBufferBytes) output_ = {};
    }
    channel_->Read(into, shared_from_this());
}

void Connection::OnTick(Clock::time_point now) {
    const ServerSettings& settings = context_.settings;
    if (state_ != State::Opening && !IsPeerTrusted()) return Close();
    const auto passed = now - since_;
    bool late = false;
    switch (state_) {
        case State::Opening:
        case State::Continuing:
            late = passed > std::chrono::seconds(settings.headerTimeout);
            break;
        case State::Head: {
            // A peer that reads slowly is not idle while it takes the response.
            const bool isIdle = served_ && !headBegun_;
            if (isIdle) NoteProgress(now);
            if (isIdle) channel_->ReleaseBuffers();
            // A stranger gets the time for a head, not that for a pause between requests.
            const int limit = isIdle && isAuthenticated_ ? settings.idleTimeout : settings.headerTimeout;
            late = now - since_ > std::chrono::seconds(limit);
            break;
        }
        case State::Delayed:
            if (passed < GuessLimit::kPause) break;
            RefuseCredentials(false);
            return ProcessInput();
        case State::ActionBody:
        case State::Discarding:
            late = !MeasureBodyRate(now, settings.minBodyRate);
            break;
        case State::PutBody:
            // Uploads are paced by the sender's transfer window, which may allow a low rate.
            late = !MeasureBodyRate(now, 0) || !MeasureUploadRate(now);
            break;
        case State::Sending:
            NoteProgress(now);
            late = now - since_ > std::chrono::seconds(settings.sendTimeout);
            break;
        case State::Lingering:
            late = passed > kLingerTime;
            break;
        case State::Working:
        case State::Closed:
            break;
    }
    if (late) Close();
}

/// The time counts anew whenever the peer has taken bytes. What the socket has accepted says nothing: it
/// holds more than a slow peer takes in minutes.
void Connection::NoteProgress(Clock::time_point now) {
    const std::uint64_t taken = channel_->BytesTaken();
    if (taken == windowBytes_) return;
    windowBytes_ = taken;
    since_ = now;
}

/// Ends the window in which the rate is measured when it is over; false when the body came more slowly in it
/// than `leastRate` bytes per second, or not at all.
bool Connection::MeasureBodyRate(Clock::time_point now, int leastRate) {
    const ServerSettings& settings = context_.settings;
    if (now - since_ < std::chrono::seconds(settings.minBodyRateTime)) return true;
    const auto least =
        static_cast<std::uint64_t>(leastRate) * static_cast<std::uint64_t>(settings.minBodyRateTime);
    if (windowBytes_ < std::max<std::uint64_t>(least, 1)) return false;
    since_ = now;
    windowBytes_ = 0;
    return true;
}

/// The same for an upload, over a time that outlasts the pauses of a slow sender.
bool Connection::MeasureUploadRate(Clock::time_point now) {
    const ServerSettings& settings = context_.settings;
    if (now - uploadMeasured_ < std::chrono::seconds(settings.minUploadRateTime)) return true;
    const auto least = static_cast<std::uint64_t>(settings.minUploadRate) *
                       static_cast<std::uint64_t>(settings.minUploadRateTime);
    const std::uint64_t came = uploadLeft_ - bodyLeft_;
    uploadMeasured_ = now;
    uploadLeft_ = bodyLeft_;
    return came >= least;
}

void Connection::BeginWork() {
    if (working_) return;
    working_ = true;
    context_.peers.BeginWork(peer_);
}

void Connection::EndWork() {
    if (!working_) return;
    working_ = false;
    context_.peers.EndWork(peer_);
}

}  // namespace kelhttp
