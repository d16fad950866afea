#include "kelcore/keys/key_pair.h"

#include <openssl/ec.h>
#include <openssl/pem.h>

#include <array>

#include "kel/base64.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kelcore/keys/openssl_objects.h"

namespace {

constexpr std::uint64_t kMaxPemBytes = 16 << 10;
constexpr std::string_view kCurve = "prime256v1";
constexpr const char* kSigning = "ED25519";
constexpr std::string_view kDigestName = "sha256//";
constexpr std::size_t kDigestBytes = 32;

/// Frees `der`, which is null or of `length` bytes.
KelString FingerprintOfDer(unsigned char* der, int length) {
    std::array<unsigned char, kDigestBytes> digest{};
    const bool made = length > 0 && EVP_Digest(der, static_cast<std::size_t>(length), digest.data(), nullptr,
                                               EVP_sha256(), nullptr) == 1;
    OPENSSL_free(der);
    if (!made) return {};
    return FingerprintOfDigest({reinterpret_cast<const char*>(digest.data()), digest.size()});
}

}  // namespace

KelResult<KelKeyPair> KelKeyPair::Make(KelKeyKind kind) {
    std::shared_ptr<EVP_PKEY> key(
        kind == KelKeyKind::Tree ? EVP_EC_gen("P-256") : EVP_PKEY_Q_keygen(nullptr, nullptr, kSigning),
        &EVP_PKEY_free);
    if (!key) return OpenSslError("A key cannot be made");
    return KelKeyPair(std::move(key));
}

KelResult<KelKeyPair> KelKeyPair::FromPem(std::string_view pem, KelKeyKind kind) {
    const BioOwner bio = ReadingBio(pem);
    // Without a function that asks for a password, an encrypted key would have the terminal asked.
    const auto noPassword = [](char*, int, int, void*) { return -1; };
    std::shared_ptr<EVP_PKEY> key(
        bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, noPassword, nullptr) : nullptr, &EVP_PKEY_free);
    if (!key) return OpenSslError("This is no private key");
    if (kind == KelKeyKind::Tree && !IsTreeKey(key.get()))
        return KelError{kKelFailure, "This is no key on the curve P-256"};
    if (kind == KelKeyKind::Signing && !IsSigningKey(key.get()))
        return KelError{kKelFailure, "This is no key for Ed25519"};
    return KelKeyPair(std::move(key));
}

KelResult<KelString> KelKeyPair::ToPem() const {
    const BioOwner bio(BIO_new(BIO_s_mem()));
    if (!bio ||
        PEM_write_bio_PKCS8PrivateKey(bio.get(), key_.get(), nullptr, nullptr, 0, nullptr, nullptr) != 1)
        return OpenSslError("A private key cannot be written");
    return TextOf(bio.get());
}

KelResult<KelKeyPair> KelKeyPair::Load(const KelString& path, KelKeyKind kind) {
    if (FileIsOpenToOthers(path))
        return KelError{kKelFailure,
                        KelFormat("The private key %S may be opened by others; chmod 600 it, and join the "
                                  "device again with a new key if somebody may have read it",
                                  path)};
    const auto text = FileReadText(path, kMaxPemBytes);
    if (!text) return text.Error();
    auto key = FromPem(*text, kind);
    if (!key) return KelError{kKelFailure, path + ": " + key.Error().message};
    return key;
}

KelStatus KelKeyPair::Save(const KelString& path) const {
    const auto pem = ToPem();
    if (!pem) return pem.Error();
    return FileWriteText(path, *pem);
}

KelResult<KelString> KelKeyPair::Sign(std::string_view text) const {
    const OpenSslOwner<EVP_MD_CTX, &EVP_MD_CTX_free> context(EVP_MD_CTX_new());
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    std::size_t length = 0;
    if (!context || EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, key_.get()) != 1 ||
        EVP_DigestSign(context.get(), nullptr, &length, bytes, text.size()) != 1)
        return OpenSslError("A text cannot be signed");
    KelString signature(length, '\0');
    auto* out = reinterpret_cast<unsigned char*>(signature.data());
    if (EVP_DigestSign(context.get(), out, &length, bytes, text.size()) != 1)
        return OpenSslError("A text cannot be signed");
    signature.resize(length);
    return signature;
}

bool IsSignedWith(evp_pkey_st* publicKey, std::string_view text, std::string_view signature) {
    const OpenSslOwner<EVP_MD_CTX, &EVP_MD_CTX_free> context(EVP_MD_CTX_new());
    return context && EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, publicKey) == 1 &&
           EVP_DigestVerify(context.get(), reinterpret_cast<const unsigned char*>(signature.data()),
                            signature.size(), reinterpret_cast<const unsigned char*>(text.data()),
                            text.size()) == 1;
}

bool IsTreeKey(const evp_pkey_st* key) {
    std::array<char, 64> group{};
    std::size_t length = 0;
    return key != nullptr && EVP_PKEY_is_a(key, "EC") == 1 &&
           EVP_PKEY_get_group_name(key, group.data(), group.size(), &length) == 1 &&
           std::string_view(group.data(), length) == kCurve;
}

bool IsSigningKey(const evp_pkey_st* key) {
    return key != nullptr && EVP_PKEY_is_a(key, kSigning) == 1;
}

KelString KeyFingerprint(const evp_pkey_st* key) {
    unsigned char* der = nullptr;
    const int length = i2d_PUBKEY(key, &der);
    return FingerprintOfDer(der, length);
}

KelString KeyFingerprint(const x509_st* certificate) {
    // As it stands in the certificate; to encode the key again takes a good part of a handshake.
    unsigned char* der = nullptr;
    const int length = i2d_X509_PUBKEY(X509_get_X509_PUBKEY(certificate), &der);
    return FingerprintOfDer(der, length);
}

KelString DigestOfFingerprint(std::string_view fingerprint) {
    if (!fingerprint.starts_with(kDigestName)) return {};
    const auto digest = Base64Decode(fingerprint.substr(kDigestName.size()));
    return digest && digest->size() == kDigestBytes ? *digest : KelString();
}

KelString FingerprintOfDigest(std::string_view digest) {
    return KelString(kDigestName) + Base64Encode(digest);
}
