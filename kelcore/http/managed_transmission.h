#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>

#include "kel/ip_address.h"
#include "kelcore/http/bandwidth_manager.h"
#include "kelcore/http/rate_pacer.h"

/// Paces one transmission by a bandwidth manager. One thread at a time.
///
/// A percentage or per-thousand rate is of the bandwidth probed to the peer, divided by the peer's client
/// count; both are measured again at the frequencies that the peer gives. A peer that cannot be probed counts
/// with kAssumedBitsPerSecond. A rate that changes (also to 0: closed) takes effect within 200 ms.
class HttpManagedTransmission {
  public:
    using Clock = std::chrono::steady_clock;

    /// The bandwidth to a peer that offers no probe or has never answered one.
    static constexpr std::uint64_t kAssumedBitsPerSecond = 10'000'000;

    explicit HttpManagedTransmission(HttpBandwidthManager& manager);
    ~HttpManagedTransmission();
    HttpManagedTransmission(const HttpManagedTransmission&) = delete;
    HttpManagedTransmission& operator=(const HttpManagedTransmission&) = delete;

    /// The peer that relative rates are measured to; needed before Start only for those.
    void SetPeer(IpAddress peer) { peer_ = peer; }

    /// Passes no more than `bytes` at once, also after a stall. Before Start.
    void LimitBursts(std::uint64_t bytes) { pacer_.LimitBursts(bytes); }

    /// True when the rate in force is relative and no peer was set.
    bool NeedsPeer() const;

    /// Begins; false when the manager refuses it.
    bool Start();

    /// Ends; also done by the destructor.
    void End();

    /// Accounts for `bytes` sent or received and sleeps as long as the rate in force asks for. False when the
    /// window has closed or `cancelled` answers true: the transmission must stop.
    bool Pass(std::uint64_t bytes, const std::function<bool()>& cancelled = {});

    /// The same for a burst of `bytes` that is about to be sent: sleeps until what was passed before is paid,
    /// so that the time that sending takes counts.
    bool PassAhead(std::uint64_t bytes, const std::function<bool()>& cancelled = {});

    /// How many bytes a sender should pass at a time so that they flow evenly: about a twentieth of a
    /// second's, but not less than the manager's frame size.
    std::size_t PieceBytes() const;

    bool IsLimited() const { return manager_.BandwidthIsLimited(); }

  private:
    bool Await(Clock::time_point now, const std::function<bool()>& cancelled);
    std::uint64_t BitsPerSecond(Clock::time_point now);
    void MeasurePeer(Clock::time_point now);
    void CountClients(Clock::time_point now);
    void ProbePeer(Clock::time_point now);
    bool ReadRate(Clock::time_point now);
    bool IsRelative() const { return manager_.IsPercentage() || manager_.IsPerThousand(); }

    HttpBandwidthManager& manager_;
    IpAddress peer_;
    bool started_ = false;
    HttpRatePacer pacer_;
    Clock::time_point nextRateRead_{};  ///< until then the rate read last counts
    std::uint64_t frameBytes_ = 1400;   ///< as given with the rate

    // What relative rates are computed from.
    bool peerKnown_ = false;  ///< the peer has reported its frequencies
    unsigned int clientCount_ = 0;
    unsigned int bwPort_ = 0;        ///< 0: the peer offers no probe
    unsigned int pingDuration_ = 0;  ///< of a probe, in milliseconds
    std::uint64_t probedBitsPerSecond_ = 0;
    Clock::duration clientCheckEvery_{};
    Clock::duration probeEvery_{};  ///< 0: probe once
    Clock::time_point nextClientCheck_{};
    Clock::time_point nextProbe_{};
};
