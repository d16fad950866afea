#pragma once

#include "kel/container.h"
#include "kel/mutex.h"
#include "kelcore/module.h"
#include "modules/core_utils/archive_extractor.h"

/// Helpers for the modules of this device.
///
/// CoreUtilsExtractFile (string FilePath, string DestinationPath [, int32 MaxEntries, int64 MaxBytes]):
/// unpacks a zip archive into a folder, the whole archive or nothing. Results: 0; 1 unusable input; 13 no
/// such archive; 16001 an entry that leaves the destination, is a link, occurs twice or is encrypted; 16002
/// too many entries or bytes; 16003 the archive is damaged; 18 the destination cannot be written. The string
/// `Message` says what is wrong and names the entry. Only for callers on this device.
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
