#pragma once

#include <cstdint>

#include "kel/mutex.h"
#include "kelcore/keys/invitations.h"

/// The authority of the tree, on the master. Any thread. Times are seconds since the epoch.
class MasterKeys {
  public:
    /// `folder`: KelKeyFolder::AuthorityPath.
    explicit MasterKeys(const KelString& folder);

    /// Before anything else. Makes the key for publications if there is none.
    KelStatus Open(std::int64_t now);

    KelResult<KelCertificate> Enrol(const KelEnrolRequest& request, std::int64_t now);
    KelResult<KelCertificate> Renew(const KelCertificateRequest& request, std::int64_t now);
    /// The next certificate of the master itself; those for a former key are revoked. It is valid until
    /// `leastEnd` at least.
    KelResult<KelCertificate> IssueOwn(const KelKeyPair& key, const KelDeviceIdentity& master,
                                       std::int64_t now, std::int64_t leastEnd);
    /// See KelAuthority.
    KelResult<KelCertificate> Replace(const KelCertificateRequest& request, std::string_view proof,
                                      std::int64_t now);
    KelResult<KelCertificate> ReplaceOwn(const KelKeyPair& key, const KelDeviceIdentity& master,
                                         std::int64_t now);
    KelResult<KelInvitation> Invite(const KelString& ownGuid, const KelInvitations::Offer& offer,
                                    std::int64_t now);
    /// The list with the certificates of this device.
    KelResult<KelRevocationList> Revoke(const KelString& guid, std::int64_t now);
    KelResult<KelRevocationList> Revoked();
    KelVector<KelAuthority::Device> List();

    /// What the FileInfo of a publication gets as Signed.
    KelResult<KelContainer> Sign(const KelPublication& publication);

    KelCertificate Authority();
    KelString GroupKey();

  private:
    KelMutex
        mutex_;  ///< held while files are written: two devices must not get the last use of an invitation
    KelAuthority authority_ KEL_GUARDED_BY(mutex_);
    KelInvitations invitations_ KEL_GUARDED_BY(mutex_);
};
