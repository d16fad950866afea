// Responses of the class Connection.

#include <unistd.h>
#include <array>
#include <cerrno>
#include <ctime>
#include <string>
#include <utility>

#include "modules/http_protocol/connection.h"

namespace kelhttp {
namespace {

/// Files up to this size go out in one piece with the head.
constexpr std::uint64_t kSmallFileBytes = 64 << 10;
/// An unwanted body is read and thrown away up to this length to keep the connection.
constexpr std::uint64_t kDiscardBytes = 256 << 10;
constexpr std::string_view kPasswordHint = "Kel-Password: former\r\n";

struct Reason {
    unsigned int status;
    std::string_view text;
};

constexpr Reason kReasons[] = {
    {200, "OK"},
    {201, "Created"},
    {204, "No Content"},
    {206, "Partial Content"},
    {304, "Not Modified"},
    {400, "Bad Request"},
    {401, "Unauthorized"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {409, "Conflict"},
    {411, "Length Required"},
    {413, "Content Too Large"},
    {415, "Unsupported Media Type"},
    {416, "Range Not Satisfiable"},
    {417, "Expectation Failed"},
    {422, "Unprocessable Content"},
    {429, "Too Many Requests"},
    {431, "Request Header Fields Too Large"},
    {500, "Internal Server Error"},
    {503, "Service Unavailable"},
    {505, "HTTP Version Not Supported"},
    {507, "Insufficient Storage"},
};

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

std::string_view ReasonOf(unsigned int status) {
    for (const Reason& reason : kReasons) {
        if (reason.status == status) return reason.text;
    }
    return "Unknown";
}

/// The head of an answer (RFC 9112): status line, Date, `headers` (complete lines) and the empty line.
/// `connection`: the value of the field Connection, empty for none.
KelString MakeResponseHead(unsigned int status, std::string_view headers, std::string_view connection) {
    KelString head;
    head.reserve(160 + headers.size());
    head.append("HTTP/1.1 ").append(std::to_string(status)).append(" ").append(ReasonOf(status));
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
    output_ = MakeHead(status, headers);
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
        output_ = MakeHead(file_.status, file_.headers);
        Enter(State::Sending);
        return Advance(channel_->Write(output_, shared_from_this()));
    }
    output_ = MakeHead(file.status, file.headers);
    if (!AppendFromFile(output_, file)) return Close();  // it has become shorter since it was opened
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
