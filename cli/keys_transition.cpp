#include "cli/keys_transition.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <map>

#include "cli/init_command.h"
#include "cli/local_root.h"
#include "cli/output.h"
#include "cli/remote.h"
#include "kel/file.h"
#include "kel/ini_file.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/device_name.h"
#include "kelcore/error_codes.h"
#include "kelcore/keys/authority.h"
#include "kelcore/keys/invitation.h"
#include "kelcore/keys/key_folder.h"

namespace {

constexpr std::int64_t kOldestClock = 1'767'225'600;  // 2026
constexpr std::uint64_t kMaxGuidFile = 100;

KelError Unusable(const KelString& message) {
    return {kKelErrorBadInput, message};
}

KelString AgentIniOf(const KelString& root) {
    return root + "/config/Agent.ini";
}

bool Flag(const KelString& root, const char* key) {
    IniFile ini;
    bool value = false;
    if (ini.Open(AgentIniOf(root))) ini.GetEntryValue("Security", key, value, false);
    return value;
}

/// What this device is in its tree already.
KelResult<KelDeviceIdentity> IdentityOfRoot(const KelString& root) {
    IniFile relay;
    KelString role;
    relay.Open(root + "/config/Relay.ini");
    relay.GetEntryValue("Relay", "Role", role, {});
    const auto parsed = ParseDeviceRole(role);
    const auto guid = FileReadText(root + "/data/Identity/guid", kMaxGuidFile);
    if (!parsed) return Unusable(root + "/config/Relay.ini: Role is '" + role + "'");
    if (!guid || !IsGuid(Trim(*guid)))
        return Unusable(root + "/data/Identity/guid: this device has no GUID yet; start its agent first");
    return KelDeviceIdentity{Trim(*guid), *parsed};
}

KelStatus CheckToken(const KelDeviceIdentity& device, const KelString& token) {
    const bool isMaster = device.role == KelDeviceRole::Master;
    if (isMaster != token.empty())
        return Unusable(isMaster
                            ? "a master joins no tree; its tree gets keys with 'kel keys begin'"
                            : "only the master of a tree begins with keys; others join: kel keys join TOKEN");
    if (isMaster) return {};
    const auto invitation = KelInvitation::FromToken(token);
    if (!invitation) return invitation.Error();
    if (!device.guid.starts_with(invitation->scheme))
        return Unusable("this device does not belong to the tree of the invitation: its GUID is " +
                        device.guid + ", which begins with other digits than those of the tree");
    return {};
}

/// Adds the module to those of Agent.ini, behind the one that finds the parent.
KelStatus AddKeysModule(const KelString& root) {
    IniFile ini;
    if (!ini.Open(AgentIniOf(root))) return Unusable(AgentIniOf(root) + ": cannot be read");
    std::map<std::uint64_t, KelString> byNumber;
    for (const auto& [key, name] : ini.GetEntries("Modules"))
        if (const auto number = ParseUint64(key.substr(std::min(key.size(), KelString("Module").size())));
            number && !name.empty())
            byNumber[*number] = name;
    KelVector<std::pair<KelString, KelString>> entries;
    const auto add = [&entries](const KelString& name) {
        entries.emplace_back("Module" + std::to_string(entries.size() + 1), name);
    };
    for (const auto& [number, name] : byNumber) {
        if (name == "Keys") return {};
        add(name);
        if (name == "Relay") add("Keys");
    }
    return ini.WriteEntryValues("Modules", entries);
}

KelStatus MakeKeyFiles(const KelKeyFolder& keys, const KelDeviceIdentity& device, const KelString& token) {
    if (!FileExists(keys.Path() + "/key.pem")) {
        if (KelStatus created = keys.Create(device); !created) return created;
    }
    const auto parts = keys.LoadParts();
    if (!parts) return parts.Error();
    if (parts->device != device)
        return Unusable(keys.Path() + " holds the keys of another device; move this folder away");
    if (!token.empty()) return keys.SaveToken(token);
    return parts->certificate ? KelStatus() : MakeAuthority(keys);
}

}  // namespace

bool IsPlainRoot(const KelString& root) {
    return FileExists(AgentIniOf(root)) && !Flag(root, "Keys");
}

KelStatus MakeAuthority(const KelKeyFolder& keys) {
    const std::int64_t now = std::time(nullptr);
    if (now < kOldestClock)
        return Unusable(
            "the clock of this device is years late; set it, since certificates are "
            "valid for a time");
    KelAuthority authority(keys.AuthorityPath());
    if (!FileExists(keys.AuthorityPath() + "/key.pem")) {
        if (auto status = authority.Create(now); !status) return status;
    }
    if (auto status = authority.Open(); !status) return status;
    if (auto status = authority.OpenSigner(now); !status) return status;
    const auto parts = keys.LoadParts();
    if (!parts) return parts.Error();
    const auto certificate = authority.Issue(parts->key.Get(), parts->device, now);
    if (!certificate) return certificate.Error();
    return keys.SaveEnrolment(*certificate, authority.Certificate(), authority.GroupKey());
}

KelStatus GiveKeys(const KelString& root, const KelString& token) {
    if (Flag(root, "SslForce"))
        return Unusable(
            "SslForce is set; a tree with it cannot get keys while it works, since its devices "
            "call each other at other ports");
    umask(077);
    const auto device = IdentityOfRoot(root);
    if (!device) return device.Error();
    if (KelStatus fits = CheckToken(*device, token); !fits) return fits;
    if (KelStatus made = MakeKeyFiles(KelKeyFolder(root + "/data/Keys"), *device, token); !made) return made;
    const KelString keysIni = root + "/config/Keys.ini";
    if (!FileExists(keysIni)) {
        if (KelStatus written = FileWriteText(keysIni, KelString(IniTemplates().at("Keys.ini"))); !written)
            return written;
    }
    // Without the module, an agent with keys goes on as before; the module alone would keep it from starting.
    IniFile ini;
    if (!ini.Open(AgentIniOf(root))) return Unusable(AgentIniOf(root) + ": cannot be read");
    if (KelStatus written = ini.WriteEntryValues("Security", {{"Keys", "true"}, {"AcceptPassword", "true"}});
        !written)
        return written;
    return AddKeysModule(root);
}

int EndPassword(const CommonOptions& common, bool force) {
    const KelString root = CompletePath(common.root);
    if (!Flag(root, "Keys")) return Complain("this device has no keys yet");
    const auto lock = LockStoppedRoot(root);
    if (!lock) return Complain(lock.Error());
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    KelContainer answer;
    if (!*lock) {
        if (const unsigned int result = remote->Call("KeysGetValues", answer); result != kKelOk)
            return ExitCodeOf(result);
    }
    const KelString callers = AddressesText(answer.GetContainer("Values"), "PasswordCallers");
    if (!force && !callers.empty())
        return Complain("devices without keys come with the password: " + callers +
                        "; give them keys, or end it with --force");
    IniFile ini;
    if (!ini.Open(AgentIniOf(root))) return Complain(AgentIniOf(root) + ": cannot be read");
    if (const KelStatus written = ini.WriteEntryValue("Security", "AcceptPassword", "false"); !written)
        return Complain(written.Error());
    KelContainer none;
    const unsigned int result = *lock ? kKelOk : remote->Call("AgentTakePassword", none);
    if (result == kKelOk && common.json) std::puts("[]");
    return ExitCodeOf(result);
}
