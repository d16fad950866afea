#include <unistd.h>

#include <cstdio>
#include <iostream>

#include "cli/commands.h"
#include "cli/local_root.h"
#include "cli/output.h"
#include "cli/remote.h"
#include "kel/base64.h"
#include "kel/checksum.h"
#include "kel/file.h"
#include "kel/ini_file.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/error_codes.h"
#include "kelcore/security.h"

namespace {

using Verb = PasswordOptions::Verb;

constexpr std::size_t kRandomBytes = 24;
constexpr const char* kFormer = "HttpFormerPassword";
constexpr const char* kFormerEnd = "HttpFormerPasswordEnd";

KelError Unusable(const KelString& message) {
    return {kKelErrorBadInput, message};
}

/// The agent's Agent.ini with the passwords in it.
struct AgentIni {
    IniFile file;
    KelString current;
    KelString former;
};

KelResult<AgentIni> OpenAgentIni(const KelString& root) {
    AgentIni ini;
    const KelString path = root + "/config/Agent.ini";
    bool hasKeys = false;
    if (!FileExists(path) || !ini.file.Open(path)) return Unusable(path + ": cannot be read");
    ini.file.GetEntryValue("Security", "Keys", hasKeys, false);
    if (hasKeys) return Unusable("this device has keys, by which it is known; its password opens nothing");
    ini.file.GetEntryValue("Agent", "HttpPassword", ini.current, {});
    ini.file.GetEntryValue("Agent", kFormer, ini.former, {});
    if (ini.current.empty()) return Unusable(path + ": HttpPassword is missing");
    return ini;
}

/// The first line of the file, or of the standard input; random without one.
KelResult<KelString> NewPassword(const KelString& file) {
    if (file.empty()) return Base64Encode(RandomBytes(kRandomBytes));
    if (file != "-") return ReadPasswordFile(file);
    KelString line;
    std::getline(std::cin, line);
    return line.substr(0, line.find('\r'));
}

/// What keeps a text from being the next password; empty when nothing does.
KelString NewPasswordProblem(const AgentIni& ini, const KelString& password) {
    if (const KelString problem = PasswordProblem(password); !problem.empty())
        return problem + "; choose a longer one";
    if (HasControlCharacter(password) || Trim(password) != password)
        return "the password begins or ends with a blank, or contains a control character";
    if (!ini.former.empty())
        return "the tree has two passwords already; run 'kel password end' when all devices have the present "
               "one";
    return {};
}

/// Has the running agent take what Agent.ini says; one that does not run takes it at its start.
int PutIntoForce(const CommonOptions& common) {
    const auto lock = LockStoppedRoot(CompletePath(common.root));
    if (!lock) return Complain(lock.Error());
    if (*lock) return kExitDone;
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    KelContainer none;
    return ExitCodeOf(remote->Call("AgentTakePassword", none));
}

int Rotate(const CommonOptions& common, const PasswordOptions& options, AgentIni ini) {
    const auto password = NewPassword(options.file);
    if (!password) return Complain(password.Error());
    if (*password != ini.current) {
        if (const KelString problem = NewPasswordProblem(ini, *password); !problem.empty())
            return Complain(Unusable(problem));
        if (const KelStatus written = ini.file.WriteEntryValues(
                "Agent", {{"HttpPassword", *password}, {kFormer, ini.current}, {kFormerEnd, options.until}});
            !written)
            return Complain(written.Error());
    }
    const int code = PutIntoForce(common);
    if (code != kExitDone) return code;
    if (common.json) {
        std::puts("[]");
    } else if (options.file.empty()) {
        // The password alone on stdout, for the other devices.
        std::printf("%s\n", Printable(*password).c_str());
        std::fprintf(stderr, "Give it to every other device: kel password rotate --password-file -\n");
    }
    return kExitDone;
}

/// Whether devices have come with the former password and not with the new one since; an exit code.
int CheckUnused(const CommonOptions& common) {
    const auto lock = LockStoppedRoot(CompletePath(common.root));
    if (!lock) return Complain(lock.Error());
    if (*lock) return kExitDone;
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    KelContainer answer;
    if (const unsigned int result = remote->Call("AgentGetPassword", answer); result != kKelOk)
        return ExitCodeOf(result);
    const KelString callers = AddressesText(answer.GetContainer("Values"), "FormerCallers");
    if (callers.empty()) return kExitDone;
    return Complain(Unusable("devices still come with the former password: " + callers +
                             "; give them the new one, or end it with --force"));
}

int End(const CommonOptions& common, const PasswordOptions& options, AgentIni ini) {
    if (!ini.former.empty() && !options.force) {
        if (const int code = CheckUnused(common); code != kExitDone) return code;
    }
    if (const KelStatus written =
            ini.file.WriteEntryValues("Agent", {{kFormer, KelString()}, {kFormerEnd, KelString()}});
        !written)
        return Complain(written.Error());
    const int code = PutIntoForce(common);
    if (code == kExitDone && common.json) std::puts("[]");
    return code;
}

int Show(const CommonOptions& common) {
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    KelContainer answer;
    if (const unsigned int result = remote->Call("AgentGetPassword", answer); result != kKelOk)
        return ExitCodeOf(result);
    if (common.json) {
        PrintJson(answer);
        return kExitDone;
    }
    const KelContainer& values = answer.GetContainer("Values");
    if (!values.GetBool("HasFormer")) {
        std::puts("One password is accepted.");
        return kExitDone;
    }
    const KelString end = TimeText(values.GetInt64("FormerEnd"));
    const KelString callers = AddressesText(values, "FormerCallers");
    std::printf("The former password is accepted, too%s.\n", end.empty() ? "" : (", until " + end).c_str());
    std::printf("%s\n", callers.empty() ? "No device comes with it now."
                                        : Printable("Devices that come with it: " + callers).c_str());
    return kExitDone;
}

}  // namespace

int RunCommand(const CommonOptions& common, const PasswordOptions& options) {
    if (options.verb == Verb::Status) return Show(common);
    if (common.root.empty() || !common.device.empty()) {
        Complain("a password is changed on the device itself, with --root");
        return kExitUsage;
    }
    const KelString root = CompletePath(common.root);
    const AsOwner owner(root);
    auto ini = OpenAgentIni(root);
    if (!ini) return Complain(ini.Error());
    return options.verb == Verb::Rotate ? Rotate(common, options, std::move(*ini))
                                        : End(common, options, std::move(*ini));
}
