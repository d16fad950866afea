#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <utility>

#include "kel/ip_address.h"
#include "kelcore/http/bandwidth_manager.h"

/// Paces one transmission by a bandwidth manager. One thread at a time.
///
/// A percentage or per-thousand rate is of the bandwidth to the peer (HttpPeerBandwidth), divided by the
/// number of its clients, or of the manager's own transmissions when these are more. What a transmission
/// leaves unused of its rate goes to the others of its manager (HttpRateQueue). A rate that changes (also to
/// 0: closed) takes effect within 200 ms.
class HttpManagedTransmission {
  public:
    using Clock = std::chrono::steady_clock;

    explicit HttpManagedTransmission(HttpBandwidthManager& manager);
    ~HttpManagedTransmission();
    HttpManagedTransmission(const HttpManagedTransmission&) = delete;
    HttpManagedTransmission& operator=(const HttpManagedTransmission&) = delete;

    /// Finds the peer that relative rates are measured to, which may take long: called when one is in force
    /// first.
    void SetPeer(std::function<std::optional<IpAddress>()> find) { findPeer_ = std::move(find); }

    /// Passes no more than `bytes` at once, also after a stall. Before Start.
    void LimitBursts(std::uint64_t bytes) { mostBurst_ = bytes; }

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

    /// Accounts for `bytes` without sleeping: what passes next, here or in the manager's other transmissions,
    /// pays for them.
    void Charge(std::uint64_t bytes);

    /// How many bytes should be passed at a time so that they flow evenly: about a twentieth of a second's,
    /// but not less than the manager's frame size, unless that takes longer than a second. After Start.
    std::size_t PieceBytes() const;

    bool IsLimited() const { return manager_.BandwidthIsLimited(); }

  private:
    std::uint64_t BitsPerSecond(Clock::time_point now);
    bool Await(std::uint64_t place, const std::function<bool()>& cancelled);
    void ShareRelativeRate();
    bool ReadRate(Clock::time_point now);
    bool IsRelative() const { return manager_.IsPercentage() || manager_.IsPerThousand(); }

    HttpBandwidthManager& manager_;
    std::function<std::optional<IpAddress>()> findPeer_;
    IpAddress peer_;
    bool started_ = false;
    bool sharesRelativeRate_ = false;
    std::uint64_t bitsPerSecond_ = 0;   ///< the rate read last; 0: none
    Clock::time_point nextRateRead_{};  ///< until then the rate read last counts
    std::uint64_t frameBytes_ = 1400;   ///< as given with the rate
    std::uint64_t mostBurst_ = 0;       ///< bytes; 0: as the queue allows
    std::uint64_t lastPlace_ = 0;       ///< in the queue, of what PassAhead let pass last
};
