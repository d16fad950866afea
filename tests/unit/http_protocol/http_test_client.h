#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "kel/unique_fd.h"

struct TestAnswer {
    int status = 0;                             ///< 0: the connection ended before an answer
    std::map<std::string, std::string> fields;  ///< names in lower case
    std::string body;
};

/// A client on one raw connection to 127.0.0.1. Every wait ends after some seconds.
class HttpTestClient {
  public:
    explicit HttpTestClient(std::uint16_t port);

    bool Send(std::string_view bytes);
    /// Reads one answer; `hasBody` false for HEAD.
    TestAnswer Receive(bool hasBody = true);
    /// Sends a request without credentials.
    TestAnswer Ask(const std::string& method, const std::string& target, const std::string& fields = {},
                   const std::string& body = {});
    /// Sends it with digest credentials, asking for a nonce first when there is none.
    TestAnswer AskGranted(const std::string& method, const std::string& target,
                          const std::string& fields = {}, const std::string& body = {});
    /// The Authorization line for a request with the present nonce.
    std::string Authorization(const std::string& method, const std::string& target,
                              const std::string& user = "tree", const std::string& password = "secret");
    void FetchNonce();
    /// True when the server closes the connection (everything it sent before is dropped).
    bool WaitForClose();
    int Fd() const { return socket_.Get(); }

    std::string nonce;
    unsigned int count = 0;

  private:
    bool Fill();

    UniqueFd socket_;
    std::string buffer_;
};
