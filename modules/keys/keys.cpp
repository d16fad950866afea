#include "modules/keys/keys.h"

#include <array>
#include <ctime>

#include "kelcore/action_db.h"
#include "kelcore/agent.h"
#include "kelcore/callback_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/metrics/metrics.h"
#include "modules/keys/key_metrics.h"

namespace {

constexpr const char* kEvents[] = {"RelayCallbackParentInSync", "RelayCallbackParentChange"};
constexpr const char* kEventSignature = "KeysParentInSync ()";
constexpr std::uint64_t kMilliseconds = 1000;

const IniSetting kCheckInterval = IniSetting::Number("Keys", "CheckInterval", 60).Between(1, 86400);
const IniSetting kRetryInterval = IniSetting::Number("Keys", "RetryInterval", 5).Between(1, 86400);

}  // namespace

Keys::Keys()
    : KelModule("Keys", "Keys module"),
      keeper_(Log()),
      failures_(Log()),
      thread_(
          Log(), KelPeriodicThread::Begin::WithStep, [this] { return Step(); },
          [this](bool isWorkLeft) { return (isWorkLeft ? retrySeconds_ : checkSeconds_) * kMilliseconds; }) {}

Keys::~Keys() {
    Keys::Cleanup();
}

std::span<const IniSetting> Keys::IniSettings() const {
    static const std::array settings = {kCheckInterval, kRetryInterval};
    return settings;
}

bool Keys::Initialise() {
    IniFile ini;
    ini.Open(IniPath());  // without it, the defaults
    checkSeconds_ = static_cast<std::uint32_t>(ReadIniNumber(ini, kCheckInterval));
    retrySeconds_ = static_cast<std::uint32_t>(ReadIniNumber(ini, kRetryInterval));
    const AgentSecurityKeys keys = keeper_.Current();
    if (!keys) {
        Log().Error("This is a plain tree; remove the module Keys from Agent.ini, or set Keys=true there\n");
        return false;
    }
    keeper_.Open(DataPath());
    if (keys->Get().device.role != KelDeviceRole::Master) return true;
    master_.emplace(KelKeyFolder(DataPath()).AuthorityPath());
    if (const KelStatus opened = master_->Open(std::time(nullptr)); !opened) {
        Log().Error("The authority of the tree cannot be used: %S\n", opened.Error().message);
        return false;
    }
    return true;
}

bool Keys::Activate() {
    const KelDeviceIdentity& device = keeper_.Current()->Get().device;
    KelContainer identity, relay;
    CallLocal("IdentityGetGUID", identity);
    CallLocal("RelayGetValues", relay);
    const KelString guid = identity.GetString("GUID", device.guid);
    const KelString role = relay.GetContainer("Values").GetString("Role", KelDeviceRoleName(device.role));
    if (guid != device.guid || role != KelDeviceRoleName(device.role)) {
        Log().Error(
            "The keys in %S are those of the %s %S, but this device is the %S %S; restore Relay.ini "
            "and data/Identity/guid, or make the root folder anew\n",
            DataPath(), KelDeviceRoleName(device.role), device.guid, role, guid);
        return false;
    }
    return thread_.Start();
}

void Keys::Cleanup() {
    thread_.Cancel(0, true);
}

void Keys::Unregister() {
    for (const char* event : kEvents)
        CallbackDbDeleteAction(event, kEventSignature, {});
}

void Keys::Register(const char* handle) {
    RegisterMaster(handle);
    KelMetricsRegister(handle, [](KelMetricsPage& page) { CollectKeyMetrics(AgentSecurityGetKeys(), page); });
    ActionDbRegisterActions<Keys>(
        *this, handle,
        {{&Keys::Enrol,
          {.signature = "KeysEnrol",
           .purpose = "Gives a device with an invitation its first certificate; asks upwards for it.",
           .inputs = "string Invitation (its identifier), string Request (PKCS #10, DER in base64), string "
                     "Proof (HMAC-SHA-256 with the secret of the invitation, hexadecimal)",
           .outputs =
               "string Certificate (PEM), string Authority (PEM), string GroupKey, string Revoked? (the "
               "list, PEM)",
           .results = "1 malformed or refused; 17 the master cannot be reached now",
           .callers = KelCallers::Child | KelCallers::Stranger}},
         {&Keys::Renew,
          {.signature = "KeysRenew",
           .purpose = "Gives a device its next certificate, for the key that it has or for a new one; asks "
                      "upwards for it. One for the key that it has ends those for former keys.",
           .inputs = "string Request (PKCS #10, DER in base64), string Proof? (for a new key: the DER signed "
                     "with the present one, ECDSA with SHA-256, in base64)",
           .outputs = "string Certificate (PEM), string Revoked? (the list, PEM)",
           .results =
               "1 malformed, or the device has no valid certificate; 17 the master cannot be reached now",
           .callers = KelCallers::Child}},
         {&Keys::GetRevoked,
          {.signature = "KeysGetRevoked",
           .purpose = "Gives the list of revoked certificates when the caller has an older one.",
           .inputs = "int64 Known (the number of the caller's list)",
           .outputs = "int64 Number, string Revoked? (PEM)",
           .callers = KelCallers::Child}},
         {&Keys::GetValues,
          {.signature = "KeysGetValues",
           .purpose = "Says which keys this device has.",
           .outputs =
               "container Values {bool IsEnrolled, string GUID, string Role, string Fingerprint (of its "
               "key), int64 NotBefore?, int64 NotAfter? (of its certificate, seconds since the epoch), "
               "string Serial?, "
               "string Authority? (fingerprint), int64 AuthorityNotAfter?, string ParentGuid, string "
               "ParentFingerprint (empty: "
               "not known yet), int64 RevokedNumber, int32 RevokedCount, bool IsInvited, string "
               "JoinProblem? (what the last try to join has failed by), bool "
               "AcceptsPassword (of "
               "members without keys), container PasswordCallers[]? {string Address, int64 LastSeen}}",
           .callers = KelCallers::Operator}},
         {&Keys::Join,
          {.signature = "KeysJoin",
           .purpose = "Has this device enrolled with an invitation, also again.",
           .inputs = "string Token",
           .results = "1 no token; 18 not written",
           .callers = KelCallers::Local,
           .changes = true}},
         {&Keys::ForgetParent,
          {.signature = "KeysForgetParent",
           .purpose = "Has the key of the parent learnt anew, after the parent was set up again.",
           .results = "18 not written",
           .callers = KelCallers::Local,
           .changes = true}},
         {&Keys::RenewKey,
          {.signature = "KeysRenewKey",
           .purpose =
               "Has this device make a new key, get a certificate for it, and its former ones revoked.",
           .results = "17 the device does not belong to a tree yet; 18 not written",
           .callers = KelCallers::Local,
           .changes = true}},
         {[](Keys& keys, KelContainer* arguments) {
              arguments->Clear();
              keys.thread_.Signal(0);
              return unsigned{kKelOk};
          },
          {.signature = kEventSignature,
           .purpose = "Asks the parent for what is new; for the events RelayCallbackParentInSync and "
                      "RelayCallbackParentChange.",
           .callers = KelCallers::Local}}});
    for (const char* event : kEvents)
        CallbackDbRegisterAction(event, kEventSignature, {}, 0);
}

/// True when something is to be tried again soon.
bool Keys::Step() {
    const std::int64_t now = std::time(nullptr);
    const ParentPlaces parent = master_ ? ParentPlaces() : FindParent();
    bool isWorkLeft = false;
    if (const auto token = keeper_.Token()) isWorkLeft = !JoinTree(*token);
    if (!keeper_.Current()->IsEnrolled()) {
        if (!keeper_.Token())
            failures_.Failed(
                KelDebugLevel::Error, "enrolled",
                "This device does not belong to a tree yet; make an invitation on the master (kel "
                "invite) and use it here: kel keys join TOKEN");
        return true;
    }
    FollowParent(parent);
    const AgentSecurityKeys keys = keeper_.Current();
    ExamineOwnCertificate(*keys, now);
    isWorkLeft = !FollowNextKey(parent, now) || isWorkLeft;
    isWorkLeft = !RenewWhenDue(*keeper_.Current(), parent, now) || isWorkLeft;
    if (parent.port != 0) isWorkLeft = !FetchRevoked(parent) || isWorkLeft;
    return isWorkLeft;
}
