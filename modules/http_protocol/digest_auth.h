#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string_view>

#include "kel/ip_address.h"
#include "kel/types.h"

namespace kelhttp {

/// Checks the credentials of requests: digest with SHA-256 and qop "auth" (RFC 7616), and basic (RFC 7617)
/// where the connection is encrypted. Any thread.
///
/// A nonce carries the time it was made at and an HMAC over that time and the client's address: nothing is
/// kept per client, a nonce is of use to one address only, for NonceLifetime seconds; an older one is
/// answered with stale=true. The nonce count must rise within one connection for as long as its nonce stays
/// the same. A recorded request can thus be replayed by someone who takes part from the same address, on
/// another connection and within the lifetime of its nonce; who must exclude that uses TLS.
class DigestAuth {
  public:
    using Clock = std::chrono::steady_clock;

    /// What one connection remembers between its requests; spares checking the same nonce again.
    struct Memory {
        KelString nonce;  ///< proven genuine for this connection's peer
        std::uint64_t lastCount = 0;
    };

    struct Request {
        std::string_view method;
        std::string_view target;         ///< as it stands in the request line
        std::string_view authorization;  ///< the field's value, may be empty
        IpAddress peer;
        bool encrypted = false;
    };

    enum class Verdict : unsigned char { Granted, Refused, Stale };

    /// `lifetime` of a nonce in seconds.
    DigestAuth(const KelString& user, const KelString& password, int lifetime);

    Verdict Check(const Request& request, Memory& memory, Clock::time_point now) const;

    /// The header lines (with line ends) that ask for credentials.
    KelString Challenge(IpAddress peer, bool encrypted, bool stale, Clock::time_point now) const;

  private:
    enum class NonceState : unsigned char { Fresh, Old, Foreign };
    Verdict CheckDigest(const Request& request, Memory& memory, Clock::time_point now) const;
    bool CheckBasic(std::string_view encoded) const;
    KelString MakeNonce(IpAddress peer, Clock::time_point now) const;
    NonceState ExamineNonce(std::string_view nonce, IpAddress peer, const Memory& memory,
                            Clock::time_point now) const;
    KelString NonceCode(std::string_view stamp, IpAddress peer) const;

    KelString user_;
    KelString basicDigest_;  ///< SHA-256 of "user:password": equal lengths for the comparison
    KelString secret_;       ///< H(user:realm:password)
    KelString key_;          ///< of the nonces; new at every start
    std::chrono::seconds lifetime_;
    mutable std::atomic<std::uint32_t> made_ = 0;
};

}  // namespace kelhttp
