#include "modules/keys/master_keys.h"

MasterKeys::MasterKeys(const KelString& folder)
    : authority_(folder), invitations_(authority_, folder + "/Invitations") {}

KelStatus MasterKeys::Open(std::int64_t now) {
    const KelLock lock(mutex_);
    if (KelStatus opened = authority_.Open(); !opened) return opened;
    return authority_.OpenSigner(now);
}

KelResult<KelCertificate> MasterKeys::Enrol(const KelEnrolRequest& request, std::int64_t now) {
    const KelLock lock(mutex_);
    return invitations_.Enrol(request, now);
}

KelResult<KelCertificate> MasterKeys::Renew(const KelCertificateRequest& request, std::int64_t now) {
    const KelLock lock(mutex_);
    return authority_.Renew(request, now);
}

KelResult<KelCertificate> MasterKeys::IssueOwn(const KelKeyPair& key, const KelDeviceIdentity& master,
                                               std::int64_t now, std::int64_t leastEnd) {
    const KelLock lock(mutex_);
    const auto issued = authority_.Issue(key.Get(), master, now, leastEnd);
    if (!issued) return issued.Error();
    const KelStatus retired = authority_.RetireOtherKeys(master.guid, issued->Fingerprint(), now);
    return retired ? issued : KelResult<KelCertificate>(retired.Error());
}

KelResult<KelCertificate> MasterKeys::Replace(const KelCertificateRequest& request, std::string_view proof,
                                              std::int64_t now) {
    const KelLock lock(mutex_);
    return authority_.Replace(request, proof, now);
}

KelResult<KelCertificate> MasterKeys::ReplaceOwn(const KelKeyPair& key, const KelDeviceIdentity& master,
                                                 std::int64_t now) {
    const KelLock lock(mutex_);
    return authority_.ReplaceOwn(key, master, now);
}

KelResult<KelInvitation> MasterKeys::Invite(const KelString& ownGuid, const KelInvitations::Offer& offer,
                                            std::int64_t now) {
    const KelLock lock(mutex_);
    return invitations_.Make(ownGuid, offer, now);
}

KelResult<KelRevocationList> MasterKeys::Revoke(const KelString& guid, std::int64_t now) {
    const KelLock lock(mutex_);
    if (KelStatus revoked = authority_.Revoke(guid, now); !revoked) return revoked.Error();
    return authority_.Revoked();
}

KelResult<KelRevocationList> MasterKeys::Revoked() {
    const KelLock lock(mutex_);
    return authority_.Revoked();
}

KelVector<KelAuthority::Device> MasterKeys::List() {
    const KelLock lock(mutex_);
    return authority_.List();
}

KelResult<KelContainer> MasterKeys::Sign(const KelPublication& publication) {
    const KelLock lock(mutex_);
    return authority_.Signer().Sign(publication);
}

KelCertificate MasterKeys::Authority() {
    const KelLock lock(mutex_);
    return authority_.Certificate();
}

KelString MasterKeys::GroupKey() {
    const KelLock lock(mutex_);
    return authority_.GroupKey();
}
