#include "kelcore/module.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <utility>

#include "kelcore/agent.h"
#include "kelcore/version.h"

namespace {

unsigned int Result(bool isSuccess) {
    return isSuccess ? kModuleSuccess : kModuleFailure;
}

}  // namespace

KelModule::KelModule(const char* name, const char* displayName)
    : name_(name), ownLog_(std::in_place, name, displayName), log_(*ownLog_) {}

KelModule::KelModule(const char* name, KelDebug& log) : name_(name), log_(log) {}

unsigned int KelModule::Run(unsigned int operation, long argument, char* buffer) {
    try {
        return RunOperation(static_cast<KelModuleOperation>(operation), argument, buffer);
    } catch (const std::exception& failure) {
        log_.Error("Operation %u (argument %ld) of module %S failed: %s\n", operation, argument, name_,
                   failure.what());
    } catch (...) {
        log_.Error("Operation %u (argument %ld) of module %S failed for an unknown reason.\n", operation,
                   argument, name_);
    }
    return kModuleFailure;
}

unsigned int KelModule::RunOperation(KelModuleOperation operation, long argument, char* buffer) {
    switch (operation) {
        case KelModuleOperation::Register:
            if (buffer == nullptr) return kModuleFailure;
            // From here on log lines go to the agent's log.
            log_.SetContext(KelAgentGetDebugContext());
            Register(buffer);
            return kModuleSuccess;
        case KelModuleOperation::Unregister:
            Unregister();
            return kModuleSuccess;
        case KelModuleOperation::Initialise:
            return Result(IniAllowsStart() && Initialise());
        case KelModuleOperation::Activate:
            return Result(Activate());
        case KelModuleOperation::Cleanup:
            Cleanup();
            return kModuleSuccess;
        case KelModuleOperation::GetDisplayName:
            KelModuleSetText(buffer, log_.DisplayName());
            return kModuleSuccess;
        case KelModuleOperation::GetVersion:
            KelModuleSetText(buffer, Version());
            return kModuleSuccess;
        case KelModuleOperation::Suspend:
            return Result(Suspend());
        case KelModuleOperation::CheckAlive:
            return Result(IsAlive());
        case KelModuleOperation::GetServerAddress:
            if (const auto address = ServerAddress()) {
                KelModuleSetText(buffer, *address);
                return kModuleSuccess;
            }
            break;
        case KelModuleOperation::FindIniFaults: {
            auto* faults = reinterpret_cast<KelVector<IniFault>*>(argument);
            if (faults == nullptr || buffer == nullptr) return kModuleFailure;
            const KelVector<IniFault> found = FindFaults(buffer);
            faults->insert(faults->end(), found.begin(), found.end());
            return kModuleSuccess;
        }
    }
    return kModuleUnknownOperation;
}

KelVector<IniFault> KelModule::FindFaults(const KelString& path) const {
    const std::span<const IniSetting> settings = IniSettings();
    if (settings.empty()) return {};
    IniFile ini;
    if (!ini.Open(path)) return {{IniFault::Weight::Vital, "the file cannot be read, or is no ini file"}};
    KelVector<IniFault> faults = FindIniFaults(ini, settings);
    CheckIni(ini, faults);
    return faults;
}

bool KelModule::IniAllowsStart() {
    bool isAllowed = true;
    for (const IniFault& fault : FindFaults(IniPath())) {
        if (fault.weight == IniFault::Weight::Vital) {
            log_.Error("%S: %S\n", IniPath(), fault.text);
            isAllowed = false;
        } else {
            log_.Warning("%S: %S\n", IniPath(), fault.text);
        }
    }
    return isAllowed;
}

KelString KelModule::Version() const {
    return KelVersion();
}

KelString KelModule::IniPath() const {
    return KelAgentGetConfigDir() + name_ + ".ini";
}

KelString KelModule::SchemaPath() const {
    return KelAgentGetSchemaDir() + name_ + ".ini";
}

KelString KelModule::DataPath() const {
    return KelAgentGetDataDir() + name_;
}

void KelModuleSetText(char* buffer, std::string_view text) {
    if (buffer == nullptr) return;
    const std::size_t length = std::min(text.size(), kModuleTextBytes - 1);
    std::memcpy(buffer, text.data(), length);
    buffer[length] = '\0';
}
