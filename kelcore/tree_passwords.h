#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include "kel/ip_address.h"
#include "kel/mutex.h"
#include "kel/types.h"

/// The passwords of a plain tree that are in force on this device. While the password of the tree is being
/// changed, there are two.
struct KelPasswordPair {
    KelString current;
    KelString former = {};       ///< empty: only one
    std::int64_t formerEnd = 0;  ///< when the former one ends, seconds since the epoch; 0: when it is removed
    bool operator==(const KelPasswordPair&) const = default;
};

/// Which password goes to which device while two are in force, and who still comes with the former one. The
/// devices of a tree are given the new password in any order, so that a device which has both meets others
/// that have only the former one, both, or only the new one. Calls to a device begin with the former one. A
/// device that has both says so in its answer, and is called with the new one from then on, as is one that
/// refuses the former. The caller, too, says that it has both. So whoever has only the former one is known by
/// its calls. Any thread.
class KelTreePasswords {
  public:
    static constexpr std::size_t kMostPeers = 10'000;

    void Set(KelPasswordPair passwords);
    KelPasswordPair Get() const;
    /// Changes with every Set of other passwords; without locking.
    std::uint64_t Id() const { return id_; }

    /// True for one of the passwords in force, and not for an empty text.
    bool Has(std::string_view password) const;
    bool IsFormer(std::string_view password) const;

    /// The passwords for a call to `place` ("host:port") in the order in which to try them.
    KelVector<KelString> OrderFor(const KelString& place) const;
    /// The device at `place` has taken this one, and said perhaps that it has both.
    void NoteTaken(const KelString& place, const KelString& password, bool hasBoth);

    /// A request from this address had valid credentials, from a device that has only the former password or
    /// from another one.
    void NoteCaller(IpAddress address, bool hasOnlyFormer, std::int64_t now);
    /// The addresses that came last with nothing but the former password, and when.
    KelVector<std::pair<IpAddress, std::int64_t>> FormerCallers() const;

  private:
    mutable KelMutex mutex_;
    KelPasswordPair passwords_ KEL_GUARDED_BY(mutex_);
    std::set<KelString> renewed_ KEL_GUARDED_BY(mutex_);  ///< places that take the current password
    KelHash<std::uint32_t, std::int64_t> formerCallers_ KEL_GUARDED_BY(mutex_);
    std::atomic<std::uint64_t> id_ = 0;
    std::atomic<bool> areTwo_ = false;
};

/// The day on which a former password ends, as "2026-12-31": its beginning in UTC, seconds since the epoch.
std::optional<std::int64_t> ParsePasswordEnd(const KelString& text);
KelString PasswordEndText(std::int64_t end);

/// Those of this process.
KelTreePasswords& TreePasswords();
