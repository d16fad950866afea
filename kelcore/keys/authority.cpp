#include "kelcore/keys/authority.h"

#include <openssl/x509.h>

#include <algorithm>

#include "kel/checksum.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/device_name.h"
#include "kelcore/error_codes.h"

namespace {

constexpr std::uint64_t kMaxFileBytes = 1 << 20;
constexpr std::string_view kPemEnd = "-----END CERTIFICATE-----\n";
constexpr std::size_t kGroupKeyBytes = 32;
/// Certificates stay listed for so long after their end: clocks differ.
constexpr std::int64_t kListedLonger = 30 * KelIssuer::kDay;

/// So many certificates a device may have at once; then it gets another one after a day. Each is kept until
/// its end, and listed if it is revoked: a device must not be able to fill the disk, or the list.
constexpr std::size_t kMostAtOnce = 10;

/// The certificates in a file, of which one may be malformed; none without the file. An error when it cannot
/// be read: what is not known could neither be revoked nor stay so.
KelResult<KelVector<KelCertificate>> LoadAll(const KelString& path) {
    KelVector<KelCertificate> all;
    if (!FileExists(path)) return all;
    const auto text = FileReadText(path, kMaxFileBytes);
    if (!text) return text.Error();
    std::string_view left = *text;
    for (std::size_t end = 0; (end = left.find(kPemEnd)) != std::string_view::npos;) {
        end += kPemEnd.size();
        if (auto certificate = KelCertificate::FromPem(left.substr(0, end))) all.push_back(*certificate);
        left.remove_prefix(end);
    }
    return all;
}

KelStatus SaveAll(const KelString& path, const KelVector<KelCertificate>& certificates) {
    KelString text;
    for (const KelCertificate& certificate : certificates) {
        const auto pem = certificate.ToPem();
        if (!pem) return pem.Error();
        text += *pem;
    }
    return FileWriteText(path, text);
}

/// The same without those that have ended.
KelResult<KelVector<KelCertificate>> LoadValid(const KelString& path, std::int64_t now) {
    auto all = LoadAll(path);
    if (all)
        std::erase_if(*all,
                      [now](const KelCertificate& certificate) { return certificate.NotAfter() < now; });
    return all;
}

/// Certificates begin a day before they are issued. One that has not begun yet was issued while the clock of
/// the master was ahead.
bool IsOfLastDay(const KelCertificate& certificate, std::int64_t now) {
    return certificate.NotBefore() <= now && certificate.NotBefore() + 2 * KelIssuer::kDay > now;
}

/// The GUIDs after which the files of a folder are named.
KelVector<KelString> GuidsIn(const KelString& folder) {
    constexpr std::string_view kSuffix = ".pem";
    KelVector<KelString> guids;
    for (const KelString& name : DirList(folder)) {
        const KelString guid = name.substr(0, name.size() - std::min(name.size(), kSuffix.size()));
        if (name.ends_with(kSuffix) && IsGuid(guid)) guids.push_back(guid);
    }
    std::ranges::sort(guids);
    return guids;
}

}  // namespace

KelStatus KelAuthority::Create(std::int64_t now) const {
    if (FileExists(File("key.pem"))) return KelError{kKelFailure, File("key.pem") + " already exists"};
    for (const char* folder : {"/Issued", "/Revoked", "/Invitations"})
        if (!PathCreate(folder_ + folder))
            return KelError{kKelFailure, folder_ + folder + ": cannot be created"};
    const auto issuer = KelIssuer::Make(now);
    if (!issuer) return issuer.Error();
    const auto pem = issuer->Certificate().ToPem();
    if (!pem) return pem.Error();
    if (KelStatus saved = FileWriteText(File("certificate.pem"), *pem); !saved) return saved;
    if (KelStatus saved = FileWriteText(File("group_key"), HexText(RandomBytes(kGroupKeyBytes)) + "\n");
        !saved)
        return saved;
    return issuer->Key().Save(File("key.pem"));
}

KelStatus KelAuthority::Open() {
    auto key = KelKeyPair::Load(File("key.pem"));
    if (!key) return key.Error();
    auto certificate = KelCertificate::Load(File("certificate.pem"));
    if (!certificate) return certificate.Error();
    if (certificate->Fingerprint() != KeyFingerprint(key->Get()))
        return KelError{kKelFailure, folder_ + ": key and certificate do not belong together; restore both"};
    const auto groupKey = FileReadText(File("group_key"), kMaxFileBytes);
    if (!groupKey) return groupKey.Error();
    groupKey_ = Trim(*groupKey);
    issuer_.emplace(std::move(*key), std::move(*certificate));
    return {};
}

KelStatus KelAuthority::OpenSigner(std::int64_t now) {
    const KelString keyPath = File("signing_key.pem"), certificatePath = File("signing_certificate.pem");
    if (!FileExists(keyPath)) {
        const auto key = KelKeyPair::Make(KelKeyKind::Signing);
        if (!key) return key.Error();
        FileDelete(certificatePath);
        if (KelStatus saved = key->Save(keyPath); !saved) return saved;
    }
    auto key = KelKeyPair::Load(keyPath, KelKeyKind::Signing);
    if (!key) return key.Error();
    if (!FileExists(certificatePath)) {
        const auto issued = issuer_->IssueForSigning(key->Get(), now);
        if (!issued) return issued.Error();
        if (KelStatus saved = SaveAll(certificatePath, {*issued}); !saved) return saved;
    }
    auto certificate = KelCertificate::Load(certificatePath);
    if (!certificate) return certificate.Error();
    if (certificate->Fingerprint() != KeyFingerprint(key->Get()))
        return KelError{kKelFailure,
                        KelFormat("%S and %S do not belong together; restore both from a backup, or remove "
                                  "both to have new ones made",
                                  keyPath, certificatePath)};
    signer_.emplace(std::move(*key), std::move(*certificate));
    return {};
}

std::optional<KelCertificate> KelAuthority::Find(const KelString& guid, std::int64_t now) const {
    const auto issued = LoadValid(IssuedPath(guid), now);
    return !issued || issued->empty() ? std::nullopt : std::optional(issued->back());
}

KelResult<KelCertificate> KelAuthority::Issue(evp_pkey_st* publicKey, const KelDeviceIdentity& identity,
                                              std::int64_t now, std::int64_t leastEnd) const {
    if (!IsGuid(identity.guid)) return KelError{kKelErrorBadInput, "this is no GUID"};
    const auto issued = LoadValid(IssuedPath(identity.guid), now);
    if (!issued) return issued.Error();
    if (!issued->empty() && issued->back().Fingerprint() != KeyFingerprint(publicKey))
        return KelError{kKelErrorBadInput,
                        KelFormat("another key is registered for %S; if the device was set up again, revoke "
                                  "the old one on the master first: kel keys revoke %S",
                                  identity.guid, identity.guid)};
    if (issued->size() >= kMostAtOnce && IsOfLastDay(issued->back(), now)) return issued->back();
    return IssueAny(publicKey, identity, *issued, now, leastEnd);
}

KelResult<KelCertificate> KelAuthority::IssueAny(evp_pkey_st* publicKey, const KelDeviceIdentity& identity,
                                                 KelVector<KelCertificate> issued, std::int64_t now,
                                                 std::int64_t leastEnd) const {
    auto certificate = issuer_->Issue(publicKey, identity, now, leastEnd);
    if (!certificate) return certificate.Error();
    issued.push_back(*certificate);
    if (KelStatus saved = SaveAll(IssuedPath(identity.guid), issued); !saved) return saved.Error();
    return certificate;
}

/// The certificate of the device that asks for another one.
KelResult<KelCertificate> KelAuthority::Latest(const KelCertificateRequest& request, std::int64_t now) const {
    const auto latest = Find(request.Identity().guid, now);
    if (!latest)
        return KelError{kKelErrorBadInput,
                        KelFormat("%S has no certificate that is valid; join it again with "
                                  "a new invitation: kel keys join",
                                  request.Identity().guid)};
    const auto identity = latest->Identity();
    if (!identity || *identity != request.Identity())
        return KelError{kKelErrorBadInput,
                        "the role of a device does not change with its certificate; join it "
                        "again with a new invitation"};
    return *latest;
}

KelResult<KelCertificate> KelAuthority::Renew(const KelCertificateRequest& request, std::int64_t now) const {
    if (const auto latest = Latest(request, now); !latest) return latest.Error();
    const auto issued = Issue(request.PublicKey(), request.Identity(), now);
    if (!issued) return issued.Error();
    if (KelStatus retired = RetireOtherKeys(request.Identity().guid, request.Fingerprint(), now); !retired)
        return retired.Error();
    return *issued;
}

KelResult<KelCertificate> KelAuthority::Replace(const KelCertificateRequest& request, std::string_view proof,
                                                std::int64_t now) const {
    const auto latest = Latest(request, now);
    if (!latest) return latest.Error();
    // An answer may have been lost: then the new key is known already.
    const bool isKnown = latest->Fingerprint() == request.Fingerprint();
    if (!isKnown && !IsSignedWith(X509_get0_pubkey(latest->Get()), request.Der(), proof))
        return KelError{kKelErrorBadInput,
                        KelFormat("the request for a new key of %S is not signed with its present one",
                                  request.Identity().guid)};
    if (isKnown) return Issue(request.PublicKey(), request.Identity(), now);
    const auto issued = LoadValid(IssuedPath(request.Identity().guid), now);
    if (!issued) return issued.Error();
    const auto revoked = LoadValid(RevokedPath(request.Identity().guid), now);
    if (!revoked) return revoked.Error();
    if (issued->size() + revoked->size() >= kMostAtOnce && IsOfLastDay(*latest, now))
        return KelError{kKelErrorNotAvailable,
                        KelFormat("%S has had many new keys; try again tomorrow", request.Identity().guid)};
    return IssueAny(request.PublicKey(), request.Identity(), *issued, now);
}

KelResult<KelCertificate> KelAuthority::ReplaceOwn(const KelKeyPair& key, const KelDeviceIdentity& master,
                                                   std::int64_t now) const {
    const auto issued = LoadValid(IssuedPath(master.guid), now);
    return issued ? IssueAny(key.Get(), master, *issued, now) : issued.Error();
}

/// Before the certificates leave the files of the valid ones: if the next step fails, they are listed as
/// issued and as revoked; revoked counts.
KelStatus KelAuthority::AddRevoked(const KelString& guid, std::span<const KelCertificate> certificates,
                                   std::int64_t now) const {
    auto revoked = LoadAll(RevokedPath(guid));
    if (!revoked) return revoked.Error();
    revoked->insert(revoked->end(), certificates.begin(), certificates.end());
    if (KelStatus saved = SaveAll(RevokedPath(guid), *revoked); !saved) return saved;
    return WriteList(now);
}

KelStatus KelAuthority::RetireOtherKeys(const KelString& guid, const KelString& fingerprint,
                                        std::int64_t now) const {
    auto issued = LoadAll(IssuedPath(guid));
    if (!issued) return issued.Error();
    const auto others = std::stable_partition(issued->begin(), issued->end(),
                                              [&fingerprint](const KelCertificate& certificate) {
                                                  return certificate.Fingerprint() == fingerprint;
                                              });
    if (others == issued->end()) return {};
    if (KelStatus added = AddRevoked(guid, {others, issued->end()}, now); !added) return added;
    issued->erase(others, issued->end());
    return SaveAll(IssuedPath(guid), *issued);
}

KelStatus KelAuthority::Revoke(const KelString& guid, std::int64_t now) const {
    const auto issued = IsGuid(guid) ? LoadAll(IssuedPath(guid))
                                     : KelResult<KelVector<KelCertificate>>(KelVector<KelCertificate>());
    if (!issued) return issued.Error();
    if (issued->empty())
        return KelError{kKelErrorMissingContent, KelFormat("the device %S has no certificate", guid)};
    if (KelStatus added = AddRevoked(guid, *issued, now); !added) return added;
    if (!FileDelete(IssuedPath(guid))) return SystemError("A file cannot be removed:", IssuedPath(guid));
    return {};
}

KelStatus KelAuthority::WriteList(std::int64_t now) const {
    KelVector<KelCertificate> listed;
    for (const KelString& guid : GuidsIn(folder_ + "/Revoked")) {
        const auto revoked = LoadValid(RevokedPath(guid), now - kListedLonger);
        if (!revoked) return revoked.Error();
        listed.insert(listed.end(), revoked->begin(), revoked->end());
    }
    const auto before = Revoked();
    if (!before) return before.Error();
    const auto list = issuer_->ListRevoked(listed, before->Number() + 1, now);
    if (!list) return list.Error();
    return FileWriteText(File("revoked.pem"), *list);
}

KelVector<KelAuthority::Device> KelAuthority::List() const {
    KelVector<Device> devices;
    for (const bool isRevoked : {false, true}) {
        const KelString folder = folder_ + (isRevoked ? "/Revoked" : "/Issued");
        for (const KelString& guid : GuidsIn(folder)) {
            const auto all = LoadAll(folder + "/" + guid + ".pem");
            if (!all || all->empty()) continue;
            const auto identity = all->back().Identity();
            if (identity) devices.push_back({*identity, all->back(), isRevoked});
        }
    }
    return devices;
}

KelResult<KelRevocationList> KelAuthority::Revoked() const {
    if (!FileExists(File("revoked.pem"))) return KelRevocationList();
    const auto pem = FileReadText(File("revoked.pem"), KelRevocationList::kMaxPemBytes);
    if (!pem) return pem.Error();
    return KelRevocationList::FromPem(*pem, Certificate());
}
