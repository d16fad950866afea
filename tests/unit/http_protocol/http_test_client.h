#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <cerrno>
#include <map>
#include <string>
#include <string_view>

#include "kel/checksum.h"
#include "kel/format.h"
#include "kel/text.h"
#include "kel/unique_fd.h"

struct TestAnswer {
    int status = 0;                             ///< 0: the connection ended before an answer
    std::map<std::string, std::string> fields;  ///< names in lower case
    std::string body;
};

/// A client on one raw connection to 127.0.0.1. Every wait ends after some seconds.
class HttpTestClient {
  public:
    explicit HttpTestClient(std::uint16_t port) : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const timeval patience{15, 0};
        ::setsockopt(Fd(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        ::setsockopt(Fd(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
        if (::connect(Fd(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) socket_.Reset();
    }

    bool Send(std::string_view bytes) {
        while (!bytes.empty()) {
            const ssize_t sent = ::send(Fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent <= 0) return false;
            bytes.remove_prefix(static_cast<std::size_t>(sent));
        }
        return true;
    }
    /// Reads one answer; `hasBody` false for HEAD.
    TestAnswer Receive(bool hasBody = true) {
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
            answer.fields[ToLowerText(line.substr(0, colon))] = line.substr(colon + 2);
        }
        const std::string length = hasBody ? answer.fields["content-length"] : "";
        const std::size_t size = length.empty() ? 0 : std::stoull(length);
        while (buffer_.size() < size) {
            if (!Fill()) return answer;
        }
        answer.body = buffer_.substr(0, size);
        buffer_.erase(0, size);
        answer.status = std::stoi(head.substr(9, 3));
        return answer;
    }

    /// Sends a request without credentials.
    TestAnswer Ask(const std::string& method, const std::string& target, const std::string& fields = {}) {
        Send(method + " " + target + " HTTP/1.1\r\nHost: x\r\n" + fields + "\r\n");
        return Receive(method != "HEAD");
    }
    /// Sends a request with credentials.
    TestAnswer AskGranted(const std::string& method, const std::string& target,
                          const std::string& fields = {}, const std::string& body = {}) {
        std::string length;
        if (!body.empty()) length = "Content-Length: " + std::to_string(body.size()) + "\r\n";
        Send(Head(method, target, fields + length) + body);
        return Receive(method != "HEAD");
    }
    /// The head of a request with digest credentials; asks for a nonce first when there is none.
    std::string Head(const std::string& method, const std::string& target, const std::string& fields = {}) {
        if (nonce.empty()) FetchNonce();
        return method + " " + target + " HTTP/1.1\r\nHost: x\r\n" + Authorization(method, target) + fields +
               "\r\n";
    }
    void FetchNonce() { TakeNonce(Ask("GET", "/").fields["www-authenticate"]); }
    void TakeNonce(const std::string& challenge) {
        const std::size_t start = challenge.find("nonce=\"") + 7;
        nonce = challenge.substr(start, challenge.find('"', start) - start);
    }
    /// The Authorization line for a request with the present nonce.
    std::string Authorization(const std::string& method, const std::string& target,
                              const std::string& user = "tree", const std::string& password = "secret") {
        const std::string digits = KelFormat("%x", ++count_);
        const std::string nc = std::string(8 - digits.size(), '0') + digits;
        const std::string secret = TextSha256(user + ":kel:" + password);
        const std::string what = TextSha256(method + ":" + target);
        const std::string response = TextSha256(secret + ":" + nonce + ":" + nc + ":abc:auth:" + what);
        return "Authorization: Digest username=\"" + user + "\", realm=\"kel\", nonce=\"" + nonce +
               "\", uri=\"" + target + "\", algorithm=SHA-256, qop=auth, nc=" + nc +
               ", cnonce=\"abc\", response=\"" + response + "\"\r\n";
    }

    /// True when the server closes the connection (everything it sent before is dropped).
    bool WaitForClose() {
        errno = 0;
        while (Fill())
            buffer_.clear();
        return errno == 0 || errno == ECONNRESET;
    }
    int Fd() const { return socket_.Get(); }

    std::string nonce;

  private:
    bool Fill() {
        char bytes[65536];
        const ssize_t got = ::recv(Fd(), bytes, sizeof bytes, 0);
        if (got > 0) buffer_.append(bytes, static_cast<std::size_t>(got));
        return got > 0;
    }

    UniqueFd socket_;
    std::string buffer_;
    unsigned int count_ = 0;  ///< of uses of the nonce
};
