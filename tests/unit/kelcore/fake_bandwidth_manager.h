#pragma once

#include <string>
#include <vector>

#include "kelcore/http/bandwidth_manager.h"

/// A bandwidth manager whose answers the test sets.
class FakeBandwidthManager : public HttpBandwidthManager {
  public:
    int StartTransmission() override { return refuse ? -1 : (++running, 1400); }
    void EndTransmission() override { --running; }
    unsigned long GetRate(int& frameSize) override {
        frameSize = 1400;
        ++reads;
        return closeAfterReads != 0 && reads > closeAfterReads ? 0 : rate;
    }
    bool BandwidthIsLimited() override { return limited; }
    int GetFrameSize() override { return 1400; }
    bool IsPercentage() override { return percentage; }
    bool IsPerThousand() override { return perThousand; }
    unsigned long BandwidthEstimationTCP(IpAddress const& address, unsigned int probePort,
                                         unsigned int) override {
        probes.push_back(address.ToText() + ":" + std::to_string(probePort));
        return bytesPerSecond;
    }
    bool GetClientCount(bool firstTime, unsigned int& clientCount, unsigned int& bwPort,
                        unsigned long& clientCheckFrequency, unsigned long& pingFrequency,
                        unsigned int& pingDuration) override {
        counts.push_back(firstTime);
        clientCount = clients;
        if (firstTime) {
            bwPort = port;
            clientCheckFrequency = 500'000'000;
            pingFrequency = 500'000'000;
            pingDuration = 10;
        }
        return peerAnswers;
    }

    bool refuse = false, limited = true, percentage = false, perThousand = false, peerAnswers = true;
    unsigned long rate = 8'000'000;
    int closeAfterReads = 0;  ///< 0: never
    unsigned int clients = 1, port = 7000;
    unsigned long bytesPerSecond = 0;
    int running = 0, reads = 0;
    std::vector<std::string> probes;
    std::vector<bool> counts;
};
