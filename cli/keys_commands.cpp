#include <cstdio>
#include <set>

#include "cli/commands.h"
#include "cli/keys_transition.h"
#include "cli/local_root.h"
#include "cli/output.h"
#include "cli/remote.h"
#include "kel/path.h"
#include "kelcore/error_codes.h"

namespace {

using Verb = KeysOptions::Verb;

KelString UntilText(std::int64_t end) {
    return end == 0 ? KelString() : ", valid until " + TimeText(end);
}

/// Empty unless members without keys are accepted.
KelString PasswordText(const KelContainer& keys) {
    if (!keys.GetBool("AcceptsPassword")) return {};
    const KelString callers = AddressesText(keys, "PasswordCallers");
    return callers.empty() ? "accepted; no device comes with it now"
                           : "accepted; devices without keys: " + callers;
}

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
        {"Authority", keys.GetString("Authority") + UntilText(keys.GetInt64("AuthorityNotAfter"))},
        {"Parent",
         parent.empty() ? KelString("none known") : parent + ", " + keys.GetString("ParentFingerprint")},
        {"Revoked", keys.GetString("RevokedCount") + " certificates"},
        {"Password", PasswordText(keys)}};
    for (const auto& [name, value] : lines)
        if (!value.empty()) std::printf("%-13s%s\n", name, Printable(value).c_str());
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
    if (device.GetBool("IsWithoutKeys")) return "no keys yet";
    return device.GetBool("IsRevoked") ? "revoked" : "";
}

/// Adds the devices of a tree on its way to keys that have none yet.
unsigned int AddWithoutKeys(const Remote& remote, KelContainer& list) {
    KelContainer own, devices;
    if (remote.CallQuietly("KeysGetValues", own) != kKelOk ||
        !own.GetContainer("Values").GetBool("AcceptsPassword"))
        return kKelOk;
    std::set<KelString> known;
    for (std::uint32_t i = 0; i < ItemCount(list); ++i)
        known.insert(list.GetContainer("Values", i).GetString("GUID"));
    if (const unsigned int result = remote.Call("ConsoleListDevices", devices); result != kKelOk)
        return result;
    for (std::uint32_t i = 0; i < ItemCount(devices); ++i) {
        const KelContainer& device = devices.GetContainer("Values", i);
        if (known.contains(device.GetString("GUID"))) continue;
        KelContainer values;
        values.SetString("GUID", device.GetString("GUID"));
        values.SetString("Role", device.GetString("Role"));
        values.SetBool("IsWithoutKeys", true);
        list.SetContainer("Values", std::move(values), KelContainer::kAbsent);
    }
    return kKelOk;
}

int List(const Remote& remote, bool json) {
    KelContainer list;
    unsigned int result = remote.Call("KeysList", list);
    if (result == kKelOk) result = AddWithoutKeys(remote, list);
    if (result != kKelOk) return ExitCodeOf(result);
    PrintList(list, json,
              {ValueColumn("GUID", "GUID"),
               ValueColumn("ROLE", "Role"),
               TimeColumn("VALID UNTIL", "NotAfter"),
               ValueColumn("KEY", "Fingerprint"),
               {"", StateText}});
    return kExitDone;
}

int Begin(const CommonOptions& common, const KelString& root, const KelString& token) {
    if (!IsPlainRoot(root)) return Complain("this device has keys already");
    if (const KelStatus given = GiveKeys(root, token); !given) return Complain(given.Error());
    if (common.json)
        std::puts("[]");
    else
        std::printf("The keys are in use when the agent is started again: %s\n",
                    RestartCommand(root).c_str());
    return kExitDone;
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
                 TimeText(call.GetInt64("Expires")).c_str(), options.uses,
                 options.role == "client" ? "client" : "device", options.uses == 1 ? "" : "s",
                 options.role.c_str());
    return kExitDone;
}

int RunCommand(const CommonOptions& common, const KeysOptions& options) {
    const bool isLocal = !common.root.empty() && common.device.empty();
    const KelString root = isLocal ? CompletePath(common.root) : KelString();
    const bool isJoin = options.verb == Verb::Join;
    if (options.verb == Verb::Begin || options.verb == Verb::EndPassword || (isJoin && IsPlainRoot(root))) {
        if (!isLocal) {
            Complain("this is done on the device itself, with --root");
            return kExitUsage;
        }
        const AsOwner owner(root);
        return options.verb == Verb::EndPassword ? EndPassword(common, options.force)
                                                 : Begin(common, root, options.text);
    }
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    switch (options.verb) {
        case Verb::List:
            return List(*remote, common.json);
        case Verb::Revoke:
            return Change(*remote, common.json, "KeysRevoke", OneText("GUID", options.text));
        case Verb::Join:
            return Change(*remote, common.json, "KeysJoin", OneText("Token", options.text));
        case Verb::Renew:
            return Change(*remote, common.json, "KeysRenewKey", {});
        case Verb::ForgetParent:
            return Change(*remote, common.json, "KeysForgetParent", {});
        default:
            return Show(*remote, common.json);
    }
}
