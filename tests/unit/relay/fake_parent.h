#pragma once

#include <atomic>

#include "module_fixture.h"
#include "modules/relay/relay_settings.h"
#include "test_http_server.h"

/// A parent at 127.0.1.1 that answers every action call with a GUID.
class FakeParent {
  public:
    explicit FakeParent(const std::string& guid) : guid_(guid) { RelaySettings::msPerSecond = 10; }

    /// The ini file of the relay module of a device below it.
    std::string ChildIni(const std::string& role) const {
        return "[Relay]\nRole=" + role + "\nParentName=127.0.1.1\nParentPort=" + std::to_string(Port()) +
               "\nCheckInterval=1\nRetryInterval=1\n";
    }
    int Port() const { return server_.Port(); }
    void SetGuid(const std::string& guid) {
        const std::lock_guard lock(mutex_);
        guid_ = guid;
    }
    std::size_t GetCallCount() { return server_.Requests().size(); }

    std::atomic<unsigned int> status = 200;  ///< of the HTTP answers
    std::atomic<bool> failsOnce = false;     ///< answers the next call with 500
    std::atomic<bool> isSettled = true;      ///< what it says of its scheme

  private:
    TestHttpServer::Answer AnswerCall() {
        const std::lock_guard lock(mutex_);
        const KelContainer values =
            Values({"GUID=" + guid_, std::string("SchemeSettled=") + (isSettled ? "true" : "false")});
        auto answer = TestHttpServer::ActionResult(0, With({}, "Values", values));
        answer.status = failsOnce.exchange(false) ? 500U : status.load();
        return answer;
    }

    std::mutex mutex_;  ///< guid_
    std::string guid_;
    TestHttpServer server_{[this](const auto&) { return AnswerCall(); }};
};
