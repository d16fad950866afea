#pragma once

#include <netinet/in.h>
#include <cerrno>
#include <map>
#include <string>

#include "kel/checksum.h"
#include "kel/format.h"
#include "kel/text.h"
#include "raw_connection.h"

struct TestAnswer {
    int status = 0;                             ///< 0: the connection ended before an answer
    std::map<std::string, std::string> fields;  ///< names in lower case
    std::string body;
};

/// A client on one connection to 127.0.0.1. Every wait ends after some seconds.
class HttpTestClient : public RawConnection {
  public:
    /// `from`: the last number of the client's own address, 127.0.0.FROM.
    explicit HttpTestClient(std::uint16_t port, std::uint32_t from = 1)
        : RawConnection(Connect(port, INADDR_LOOPBACK - 1 + from)) {}

    /// Reads one answer; `hasBody` false for HEAD.
    TestAnswer Receive(bool hasBody = true) {
        TestAnswer answer;
        const auto head = TakeHead();
        if (!head) return answer;
        for (std::size_t at = head->find("\r\n") + 2; at < head->size(); at = head->find("\r\n", at) + 2) {
            const std::string line = head->substr(at, head->find("\r\n", at) - at);
            const std::size_t colon = line.find(": ");
            answer.fields[ToLowerText(line.substr(0, colon))] = line.substr(colon + 2);
        }
        const std::string length = hasBody ? answer.fields["content-length"] : "";
        const auto body = Take(length.empty() ? 0 : std::stoull(length));
        if (!body) return answer;
        answer.body = *body;
        answer.status = std::stoi(head->substr(9, 3));
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
        Drain();
        return errno == 0 || errno == ECONNRESET;
    }

    std::string nonce;

  private:
    static UniqueFd Connect(std::uint16_t port, std::uint32_t from) {
        UniqueFd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(from);
        if (::bind(fd.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) fd.Reset();
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const timeval patience{15, 0};
        ::setsockopt(fd.Get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        ::setsockopt(fd.Get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
        if (::connect(fd.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) fd.Reset();
        return fd;
    }

    unsigned int count_ = 0;  ///< of uses of the nonce
};
