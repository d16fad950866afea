#pragma once

#include <memory>
#include <string_view>

#include "kel/result.h"
#include "kelcore/keys/certificate.h"

struct X509_req_st;

/// A request for a certificate (PKCS #10, RFC 2986), signed with the key that it is for. A value.
class KelCertificateRequest {
  public:
    static constexpr std::size_t kMaxDerBytes = 4 << 10;

    static KelResult<KelCertificateRequest> Make(const KelKeyPair& key, const KelDeviceIdentity& identity);

    /// From DER of at most kMaxDerBytes. An error unless it has a key of the right kind, a good signature and
    /// a subject that names a relay or a client; extensions that it asks for are ignored.
    static KelResult<KelCertificateRequest> FromDer(std::string_view der);

    const KelString& Der() const { return der_; }
    const KelDeviceIdentity& Identity() const { return identity_; }
    KelString Fingerprint() const;  ///< of its key; see KeyFingerprint
    evp_pkey_st* PublicKey() const;

  private:
    KelCertificateRequest(std::shared_ptr<X509_req_st> request, KelDeviceIdentity identity, KelString der);

    std::shared_ptr<X509_req_st> request_;
    KelDeviceIdentity identity_;
    KelString der_;
};
