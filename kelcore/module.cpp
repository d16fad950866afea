#include "kelcore/module.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <utility>

#include "kelcore/agent.h"

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
        return RunOperation(static_cast<KelModuleOperation>(operation), buffer);
    } catch (const std::exception& failure) {
        log_.Error("Operation %u (argument %ld) of module %S failed: %s\n", operation, argument, name_,
                   failure.what());
    } catch (...) {
        log_.Error("Operation %u (argument %ld) of module %S failed for an unknown reason.\n", operation,
                   argument, name_);
    }
    return kModuleFailure;
}

unsigned int KelModule::RunOperation(KelModuleOperation operation, char* buffer) {
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
            return Result(Initialise());
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
        case KelModuleOperation::GetServerAddress:
            if (const auto address = ServerAddress()) {
                KelModuleSetText(buffer, *address);
                return kModuleSuccess;
            }
            break;
    }
    return kModuleUnknownOperation;
}

KelString KelModule::Version() const {
    return KEL_VERSION;
}

KelString KelModule::IniPath() const {
    return KelAgentGetConfigDir() + name_ + ".ini";
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
