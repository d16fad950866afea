#pragma once

#include <cstdint>
#include <string_view>

#include "kel/result.h"
#include "kelcore/keys/certificate.h"

/// Certificates that the authority has revoked (X.509 CRL version 2, RFC 5280). A value; may be read from any
/// thread. The default is an empty list with the number 0.
class KelRevocationList {
  public:
    static constexpr std::size_t kMaxPemBytes = 8 << 20;

    KelRevocationList() = default;

    /// An error unless `authority` has signed it. Lists do not expire: a device that was off for long, or
    /// whose parent is, has an old one, which is better than none; it never takes one with a lower number.
    static KelResult<KelRevocationList> FromPem(std::string_view pem, const KelCertificate& authority);

    std::int64_t Number() const { return number_; }
    const KelString& Pem() const { return pem_; }
    std::size_t Count() const { return serials_.size(); }
    /// `serial` as KelCertificate gives it.
    bool Has(const KelString& serial) const;

  private:
    std::int64_t number_ = 0;
    KelVector<KelString> serials_;  ///< sorted
    KelString pem_;
};
