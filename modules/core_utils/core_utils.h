#pragma once

#include "kel/container.h"
#include "kel/mutex.h"
#include "kelcore/archive_extractor.h"
#include "kelcore/module.h"

/// Helpers for the modules of this device.
class CoreUtils : public KelModule {
  public:
    CoreUtils();

  protected:
    void Register(const char* handle) override;
    bool Initialise() override;
    std::span<const IniSetting> IniSettings() const override;

  private:
    unsigned int ExtractFile(KelContainer* arguments);

    ExtractionLimits limits_;  ///< written at initialisation only
};
