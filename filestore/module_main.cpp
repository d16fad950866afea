#include "kelcore/module.h"

#include "filestore/module/file_store.h"
#include "kel/format.h"

namespace {

constexpr unsigned int kVersionMajor = 11;
constexpr unsigned int kVersionMinor = 5;
constexpr const char* kVersionRevision = "0";
constexpr const char* kBuildDate = "Oct  4 2012";
constexpr const char* kBuildTime = "17:21:12";

KelString VersionText() {
    const char* buildNumber = FileStore::szBuildNumber;
    return KelFormat("%u.%u.%s.%s - %s - %s", kVersionMajor, kVersionMinor, kVersionRevision, buildNumber,
                     kBuildDate, kBuildTime);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) unsigned int ModuleMain(unsigned int operation,
                                                                          long argument, char* buffer) {
    const auto flags = static_cast<unsigned int>(argument & 0xFFFF);
    switch (static_cast<KelModuleOperation>(operation)) {
        case KelModuleOperation::Register:
            return FileStore::ModuleRegister(buffer);
        case KelModuleOperation::Unregister:
            return FileStore::ModuleUnregister(flags);
        case KelModuleOperation::Initialise:
            return FileStore::ModuleInitialise();
        case KelModuleOperation::Activate:
            return FileStore::ModuleActivate();
        case KelModuleOperation::Cleanup:
            return FileStore::ModuleCleanup(flags);
        case KelModuleOperation::GetDisplayName:
            KelModuleSetText(buffer, FileStore::debugFileStore.DisplayName());
            return kModuleSuccess;
        case KelModuleOperation::GetVersion:
            KelModuleSetText(buffer, VersionText());
            return kModuleSuccess;
        case KelModuleOperation::Suspend:
            return FileStore::ModuleSuspend();
        case KelModuleOperation::GetServerAddress:
            break;  // serves no calls itself
    }
    return kModuleUnknownOperation;
}
