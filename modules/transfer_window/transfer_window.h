#pragma once

#include <array>
#include <optional>

#include "kel/container.h"
#include "kel/mutex.h"
#include "kelcore/module.h"
#include "modules/transfer_window/weekly_window.h"

/// The transfer-window module: the weekly windows of the three directions, kept in its ini file. Actions (a
/// Direction is 1 up, 2 down, 3 multicast):
///
/// - TransferWindowCheckWindow (Direction) -> Values{Slots, SlotType, UseUTCTime}; no Values without a window
/// - TransferWindowCheckAllWindows -> Values{Direction[i], Values[i]}, one pair per window
/// - TransferWindowSetWindow (Direction; Slots, SlotType or Week; UseUTCTime): empty Slots remove the window;
///   SlotType defaults to 2 (kbit/s), UseUTCTime to false; Week has the form of week_text.h. Triggers
///   TransferWindowCallbackWindowChange.
/// - TransferWindowGetStatus -> Values[i]{Direction, Slots, SlotType, UseUTCTime, Week (absent for a slot
/// type
///   without rates), HourRates (168 texts between blanks, as rates in a Week), CurrentSlot (int32),
///   CurrentRate (text), NextChange (int64, seconds since the epoch; 0: never), NextRate}, one for each
///   window
///
/// Results: 0; 1 for an unusable input (Message says which); 18 when the window cannot be written.
class TransferWindow : public KelModule {
  public:
    TransferWindow();

  protected:
    void Register(const char* handle) override;
    bool Initialise() override;
    std::span<const IniSetting> IniSettings() const override;
    void CheckIni(const IniFile& ini, KelVector<IniFault>& faults) const override;

  private:
    using OptionalWindow = std::optional<WeeklyWindow>;

    unsigned int CheckWindow(KelContainer* arguments);
    unsigned int CheckAllWindows(KelContainer* arguments);
    unsigned int GetStatus(KelContainer* arguments);
    unsigned int SetWindow(KelContainer* arguments);
    unsigned int StoreWindow(TransferDirection direction, const OptionalWindow& window,
                             KelContainer* arguments);

    KelMutex mutexFile_;  ///< serialises changes of the ini file; taken before mutexWindows_
    KelMutex mutexWindows_;
    std::array<OptionalWindow, 3> windows_ KEL_GUARDED_BY(mutexWindows_);  ///< index: direction - 1
};
