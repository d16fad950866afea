#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>

#include "kel/container.h"
#include "kel/types.h"
#include "kel/unique_fd.h"

/// A small HTTP server for tests on an ephemeral port of 127.0.1.1: answers every authorised request, one at
/// a time, with what its script says, and remembers those requests. Others are asked for digest credentials,
/// which it does not check.
class ScriptedServer {
  public:
    struct Request {
        KelString method;
        KelString path;
        KelString head;  ///< request line and headers
        KelString body;
        /// The value of a header, empty when absent; `name` as curl writes it.
        KelString Header(const KelString& name) const;
        KelContainer Arguments() const;  ///< of an action call
    };
    struct Answer {
        unsigned int status = 200;
        KelString headers = {};  ///< each ending in "\r\n"
        KelString body = {};
        std::size_t cutAfter = SIZE_MAX;  ///< bytes of the body after which the connection is closed
    };
    using Script = std::function<Answer(const Request&)>;

    explicit ScriptedServer(Script script);
    ~ScriptedServer();
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    std::uint16_t Port() const { return port_; }
    KelString HostAndPort() const;
    KelVector<Request> Requests() const;

    /// The answer to an action call.
    static Answer ActionResult(unsigned int result, const KelContainer& values = {});
    /// Gives every action call this result.
    static Script ActionScript(unsigned int result, const KelContainer& values = {});
    /// Serves `content` at any path, with Range: bytes=N-.
    static Script FileScript(KelString content);

  private:
    void Serve();
    void ServeConnection(int fd);

    Script script_;
    UniqueFd listener_;
    std::uint16_t port_ = 0;
    mutable std::mutex mutex_;  ///< requests_
    KelVector<Request> requests_;
    std::thread thread_;
};
