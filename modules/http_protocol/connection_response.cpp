#include <unistd.h>
#include <cerrno>

#include "modules/http_protocol/connection.h"
#include "modules/http_protocol/response_head.h"

namespace kelhttp {
namespace {

/// Files up to this size go out in one piece with the head.
constexpr std::uint64_t kSmallFileBytes = 64 << 10;
/// A body that nobody wants is read up to this length to keep the connection.
constexpr std::uint64_t kDiscardBytes = 256 << 10;

bool AppendFromFile(KelString& text, const ServedFile& file) {
    const std::size_t start = text.size();
    text.resize(start + file.length);
    std::size_t done = 0;
    while (done < file.length) {
        const ssize_t count = ::pread(file.fd.Get(), text.data() + start + done, file.length - done,
                                      static_cast<off_t>(file.offset + done));
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        done += static_cast<std::size_t>(count);
    }
    return true;
}

}  // namespace

std::string_view Connection::ConnectionField() const {
    if (!keepAlive_) return "close";
    return version11_ ? "" : "keep-alive";
}

void Connection::Respond(unsigned int status, std::string_view headers, std::string_view body) {
    if (bodyLeft_ > kDiscardBytes || (bodyLeft_ > 0 && hasExpectation_)) keepAlive_ = false;
    output_ = MakeResponseHead(status, headers, ConnectionField());
    output_ += body;
    Enter(State::Sending);
    Advance(channel_->Write(output_, shared_from_this()));
}

void Connection::RespondError(unsigned int status, std::string_view text) {
    KelString body(text);
    if (body.empty()) body.append(ReasonOf(status)).append("\n");
    Respond(status, "Content-Type: text/plain\r\nContent-Length: " + std::to_string(body.size()) + "\r\n",
            body);
}

void Connection::RespondFile(ServedFile file) {
    if (!file.fd || file.length > kSmallFileBytes) {
        file_ = std::move(file);
        if (!file_.fd) return Respond(file_.status, file_.headers, {});
        output_ = MakeResponseHead(file_.status, file_.headers, ConnectionField());
        Enter(State::Sending);
        return Advance(channel_->Write(output_, shared_from_this()));
    }
    output_ = MakeResponseHead(file.status, file.headers, ConnectionField());
    if (!AppendFromFile(output_, file)) return Close();  // it has become shorter since it was opened
    Enter(State::Sending);
    Advance(channel_->Write(output_, shared_from_this()));
}

/// After a write: the file that follows the head, then the end of the response.
void Connection::Advance(Channel::Outcome outcome) {
    if (outcome == Channel::Outcome::Done && file_.fd && file_.length > 0) {
        const std::uint64_t length = std::exchange(file_.length, 0);
        outcome = channel_->SendFile(file_.fd.Get(), file_.offset, length, shared_from_this());
        if (outcome == Channel::Outcome::Pending) BeginWork();
    }
    if (outcome == Channel::Outcome::Failed) return Close();
    if (outcome == Channel::Outcome::Done) FinishResponse();
}

void Connection::FinishResponse() {
    EndWork();
    file_.fd.Reset();
    upload_.reset();
    chunk_.reset();
    served_ = true;
    if (!keepAlive_) return Linger();
    Enter(bodyLeft_ > 0 ? State::Discarding : State::Head);
}

/// Closing at once while the peer still sends could make it lose the response: its end is awaited.
void Connection::Linger() {
    input_ = {};
    Enter(State::Lingering);
    channel_->ShutdownSend();
    ReadMore();
}

}  // namespace kelhttp
