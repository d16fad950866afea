// The actions of the class Keys.

#include <algorithm>
#include <ctime>

#include "kel/base64.h"
#include "kel/format.h"
#include "kelcore/action_db.h"
#include "kelcore/device_name.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"
#include "kelcore/keys/transition.h"
#include "modules/keys/keys.h"

namespace {

constexpr int kMostEnrolments = 3;  ///< at the same time

/// Counts what is going on, for as long as this exists.
class Counted {
  public:
    explicit Counted(std::atomic<int>& count) : count_(count), number_(++count) {}
    ~Counted() { --count_; }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;

    int Number() const { return number_; }

  private:
    std::atomic<int>& count_;
    const int number_;
};

KelError OnlyOnMaster() {
    return {kKelErrorNotAvailable, "Only the master of a tree with keys can do this"};
}

}  // namespace

void Keys::RegisterMaster(const char* handle) {
    ActionDbRegisterActions<Keys>(
        *this, handle,
        {{&Keys::Invite,
          {.signature = "KeysInvite",
           .purpose = "Makes an invitation, with which devices join the tree; on the master.",
           .inputs =
               "int32 Uses (1 to 100000), int64 Seconds (how long it is valid), string Role? (client, or "
               "relay for relays and clients; absent: client)",
           .outputs = "string Token, int64 Expires (seconds since the epoch)",
           .results = "1 unusable; 17 not on the master; 18 not written",
           .callers = KelCallers::Local,
           .changes = true}},
         {&Keys::Revoke,
          {.signature = "KeysRevoke",
           .purpose =
               "Revokes the certificates of a device: no device of the tree talks to it any more; on the "
               "master.",
           .inputs = "string GUID",
           .results =
               "1 unusable, or the master itself; 13 it has no certificate; 17 not on the master; 18 not "
               "written",
           .callers = KelCallers::Local,
           .changes = true}},
         {&Keys::List,
          {.signature = "KeysList",
           .purpose =
               "Lists the devices that have certificates, and those whose certificates were revoked; on "
               "the master.",
           .outputs =
               "container Values[]? {string GUID, string Role, string Fingerprint, string Serial (of the "
               "latest certificate), int64 NotBefore, int64 NotAfter (seconds since the epoch), bool "
               "IsRevoked}",
           .results = "17 not on the master",
           .callers = KelCallers::Local}},
         {&Keys::Sign,
          {.signature = "KeysSign",
           .purpose = "Signs a publication; on the master.",
           .inputs =
               "string FileType, string FileLabel, string FileName, string FileChecksum, string "
               "PublicationId, int64 PublicationTime (seconds since the epoch), container Signed {int64 "
               "Size (bytes), string Sha256 (hexadecimal), string Device[]? (GUID; absent: every device)}",
           .outputs =
               "container Signed {int64 Size, string Sha256, string Device[]?, string Certificate (DER "
               "in base64), string Signature (base64)}",
           .results = "1 unusable; 17 not on the master; 18 not signed",
           .callers = KelCallers::Local}}});
}

unsigned int Keys::Fail(KelContainer* arguments, const KelError& error) {
    const unsigned int code = error.code == kKelOk ? unsigned{kKelErrorInternal} : error.code;
    failures_.Failed(KelDebugLevel::Warning, error.message,
                     "A request for keys was refused: " + error.message);
    arguments->Clear();
    arguments->SetString("Message", error.message);
    return code;
}

/// Has the parent answer, and keeps only these of its results.
unsigned int Keys::PassUp(const char* action, KelContainer* arguments, std::span<const char* const> results) {
    ParentCall call{keeper_.Current(), {}};
    const unsigned int code = CallParent(FindParent(), action, *arguments, call);
    if (code == kKelErrorBadInput) return Fail(arguments, {code, call.problem});
    if (code != kKelOk)
        return Fail(arguments,
                    {kKelErrorNotAvailable,
                     "a device on the way to the master cannot reach its parent: " + call.problem});
    KelContainer answer;
    for (const char* name : results)
        if (arguments->Has(name)) answer.SetString(name, arguments->GetString(name));
    *arguments = std::move(answer);
    return kKelOk;
}

/// Strangers may call this: they must not take all workers, of which each may wait for the parent.
unsigned int Keys::Enrol(KelContainer* arguments) {
    const Counted counted(enrolments_);
    if (counted.Number() <= kMostEnrolments) return EnrolAnyone(arguments);
    return Fail(arguments, {kKelErrorNotAvailable, "many devices are being enrolled now; try again"});
}

unsigned int Keys::EnrolAnyone(KelContainer* arguments) {
    const auto request = KelEnrolRequest::FromContainer(*arguments);
    if (!request) return Fail(arguments, {kKelErrorBadInput, request.Error().message});
    if (!keeper_.Current()->IsEnrolled())
        return Fail(arguments, {kKelErrorNotAvailable, "the parent does not belong to the tree itself yet"});
    if (!master_) {
        static constexpr const char* kResults[] = {"Certificate", "Authority", "GroupKey", "Revoked"};
        *arguments = request->ToContainer();
        return PassUp("KeysEnrol", arguments, kResults);
    }
    const auto certificate = master_->Enrol(*request, std::time(nullptr));
    if (!certificate) return Fail(arguments, certificate.Error());
    const auto pem = certificate->ToPem();
    const auto authority = master_->Authority().ToPem();
    const auto revoked = master_->Revoked();
    if (!pem || !authority || !revoked)
        return Fail(arguments, {kKelErrorInternal, "the files of the authority cannot be read"});
    const KelDeviceIdentity& device = request->request.Identity();
    Log().Print("The %s %S has joined the tree; its key is %S\n", KelDeviceRoleName(device.role), device.guid,
                certificate->Fingerprint());
    arguments->Clear();
    arguments->SetString("Certificate", *pem);
    arguments->SetString("Authority", *authority);
    arguments->SetString("GroupKey", master_->GroupKey());
    if (!revoked->Pem().empty()) arguments->SetString("Revoked", revoked->Pem());
    return kKelOk;
}

unsigned int Keys::Renew(KelContainer* arguments) {
    const auto request = RequestFromBase64(arguments->GetString("Request"));
    if (!request) return Fail(arguments, {kKelErrorBadInput, request.Error().message});
    const KelString proof = arguments->GetString("Proof");
    if (!master_) {
        static constexpr const char* kResults[] = {"Certificate", "Revoked"};
        *arguments = RequestContainer(*request);
        if (!proof.empty()) arguments->SetString("Proof", proof);
        return PassUp("KeysRenew", arguments, kResults);
    }
    const std::int64_t now = std::time(nullptr);
    const auto certificate = proof.empty()
                                 ? master_->Renew(*request, now)
                                 : master_->Replace(*request, Base64Decode(proof).value_or(KelString()), now);
    if (!certificate) return Fail(arguments, certificate.Error());
    const auto pem = certificate->ToPem();
    if (!pem) return Fail(arguments, {kKelErrorInternal, pem.Error().message});
    TakeOwnList();
    arguments->Clear();
    arguments->SetString("Certificate", *pem);
    if (const KelString& revoked = keeper_.Current()->Get().revoked.Pem(); !revoked.empty())
        arguments->SetString("Revoked", revoked);
    return kKelOk;
}

unsigned int Keys::GetRevoked(KelContainer* arguments) {
    const AgentSecurityKeys keys = keeper_.Current();
    const KelRevocationList& revoked = keys->Get().revoked;
    const std::int64_t known = arguments->GetInt64("Known");
    arguments->Clear();
    arguments->SetInt64("Number", revoked.Number());
    if (revoked.Number() > known) arguments->SetString("Revoked", revoked.Pem());
    return kKelOk;
}

unsigned int Keys::GetValues(KelContainer* arguments) {
    const AgentSecurityKeys keys = keeper_.Current();
    const KelKeyRing::Parts& parts = keys->Get();
    KelContainer values;
    values.SetBool("IsEnrolled", keys->IsEnrolled());
    values.SetString("GUID", parts.device.guid);
    values.SetString("Role", KelDeviceRoleName(parts.device.role));
    values.SetString("Fingerprint", KeyFingerprint(parts.key.Get()));
    if (keys->IsEnrolled()) {
        values.SetInt64("NotBefore", parts.certificate->NotBefore());
        values.SetInt64("NotAfter", parts.certificate->NotAfter());
        values.SetString("Serial", parts.certificate->Serial());
        values.SetString("Authority", parts.authority->Fingerprint());
        values.SetInt64("AuthorityNotAfter", parts.authority->NotAfter());
    }
    if (const KelString problem = JoinProblem(); !problem.empty()) values.SetString("JoinProblem", problem);
    values.SetString("ParentGuid", parts.parent.guid);
    values.SetString("ParentFingerprint", parts.parent.fingerprint);
    values.SetInt64("RevokedNumber", parts.revoked.Number());
    values.SetInt32("RevokedCount", static_cast<std::int32_t>(parts.revoked.Count()));
    values.SetBool("IsInvited", keeper_.Token().has_value());
    values.SetBool("AcceptsPassword", Transition().AcceptsPassword());
    for (const auto& [address, time] : Transition().PasswordCallers()) {
        KelContainer caller;
        caller.SetString("Address", address.ToText());
        caller.SetInt64("LastSeen", time);
        values.SetContainer("PasswordCallers", std::move(caller), KelContainer::kAbsent);
    }
    arguments->Clear();
    arguments->SetContainer("Values", std::move(values));
    return kKelOk;
}

unsigned int Keys::Join(KelContainer* arguments) {
    const KelString token = arguments->GetString("Token");
    if (const auto invitation = KelInvitation::FromToken(token); !invitation)
        return Fail(arguments, {kKelErrorBadInput, invitation.Error().message});
    if (master_) return Fail(arguments, {kKelErrorBadInput, "a master does not join another tree"});
    if (const KelStatus kept = keeper_.SetToken(token); !kept)
        return Fail(arguments, {kKelErrorInternal, kept.Error().message});
    arguments->Clear();
    thread_.Signal(0);
    return kKelOk;
}

unsigned int Keys::ForgetParent(KelContainer* arguments) {
    if (const KelStatus kept = keeper_.TakeParent({}); !kept)
        return Fail(arguments, {kKelErrorInternal, kept.Error().message});
    arguments->Clear();
    thread_.Signal(0);
    return kKelOk;
}

unsigned int Keys::RenewKey(KelContainer* arguments) {
    if (!keeper_.Current()->IsEnrolled())
        return Fail(arguments, {kKelErrorNotAvailable, "this device does not belong to a tree yet"});
    if (const KelStatus made = keeper_.MakeNextKey(); !made)
        return Fail(arguments, {kKelErrorInternal, made.Error().message});
    arguments->Clear();
    thread_.Signal(0);
    return kKelOk;
}

unsigned int Keys::Invite(KelContainer* arguments) {
    if (!master_) return Fail(arguments, OnlyOnMaster());
    const std::int64_t now = std::time(nullptr);
    const std::int64_t seconds = std::min(arguments->GetInt64("Seconds"), KelInvitation::kLongest);
    const auto role = ParseDeviceRole(arguments->GetString("Role", "client"));
    if (!role || *role == KelDeviceRole::Master)
        return Fail(arguments, {kKelErrorBadInput, "an invitation is for a relay or a client"});
    const auto invitation = master_->Invite(keeper_.Current()->Get().device.guid,
                                            {arguments->GetInt32("Uses"), now + seconds, *role}, now);
    if (!invitation) return Fail(arguments, invitation.Error());
    arguments->Clear();
    arguments->SetString("Token", invitation->ToToken());
    arguments->SetInt64("Expires", invitation->expires);
    return kKelOk;
}

unsigned int Keys::Revoke(KelContainer* arguments) {
    if (!master_) return Fail(arguments, OnlyOnMaster());
    const KelString guid = arguments->GetString("GUID");
    if (guid == keeper_.Current()->Get().device.guid)
        return Fail(arguments, {kKelErrorBadInput, "the master cannot revoke its own certificate"});
    const auto revoked = master_->Revoke(guid, std::time(nullptr));
    if (!revoked) return Fail(arguments, revoked.Error());
    if (const KelStatus taken = keeper_.TakeRevoked(revoked->Pem()); !taken)
        return Fail(arguments, {kKelErrorInternal, taken.Error().message});
    Log().Print("The certificates of %S were revoked\n", guid);
    arguments->Clear();
    return kKelOk;
}

unsigned int Keys::List(KelContainer* arguments) {
    if (!master_) return Fail(arguments, OnlyOnMaster());
    arguments->Clear();
    std::uint32_t count = 0;
    for (const KelAuthority::Device& device : master_->List()) {
        KelContainer values;
        values.SetString("GUID", device.identity.guid);
        values.SetString("Role", KelDeviceRoleName(device.identity.role));
        values.SetString("Fingerprint", device.certificate.Fingerprint());
        values.SetString("Serial", device.certificate.Serial());
        values.SetInt64("NotBefore", device.certificate.NotBefore());
        values.SetInt64("NotAfter", device.certificate.NotAfter());
        values.SetBool("IsRevoked", device.isRevoked);
        arguments->SetContainer("Values", std::move(values), count++);
    }
    return kKelOk;
}

unsigned int Keys::Sign(KelContainer* arguments) {
    if (!master_) return Fail(arguments, OnlyOnMaster());
    const auto publication = KelPublication::Read(FileKey::Read(*arguments), *arguments);
    if (!publication) return Fail(arguments, {kKelErrorBadInput, publication.Error().message});
    auto made = master_->Sign(*publication);
    if (!made) return Fail(arguments, {kKelErrorInternal, made.Error().message});
    arguments->Clear();
    arguments->SetContainer(kValueSigned, std::move(*made));
    return kKelOk;
}
