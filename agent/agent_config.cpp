#include "agent/agent_config.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <utility>

#include "agent/module_loader.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kel/ini_file.h"
#include "kel/ip_address.h"
#include "kel/path.h"
#include "kel/text.h"

namespace {

constexpr std::uint64_t kMaxScriptBytes = std::uint64_t{1} << 20;
constexpr int kDefaultLogBytes = 10 << 20;
constexpr int kDefaultLogFiles = 5;
constexpr unsigned int kMaxPort = 65535;

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
    KelString script;
    ini.GetEntryValue("Security", "SslForce", config.sslForce, false);
    ini.GetEntryValue("Security", "SslCaFile", config.ssl.caFile, {});
    ini.GetEntryValue("Security", "SslCertificateFile", config.ssl.certificateFile, {});
    ini.GetEntryValue("Security", "SslKeyFile", config.ssl.keyFile, {});
    ini.GetEntryValue("Security", "PacForce", config.pacForce, false);
    ini.GetEntryValue("Security", "PacScript", script, {});
    for (KelString* file : {&config.ssl.caFile, &config.ssl.certificateFile, &config.ssl.keyFile, &script}) {
        *file = InConfigDir(config, *file);
        if (!file->empty() && !FileExists(*file)) return Fault(path, "section Security: no file " + *file);
    }
    if (!config.pacForce) return {};
    if (script.empty()) return Fault(path, "PacForce needs PacScript, the file of the script");
    auto text = FileReadText(script, kMaxScriptBytes);
    if (!text) return text.Error();
    config.pacScript = std::move(*text);
    return {};
}

KelStatus ReadLog(const IniFile& ini, const KelString& path, AgentConfig& config) {
    KelString level;
    int bytes = 0;
    int files = 0;
    ini.GetEntryValue("Agent", "LogLevel", level, "print");
    ini.GetEntryValue("Agent", "LogMaxBytes", bytes, kDefaultLogBytes);
    ini.GetEntryValue("Agent", "LogFiles", files, kDefaultLogFiles);
    // A value that no name of a level gives.
    constexpr auto kUnknown = static_cast<KelDebugLevel>(-1);
    config.logLevel = ParseDebugLevel(level, kUnknown);
    if (config.logLevel == kUnknown)
        return Fault(path, "LogLevel '" + level + "' is none of trace, detail, print, warning, error, none");
    if (bytes < 4096 || files < 1) return Fault(path, "LogMaxBytes is at least 4096, LogFiles at least 1");
    config.logMaxBytes = static_cast<std::size_t>(bytes);
    config.logFiles = static_cast<std::size_t>(files);
    return {};
}

KelStatus CheckRequired(const KelString& path, const AgentConfig& config) {
    if (config.httpPassword.empty())
        return Fault(path, "HttpPassword is missing; the agent does not run without the tree's password");
    if (config.name.empty() || config.name.find(':') != KelString::npos || HasControlCharacter(config.name))
        return Fault(path, "Name is missing, or holds a colon or a control character");
    if (!config.address.empty() && !IpAddress::Parse(config.address))
        return Fault(path, "Address '" + config.address + "' is no IPv4 address");
    if (config.modules.empty())
        return Fault(path, "section Modules is empty: Module1=NAME, Module2=NAME, ...");
    for (const KelString& module : config.modules)
        if (!IsSafePathElement(module)) return Fault(path, "'" + module + "' cannot be the name of a module");
    return {};
}

/// Checks the port numbers of a module: the entries of its own section and of the section Ssl whose names end
/// in "Port". Other sections may hold names of any kind.
void CheckPorts(const KelString& path, const KelString& module, KelVector<KelString>& faults) {
    IniFile ini;
    if (!ini.Open(path)) {
        faults.push_back(path + ": cannot be read, or is no ini file");
        return;
    }
    for (const KelString& section : {module, KelString("Ssl")}) {
        for (const auto& [key, text] : ini.GetEntries(section)) {
            const auto port = ParseUint64(text);
            if (key.ends_with("Port") && !text.empty() && (!port || *port > kMaxPort))
                faults.push_back(
                    KelFormat("%S: %S '%S' is no port number (0 to %u)", path, key, text, kMaxPort));
        }
    }
}

}  // namespace

bool IsOpenToOthers(const KelString& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && (status.st_mode & 077) != 0;
}

KelResult<AgentConfig> LoadAgentConfig(const KelString& root) {
    AgentConfig config;
    config.root = root;
    const KelString path = config.ConfigDir() + "Agent.ini";
    IniFile ini;
    if (!FileExists(path)) return Fault(path, "no such file; 'kel init' makes the root folder of an agent");
    if (!ini.Open(path)) return Fault(path, "cannot be read, or is no ini file");
    ini.GetEntryValue("Agent", "Name", config.name, {});
    ini.GetEntryValue("Agent", "HttpPassword", config.httpPassword, {});
    ini.GetEntryValue("Agent", "Address", config.address, {});
    config.modules = ReadModules(ini);
    if (auto status = CheckRequired(path, config); !status) return status.Error();
    if (auto status = ReadLog(ini, path, config); !status) return status.Error();
    if (auto status = ReadSecurity(ini, path, config); !status) return status.Error();
    return config;
}

KelVector<KelString> FindConfigFaults(const AgentConfig& config, const KelString& modulesDir) {
    KelVector<KelString> faults;
    const KelString path = config.ConfigDir() + "Agent.ini";
    if (IsOpenToOthers(path))
        faults.push_back(path + ": holds the password but others can open it; chmod 600 " + path);
    for (const KelString& module : config.modules)
        CheckPorts(config.ConfigDir() + module + ".ini", module, faults);
    for (const KelString& module : config.modules)
        if (auto loaded = LoadedModule::Load(modulesDir, module); !loaded)
            faults.push_back(loaded.Error().message);
    return faults;
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
