#include "cli/init_command.h"

#include <sys/stat.h>

#include <cstdio>

#include "cli/commands.h"
#include "cli/local_root.h"
#include "cli/output.h"
#include "cli/remote.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kel/ini_file.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/error_codes.h"
#include "kelcore/security.h"

namespace {

/// The modules of a role in the order in which they are loaded. CoreUtils comes before FileStore, which
/// unpacks archives as soon as it runs.
KelVector<KelString> ModulesOf(const KelString& role) {
    KelVector<KelString> modules = {"Identity", "Relay", "TransferWindow", "WakeOnLan", "HttpProtocol"};
    if (role == "master") modules.emplace_back("Console");
    modules.emplace_back("Delivery");
    modules.emplace_back("CoreUtils");
    modules.emplace_back("FileStore");
    return modules;
}

KelString ModuleLines(const KelVector<KelString>& modules) {
    KelString lines;
    for (std::size_t i = 0; i < modules.size(); ++i)
        lines += (i == 0 ? "Module" : "\nModule") + std::to_string(i + 1) + "=" + modules[i];
    return lines;
}

KelStatus WriteInis(const KelString& configDir, const KelVector<KelString>& modules,
                    const std::map<KelString, KelString>& values) {
    KelVector<KelString> names = modules;
    names.emplace_back("Agent");
    for (const KelString& name : names) {
        const auto found = IniTemplates().find(name + ".ini");
        if (found == IniTemplates().end()) continue;  // a module that needs no ini file
        const KelString text = FillTemplate(found->second, values);
        if (auto status = FileWriteText(configDir + name + ".ini", text); !status) return status;
    }
    return {};
}

/// Reads the password back: an ini file cannot hold every text (blanks at its ends are lost), and a password
/// must not silently become another one.
KelStatus CheckPassword(const KelString& configDir, const KelString& password) {
    IniFile ini;
    KelString read;
    if (ini.Open(configDir + "Agent.ini") && ini.GetEntryValue("Agent", "HttpPassword", read, {}) &&
        read == password)
        return {};
    return KelError{
        kKelErrorBadInput,
        "this password cannot be stored in an ini file; choose one without leading or trailing blanks"};
}

KelStatus MakeRoot(const InitOptions& options, const std::map<KelString, KelString>& values) {
    const KelString root = CompletePath(options.dir);
    if (FileExists(root) || (DirExists(root) && !DirList(root).empty()))
        return KelError{kKelErrorBadInput, root + " already exists; nothing was changed"};
    umask(077);
    for (const char* folder : {"/config", "/data", "/log"})
        if (!PathCreate(root + folder))
            return KelError{kKelErrorBadInput, root + folder + ": cannot be created"};
    chmod(root.c_str(), 0700);  // it may have been there
    const KelString configDir = root + "/config/";
    auto status = WriteInis(configDir, ModulesOf(options.role), values);
    if (status) status = CheckPassword(configDir, values.at("PASSWORD"));
    if (!status) DirDelete(root, true);
    return status;
}

}  // namespace

bool SplitParent(const KelString& text, KelString& host, KelString& port) {
    const auto colon = text.rfind(':');
    if (colon == KelString::npos || colon == 0) return false;
    host = text.substr(0, colon);
    port = text.substr(colon + 1);
    const auto number = ParseUint64(port);
    return number && *number > 0 && *number <= 65535 && host.find_first_of(" /@;#=:") == KelString::npos &&
           !HasControlCharacter(host);
}

KelResult<std::map<KelString, KelString>> TemplateValues(const InitOptions& options,
                                                         const KelString& password) {
    KelString parentName;
    KelString parentPort = "0";
    if (options.role == "master" && !options.parent.empty())
        return KelError{kKelErrorBadInput, "a master has no parent"};
    if (options.role != "master" && !SplitParent(options.parent, parentName, parentPort))
        return KelError{kKelErrorBadInput, "a " + options.role + " needs --parent HOST:PORT"};
    if (options.name.empty() || options.name.find_first_of(":;#= ") != KelString::npos ||
        HasControlCharacter(options.name))
        return KelError{kKelErrorBadInput, "'" + options.name + "' is not a valid agent name"};
    if (const KelString problem = PasswordProblem(password); !problem.empty())
        return KelError{kKelErrorBadInput, problem + "; choose a longer one"};
    if (HasControlCharacter(password))
        return KelError{kKelErrorBadInput, "the password contains a control character"};
    return std::map<KelString, KelString>{{"ADDRESS", options.address},
                                          {"PORT", std::to_string(options.port)},
                                          {"ROLE", options.role},
                                          {"PARENT_NAME", parentName},
                                          {"PARENT_PORT", parentPort},
                                          {"PREFER_IP", "true"},
                                          {"NAME", options.name},
                                          {"PASSWORD", password},
                                          {"MODULES", ModuleLines(ModulesOf(options.role))}};
}

KelString FillTemplate(std::string_view text, const std::map<KelString, KelString>& values) {
    KelString result;
    while (!text.empty()) {
        const auto begin = text.find('@');
        result += text.substr(0, begin);
        if (begin == std::string_view::npos) break;
        text.remove_prefix(begin);
        const auto end = text.find('@', 1);
        const auto value =
            end == std::string_view::npos ? values.end() : values.find(KelString(text.substr(1, end - 1)));
        result += value == values.end() ? KelString("@") : value->second;
        text.remove_prefix(value == values.end() ? 1 : end + 1);
    }
    return result;
}

int RunCommand(const CommonOptions& common, const InitOptions& options) {
    const auto password = ReadPasswordFile(options.passwordFile);
    if (!password) return Complain(password.Error());
    const auto values = TemplateValues(options, *password);
    if (!values) {
        Complain(values.Error());
        return kExitUsage;
    }
    const AsOwner owner(CompletePath(options.dir));
    if (auto status = MakeRoot(options, *values); !status) return Complain(status.Error());
    if (common.json)
        std::puts("[]");
    else
        std::printf("Created %s. Start the agent with: kelagent --root %s\n", options.dir.c_str(),
                    options.dir.c_str());
    return kExitDone;
}
