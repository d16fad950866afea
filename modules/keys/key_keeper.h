#pragma once

#include "kel/debug.h"
#include "kel/mutex.h"
#include "kelcore/keys/key_folder.h"
#include "kelcore/security.h"

/// Keeps the keys of this device: every change goes to their folder first, then into force in the whole
/// process. Any thread.
class KeyKeeper {
  public:
    explicit KeyKeeper(const KelDebug& log) : log_(log) {}

    /// Before anything else. `path`: the folder data/Keys.
    void Open(const KelString& path);

    /// The keys in force.
    AgentSecurityKeys Current() const { return AgentSecurityGetKeys(); }

    /// What the authority has given to this device when it was enrolled. `parent` is where that was asked.
    KelStatus TakeEnrolment(const KelCertificate& certificate, const KelCertificate& authority,
                            const KelString& groupKey, const KelParentPin& parent);
    /// The next certificate. An error unless it is of the authority, for this device and its key.
    KelStatus TakeCertificate(const KelCertificate& certificate);
    /// A key that is to follow the present one; nothing when none was asked for.
    std::optional<KelKeyPair> NextKey() const;
    KelStatus MakeNextKey();
    /// Its certificate, with which it takes the place of the present key.
    KelStatus TakeNextKey(const KelCertificate& certificate);
    /// A list of revoked certificates in PEM form; ignored unless it is newer than the present one.
    KelStatus TakeRevoked(const KelString& pem);
    KelStatus TakeParent(const KelParentPin& parent);

    /// An invitation to use; see KelKeyFolder.
    std::optional<KelString> Token() const;
    KelStatus SetToken(const KelString& token);
    void DropToken();

  private:
    KelStatus Reload() KEL_REQUIRES(mutex_);

    const KelDebug& log_;
    mutable KelMutex mutex_;  ///< one change at a time
    KelKeyFolder folder_ KEL_GUARDED_BY(mutex_){KelString()};
};

/// Examines a certificate that was issued to the owner of `keys`, by an authority; empty when it can be used.
KelString CertificateProblem(const KelCertificate& certificate, const KelCertificate& authority,
                             const KelKeyRing& keys, std::int64_t now);
