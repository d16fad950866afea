#include "http_test_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <algorithm>
#include <cctype>
#include <cerrno>

#include "kel/checksum.h"
#include "kel/format.h"

HttpTestClient::HttpTestClient(std::uint16_t port)
    : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const timeval patience{15, 0};
    ::setsockopt(socket_.Get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    ::setsockopt(socket_.Get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    if (::connect(socket_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) socket_.Reset();
}

bool HttpTestClient::Send(std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = ::send(socket_.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent <= 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

bool HttpTestClient::Fill() {
    char bytes[65536];
    const ssize_t got = ::recv(socket_.Get(), bytes, sizeof bytes, 0);
    if (got > 0) buffer_.append(bytes, static_cast<std::size_t>(got));
    return got > 0;
}

TestAnswer HttpTestClient::Receive(bool hasBody) {
    TestAnswer answer;
    std::size_t end = 0;
    while ((end = buffer_.find("\r\n\r\n")) == std::string::npos) {
        if (!Fill()) return answer;
    }
    const std::string head = buffer_.substr(0, end + 2);
    buffer_.erase(0, end + 4);
    for (std::size_t at = head.find("\r\n") + 2; at < head.size(); at = head.find("\r\n", at) + 2) {
        const std::string line = head.substr(at, head.find("\r\n", at) - at);
        const std::size_t colon = line.find(": ");
        std::string name = line.substr(0, colon);
        std::transform(name.begin(), name.end(), name.begin(),
                       [](unsigned char c) { return std::tolower(c); });
        answer.fields[name] = line.substr(colon + 2);
    }
    const int status = std::stoi(head.substr(9, 3));
    const std::size_t length = hasBody && answer.fields.contains("content-length")
                                   ? std::stoull(answer.fields["content-length"])
                                   : 0;
    while (buffer_.size() < length) {
        if (!Fill()) return answer;
    }
    answer.body = buffer_.substr(0, length);
    buffer_.erase(0, length);
    answer.status = status;
    return answer;
}

TestAnswer HttpTestClient::Ask(const std::string& method, const std::string& target,
                               const std::string& fields, const std::string& body) {
    std::string length;
    if (!body.empty()) length = "Content-Length: " + std::to_string(body.size()) + "\r\n";
    Send(method + " " + target + " HTTP/1.1\r\nHost: test\r\n" + fields + length + "\r\n" + body);
    return Receive(method != "HEAD");
}

TestAnswer HttpTestClient::AskGranted(const std::string& method, const std::string& target,
                                      const std::string& fields, const std::string& body) {
    if (nonce.empty()) FetchNonce();
    return Ask(method, target, Authorization(method, target) + fields, body);
}

void HttpTestClient::FetchNonce() {
    const std::string challenge = Ask("GET", "/").fields["www-authenticate"];
    const std::size_t start = challenge.find("nonce=\"") + 7;
    nonce = challenge.substr(start, challenge.find('"', start) - start);
}

std::string HttpTestClient::Authorization(const std::string& method, const std::string& target,
                                          const std::string& user, const std::string& password) {
    const std::string digits = KelFormat("%x", ++count);
    const std::string nc = std::string(8 - digits.size(), '0') + digits;
    const std::string secret = TextSha256(user + ":kel:" + password);
    const std::string what = TextSha256(method + ":" + target);
    const std::string response = TextSha256(secret + ":" + nonce + ":" + nc + ":abc:auth:" + what);
    return "Authorization: Digest username=\"" + user + "\", realm=\"kel\", nonce=\"" + nonce + "\", uri=\"" +
           target + "\", algorithm=SHA-256, qop=auth, nc=" + nc + ", cnonce=\"abc\", response=\"" + response +
           "\"\r\n";
}

bool HttpTestClient::WaitForClose() {
    char bytes[65536];
    ssize_t got = 0;
    do {
        got = ::recv(socket_.Get(), bytes, sizeof bytes, 0);
    } while (got > 0);
    return got == 0 || errno == ECONNRESET;
}
