#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "kel/result.h"
#include "kel/types.h"
#include "kelcore/keys/key_pair.h"

struct x509_st;
struct X509_name_st;

enum class KelDeviceRole : unsigned char { Master, Relay, Client };

/// "master", "relay" or "client".
const char* KelDeviceRoleName(KelDeviceRole role);
std::optional<KelDeviceRole> ParseDeviceRole(std::string_view text);

/// What a certificate says of a device: the subject "OU = role, CN = GUID".
struct KelDeviceIdentity {
    KelString guid;
    KelDeviceRole role = KelDeviceRole::Client;
    bool operator==(const KelDeviceIdentity&) const = default;
};

/// The device that a subject names; an error when it has anything else in it.
KelResult<KelDeviceIdentity> IdentityOfSubject(const X509_name_st* subject);
/// Writes such a subject.
bool SetSubject(X509_name_st* subject, const KelDeviceIdentity& identity);
/// The URI by which a certificate names the device once more.
KelString UriOfDevice(const KelString& guid);

/// A certificate (X.509 version 3, RFC 5280) of a device or of the tree's authority. A value; may be read
/// from any thread.
class KelCertificate {
  public:
    /// One certificate and nothing else, of at most 16 KiB.
    static KelResult<KelCertificate> FromPem(std::string_view pem);
    static KelResult<KelCertificate> Load(const KelString& path);
    /// Shares the object.
    static KelCertificate Of(x509_st* certificate);

    KelResult<KelString> ToPem() const;

    /// One certificate and nothing else, of at most kMaxDerBytes, as it travels with a signature.
    static constexpr std::size_t kMaxDerBytes = 2 << 10;
    static KelResult<KelCertificate> FromDer(std::string_view der);
    KelResult<KelString> ToDer() const;
    x509_st* Get() const { return certificate_.get(); }

    KelString Serial() const;  ///< hexadecimal digits
    std::int64_t NotBefore() const;
    std::int64_t NotAfter() const;
    KelString Fingerprint() const;  ///< of its key; see KeyFingerprint

    /// The device that it names. An error when it is not exactly what an authority issues to a device: a key
    /// of the right kind, the two parts of the subject, and the GUID once more as the only alternative name,
    /// the URI "urn:uuid:GUID". Says nothing about signature and time.
    KelResult<KelDeviceIdentity> Identity() const;

  private:
    explicit KelCertificate(std::shared_ptr<x509_st> certificate) : certificate_(std::move(certificate)) {}

    std::shared_ptr<x509_st> certificate_;
};
