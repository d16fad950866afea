#include "kelcore/keys/issuer.h"

#include <openssl/pem.h>

#include <algorithm>
#include <ctime>

#include "kelcore/keys/openssl_objects.h"

namespace {

constexpr std::int64_t kAuthorityYears = 30;

/// An unsigned certificate with serial number, time and key.
X509Owner MakeUnsigned(evp_pkey_st* publicKey, std::int64_t now, std::int64_t validity) {
    X509Owner certificate(X509_new());
    const bool made =
        certificate && X509_set_version(certificate.get(), X509_VERSION_3) == 1 &&
        SetRandomSerial(X509_get_serialNumber(certificate.get())) &&
        ASN1_TIME_set(X509_getm_notBefore(certificate.get()), now - KelIssuer::kDay) != nullptr &&
        ASN1_TIME_set(X509_getm_notAfter(certificate.get()), now + validity) != nullptr &&
        X509_set_pubkey(certificate.get(), publicKey) == 1;
    return made ? std::move(certificate) : nullptr;
}

KelResult<KelCertificate> Sign(X509* certificate, evp_pkey_st* key) {
    if (X509_sign(certificate, key, EVP_sha256()) <= 0) return OpenSslError("A certificate cannot be signed");
    return KelCertificate::Of(certificate);
}

KelError NotMade() {
    return OpenSslError("A certificate cannot be made");
}

bool SetCommonName(X509* certificate, const char* text) {
    return X509_NAME_add_entry_by_NID(X509_get_subject_name(certificate), NID_commonName, MBSTRING_UTF8,
                                      reinterpret_cast<const unsigned char*>(text), -1, -1, 0) == 1;
}

bool AddRevoked(X509_CRL* list, const KelCertificate& certificate, std::int64_t now) {
    OpenSslOwner<X509_REVOKED, &X509_REVOKED_free> entry(X509_REVOKED_new());
    const OpenSslOwner<ASN1_TIME, &ASN1_TIME_free> time(ASN1_TIME_set(nullptr, now));
    if (!entry || !time ||
        X509_REVOKED_set_serialNumber(entry.get(), X509_get_serialNumber(certificate.Get())) != 1 ||
        X509_REVOKED_set_revocationDate(entry.get(), time.get()) != 1 ||
        X509_CRL_add0_revoked(list, entry.get()) != 1)
        return false;
    entry.release();  // NOLINT(bugprone-unused-return-value): the list owns it now
    return true;
}

}  // namespace

KelResult<KelIssuer> KelIssuer::Make(std::int64_t now) {
    auto key = KelKeyPair::Make();
    if (!key) return key.Error();
    const X509Owner certificate = MakeUnsigned(key->Get(), now, kAuthorityYears * kValidity);
    X509* const raw = certificate.get();
    if (raw == nullptr || !SetCommonName(raw, "Device tree authority") ||
        X509_set_issuer_name(raw, X509_get_subject_name(raw)) != 1 ||
        !AddExtension(raw, raw, NID_basic_constraints, "critical,CA:TRUE,pathlen:0") ||
        !AddExtension(raw, raw, NID_key_usage, "critical,keyCertSign,cRLSign") ||
        !AddExtension(raw, raw, NID_subject_key_identifier, "hash"))
        return NotMade();
    auto made = Sign(raw, key->Get());
    if (!made) return made.Error();
    return KelIssuer(std::move(*key), std::move(*made));
}

KelResult<KelCertificate> KelIssuer::Issue(evp_pkey_st* publicKey, const KelDeviceIdentity& identity,
                                           std::int64_t now, std::int64_t leastEnd) const {
    const X509Owner certificate = MakeUnsigned(publicKey, now, std::max(kValidity, leastEnd - now));
    X509* const raw = certificate.get();
    X509* const issuer = certificate_.Get();
    if (raw == nullptr || !SetSubject(X509_get_subject_name(raw), identity) ||
        X509_set_issuer_name(raw, X509_get_subject_name(issuer)) != 1 ||
        !AddExtension(raw, issuer, NID_basic_constraints, "critical,CA:FALSE") ||
        !AddExtension(raw, issuer, NID_key_usage, "critical,digitalSignature") ||
        !AddExtension(raw, issuer, NID_ext_key_usage, "serverAuth,clientAuth") ||
        !AddExtension(raw, issuer, NID_subject_key_identifier, "hash") ||
        !AddExtension(raw, issuer, NID_authority_key_identifier, "keyid:always") ||
        !AddExtension(raw, issuer, NID_subject_alt_name, "URI:" + UriOfDevice(identity.guid)))
        return NotMade();
    return Sign(raw, key_.Get());
}

KelResult<KelCertificate> KelIssuer::IssueForSigning(evp_pkey_st* publicKey, std::int64_t now) const {
    const X509Owner certificate = MakeUnsigned(publicKey, now, kAuthorityYears * kValidity);
    X509* const raw = certificate.get();
    X509* const issuer = certificate_.Get();
    if (raw == nullptr || !SetCommonName(raw, "Publications") ||
        X509_set_issuer_name(raw, X509_get_subject_name(issuer)) != 1 ||
        !AddExtension(raw, issuer, NID_basic_constraints, "critical,CA:FALSE") ||
        !AddExtension(raw, issuer, NID_key_usage, "critical,digitalSignature") ||
        !AddExtension(raw, issuer, NID_ext_key_usage, "critical,codeSigning") ||
        !AddExtension(raw, issuer, NID_authority_key_identifier, "keyid:always"))
        return NotMade();
    return Sign(raw, key_.Get());
}

KelResult<KelString> KelIssuer::ListRevoked(const KelVector<KelCertificate>& revoked, std::int64_t number,
                                            std::int64_t now) const {
    const OpenSslOwner<X509_CRL, &X509_CRL_free> list(X509_CRL_new());
    const OpenSslOwner<ASN1_TIME, &ASN1_TIME_free> from(ASN1_TIME_set(nullptr, now - kDay));
    // Devices go by the number. The date is there because the format requires one.
    const OpenSslOwner<ASN1_TIME, &ASN1_TIME_free> until(
        ASN1_TIME_set(nullptr, now + kAuthorityYears * kValidity));
    const OpenSslOwner<ASN1_INTEGER, &ASN1_INTEGER_free> listNumber(ASN1_INTEGER_new());
    bool made = list && from && until && listNumber && X509_CRL_set_version(list.get(), X509_CRL_VERSION_2) &&
                X509_CRL_set_issuer_name(list.get(), X509_get_subject_name(certificate_.Get())) == 1 &&
                X509_CRL_set1_lastUpdate(list.get(), from.get()) == 1 &&
                X509_CRL_set1_nextUpdate(list.get(), until.get()) == 1 &&
                ASN1_INTEGER_set_int64(listNumber.get(), number) == 1 &&
                X509_CRL_add1_ext_i2d(list.get(), NID_crl_number, listNumber.get(), 0, 0) == 1;
    for (const KelCertificate& certificate : revoked)
        made = made && AddRevoked(list.get(), certificate, now);
    const BioOwner bio(BIO_new(BIO_s_mem()));
    if (!made || !bio || X509_CRL_sort(list.get()) != 1 ||
        X509_CRL_sign(list.get(), key_.Get(), EVP_sha256()) <= 0 ||
        PEM_write_bio_X509_CRL(bio.get(), list.get()) != 1)
        return OpenSslError("The list of revoked certificates cannot be made");
    return TextOf(bio.get());
}

KelResult<KelCertificate> MakePlaceholder(const KelKeyPair& key, const KelString& guid) {
    const X509Owner certificate = MakeUnsigned(key.Get(), std::time(nullptr), KelIssuer::kValidity);
    X509* const raw = certificate.get();
    if (raw == nullptr || !SetCommonName(raw, guid.c_str()) ||
        X509_set_issuer_name(raw, X509_get_subject_name(raw)) != 1)
        return NotMade();
    return Sign(raw, key.Get());
}
