#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "kel/unique_fd.h"

/// A parent at 127.0.0.1 that answers every action call with a GUID.
class FakeParent {
  public:
    explicit FakeParent(std::string guid);
    ~FakeParent();

    std::uint16_t Port() const { return port_; }
    void SetGuid(const std::string& guid);
    void SetStatus(int status) { status_ = status; }       ///< of the HTTP answers, 200 at first
    void SetSettled(bool settled) { settled_ = settled; }  ///< what it says of its scheme, true at first
    int GetCallCount() const { return calls_; }
    std::string GetLastRequest();

  private:
    void Serve();
    void Answer(int connection);

    UniqueFd listener_;
    std::uint16_t port_ = 0;
    std::atomic<int> status_ = 200;
    std::atomic<bool> settled_ = true;
    std::atomic<int> calls_ = 0;
    std::atomic<bool> isStopping_ = false;
    std::mutex mutex_;  ///< guid_ and lastRequest_
    std::string guid_;
    std::string lastRequest_;
    std::thread thread_;
};
