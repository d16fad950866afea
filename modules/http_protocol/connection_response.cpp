// Responses of the class Connection.

#include <unistd.h>
#include <array>
#include <cerrno>
#include <ctime>
#include <string>
#include <utility>

#include "kelcore/metrics/transfer_counters.h"
#include "modules/http_protocol/connection.h"

namespace kelhttp {
namespace {

/// Files up to this size go out in one piece with the head.
constexpr std::uint64_t kSmallFileBytes = 64 << 10;
/// An unwanted body is read and thrown away up to this length to keep the connection.
constexpr std::uint64_t kDiscardBytes = 256 << 10;
constexpr std::string_view kPasswordHint = "Kel-Password: former\r\n";

/// The present time as an HTTP date, formatted at most once a second by each thread.
std::string_view DateText() {
    thread_local std::time_t made = 0;
    thread_local std::array<char, 32> text{};
    thread_local std::size_t length = 0;
    const std::time_t now = std::time(nullptr);
    if (now != made) {
        std::tm parts{};
        ::gmtime_r(&now, &parts);
        length = std::strftime(text.data(), text.size(), "%a, %d %b %Y %H:%M:%S GMT", &parts);
        made = now;
    }
    return {text.data(), length};
}

/// The head of an answer (RFC 9112): status line, Date, `headers` (complete lines) and the empty line.
/// `connection`: the value of the field Connection, empty for none.
KelString MakeResponseHead(unsigned int status, std::string_view headers, std::string_view connection) {
    KelString head;
    head.reserve(160 + headers.size());
    head.append("HTTP/1.1 ").append(std::to_string(status)).append(" ").append(ReasonOfStatus(status));
    head.append("\r\nDate: ").append(DateText()).append("\r\n");
    if (!connection.empty()) head.append("Connection: ").append(connection).append("\r\n");
    head.append(headers).append("\r\n");
    return head;
}

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

/// A caller that came with the former password learns that the new one is accepted.
KelString Connection::MakeHead(unsigned int status, std::string_view headers) const {
    KelString head = MakeResponseHead(status, headers, ConnectionField());
    if (authMemory_.hadFormer) head.insert(head.size() - 2, kPasswordHint);
    return head;
}

void Connection::Respond(unsigned int status, std::string_view headers, std::string_view body) {
    if (bodyLeft_ > kDiscardBytes || (bodyLeft_ > 0 && hasExpectation_)) keepAlive_ = false;
    context_.responses.Count(status);
    output_ = MakeHead(status, headers);
    output_ += body;
    Enter(State::Sending);
    Advance(channel_->Write(output_, shared_from_this()));
}

void Connection::RespondError(unsigned int status, std::string_view text) {
    KelString body(text);
    if (body.empty()) body.append(ReasonOfStatus(status)).append("\n");
    Respond(status, "Content-Type: text/plain\r\nContent-Length: " + std::to_string(body.size()) + "\r\n",
            body);
}

void Connection::RespondFile(ServedFile file) {
    if (!file.fd || file.length > kSmallFileBytes) {
        file_ = std::move(file);
        if (!file_.fd) return Respond(file_.status, file_.headers, {});
        context_.responses.Count(file_.status);
        isSendingFile_ = true;
        output_ = MakeHead(file_.status, file_.headers);
        Enter(State::Sending);
        return Advance(channel_->Write(output_, shared_from_this()));
    }
    output_ = MakeHead(file.status, file.headers);
    if (!AppendFromFile(output_, file)) return Close();  // it has become shorter since it was opened
    context_.responses.Count(file.status);
    isSendingFile_ = true;
    KelTransfers(KelDirection::Down, KelFlow::Out, KelTransport::Http).bytes.Add(file.length);
    Enter(State::Sending);
    Advance(channel_->Write(output_, shared_from_this()));
}

/// Continues after a write: sends the file that follows the head, then ends the response.
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
    if (std::exchange(isSendingFile_, false))
        KelTransfers(KelDirection::Down, KelFlow::Out, KelTransport::Http).files.Add();
    file_ = {};
    upload_.reset();
    chunk_.reset();
    served_ = true;
    if (!keepAlive_) return Linger();
    Enter(bodyLeft_ > 0 ? State::Discarding : State::Head);
}

/// Waits for the peer to close: closing at once while it still sends would reset the connection, and the peer
/// could lose the response.
void Connection::Linger() {
    input_ = {};
    Enter(State::Lingering);
    channel_->ShutdownSend();
    ReadMore();
}

}  // namespace kelhttp
