#pragma once

#include <ctime>
#include <stdexcept>

#include "kelcore/keys/issuer.h"
#include "kelcore/keys/key_ring.h"
#include "kelcore/keys/publication_signature.h"

/// A tree whose master signs, and the keys of a device in it.
class SigningTree {
  public:
    explicit SigningTree(const KelString& guid, std::int64_t now = std::time(nullptr))
        : device_{guid, KelDeviceRole::Client}, now_(now) {}

    KelContainer Sign(const KelPublication& publication) const { return Made(signer_.Sign(publication)); }
    const KelCertificate& SigningCertificate() const { return certificate_; }

    std::shared_ptr<const KelKeyRing> Keys(const KelVector<KelCertificate>& revoked = {}) const {
        KelKeyRing::Parts parts{key_, device_, OwnCertificate(), issuer_.Certificate(), {}, {}, {}};
        parts.revoked = Made(
            KelRevocationList::FromPem(Made(issuer_.ListRevoked(revoked, 1, now_)), issuer_.Certificate()));
        return Made(KelKeyRing::Make(std::move(parts)));
    }
    KelCertificate OwnCertificate() const { return Made(issuer_.Issue(key_.Get(), device_, now_)); }

    template <class Value>
    static Value Made(KelResult<Value> result) {
        if (!result) throw std::runtime_error(result.Error().message);
        return std::move(*result);
    }

  private:
    KelDeviceIdentity device_;
    std::int64_t now_;
    KelIssuer issuer_ = Made(KelIssuer::Make(now_));
    KelKeyPair key_ = Made(KelKeyPair::Make());
    KelKeyPair signingKey_ = Made(KelKeyPair::Make(KelKeyKind::Signing));
    KelCertificate certificate_ = Made(issuer_.IssueForSigning(signingKey_.Get(), now_));
    KelSigner signer_{signingKey_, certificate_};
};
