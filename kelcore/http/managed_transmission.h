#pragma once

#include <chrono>
#include <cstdint>
#include <functional>

#include "kel/ip_address.h"
#include "kelcore/http/bandwidth_manager.h"

/// Paces one transmission by a bandwidth manager. One thread at a time.
///
/// A percentage or per-thousand rate is of the bandwidth probed to the peer, divided by the peer's client
/// count; both are measured again at the frequencies that the peer gives. A rate that changes (also to 0:
/// closed) takes effect within 200 ms.
class HttpManagedTransmission {
  public:
    using Clock = std::chrono::steady_clock;

    explicit HttpManagedTransmission(HttpBandwidthManager& manager);
    ~HttpManagedTransmission();
    HttpManagedTransmission(const HttpManagedTransmission&) = delete;
    HttpManagedTransmission& operator=(const HttpManagedTransmission&) = delete;

    /// The peer that relative rates are measured to; needed before Start only for those.
    void SetPeer(IpAddress peer) { peer_ = peer; }

    /// Begins; false when the manager refuses it.
    bool Start();

    /// Ends; also done by the destructor.
    void End();

    /// Accounts for `bytes` sent or received and sleeps as long as the rate in force asks for. False when the
    /// window has closed or `cancelled` answers true: the transmission must stop.
    bool Pass(std::uint64_t bytes, const std::function<bool()>& cancelled = {});

    bool IsLimited() const { return manager_.BandwidthIsLimited(); }

    /// The time still to wait at `now` when `bytes` were passed since `since` at `bitsPerSecond` (not 0).
    static Clock::duration SleepTime(std::uint64_t bytes, std::uint64_t bitsPerSecond,
                                     Clock::time_point since, Clock::time_point now);

  private:
    std::uint64_t BitsPerSecond();

    HttpBandwidthManager& manager_;
    IpAddress peer_;
    bool started_ = false;
    std::uint64_t rate_ = 0;
    std::uint64_t bytesSince_ = 0;
    Clock::time_point since_;
    unsigned int clientCount_ = 0;
    unsigned int bwPort_ = 0;
    unsigned int pingDuration_ = 0;
    std::uint64_t probedBitsPerSecond_ = 0;
    Clock::duration clientCheckEvery_{};
    Clock::duration probeEvery_{};
    Clock::time_point nextClientCheck_;
    Clock::time_point nextProbe_;
};
