#include "kel/base64.h"
#include "kel/format.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/keys/openssl_objects.h"
#include "modules/keys/keys.h"

namespace {

constexpr std::chrono::hours kRenewalPause{24};

}  // namespace

bool IsRenewalDue(const KelCertificate& certificate, std::int64_t now) {
    return now >= certificate.NotBefore() + (certificate.NotAfter() - certificate.NotBefore()) / 3 * 2;
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
                DateText(keeper_.Current()->Get().certificate->NotAfter()));
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
                      DateText(keys.Get().certificate->NotAfter()), problem));
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
                DateText(certificate->NotAfter()));
    return true;
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
