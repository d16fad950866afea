#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <unordered_map>

#include "kel/ip_address.h"
#include "kel/mutex.h"

namespace kelhttp {

/// Counts the wrong credentials of each address, to slow down the guessing of the password. An address may
/// fail a few times in a row, and once a second in the long run. Any thread.
class GuessLimit {
  public:
    using Clock = std::chrono::steady_clock;

    /// True when the address has failed too often lately.
    bool IsExceeded(IpAddress peer, Clock::time_point now) const;

    void NoteFailure(IpAddress peer, Clock::time_point now);

    std::size_t CountAddresses() const;

    static constexpr int kFailures = 10;  ///< in a row
    static constexpr std::chrono::seconds kPause{1};
    static constexpr std::size_t kMaxAddresses = 10'000;

  private:
    mutable KelMutex mutex_;
    /// By address, when its failures will have been forgiven: each adds kPause.
    std::unordered_map<std::uint32_t, Clock::time_point> forgiven_ KEL_GUARDED_BY(mutex_);
};

}  // namespace kelhttp
