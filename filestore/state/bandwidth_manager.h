#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <optional>

#include "kel/container.h"
#include "kel/mutex.h"
#include "kelcore/http/bandwidth_manager.h"
#include "kelcore/week_hours.h"

class StringTokeniser;

/// Directions of transfer windows, with the values that the window module uses.
enum TransferWindowDirection_e : int {
    TransferWindowDirectionUp = 1,
    TransferWindowDirectionDown = 2,
    TransferWindowDirectionMulticast = 3,
};

/// Holds the weekly transfer window of one direction and shares its rate between the running transfers. The
/// index of a slot is its hour of the week (kelcore/week_hours.h). May be used from any thread; the queries
/// take no lock.
class FileStoreBandwidthManager : public HttpBandwidthManager {
  public:
    static constexpr std::size_t kSlotCount = kWeekHours;

    int StartTransmission() override;
    void EndTransmission() override;
    unsigned long GetRate(int& frameSize) override;
    bool BandwidthIsLimited() override;
    int GetFrameSize() override;
    bool IsPercentage() override;
    bool IsPerThousand() override;
    unsigned long BandwidthEstimationTCP(IpAddress const& address, unsigned int port,
                                         unsigned int duration) override;
    bool GetClientCount(bool firstTime, unsigned int& clientCount, unsigned int& bwPort,
                        unsigned long& clientCheckFrequency, unsigned long& pingFrequency,
                        unsigned int& pingDuration) override;

    void SetDirection(TransferWindowDirection_e direction);
    void SetFrameSize(int bytes);

    /// Loads a window (values `Slots`, `SlotType`, `UseUTCTime`); without `Slots` it asks the window module
    /// for the one of its direction and runs without a window when there is none.
    void UpdateTransferWindow(KelContainer& window);

    /// Runs without a window until the next load.
    void ClearWindow();

    /// Closes every hour until the next load, so that running transfers end.
    void CancelAllTransfers();

    /// True when a window is in force whose rate is 0 now: only bypass files may move.
    bool TransfersAreDisabled();

    /// What the window allows now: a rate in bit/s, or a part of the bandwidth to the parent, 0 to 1.
    struct Allowance {
        double bitsPerSecond = 0;
        bool isShare = false;  ///< then `share` counts
        double share = 0;
    };
    /// Nothing without a window.
    std::optional<Allowance> GetAllowance() const;

    /// The closed hours around `now`; 0: the window is closed all week.
    struct ClosedSpan {
        std::int64_t since = 0;  ///< seconds since the epoch, as is the next
        std::int64_t until = 0;
    };
    /// Nothing while TransfersAreDisabled is false.
    std::optional<ClosedSpan> GetClosedSpan(std::int64_t now) const;

  private:
    void LoadSlots(StringTokeniser& tokens, int type) KEL_REQUIRES(mutexSlots);
    void ShareRates() KEL_REQUIRES(mutexSlots);

    std::atomic<bool> fWindowDefined = false;
    std::atomic<TransferWindowDirection_e> eDirection = TransferWindowDirectionUp;
    std::atomic<int> iSlotType = 1;
    std::atomic<bool> fAbsoluteRate = true;
    std::atomic<bool> fUseUTCTime = true;
    std::array<std::atomic<std::uint64_t>, kSlotCount> ulSlotValue{};  ///< as configured
    std::array<std::atomic<std::uint64_t>, kSlotCount> ulSlotRate{};   ///< a transfer's share
    int iActiveTransfers KEL_GUARDED_BY(mutexSlots) = 0;
    std::atomic<int> iFrameSize = 0;  ///< bytes
    KelMutex mutexSlots;  ///< writers of the slots and the number of transfers; never held during a call to
                          ///< another module
    std::atomic<bool> fPercentage = false;
    std::atomic<bool> fPerThousand = false;
};
