#pragma once

#include <cstdint>

#include "kelcore/keys/certificate.h"

/// The key and the certificate with which a tree's authority signs. Times are seconds since the epoch; what
/// is signed is valid from a day before, since the clocks of devices may be late.
class KelIssuer {
  public:
    static constexpr std::int64_t kDay = 86400;
    static constexpr std::int64_t kValidity = 365 * kDay;  ///< of the certificate of a device

    /// A new authority, for thirty years.
    static KelResult<KelIssuer> Make(std::int64_t now);
    KelIssuer(KelKeyPair key, KelCertificate certificate)
        : key_(std::move(key)), certificate_(std::move(certificate)) {}

    const KelKeyPair& Key() const { return key_; }
    const KelCertificate& Certificate() const { return certificate_; }

    /// A certificate for the device with this public key, valid for a year, and until `leastEnd` at least.
    KelResult<KelCertificate> Issue(evp_pkey_st* publicKey, const KelDeviceIdentity& identity,
                                    std::int64_t now, std::int64_t leastEnd = 0) const;

    /// A certificate for the key with which publications are signed, for as long as the authority's. Its one
    /// purpose is to sign code, so that it is of no use for TLS, and that of a device of none for signatures.
    KelResult<KelCertificate> IssueForSigning(evp_pkey_st* publicKey, std::int64_t now) const;

    /// The list of these certificates, in PEM form. `number` is higher than that of every list before.
    KelResult<KelString> ListRevoked(const KelVector<KelCertificate>& revoked, std::int64_t number,
                                     std::int64_t now) const;

  private:
    KelKeyPair key_;
    KelCertificate certificate_;
};

/// A certificate that a device signs for itself, to have one for TLS until the authority has issued one.
KelResult<KelCertificate> MakePlaceholder(const KelKeyPair& key, const KelString& guid);
