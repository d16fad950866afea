#pragma once

#include <atomic>
#include <cstdint>
#include <set>
#include <utility>

#include "kel/ip_address.h"
#include "kel/mutex.h"
#include "kel/types.h"

/// A tree on its way from a password to keys: members without keys come with the password to a device that
/// has keys, and are called with it. The operator ends that for each device. Any thread.
class KelTransition {
  public:
    static constexpr std::size_t kMostPeers = 10'000;

    /// Whether the operator has it that the password is accepted; false also forgets everything.
    void SetOn(bool isOn);

    /// True while a member may come with the password alone: in a plain tree always; with keys while the
    /// transition goes on, for a client only until it has a certificate, since no device is below it.
    bool AcceptsPassword() const;

    /// True while devices besides the parent are to be called with the password, unless known to have keys.
    bool CallsWithPassword() const;

    /// The device with this GUID, or at this place ("host:port"), has keys.
    void NoteKeys(const KelString& device);
    bool HasKeys(const KelString& device) const;

    /// A member came from this address, with the password or with a certificate.
    void NoteCaller(IpAddress address, bool hadPassword, std::int64_t now);
    /// The addresses that came last with the password, and when.
    KelVector<std::pair<IpAddress, std::int64_t>> PasswordCallers() const;

  private:
    mutable KelMutex mutex_;
    std::set<KelString> withKeys_ KEL_GUARDED_BY(mutex_);
    KelHash<std::uint32_t, std::int64_t> callers_ KEL_GUARDED_BY(mutex_);
    std::atomic<bool> isOn_ = false;
};

/// That of this process.
KelTransition& Transition();
