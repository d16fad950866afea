#include "kelcore/keys/certificate_request.h"

#include <utility>

#include "kelcore/keys/openssl_objects.h"

namespace {

KelError Refused(const char* what) {
    return {kKelFailure, KelString("the request for a certificate ") + what};
}

}  // namespace

KelCertificateRequest::KelCertificateRequest(std::shared_ptr<X509_req_st> request, KelDeviceIdentity identity,
                                             KelString der)
    : request_(std::move(request)), identity_(std::move(identity)), der_(std::move(der)) {}

KelResult<KelCertificateRequest> KelCertificateRequest::Make(const KelKeyPair& key,
                                                             const KelDeviceIdentity& identity) {
    std::shared_ptr<X509_REQ> request(X509_REQ_new(), &X509_REQ_free);
    const bool made = request && SetSubject(X509_REQ_get_subject_name(request.get()), identity) &&
                      X509_REQ_set_pubkey(request.get(), key.Get()) == 1 &&
                      X509_REQ_sign(request.get(), key.Get(), EVP_sha256()) > 0;
    unsigned char* bytes = nullptr;
    const int length = made ? i2d_X509_REQ(request.get(), &bytes) : 0;
    if (length <= 0) return OpenSslError("A request for a certificate cannot be made");
    KelString der(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(length));
    OPENSSL_free(bytes);
    return KelCertificateRequest(std::move(request), identity, std::move(der));
}

KelResult<KelCertificateRequest> KelCertificateRequest::FromDer(std::string_view der) {
    if (der.size() > kMaxDerBytes) return Refused("is too long");
    const auto* at = reinterpret_cast<const unsigned char*>(der.data());
    std::shared_ptr<X509_REQ> request(d2i_X509_REQ(nullptr, &at, static_cast<long>(der.size())),
                                      &X509_REQ_free);
    if (!request) return OpenSslError("the request for a certificate is malformed");
    if (at != reinterpret_cast<const unsigned char*>(der.data()) + der.size())
        return Refused("has something behind it");
    EVP_PKEY* const key = X509_REQ_get0_pubkey(request.get());
    if (!IsTreeKey(key)) return Refused("has a key of another kind than a device has");
    if (X509_REQ_verify(request.get(), key) != 1)
        return OpenSslError("the request for a certificate is not signed with its key");
    auto identity = IdentityOfSubject(X509_REQ_get_subject_name(request.get()));
    if (!identity) return Refused(identity.Error().message.c_str());
    if (identity->role == KelDeviceRole::Master) return Refused("is that of another master");
    return KelCertificateRequest(std::move(request), std::move(*identity), KelString(der));
}

KelString KelCertificateRequest::Fingerprint() const {
    return KeyFingerprint(PublicKey());
}

evp_pkey_st* KelCertificateRequest::PublicKey() const {
    return X509_REQ_get0_pubkey(request_.get());
}
