#include "modules/keys/key_keeper.h"

#include <ctime>

#include "kel/format.h"

KelString CertificateProblem(const KelCertificate& certificate, const KelCertificate& authority,
                             const KelKeyRing& keys, std::int64_t now) {
    const auto store = MakeTrustStore(authority);
    if (!store) return "the certificate of the authority cannot be used";
    const KelTlsPeer self = ExamineByAuthority(certificate.Get(), store.get(), KelTlsSide::Client, now);
    const KelDeviceIdentity& device = keys.Get().device;
    if (!self.isVerified) return self.problem;
    if (self.guid != device.guid || self.role != device.role ||
        self.fingerprint != KeyFingerprint(keys.Get().key.Get()))
        return "the certificate is that of another device";
    return {};
}

void KeyKeeper::Open(const KelString& path) {
    const KelLock lock(mutex_);
    folder_ = KelKeyFolder(path);
}

KelStatus KeyKeeper::Reload() {
    auto keys = folder_.Load();
    if (!keys) return keys.Error();
    AgentSecuritySetKeys(std::move(*keys));
    return {};
}

KelStatus KeyKeeper::TakeEnrolment(const KelCertificate& certificate, const KelCertificate& authority,
                                   const KelString& groupKey, const KelParentPin& parent) {
    const KelString problem = CertificateProblem(certificate, authority, *Current(), std::time(nullptr));
    if (!problem.empty()) return KelError{kKelFailure, problem};
    const KelLock lock(mutex_);
    if (KelStatus saved = folder_.SaveParent(parent); !saved) return saved;
    if (KelStatus saved = folder_.SaveEnrolment(certificate, authority, groupKey); !saved) return saved;
    if (KelStatus loaded = Reload(); !loaded) return loaded;
    folder_.DropToken();
    return {};
}

KelStatus KeyKeeper::TakeCertificate(const KelCertificate& certificate) {
    const AgentSecurityKeys keys = Current();
    if (!keys->IsEnrolled()) return KelError{kKelFailure, "this device has not been enrolled yet"};
    const KelString problem =
        CertificateProblem(certificate, *keys->Get().authority, *keys, std::time(nullptr));
    if (!problem.empty()) return KelError{kKelFailure, problem};
    const KelLock lock(mutex_);
    if (KelStatus saved = folder_.SaveCertificate(certificate); !saved) return saved;
    return Reload();
}

std::optional<KelKeyPair> KeyKeeper::NextKey() const {
    const KelLock lock(mutex_);
    return folder_.LoadNextKey();
}

KelStatus KeyKeeper::MakeNextKey() {
    const KelLock lock(mutex_);
    return folder_.LoadNextKey() ? KelStatus() : folder_.MakeNextKey();
}

KelStatus KeyKeeper::TakeNextKey(const KelCertificate& certificate) {
    const KelLock lock(mutex_);
    auto next = folder_.LoadNextKey();
    if (!next) return KelError{kKelFailure, "there is no next key"};
    KelKeyRing::Parts parts = Current()->Get();
    parts.key = std::move(*next);
    parts.certificate = certificate;
    const auto keys = KelKeyRing::Make(std::move(parts));
    if (!keys) return keys.Error();
    const KelString problem =
        CertificateProblem(certificate, *(*keys)->Get().authority, **keys, std::time(nullptr));
    if (!problem.empty()) return KelError{kKelFailure, problem};
    if (KelStatus taken = folder_.TakeNextKey(certificate); !taken) return taken;
    return Reload();
}

KelStatus KeyKeeper::TakeRevoked(const KelString& pem) {
    const AgentSecurityKeys keys = Current();
    if (!keys->IsEnrolled()) return KelError{kKelFailure, "this device has not been enrolled yet"};
    const auto revoked = KelRevocationList::FromPem(pem, *keys->Get().authority);
    if (!revoked) return revoked.Error();
    const KelLock lock(mutex_);
    if (revoked->Number() <= Current()->Get().revoked.Number()) return {};
    if (KelStatus saved = folder_.SaveRevoked(*revoked); !saved) return saved;
    log_.Print("The list of revoked certificates has %u entries now\n",
               static_cast<unsigned>(revoked->Count()));
    return Reload();
}

KelStatus KeyKeeper::TakeParent(const KelParentPin& parent) {
    const KelLock lock(mutex_);
    if (Current()->Get().parent == parent) return {};
    if (KelStatus saved = folder_.SaveParent(parent); !saved) return saved;
    return Reload();
}

std::optional<KelString> KeyKeeper::Token() const {
    const KelLock lock(mutex_);
    return folder_.LoadToken();
}

KelStatus KeyKeeper::SetToken(const KelString& token) {
    const KelLock lock(mutex_);
    return folder_.SaveToken(token);
}

void KeyKeeper::DropToken() {
    const KelLock lock(mutex_);
    folder_.DropToken();
}
