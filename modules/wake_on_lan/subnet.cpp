#include "modules/wake_on_lan/subnet.h"

#include <algorithm>
#include <bit>

#include "kel/format.h"
#include "kelcore/error_codes.h"

namespace {

constexpr int kShortestPrefix = 8;
constexpr int kLongestPrefix = 30;

bool IsUnicast(IpAddress address) {
    const std::uint32_t first = address.Value() >> 24;
    return first >= 1 && first <= 223;
}

}  // namespace

KelString Subnet::Text() const {
    return KelFormat("%S/%d", network.ToText(), std::popcount(mask.Value()));
}

KelResult<Subnet> SubnetOf(IpAddress host, IpAddress mask) {
    const int prefix = std::countl_one(mask.Value());
    if (prefix != std::popcount(mask.Value()) || prefix < kShortestPrefix || prefix > kLongestPrefix)
        return KelError{kKelErrorBadInput, KelFormat("%S is no mask of a subnet with hosts", mask.ToText())};
    const Subnet subnet{IpAddress(host.Value() & mask.Value()), mask};
    if (!IsUnicast(host) || host == subnet.network || host == subnet.Broadcast())
        return KelError{kKelErrorBadInput,
                        KelFormat("%S is no address of a host in %S", host.ToText(), subnet.Text())};
    return subnet;
}

void SubnetAgents::Remove(const KelString& guid) {
    for (auto subnet = subnets_.begin(); subnet != subnets_.end();) {
        std::erase_if(subnet->second, [&guid](const SubnetAgent& known) { return known.guid == guid; });
        subnet = subnet->second.empty() ? subnets_.erase(subnet) : std::next(subnet);
    }
}

void SubnetAgents::Add(const Subnet& subnet, SubnetAgent agent) {
    const KelLock lock(mutex_);
    Remove(agent.guid);
    if (subnets_.size() >= kMostSubnets && !subnets_.contains(subnet)) subnets_.erase(subnets_.begin());
    KelVector<SubnetAgent>& agents = subnets_[subnet];
    agents.insert(agents.begin(), std::move(agent));
    if (agents.size() > kMostAgents) agents.pop_back();
}

KelVector<SubnetAgent> SubnetAgents::Find(const Subnet& subnet, IpAddress except) const {
    const KelLock lock(mutex_);
    const auto known = subnets_.find(subnet);
    if (known == subnets_.end()) return {};
    KelVector<SubnetAgent> agents = known->second;
    std::erase_if(agents, [except](const SubnetAgent& agent) { return agent.address == except; });
    return agents;
}
