#pragma once

#include <atomic>

#include "kel/ip_address.h"
#include "kelcore/http/peer_bandwidth.h"
#include "kelcore/http/rate_queue.h"

/// Decides whether and how fast managed transmissions may run. Implemented by their owner; called from every
/// thread that runs a managed transmission, so implementations lock for themselves.
class HttpBandwidthManager {
  public:
    virtual ~HttpBandwidthManager() = default;

    /// What the transmissions have passed.
    HttpRateQueue rateQueue;
    /// What relative rates are shares of, and how many transmissions share them here.
    HttpPeerBandwidth peerBandwidth;
    std::atomic<unsigned int> relativeTransmissions = 0;

    /// A transmission begins: -1 refuses it, else the frame size in bytes.
    virtual int StartTransmission() = 0;
    virtual void EndTransmission() = 0;

    /// The rate in force now: kbit/s (1000 bits), per cent or per thousand (IsPercentage, IsPerThousand); 0:
    /// nothing may be sent. Sets the frame size in bytes.
    virtual unsigned long GetRate(int& frameSize) = 0;

    /// False: no limit at all, GetRate has no meaning.
    virtual bool BandwidthIsLimited() = 0;
    virtual int GetFrameSize() = 0;
    virtual bool IsPercentage() = 0;
    virtual bool IsPerThousand() = 0;

    /// Measures the throughput to a peer for `duration` milliseconds; bytes per second, 0 on failure.
    virtual unsigned long BandwidthEstimationTCP(IpAddress const& address, unsigned int port,
                                                 unsigned int duration) = 0;

    /// Asks the peer how many clients share its link. `clientCheckFrequency` and `pingFrequency` are in
    /// microseconds, `pingDuration` in milliseconds; those three and `bwPort` are set only with `firstTime`.
    /// False on failure.
    virtual bool GetClientCount(bool firstTime, unsigned int& clientCount, unsigned int& bwPort,
                                unsigned long& clientCheckFrequency, unsigned long& pingFrequency,
                                unsigned int& pingDuration) = 0;
};
