#include <cstdio>

#include "cli/commands.h"
#include "cli/output.h"
#include "cli/remote.h"
#include "kelcore/error_codes.h"

namespace {

using Verb = KeysOptions::Verb;

int Show(const Remote& remote, bool json) {
    KelContainer answer;
    if (const unsigned int result = remote.Call("KeysGetValues", answer); result != kKelOk)
        return ExitCodeOf(result);
    if (json) {
        PrintJson(answer);
        return kExitDone;
    }
    const KelContainer& keys = answer.GetContainer("Values");
    const KelString parent = keys.GetString("ParentGuid");
    const KelString until = TimeText(keys.GetInt64("NotAfter"));
    const std::pair<const char*, KelString> lines[] = {
        {"Device", keys.GetString("Role") + " " + keys.GetString("GUID")},
        {"Key", keys.GetString("Fingerprint")},
        {"Certificate", until.empty() ? KelString(keys.GetBool("IsInvited") ? "none yet: waits for the master"
                                                                            : "none; see 'kel keys join'")
                                      : "valid until " + until},
        {"Authority", keys.GetString("Authority")},
        {"Parent",
         parent.empty() ? KelString("none known") : parent + ", " + keys.GetString("ParentFingerprint")},
        {"Revoked", keys.GetString("RevokedCount") + " certificates"}};
    for (const auto& [name, value] : lines)
        std::printf("%-13s%s\n", name, Printable(value).c_str());
    return kExitDone;
}

int Change(const Remote& remote, bool json, const char* action, KelContainer arguments) {
    if (const unsigned int result = remote.Call(action, arguments); result != kKelOk)
        return ExitCodeOf(result);
    if (json) std::puts("[]");
    return kExitDone;
}

KelContainer OneText(const char* name, const KelString& text) {
    KelContainer arguments;
    arguments.SetString(name, text);
    return arguments;
}

KelString StateText(const KelContainer& device) {
    return device.GetBool("IsRevoked") ? "revoked" : "";
}

}  // namespace

int RunCommand(const CommonOptions& common, const InviteOptions& options) {
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    KelContainer call;
    call.SetString("Role", options.role);
    call.SetInt32("Uses", options.uses);
    call.SetInt64("Seconds", options.seconds);
    if (const unsigned int result = remote->Call("KeysInvite", call); result != kKelOk)
        return ExitCodeOf(result);
    if (common.json) {
        KelContainer list;
        list.SetContainer("Values", std::move(call));
        PrintJson(list);
        return kExitDone;
    }
    // The token alone on stdout, for scripts.
    std::printf("%s\n", Printable(call.GetString("Token")).c_str());
    std::fprintf(stderr,
                 "Valid until %s for %d %s%s. On the new device:\n"
                 "  kel init DIR --role %s --address IP --port PORT --parent HOST:PORT --join TOKEN\n",
                 TimeText(call.GetInt64("Expires")).c_str(), options.uses, options.role.c_str(),
                 options.uses == 1 ? "" : "s", options.role.c_str());
    return kExitDone;
}

int RunCommand(const CommonOptions& common, const KeysOptions& options) {
    if (options.verb == Verb::List)
        return PrintActionList(common, "KeysList", {},
                               {ValueColumn("GUID", "GUID"),
                                ValueColumn("ROLE", "Role"),
                                TimeColumn("VALID UNTIL", "NotAfter"),
                                ValueColumn("KEY", "Fingerprint"),
                                {"", StateText}});
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    switch (options.verb) {
        case Verb::Revoke:
            return Change(*remote, common.json, "KeysRevoke", OneText("GUID", options.text));
        case Verb::Join:
            return Change(*remote, common.json, "KeysJoin", OneText("Token", options.text));
        case Verb::ForgetParent:
            return Change(*remote, common.json, "KeysForgetParent", {});
        default:
            return Show(*remote, common.json);
    }
}
