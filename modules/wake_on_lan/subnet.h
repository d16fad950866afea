#pragma once

#include <cstdint>
#include <map>

#include "kel/ip_address.h"
#include "kel/mutex.h"
#include "kel/result.h"
#include "kel/types.h"

/// A network of hosts that a broadcast reaches.
struct Subnet {
    IpAddress network;
    IpAddress mask;

    IpAddress Broadcast() const { return IpAddress(network.Value() | ~mask.Value()); }
    bool Contains(IpAddress address) const { return (address.Value() & mask.Value()) == network.Value(); }
    KelString Text() const;  ///< "10.1.2.0/24"
    auto operator<=>(const Subnet&) const = default;
};

/// The subnet of a host. An error that names the value when the mask is none, leaves no hosts (fewer than
/// two) or takes in more than a class A network, and when `host` is no address that a host of it can have.
KelResult<Subnet> SubnetOf(IpAddress host, IpAddress mask);

/// An agent that can send into its own subnet.
struct SubnetAgent {
    KelString guid;
    IpAddress address;
    std::uint16_t port = 0;
};

/// The agents that are known by subnet. Any thread.
class SubnetAgents {
  public:
    /// Enters an agent; one with the same GUID moves to `subnet`. A subnet keeps the agents that were entered
    /// last; beyond kMostSubnets another subnet is forgotten.
    void Add(const Subnet& subnet, SubnetAgent agent);

    /// The agents of a subnet but for the one at `except`; the one entered last comes first.
    KelVector<SubnetAgent> Find(const Subnet& subnet, IpAddress except) const;

    static constexpr std::size_t kMostAgents = 8;  ///< of a subnet
    static constexpr std::size_t kMostSubnets = 4096;

  private:
    void Remove(const KelString& guid) KEL_REQUIRES(mutex_);

    mutable KelMutex mutex_;  ///< a leaf
    std::map<Subnet, KelVector<SubnetAgent>> subnets_ KEL_GUARDED_BY(mutex_);
};
