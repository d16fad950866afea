#include "agent/module_loader.h"

#include <dlfcn.h>

#include <array>

#include "kel/file.h"

KelResult<LoadedModule> LoadedModule::Load(const KelString& modulesDir, const KelString& name) {
    const KelString path = modulesDir + name + ".so";
    if (!FileExists(path))
        return KelError{kKelFailure, "module " + name + ": no file " + path + "; see --modules"};
    void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr)
        return KelError{kKelFailure, "module " + name + ": cannot be loaded: " + dlerror()};
    void* entry = dlsym(library, kModuleMainSymbol);
    if (entry == nullptr)
        return KelError{kKelFailure, path + ": is no module, it exports no " + kModuleMainSymbol};
    return LoadedModule(name, reinterpret_cast<KelModuleMain>(entry));
}

LoadedModule::LoadedModule(KelString name, KelModuleMain entry) : name_(std::move(name)), entry_(entry) {
    std::array<char, kModuleTextBytes> buffer{};
    isServer_ = entry_(static_cast<unsigned int>(KelModuleOperation::GetServerAddress), 0, buffer.data()) ==
                kModuleSuccess;
}

bool LoadedModule::Run(KelModuleOperation operation) {
    return entry_(static_cast<unsigned int>(operation), 0, nullptr) == kModuleSuccess;
}

bool LoadedModule::Register() {
    KelString handle = name_;
    return entry_(static_cast<unsigned int>(KelModuleOperation::Register), 0, handle.data()) ==
           kModuleSuccess;
}

bool LoadedModule::IsAlive() {
    return entry_(static_cast<unsigned int>(KelModuleOperation::CheckAlive), 0, nullptr) != kModuleFailure;
}

KelVector<IniFault> LoadedModule::FindIniFaults(const KelString& path) {
    KelVector<IniFault> faults;
    KelString buffer = path;
    entry_(static_cast<unsigned int>(KelModuleOperation::FindIniFaults), reinterpret_cast<long>(&faults),
           buffer.data());
    return faults;
}

KelString LoadedModule::Text(KelModuleOperation operation) {
    std::array<char, kModuleTextBytes> buffer{};
    if (entry_(static_cast<unsigned int>(operation), 0, buffer.data()) != kModuleSuccess) return {};
    buffer.back() = '\0';
    return buffer.data();
}
