#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string_view>

#include "kel/ip_address.h"
#include "kel/mutex.h"
#include "kel/types.h"
#include "kelcore/tree_passwords.h"

namespace kelhttp {

/// Checks the credentials of requests: digest with SHA-256 and qop "auth" (RFC 7616), and basic (RFC 7617)
/// where the connection is encrypted, by the passwords in force. Any thread.
///
/// A nonce consists of the time at which it was made and an HMAC over that time and the client's address. So
/// nothing is stored per client, and a nonce is valid for one address only, for NonceLifetime seconds; an
/// older one is answered with stale=true. Within one connection the nonce count must rise for as long as the
/// nonce stays the same. An attacker with the same address can therefore replay a recorded request on another
/// connection within the lifetime of its nonce; TLS prevents this.
class DigestAuth {
  public:
    using Clock = std::chrono::steady_clock;

    /// The state of one connection between its requests; a nonce that was checked once is not checked again.
    struct Memory {
        KelString nonce;  ///< verified for this connection's peer
        std::uint64_t lastCount = 0;
        bool hadFormer = false;  ///< the last valid credentials were those of the former password
    };

    struct Request {
        std::string_view method;
        std::string_view target;         ///< as it stands in the request line
        std::string_view authorization;  ///< the field's value, may be empty
        IpAddress peer;
        bool encrypted = false;
        bool hasBoth = false;  ///< the caller says that it has the current password, whichever it comes with
    };

    enum class Verdict : unsigned char { Granted, Refused, Stale };

    /// `passwords` outlives this, which follows it; `lifetime`: of a nonce, in seconds.
    DigestAuth(const KelString& user, KelTreePasswords& passwords, int lifetime);

    Verdict Check(const Request& request, Memory& memory, Clock::time_point now) const;

    /// The header lines (with line ends) that ask for credentials.
    KelString Challenge(IpAddress peer, bool encrypted, bool stale, Clock::time_point now) const;

  private:
    enum class NonceState : unsigned char { Fresh, Old, Foreign };
    /// What is compared with the credentials of a request, of one password.
    struct Secrets {
        KelString basic;   ///< SHA-256 of "user:password": compared texts have equal lengths
        KelString digest;  ///< H(user:realm:password)
    };
    Secrets SecretsOf(const KelString& password) const;
    /// Those of the passwords in force, the current one first.
    std::shared_ptr<const KelVector<Secrets>> CurrentSecrets() const;
    Verdict CheckDigest(const Request& request, Memory& memory, Clock::time_point now) const;
    bool CheckBasic(std::string_view encoded, const Request& request, Memory& memory) const;
    void NoteCaller(const Request& request, Memory& memory, bool hadFormer) const;
    KelString MakeNonce(IpAddress peer, Clock::time_point now) const;
    NonceState ExamineNonce(std::string_view nonce, IpAddress peer, const Memory& memory,
                            Clock::time_point now) const;
    KelString NonceCode(std::string_view stamp, IpAddress peer) const;

    KelString user_;
    KelTreePasswords& passwords_;
    mutable KelMutex mutex_;
    mutable std::shared_ptr<const KelVector<Secrets>> secrets_ KEL_GUARDED_BY(mutex_);
    mutable std::uint64_t secretsId_ KEL_GUARDED_BY(mutex_) = 0;  ///< KelTreePasswords::Id of these
    KelString key_;  ///< of the HMAC in nonces; new at every start
    std::chrono::seconds lifetime_;
    mutable std::atomic<std::uint32_t> made_ = 0;
};

}  // namespace kelhttp
