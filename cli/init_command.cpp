#include "cli/init_command.h"

#include <sys/stat.h>

#include <cstdio>
#include <ctime>

#include "cli/commands.h"
#include "cli/keys_transition.h"
#include "cli/local_root.h"
#include "cli/output.h"
#include "cli/remote.h"
#include "kel/base64.h"
#include "kel/checksum.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kel/ini_file.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/device_name.h"
#include "kelcore/error_codes.h"
#include "kelcore/keys/invitation.h"
#include "kelcore/keys/key_folder.h"
#include "kelcore/security.h"

namespace {

/// The modules of a role in the order in which they are loaded. CoreUtils comes before FileStore, which
/// unpacks archives as soon as it runs.
KelVector<KelString> ModulesOf(const InitOptions& options) {
    KelVector<KelString> modules = {"Identity", "Relay"};
    if (!options.isPlain) modules.emplace_back("Keys");
    for (const char* name : {"TransferWindow", "WakeOnLan", "HttpProtocol"})
        modules.emplace_back(name);
    if (options.role == "master") modules.emplace_back("Console");
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

/// Gives a device its GUID, which the certificate will name, and its keys: the master makes the authority of
/// the tree and is its first member, others keep their invitation until the agent starts.
KelStatus MakeKeys(const KelString& root, const InitOptions& options) {
    KelString guid = MakeGuid();
    if (!options.token.empty()) {
        const auto invitation = KelInvitation::FromToken(options.token);
        if (!invitation) return invitation.Error();
        guid = invitation->scheme + guid.substr(invitation->scheme.size());
    }
    const KelDeviceIdentity device{guid, ParseDeviceRole(options.role).value_or(KelDeviceRole::Client)};
    const KelKeyFolder keys(root + "/data/Keys");
    if (!PathCreate(root + "/data/Identity")) return SystemError("A folder cannot be made:", root);
    if (auto status = FileWriteText(root + "/data/Identity/guid", guid + "\n"); !status) return status;
    if (auto status = keys.Create(device); !status) return status;
    return options.role == "master" ? MakeAuthority(keys) : keys.SaveToken(options.token);
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
    auto status = WriteInis(configDir, ModulesOf(options), values);
    if (status) status = CheckPassword(configDir, values.at("PASSWORD"));
    if (status && !options.isPlain) status = MakeKeys(root, options);
    if (!status) DirDelete(root, true);
    return status;
}

/// What does not fit in how the device is to become a member of a tree; empty when all does.
KelString KeysProblem(const InitOptions& options) {
    if (options.isPlain)
        return options.passwordFile.empty() ? "a plain tree needs --password-file with its password" : "";
    if (!options.passwordFile.empty())
        return "--password-file is for a plain tree, which --plain makes; with keys, passwords prove nothing";
    if (options.role == "master")
        return options.token.empty() ? "" : "a master makes its own tree; it joins none";
    if (options.token.empty())
        return "a " + options.role +
               " needs --join with an invitation of the master ('kel invite'), or --plain for a tree without "
               "keys";
    const auto invitation = KelInvitation::FromToken(options.token);
    return invitation ? KelString() : "--join: " + invitation.Error().message;
}

/// The password of a plain tree. With keys, one that is not used.
KelResult<KelString> PasswordFor(const InitOptions& options) {
    constexpr std::size_t kRandomBytes = 24;
    if (options.passwordFile.empty()) return Base64Encode(RandomBytes(kRandomBytes));
    return ReadPasswordFile(options.passwordFile);
}

void PrintCreated(const InitOptions& options) {
    const char* dir = options.dir.c_str();
    std::printf("Created %s. Start the agent with: %s\n", dir, StartCommand(options.dir).c_str());
    if (const auto invitation = KelInvitation::FromToken(options.token)) {
        const KelString problem = invitation->ClockProblem(std::time(nullptr));
        if (!problem.empty()) Complain("it cannot join the tree as things are: " + problem);
    }
    if (!options.isPlain && options.role == "master")
        std::printf("Then invite other devices with: kel --root %s invite\n", dir);
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
    if (const KelString problem = KeysProblem(options); !problem.empty())
        return KelError{kKelErrorBadInput, problem};
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
                                          {"KEYS", options.isPlain ? "false" : "true"},
                                          {"MODULES", ModuleLines(ModulesOf(options))}};
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
    const auto password = PasswordFor(options);
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
        PrintCreated(options);
    return kExitDone;
}
