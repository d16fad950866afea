#include "modules/keys/keys.h"

#include <array>
#include <ctime>

#include "kel/base64.h"
#include "kel/format.h"
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
constexpr std::chrono::hours kRenewalPause{24};

const IniSetting kCheckInterval = IniSetting::Number("Keys", "CheckInterval", 60).Between(1, 86400);
const IniSetting kRetryInterval = IniSetting::Number("Keys", "RetryInterval", 5).Between(1, 86400);

KelString DateOf(std::int64_t time) {
    const std::time_t seconds = time;
    std::tm parts{};
    std::array<char, 32> text{};
    gmtime_r(&seconds, &parts);
    std::strftime(text.data(), text.size(), "%Y-%m-%d", &parts);
    return text.data();
}

}  // namespace

bool IsRenewalDue(const KelCertificate& certificate, std::int64_t now) {
    return now >= certificate.NotBefore() + (certificate.NotAfter() - certificate.NotBefore()) / 3 * 2;
}

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

KelString Keys::JoinProblem() const {
    const KelLock lock(mutex_);
    return joinProblem_;
}

void Keys::NoteJoinProblem(const KelString& problem) {
    const KelLock lock(mutex_);
    joinProblem_ = problem;
}

bool Keys::JoinTree(const KelString& token) {
    const auto fail = [this](const KelString& problem) {
        NoteJoinProblem(problem);
        failures_.Failed(KelDebugLevel::Warning, "join", "This device cannot join the tree now: " + problem);
        return false;
    };
    const auto invitation = KelInvitation::FromToken(token);
    if (!invitation) return fail(invitation.Error().message);
    const AgentSecurityKeys keys = keeper_.Current();
    const auto request = KelCertificateRequest::Make(keys->Get().key, keys->Get().device);
    if (!request) return fail(request.Error().message);
    const ParentPlaces parent = FindParent();
    ParentCall call{keys, invitation->authority};
    KelContainer container = KelEnrolRequest::Make(*invitation, *request).ToContainer();
    if (CallParent(parent, "KeysEnrol", container, call) != kKelOk) return fail(call.problem);
    if (const KelStatus taken = TakeAnswer(container, invitation->authority, parent, call.peer); !taken)
        return fail(taken.Error().message);
    failures_.Clear();
    NoteJoinProblem({});
    Log().Print("This device belongs to the tree now; its certificate is valid until %S\n",
                DateOf(keeper_.Current()->Get().certificate->NotAfter()));
    KelContainer none;
    CallLocal("RelayCheckParent", none);
    return true;
}

KelStatus Keys::TakeAnswer(const KelContainer& answer, const KelString& authorityFingerprint,
                           const ParentPlaces& parent, const KelTlsPeer& peer) {
    const auto authority = KelCertificate::FromPem(answer.GetString("Authority"));
    if (!authority) return authority.Error();
    if (authority->Fingerprint() != authorityFingerprint)
        return KelError{kKelFailure, "the answer is from another tree than the invitation"};
    const auto certificate = KelCertificate::FromPem(answer.GetString("Certificate"));
    if (!certificate) return certificate.Error();
    if (KelStatus taken = keeper_.TakeEnrolment(*certificate, *authority, answer.GetString("GroupKey"),
                                                {parent.written, peer.guid, peer.fingerprint, peer.serial});
        !taken)
        return taken;
    const KelString revoked = answer.GetString("Revoked");
    return revoked.empty() ? KelStatus() : keeper_.TakeRevoked(revoked);
}

/// Another parent is learnt anew; one that has only another address by now stays known by its key.
void Keys::FollowParent(const ParentPlaces& parent) {
    if (parent.port == 0) return;
    KelParentPin pin = keeper_.Current()->Get().parent;
    if (pin.places.empty() || pin.places.front() != parent.written.front()) pin = {};
    pin.places = parent.written;
    if (const KelStatus taken = keeper_.TakeParent(pin); !taken)
        failures_.Failed(KelDebugLevel::Error, "parent",
                         "The parent cannot be noted: " + taken.Error().message);
    else
        failures_.Succeeded("parent", "The parent is noted again");
}

void Keys::ExamineOwnCertificate(const KelKeyRing& keys, std::int64_t now) {
    const KelString problem = CertificateProblem(*keys.Get().certificate, *keys.Get().authority, keys, now);
    if (problem.empty())
        failures_.Succeeded("own", "The certificate of this device is valid again");
    else
        failures_.Failed(KelDebugLevel::Error, "own",
                         "No other device trusts this one as things are: " + problem);
}

bool Keys::RenewWhenDue(const KelKeyRing& keys, const ParentPlaces& parent, std::int64_t now) {
    // A master whose clock was ahead may have renewed its certificate then, which no device accepts for as
    // long as the clock was ahead. It is issued anew, but keeps its end: if the clock is late instead, the
    // devices go on accepting it.
    const bool isTooNew = master_ && now < keys.Get().certificate->NotBefore();
    if (!mustConfirm_ && !isTooNew && !IsRenewalDue(*keys.Get().certificate, now)) return true;
    if (!mustConfirm_ && !isTooNew && renewed_ &&
        std::chrono::steady_clock::now() - *renewed_ < kRenewalPause)
        return true;
    const auto fail = [&](const KelString& problem) {
        failures_.Failed(
            KelDebugLevel::Warning, "renewal",
            KelFormat("The certificate of this device, valid until %S, cannot be renewed now: %S",
                      DateOf(keys.Get().certificate->NotAfter()), problem));
        return false;
    };
    KelString pem;
    if (master_) {
        const auto issued = master_->IssueOwn(keys.Get().key, keys.Get().device, now,
                                              isTooNew ? keys.Get().certificate->NotAfter() : 0);
        const auto text = issued ? issued->ToPem() : KelResult<KelString>(issued.Error());
        if (!text) return fail(text.Error().message);
        pem = *text;
    } else {
        const auto request = KelCertificateRequest::Make(keys.Get().key, keys.Get().device);
        if (!request) return fail(request.Error().message);
        KelContainer container = RequestContainer(*request);
        ParentCall call{keeper_.Current(), {}};
        if (CallParent(parent, "KeysRenew", container, call) != kKelOk) return fail(call.problem);
        pem = container.GetString("Certificate");
        TakeList(container.GetString("Revoked"));
    }
    const auto certificate = KelCertificate::FromPem(pem);
    if (!certificate) return fail(certificate.Error().message);
    if (const KelStatus taken = keeper_.TakeCertificate(*certificate); !taken)
        return fail(taken.Error().message);
    renewed_ = std::chrono::steady_clock::now();
    mustConfirm_ = false;
    TakeOwnList();
    failures_.Succeeded("renewal", "The certificate of this device can be renewed again");
    Log().Print("The certificate of this device was renewed; it is valid until %S\n",
                DateOf(certificate->NotAfter()));
    return true;
}

/// A list of revoked certificates, which may be empty.
void Keys::TakeList(const KelString& pem) {
    const KelStatus taken = pem.empty() ? KelStatus() : keeper_.TakeRevoked(pem);
    if (taken)
        failures_.Succeeded("revoked", "The list of revoked certificates is good again");
    else
        failures_.Failed(KelDebugLevel::Error, "revoked",
                         "The list of revoked certificates is not used: " + taken.Error().message);
}

/// On the master, which has no parent to fetch it from.
void Keys::TakeOwnList() {
    const auto revoked = master_ ? master_->Revoked() : KelResult<KelRevocationList>(KelRevocationList());
    if (revoked) TakeList(revoked->Pem());
}

KelResult<KelCertificate> Keys::AskForNextKey(const KelKeyPair& next, const ParentPlaces& parent,
                                              std::int64_t now) {
    const AgentSecurityKeys keys = keeper_.Current();
    if (master_) return master_->ReplaceOwn(next, keys->Get().device, now);
    const auto request = KelCertificateRequest::Make(next, keys->Get().device);
    if (!request) return request.Error();
    const auto proof = keys->Get().key.Sign(request->Der());
    if (!proof) return proof.Error();
    KelContainer container = RequestContainer(*request);
    container.SetString("Proof", Base64Encode(*proof));
    ParentCall call{keys, {}};
    if (CallParent(parent, "KeysRenew", container, call) != kKelOk)
        return KelError{kKelErrorNotAvailable, call.problem};
    return KelCertificate::FromPem(container.GetString("Certificate"));
}

/// Has the key replaced when that was asked for.
bool Keys::FollowNextKey(const ParentPlaces& parent, std::int64_t now) {
    const auto next = keeper_.NextKey();
    if (!next) return true;
    const auto certificate = AskForNextKey(*next, parent, now);
    const KelStatus taken = certificate ? keeper_.TakeNextKey(*certificate) : KelStatus(certificate.Error());
    if (!taken) {
        failures_.Failed(KelDebugLevel::Warning, "next key",
                         "The key of this device cannot be replaced now: " + taken.Error().message);
        return false;
    }
    failures_.Succeeded("next key", "The key of this device can be replaced again");
    mustConfirm_ = true;
    Log().Print("This device has a new key: %S\n", certificate->Fingerprint());
    return true;
}

/// Asks the parent for a newer list, and learns by that who it is.
bool Keys::FetchRevoked(const ParentPlaces& parent) {
    const AgentSecurityKeys keys = keeper_.Current();
    KelContainer container;
    container.SetInt64("Known", keys->Get().revoked.Number());
    ParentCall call{keys, {}};
    if (CallParent(parent, "KeysGetRevoked", container, call) != kKelOk) {
        Log().Detail("The parent gives no list of revoked certificates: %S\n", call.problem);
        FollowReplacedParent(parent);
        return false;
    }
    NoteParent(call.peer);
    TakeList(container.GetString("Revoked"));
    return true;
}

void Keys::NoteParent(const KelTlsPeer& peer) {
    KelParentPin pin = keeper_.Current()->Get().parent;
    const bool isNew = pin.guid.empty();
    if (!peer.isVerified || pin.serial == peer.serial) return;
    pin.guid = peer.guid;
    pin.fingerprint = peer.fingerprint;
    pin.serial = peer.serial;
    if (keeper_.TakeParent(pin) && isNew)
        Log().Print("The parent is %S, with the key %S\n", pin.guid, pin.fingerprint);
}

/// The parent may have been set up again, with another key. It is believed when the authority has revoked the
/// former one: the list that says so is signed, so any relay may bring it.
void Keys::FollowReplacedParent(const ParentPlaces& parent) {
    KelKeyRing::Parts parts = keeper_.Current()->Get();
    const KelParentPin former = parts.parent;
    if (former.serial.empty()) return;
    parts.parent = {parent.written, {}, {}, {}};
    const auto anyRelay = KelKeyRing::Make(parts);
    if (!anyRelay) return;
    KelContainer container;
    container.SetInt64("Known", parts.revoked.Number());
    ParentCall call{*anyRelay, {}};
    if (CallParent(parent, "KeysGetRevoked", container, call) != kKelOk) return;
    const KelString revoked = container.GetString("Revoked");
    if (!revoked.empty() && !keeper_.TakeRevoked(revoked)) return;
    const KelRevocationList& known = keeper_.Current()->Get().revoked;
    if (call.peer.guid == former.guid && !known.Has(call.peer.serial))  // the same device with a new key
        parts.parent = {parent.written, call.peer.guid, call.peer.fingerprint, call.peer.serial};
    if (!known.Has(former.serial) || !keeper_.TakeParent(parts.parent)) return;
    Log().Print("The certificate of the former parent, %S, was revoked; %S is there in its place\n",
                former.guid, call.peer.guid);
    thread_.Signal(0);
}
