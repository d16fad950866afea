#pragma once

#include <array>
#include <optional>

#include "kel/container.h"
#include "kel/mutex.h"
#include "kelcore/module.h"
#include "modules/transfer_window/weekly_window.h"

/// The transfer-window module: the weekly windows of the three directions, kept in its ini file. Its actions
/// are listed in Register; a result of 1 or 18 comes with a text Message. Week has the form of week_text.h. A
/// window that is set triggers TransferWindowCallbackWindowChange.
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
