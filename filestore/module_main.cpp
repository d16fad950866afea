#include <algorithm>

#include "filestore/state/file_store.h"
#include "filestore/state/setting_table.h"
#include "kel/format.h"
#include "kelcore/module.h"

namespace {

constexpr const char* kVersion = "11.5.0";
constexpr const char* kBuildDate = "Oct  4 2012";
constexpr const char* kBuildTime = "17:21:12";

/// FileStore::EnsureTimeToLive, for the settings of a file.
void CheckTimeToLive(const IniFile& ini, KelVector<IniFault>& faults) {
    const auto read = [&ini](const char* key) {
        return ReadIniNumber(ini, FileStoreIniSetting("FileStore", key));
    };
    const std::int64_t longest = std::max({read("Timeout"), read("PushTimeout"), read("PullTimeout")});
    if (const std::int64_t kept = read("TimeToLive"); kept < longest)
        faults.push_back(
            {IniFault::Weight::Note,
             KelFormat(
                 "TimeToLive in section FileStore is %gd; it is raised to %gd, the largest of the time-outs",
                 kept, longest)});
}

/// The frame that drives the static functions of FileStore.
class FileStoreModule : public KelModule {
  public:
    FileStoreModule() : KelModule("FileStore", FileStore::debugFileStore) {}

  protected:
    void Register(const char* handle) override { FileStore::ModuleRegister(handle); }
    bool Initialise() override { return FileStore::ModuleInitialise() == kModuleSuccess; }
    bool Activate() override { return FileStore::ModuleActivate() == kModuleSuccess; }
    bool Suspend() override { return FileStore::ModuleSuspend() == kModuleSuccess; }
    bool IsAlive() override {
        for (KelMutex* const mutex :
             {&FileStore::mutexUpstream, &FileStore::mutexDownstream, &FileStore::mutexCallback})
            const KelLock lock(*mutex);
        return true;
    }
    void Cleanup() override { FileStore::ModuleCleanup(0); }
    void Unregister() override { FileStore::ModuleUnregister(0); }
    std::span<const IniSetting> IniSettings() const override { return FileStoreIniSettings(); }
    void CheckIni(const IniFile& ini, KelVector<IniFault>& faults) const override {
        CheckTimeToLive(ini, faults);
    }
    KelString Version() const override {
        const char* buildNumber = FileStore::szBuildNumber;
        return KelFormat("%s.%s - %s - %s", kVersion, buildNumber, kBuildDate, kBuildTime);
    }
};

}  // namespace

KEL_MODULE_MAIN(FileStoreModule)
