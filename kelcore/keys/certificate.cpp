#include "kelcore/keys/certificate.h"

#include <openssl/pem.h>

#include "kel/file.h"
#include "kel/text.h"
#include "kelcore/device_name.h"
#include "kelcore/keys/openssl_objects.h"

namespace {

constexpr std::size_t kMaxPemBytes = 16 << 10;
constexpr std::string_view kUuid = "urn:uuid:";

KelError Malformed(const char* what) {
    return {kKelFailure, KelString("it ") + what};
}

/// The text of the only entry `nid` of a name; nothing when there is none, or several.
std::optional<KelString> OnlyEntry(const X509_NAME* name, int nid) {
    const int index = X509_NAME_get_index_by_NID(name, nid, -1);
    if (index < 0 || X509_NAME_get_index_by_NID(name, nid, index) >= 0) return std::nullopt;
    unsigned char* text = nullptr;
    const int length = ASN1_STRING_to_UTF8(&text, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, index)));
    if (length < 0) return std::nullopt;
    KelString entry(reinterpret_cast<const char*>(text), static_cast<std::size_t>(length));
    OPENSSL_free(text);
    return entry;
}

/// True when the certificate's alternative names are this URI and nothing else.
bool HasOnlyUri(const X509* certificate, const KelString& uri) {
    int critical = 0;
    const OpenSslOwner<GENERAL_NAMES, &GENERAL_NAMES_free> names(
        static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(certificate, NID_subject_alt_name, &critical, nullptr)));
    if (!names || sk_GENERAL_NAME_num(names.get()) != 1) return false;
    const GENERAL_NAME* const name = sk_GENERAL_NAME_value(names.get(), 0);
    if (name->type != GEN_URI) return false;
    const ASN1_IA5STRING* const text = name->d.uniformResourceIdentifier;
    return std::string_view(reinterpret_cast<const char*>(ASN1_STRING_get0_data(text)),
                            static_cast<std::size_t>(ASN1_STRING_length(text))) == uri;
}

}  // namespace

const char* KelDeviceRoleName(KelDeviceRole role) {
    switch (role) {
        case KelDeviceRole::Master:
            return "master";
        case KelDeviceRole::Relay:
            return "relay";
        case KelDeviceRole::Client:
            break;
    }
    return "client";
}

std::optional<KelDeviceRole> ParseDeviceRole(std::string_view text) {
    for (const KelDeviceRole role : {KelDeviceRole::Master, KelDeviceRole::Relay, KelDeviceRole::Client})
        if (text == KelDeviceRoleName(role)) return role;
    return std::nullopt;
}

KelResult<KelDeviceIdentity> IdentityOfSubject(const X509_NAME* subject) {
    if (X509_NAME_entry_count(subject) != 2) return Malformed("names something else than a device");
    const auto guid = OnlyEntry(subject, NID_commonName);
    const auto role = OnlyEntry(subject, NID_organizationalUnitName);
    if (!guid || !IsGuid(*guid)) return Malformed("names no GUID");
    const auto known = role ? ParseDeviceRole(*role) : std::nullopt;
    if (!known) return Malformed("names no role");
    return KelDeviceIdentity{*guid, *known};
}

bool SetSubject(X509_name_st* subject, const KelDeviceIdentity& identity) {
    const auto add = [subject](int nid, const KelString& text) {
        return X509_NAME_add_entry_by_NID(subject, nid, MBSTRING_UTF8,
                                          reinterpret_cast<const unsigned char*>(text.data()),
                                          static_cast<int>(text.size()), -1, 0) == 1;
    };
    return add(NID_organizationalUnitName, KelDeviceRoleName(identity.role)) &&
           add(NID_commonName, identity.guid);
}

KelString UriOfDevice(const KelString& guid) {
    return KelString(kUuid) + ToLowerText(guid);
}

KelResult<KelCertificate> KelCertificate::FromPem(std::string_view pem) {
    if (pem.size() > kMaxPemBytes) return Malformed("is too long for a certificate");
    const BioOwner bio = ReadingBio(pem);
    X509* read = bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr;
    if (read == nullptr) return OpenSslError("This is no certificate");
    KelCertificate certificate(std::shared_ptr<X509>(read, &X509_free));
    if (BIO_pending(bio.get()) != 0) return Malformed("has something behind the certificate");
    return certificate;
}

KelResult<KelCertificate> KelCertificate::Load(const KelString& path) {
    const auto text = FileReadText(path, kMaxPemBytes);
    if (!text) return text.Error();
    auto certificate = FromPem(*text);
    if (!certificate) return KelError{kKelFailure, path + ": " + certificate.Error().message};
    return certificate;
}

KelCertificate KelCertificate::Of(x509_st* certificate) {
    X509_up_ref(certificate);
    return KelCertificate(std::shared_ptr<X509>(certificate, &X509_free));
}

KelResult<KelString> KelCertificate::ToPem() const {
    const BioOwner bio(BIO_new(BIO_s_mem()));
    if (!bio || PEM_write_bio_X509(bio.get(), certificate_.get()) != 1)
        return OpenSslError("A certificate cannot be written");
    return TextOf(bio.get());
}

KelResult<KelCertificate> KelCertificate::FromDer(std::string_view der) {
    if (der.size() > kMaxDerBytes) return Malformed("is too long for a certificate");
    const auto* next = reinterpret_cast<const unsigned char*>(der.data());
    X509* read = d2i_X509(nullptr, &next, static_cast<long>(der.size()));
    if (read == nullptr) return OpenSslError("This is no certificate");
    KelCertificate certificate(std::shared_ptr<X509>(read, &X509_free));
    if (reinterpret_cast<const char*>(next) != der.data() + der.size())
        return Malformed("has something behind the certificate");
    return certificate;
}

KelResult<KelString> KelCertificate::ToDer() const {
    unsigned char* der = nullptr;
    const int length = i2d_X509(certificate_.get(), &der);
    if (length < 0) return OpenSslError("A certificate cannot be written");
    KelString text(reinterpret_cast<const char*>(der), static_cast<std::size_t>(length));
    OPENSSL_free(der);
    return text;
}

KelString KelCertificate::Serial() const {
    return SerialText(X509_get0_serialNumber(certificate_.get()));
}

std::int64_t KelCertificate::NotBefore() const {
    return TimeOf(X509_get0_notBefore(certificate_.get()));
}

std::int64_t KelCertificate::NotAfter() const {
    return TimeOf(X509_get0_notAfter(certificate_.get()));
}

KelString KelCertificate::Fingerprint() const {
    return KeyFingerprint(certificate_.get());
}

KelResult<KelDeviceIdentity> KelCertificate::Identity() const {
    if (!IsTreeKey(X509_get0_pubkey(certificate_.get())))
        return Malformed("has a key of another kind than a device has");
    auto identity = IdentityOfSubject(X509_get_subject_name(certificate_.get()));
    if (identity && !HasOnlyUri(certificate_.get(), UriOfDevice(identity->guid)))
        return Malformed("has another alternative name than its GUID");
    return identity;
}
