#include "agent/agent_config.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <limits>
#include <map>
#include <utility>

#include "agent/module_loader.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kel/ini_file.h"
#include "kel/ip_address.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/keys/key_folder.h"
#include "kelcore/tree_passwords.h"

namespace {

constexpr std::uint64_t kMaxScriptBytes = std::uint64_t{1} << 20;
constexpr int kMost = std::numeric_limits<int>::max();

bool IsIpAddress(const KelString& text) {
    return text.empty() || IpAddress::Parse(text);
}

bool IsPasswordEnd(const KelString& text) {
    return text.empty() || ParsePasswordEnd(text);
}

bool IsDebugLevel(const KelString& text) {
    // A value that no name of a level gives.
    constexpr auto kUnknown = static_cast<KelDebugLevel>(-1);
    return ParseDebugLevel(text, kUnknown) != kUnknown;
}

const IniSetting kName = IniSetting::Text("Agent", "Name");
const IniSetting kHttpPassword = IniSetting::Text("Agent", "HttpPassword");
const IniSetting kFormerPassword = IniSetting::Text("Agent", "HttpFormerPassword");
const IniSetting kFormerEnd =
    IniSetting::Text("Agent", "HttpFormerPasswordEnd").Checked(IsPasswordEnd, "a day as 2026-12-31").Vital();
const IniSetting kAddress =
    IniSetting::Text("Agent", "Address").Checked(IsIpAddress, "an IPv4 address").Vital();
const IniSetting kLogLevel = IniSetting::Text("Agent", "LogLevel", "print")
                                 .Checked(IsDebugLevel, "trace, detail, print, warning, error or none");
const IniSetting kLogMaxBytes = IniSetting::Number("Agent", "LogMaxBytes", 10 << 20).Between(4096, kMost);
const IniSetting kLogFiles = IniSetting::Number("Agent", "LogFiles", 5).Between(1, 1000);
// Without them connections would go on unprotected, or past the proxy.
const IniSetting kKeys = IniSetting::Flag("Security", "Keys", false).Vital();
const IniSetting kAcceptPassword = IniSetting::Flag("Security", "AcceptPassword", false).Vital();
const IniSetting kSslForce = IniSetting::Flag("Security", "SslForce", false).Vital();
const IniSetting kSslCaFile = IniSetting::Text("Security", "SslCaFile");
const IniSetting kSslCertificateFile = IniSetting::Text("Security", "SslCertificateFile");
const IniSetting kSslKeyFile = IniSetting::Text("Security", "SslKeyFile");
const IniSetting kPacForce = IniSetting::Flag("Security", "PacForce", false).Vital();
const IniSetting kPacScript = IniSetting::Text("Security", "PacScript");

std::span<const IniSetting> AgentIniSettings() {
    static const std::array settings = {kName,
                                        kHttpPassword,
                                        kFormerPassword,
                                        kFormerEnd,
                                        kAddress,
                                        kLogLevel,
                                        kLogMaxBytes,
                                        kLogFiles,
                                        kKeys,
                                        kAcceptPassword,
                                        kSslForce,
                                        kSslCaFile,
                                        kSslCertificateFile,
                                        kSslKeyFile,
                                        kPacForce,
                                        kPacScript,
                                        IniSetting::Text("Modules", "Module*")};
    return settings;
}

KelError Fault(const KelString& path, const KelString& text) {
    return {kKelFailure, path + ": " + text};
}

/// The values of Module1, Module2, … in the order of their numbers.
KelVector<KelString> ReadModules(const IniFile& ini) {
    std::map<std::uint64_t, KelString> byNumber;
    for (const KelString& key : ini.GetKeys("Modules")) {
        constexpr std::string_view kPrefix = "Module";
        if (!IsEqualTo(std::string_view(key).substr(0, kPrefix.size()), kPrefix, false)) continue;
        const auto number = ParseUint64(std::string_view(key).substr(kPrefix.size()));
        KelString name;
        if (number && ini.GetEntryValue("Modules", key, name, {}) && !name.empty()) byNumber[*number] = name;
    }
    KelVector<KelString> modules;
    for (auto& [number, name] : byNumber)
        modules.push_back(std::move(name));
    return modules;
}

/// A file name in the configuration counts from the configuration folder.
KelString InConfigDir(const AgentConfig& config, const KelString& path) {
    return path.empty() || path.starts_with('/') ? path : config.ConfigDir() + path;
}

KelStatus ReadSecurity(const IniFile& ini, const KelString& path, AgentConfig& config) {
    KelString script = ReadIniText(ini, kPacScript);
    config.sslForce = ReadIniFlag(ini, kSslForce);
    config.pacForce = ReadIniFlag(ini, kPacForce);
    config.ssl.caFile = ReadIniText(ini, kSslCaFile);
    config.ssl.certificateFile = ReadIniText(ini, kSslCertificateFile);
    config.ssl.keyFile = ReadIniText(ini, kSslKeyFile);
    for (KelString* file : {&config.ssl.caFile, &config.ssl.certificateFile, &config.ssl.keyFile, &script}) {
        *file = InConfigDir(config, *file);
        if (!file->empty() && !FileExists(*file)) return Fault(path, "section Security: no file " + *file);
    }
    if (FileIsOpenToOthers(config.ssl.keyFile, kOpenKey))
        return Fault(config.ssl.keyFile,
                     "is a private key, but others may open it; chmod 600 it, and make a "
                     "new key if somebody may have read it");
    if (ReadIniFlag(ini, kKeys)) {
        auto keys = LoadKeyRing(config.DataDir());
        if (!keys) return Fault(path, "Keys is set, but they cannot be used: " + keys.Error().message);
        config.keys = std::move(*keys);
        config.acceptPassword = ReadIniFlag(ini, kAcceptPassword);
    }
    if (!config.pacForce) return {};
    if (script.empty()) return Fault(path, "PacForce needs PacScript, the file of the script");
    auto text = FileReadText(script, kMaxScriptBytes);
    if (!text) return text.Error();
    config.pacScript = std::move(*text);
    return {};
}

void ReadLog(const IniFile& ini, AgentConfig& config) {
    config.logLevel = ParseDebugLevel(ReadIniText(ini, kLogLevel), KelDebugLevel::Print);
    config.logMaxBytes = static_cast<std::size_t>(ReadIniNumber(ini, kLogMaxBytes));
    config.logFiles = static_cast<std::size_t>(ReadIniNumber(ini, kLogFiles));
}

/// Keeps the faults for the log, unless one of them is vital.
KelStatus Examine(const IniFile& ini, const KelString& path, AgentConfig& config) {
    for (IniFault& fault : FindIniFaults(ini, AgentIniSettings())) {
        if (fault.weight == IniFault::Weight::Vital) return Fault(path, fault.text);
        fault.text = path + ": " + fault.text;
        config.faults.push_back(std::move(fault));
    }
    return {};
}

KelStatus CheckRequired(const KelString& path, const AgentConfig& config) {
    if (config.httpPassword.empty())
        return Fault(path, "HttpPassword is missing; the agent does not run without the tree's password");
    if (config.name.empty() || config.name.find(':') != KelString::npos || HasControlCharacter(config.name))
        return Fault(path, "Name is missing, or holds a colon or a control character");
    if (config.modules.empty())
        return Fault(path, "section Modules is empty: Module1=NAME, Module2=NAME, ...");
    for (const KelString& module : config.modules)
        if (!IsSafePathElement(module)) return Fault(path, "'" + module + "' cannot be the name of a module");
    return {};
}

/// What a module, which cannot be loaded perhaps, finds in its ini file.
KelVector<IniFault> FindModuleFaults(const KelString& module, const KelString& path,
                                     const KelString& modulesDir) {
    auto loaded = LoadedModule::Load(modulesDir, module);
    if (!loaded) return {{IniFault::Weight::Vital, loaded.Error().message}};
    KelVector<IniFault> faults = loaded->FindIniFaults(path);
    for (IniFault& fault : faults)
        fault.text = path + ": " + fault.text;
    return faults;
}

}  // namespace

KelResult<AgentConfig> LoadAgentConfig(const KelString& root) {
    AgentConfig config;
    config.root = root;
    const KelString path = config.ConfigDir() + "Agent.ini";
    IniFile ini;
    if (!FileExists(path)) return Fault(path, "no such file; 'kel init' makes the root folder of an agent");
    if (FileIsOpenToOthers(path))
        return Fault(path,
                     "holds the tree's password, but others may open it; chmod 600 it, and change the "
                     "password of the tree if somebody may have read it");
    if (!ini.Open(path)) return Fault(path, "cannot be read, or is no ini file");
    if (auto status = Examine(ini, path, config); !status) return status.Error();
    config.name = ReadIniText(ini, kName);
    config.httpPassword = ReadIniText(ini, kHttpPassword);
    config.formerPassword = ReadIniText(ini, kFormerPassword);
    config.formerEnd = ParsePasswordEnd(ReadIniText(ini, kFormerEnd)).value_or(0);
    config.address = ReadIniText(ini, kAddress);
    config.modules = ReadModules(ini);
    if (auto status = CheckRequired(path, config); !status) return status.Error();
    ReadLog(ini, config);
    if (auto status = ReadSecurity(ini, path, config); !status) return status.Error();
    return config;
}

KelVector<IniFault> FindConfigFaults(const AgentConfig& config, const KelString& modulesDir) {
    KelVector<IniFault> faults = config.faults;
    if (const KelString problem = PasswordProblem(config.httpPassword); !problem.empty())
        faults.push_back({IniFault::Weight::Unusable, config.ConfigDir() + "Agent.ini: " + problem +
                                                          "; choose a longer one for the tree"});
    for (const KelString& module : config.modules)
        for (IniFault& fault : FindModuleFaults(module, config.ConfigDir() + module + ".ini", modulesDir))
            faults.push_back(std::move(fault));
    return faults;
}

KelVector<KelString> CloseRoot(const AgentConfig& config) {
    KelVector<KelString> lines;
    for (const KelString& folder :
         {config.root, config.ConfigDir(), config.DataDir(), config.root + "log/"}) {
        const UniqueFd fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        struct stat status {};
        if (!fd || fstat(fd.Get(), &status) != 0 || (status.st_mode & 077) == 0) continue;
        if (fchmod(fd.Get(), 0700) == 0)
            lines.push_back(folder + ": was open to other users of this device; closed (chmod 700)");
        else
            lines.push_back(folder + ": is open to other users of this device and cannot be closed: " +
                            std::strerror(errno) + "; chmod 700 it");
    }
    return lines;
}

KelResult<UniqueFd> LockRoot(const KelString& root) {
    const KelString path = root + "data/agent.lock";
    PathCreate(root + "data");
    // O_CLOEXEC: a program that a module runs must not keep the lock after the agent.
    UniqueFd file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!file) return KelError{kKelFailure, path + ": cannot be opened: " + std::strerror(errno)};
    if (flock(file.Get(), LOCK_EX | LOCK_NB) != 0)
        return KelError{errno == EWOULDBLOCK ? kRootLocked : kKelFailure,
                        path + ": another agent runs on this root"};
    const KelString pid = std::to_string(getpid()) + "\n";
    if (ftruncate(file.Get(), 0) != 0 || write(file.Get(), pid.data(), pid.size()) < 0)
        return KelError{kKelFailure, path + ": cannot be written: " + std::strerror(errno)};
    return file;
}
