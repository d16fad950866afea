#pragma once

#include <memory>
#include <optional>

#include "kelcore/keys/key_ring.h"

/// The folder data/Keys of a device, which only its owner may open:
///
///     key.pem          the private key of the device
///     device.xml       GUID and Role
///     next_key.pem     the key that takes its place, until the certificate is for that one
///     certificate.pem  of the device, and
///     authority.pem    of the tree; both absent until it is enrolled
///     revoked.pem      the list of revoked certificates, if there is one
///     group_key        what the devices of the tree share, as hexadecimal digits
///     parent.xml       the parent's Place[], GUID, Fingerprint and Serial
///     join.xml         the Token of an invitation that was not used yet
///     Authority/       on the master; see KelAuthority
///
/// Every file is replaced atomically. One thread at a time.
class KelKeyFolder {
  public:
    /// `path` without "/" at its end.
    explicit KelKeyFolder(KelString path) : path_(std::move(path)) {}

    const KelString& Path() const { return path_; }
    KelString AuthorityPath() const { return path_ + "/Authority"; }

    /// Makes the folder with a new key for the device. An error when there is one.
    KelStatus Create(const KelDeviceIdentity& device) const;

    KelResult<KelKeyRing::Parts> LoadParts() const;
    KelResult<std::shared_ptr<const KelKeyRing>> Load() const;

    /// What an enrolment has given. The certificate is written last: without it, the device is not enrolled.
    KelStatus SaveEnrolment(const KelCertificate& certificate, const KelCertificate& authority,
                            const KelString& groupKey) const;
    KelStatus SaveCertificate(const KelCertificate& certificate) const;

    /// The key that is to follow; nothing when there is none.
    std::optional<KelKeyPair> LoadNextKey() const;
    KelStatus MakeNextKey() const;
    /// Puts it in the place of the key, with its certificate. A folder where this was interrupted is
    /// completed when it is loaded.
    KelStatus TakeNextKey(const KelCertificate& certificate) const;
    KelStatus SaveRevoked(const KelRevocationList& revoked) const;
    KelStatus SaveParent(const KelParentPin& parent) const;

    /// The token of an invitation; nothing when there is none.
    std::optional<KelString> LoadToken() const;
    KelStatus SaveToken(const KelString& token) const;
    void DropToken() const;

  private:
    void CompleteNextKey(KelKeyRing::Parts& parts) const;
    KelString File(const char* name) const { return path_ + "/" + name; }

    KelString path_;
};

/// The ring of the agent with this data folder (which ends with "/").
KelResult<std::shared_ptr<const KelKeyRing>> LoadKeyRing(const KelString& dataDir);
