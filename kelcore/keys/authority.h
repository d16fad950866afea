#pragma once

#include <span>

#include "kel/result.h"
#include "kelcore/keys/certificate_request.h"
#include "kelcore/keys/issuer.h"
#include "kelcore/keys/publication_signature.h"
#include "kelcore/keys/revocation_list.h"

/// The authority of a tree, on its master. It keeps in its folder
///
///     key.pem, certificate.pem  of the authority
///     group_key                 what the devices of the tree share, as hexadecimal digits
///     signing_key.pem, signing_certificate.pem
///                               with which publications are signed
///     Issued/GUID.pem           the certificates of a device that have not ended, the latest at the end
///     Revoked/GUID.pem          likewise those that were revoked
///     revoked.pem               the list of the latter
///     Invitations/              see KelInvitations
///
/// Every change is on the disk before it is answered. Times are seconds since the epoch. One thread at a
/// time.
class KelAuthority {
  public:
    /// What a device has, for lists.
    struct Device {
        KelDeviceIdentity identity;
        KelCertificate certificate;  ///< the latest
        bool isRevoked = false;
    };

    /// `folder` without "/" at its end.
    explicit KelAuthority(KelString folder) : folder_(std::move(folder)) {}

    /// Makes a new authority. An error when there is one.
    KelStatus Create(std::int64_t now) const;

    /// Reads key and certificate. Needed before anything below.
    KelStatus Open();

    /// Reads the key with which publications are signed, and its certificate. What is missing is made: a tree
    /// may be older than signatures.
    KelStatus OpenSigner(std::int64_t now);
    /// After that.
    const KelSigner& Signer() const { return *signer_; }

    const KelCertificate& Certificate() const { return issuer_->Certificate(); }
    const KelString& GroupKey() const { return groupKey_; }

    /// The latest certificate of a device that is neither revoked nor over; nothing when there is none.
    std::optional<KelCertificate> Find(const KelString& guid, std::int64_t now) const;

    /// Issues a certificate to a device, valid until `leastEnd` at least. An error when the GUID belongs to a
    /// device with another key. One that has got many in a day gets the latest of them again.
    KelResult<KelCertificate> Issue(evp_pkey_st* publicKey, const KelDeviceIdentity& identity,
                                    std::int64_t now, std::int64_t leastEnd = 0) const;

    /// Issues the next certificate to a device that has one, for the key that it has. Certificates for other
    /// keys of the device are revoked: it has this one in use.
    KelResult<KelCertificate> Renew(const KelCertificateRequest& request, std::int64_t now) const;

    /// Issues a certificate for a new key to a device that has one; `proof` is the request, signed with the
    /// key that it has, whose certificates stay valid until the next Renew.
    KelResult<KelCertificate> Replace(const KelCertificateRequest& request, std::string_view proof,
                                      std::int64_t now) const;

    /// The same for the device of this authority, which needs no proof: a certificate for its new key, and
    /// the end of those for its former one.
    KelResult<KelCertificate> ReplaceOwn(const KelKeyPair& key, const KelDeviceIdentity& master,
                                         std::int64_t now) const;
    KelStatus RetireOtherKeys(const KelString& guid, const KelString& fingerprint, std::int64_t now) const;

    /// Revokes all certificates of a device and writes a new list. An error when it has none.
    KelStatus Revoke(const KelString& guid, std::int64_t now) const;

    KelVector<Device> List() const;

    /// The list in force; the empty one before the first revocation.
    KelResult<KelRevocationList> Revoked() const;

  private:
    KelString File(const char* name) const { return folder_ + "/" + name; }
    KelString IssuedPath(const KelString& guid) const { return folder_ + "/Issued/" + guid + ".pem"; }
    KelString RevokedPath(const KelString& guid) const { return folder_ + "/Revoked/" + guid + ".pem"; }
    KelStatus AddRevoked(const KelString& guid, std::span<const KelCertificate> certificates,
                         std::int64_t now) const;
    KelStatus WriteList(std::int64_t now) const;
    KelResult<KelCertificate> Latest(const KelCertificateRequest& request, std::int64_t now) const;
    KelResult<KelCertificate> IssueAny(evp_pkey_st* publicKey, const KelDeviceIdentity& identity,
                                       KelVector<KelCertificate> issued, std::int64_t now,
                                       std::int64_t leastEnd = 0) const;

    KelString folder_;
    std::optional<KelIssuer> issuer_;
    std::optional<KelSigner> signer_;
    KelString groupKey_;
};
