#include "filestore/state/file_store.h"
#include "kel/format.h"
#include "kelcore/module.h"

namespace {

constexpr const char* kVersion = "11.5.0";
constexpr const char* kBuildDate = "Oct  4 2012";
constexpr const char* kBuildTime = "17:21:12";

/// The frame that drives the static functions of FileStore.
class FileStoreModule : public KelModule {
  public:
    FileStoreModule() : KelModule("FileStore", FileStore::debugFileStore) {}

  protected:
    void Register(const char* handle) override { FileStore::ModuleRegister(handle); }
    bool Initialise() override { return FileStore::ModuleInitialise() == kModuleSuccess; }
    bool Activate() override { return FileStore::ModuleActivate() == kModuleSuccess; }
    bool Suspend() override { return FileStore::ModuleSuspend() == kModuleSuccess; }
    void Cleanup() override { FileStore::ModuleCleanup(0); }
    void Unregister() override { FileStore::ModuleUnregister(0); }
    KelString Version() const override {
        const char* buildNumber = FileStore::szBuildNumber;
        return KelFormat("%s.%s - %s - %s", kVersion, buildNumber, kBuildDate, kBuildTime);
    }
};

}  // namespace

KEL_MODULE_MAIN(FileStoreModule)
