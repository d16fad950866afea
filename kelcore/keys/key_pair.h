#pragma once

#include <memory>
#include <string_view>

#include "kel/result.h"
#include "kel/types.h"

struct evp_pkey_st;
struct x509_st;

/// What a key is for: devices and the authority have keys for ECDSA on the curve P-256 (FIPS 186-5), for TLS
/// and certificates; publications are signed with a key for Ed25519 (RFC 8032).
enum class KelKeyKind : unsigned char { Tree, Signing };

/// A private key with its public key. A value; may be read from any thread.
class KelKeyPair {
  public:
    static KelResult<KelKeyPair> Make(KelKeyKind kind = KelKeyKind::Tree);

    /// A private key in PEM form (PKCS #8, RFC 5958) without a password. An error when it is of another kind.
    static KelResult<KelKeyPair> FromPem(std::string_view pem, KelKeyKind kind = KelKeyKind::Tree);
    KelResult<KelString> ToPem() const;

    /// From a file that only its owner may read.
    static KelResult<KelKeyPair> Load(const KelString& path, KelKeyKind kind = KelKeyKind::Tree);
    KelStatus Save(const KelString& path) const;

    evp_pkey_st* Get() const { return key_.get(); }

    /// A signature of the text (ECDSA with SHA-256, in DER).
    KelResult<KelString> Sign(std::string_view text) const;

  private:
    explicit KelKeyPair(std::shared_ptr<evp_pkey_st> key) : key_(std::move(key)) {}

    std::shared_ptr<evp_pkey_st> key_;
};

/// True for a signature of this text that Sign has made with the key pair of this public key.
bool IsSignedWith(evp_pkey_st* publicKey, std::string_view text, std::string_view signature);

/// True for the one kind of key that the devices of a tree have, and for that of publications.
bool IsTreeKey(const evp_pkey_st* key);
bool IsSigningKey(const evp_pkey_st* key);

/// "sha256//…": the SHA-256 digest of the public key (its SubjectPublicKeyInfo in DER) in base64, as pins of
/// keys are written (RFC 7469). Empty when memory runs out.
KelString KeyFingerprint(const evp_pkey_st* key);
/// The same of the key in a certificate.
KelString KeyFingerprint(const x509_st* certificate);

/// The digest in a fingerprint, 32 bytes; empty for any other text. And the reverse.
KelString DigestOfFingerprint(std::string_view fingerprint);
KelString FingerprintOfDigest(std::string_view digest);
