#include "modules/wake_on_lan/wake_up_request.h"

#include "kel/format.h"
#include "kelcore/device_name.h"
#include "kelcore/error_codes.h"

namespace {

constexpr std::int32_t kMostRepeats = 20;
constexpr std::int32_t kLongestInterval = 3600;  ///< seconds
constexpr std::uint32_t kMostLevels = 64;        ///< of a tree

KelError Unusable(const char* name, const KelString& value, const char* expected) {
    return {kKelErrorBadInput, KelFormat("%s \"%S\" is not %s", name, value, expected)};
}

KelStatus ReadNumber(const KelContainer& arguments, const char* name, std::int32_t least, std::int32_t most,
                     std::int32_t& number) {
    if (!arguments.Has(name)) return {};
    number = arguments.GetInt32(name, -1);
    if (number >= least && number <= most) return {};
    return KelError{kKelErrorBadInput, KelFormat("%s must be a number from %d to %d", name, least, most)};
}

KelStatus ReadHost(const KelContainer& arguments, WakeUpRequest& request) {
    const KelString host = arguments.GetString("WakeOnLanDeviceIPAddr");
    const KelString mask = arguments.GetString("WakeOnLanDeviceNetworkMask");
    const auto address = IpAddress::Parse(host);
    if (!address) return Unusable("WakeOnLanDeviceIPAddr", host, "an IPv4 address");
    const auto maskBits = IpAddress::Parse(mask);
    if (!maskBits) return Unusable("WakeOnLanDeviceNetworkMask", mask, "an IPv4 network mask");
    const auto subnet = SubnetOf(*address, *maskBits);
    if (!subnet) return subnet.Error();
    request.host = *address;
    request.subnet = *subnet;
    return {};
}

KelStatus ReadRepeats(const KelContainer& arguments, WakeUpRequest& request) {
    std::int32_t repeats = 0;
    auto interval = static_cast<std::int32_t>(request.interval.count());
    if (auto read = ReadNumber(arguments, "WakeOnLanNumberOfRetry", 0, kMostRepeats, repeats); !read)
        return read;
    if (auto read = ReadNumber(arguments, "WakeOnLanRetryInterval", 1, kLongestInterval, interval); !read)
        return read;
    request.repeats = static_cast<unsigned int>(repeats);
    request.interval = std::chrono::seconds(interval);
    return {};
}

KelStatus ReadWay(const KelContainer& arguments, WakeUpRequest& request) {
    if (!arguments.Has("WakeOnLanWay")) return {};
    const std::uint32_t count = arguments.Count("WakeOnLanWay");
    if (count > kMostLevels)
        return KelError{kKelErrorBadInput, KelFormat("WakeOnLanWay names more than %u devices", kMostLevels)};
    for (std::uint32_t i = 0; i < count; ++i) {
        const KelString name = arguments.GetString("WakeOnLanWay", {}, i);
        if (!IsHostAndPort(name)) return Unusable("WakeOnLanWay", name, "HOST:PORT");
        request.way.push_back(name);
    }
    return {};
}

}  // namespace

KelContainer WakeUpRequest::ForNext() const {
    KelContainer arguments;
    arguments.SetString("WakeOnLanDeviceMACAddr", MacAddressText(card));
    arguments.SetString("WakeOnLanDeviceIPAddr", host.ToText());
    arguments.SetString("WakeOnLanDeviceNetworkMask", subnet.mask.ToText());
    arguments.SetInt32("WakeOnLanNumberOfRetry", static_cast<std::int32_t>(repeats));
    arguments.SetInt32("WakeOnLanRetryInterval", static_cast<std::int32_t>(interval.count()));
    for (std::size_t i = 1; i < way.size(); ++i)
        arguments.SetString("WakeOnLanWay", way[i], static_cast<std::uint32_t>(i - 1));
    arguments.SetBool("WakeOnLanOnlyOwnSubnet", way.empty());
    return arguments;
}

KelResult<WakeUpRequest> ReadWakeUpRequest(const KelContainer& arguments) {
    WakeUpRequest request;
    const KelString card = arguments.GetString("WakeOnLanDeviceMACAddr");
    const auto address = ParseMacAddress(card);
    if (!address) return Unusable("WakeOnLanDeviceMACAddr", card, "the MAC address of a network card");
    request.card = *address;
    for (const auto read : {ReadHost, ReadRepeats, ReadWay})
        if (const KelStatus done = read(arguments, request); !done) return done.Error();
    request.onlyOwnSubnet = arguments.GetBool("WakeOnLanOnlyOwnSubnet");
    return request;
}

KelStatus ReadSubnetAgent(const KelContainer& arguments, Subnet& subnet, SubnetAgent& agent) {
    const auto number = [&arguments](const char* name) {
        return static_cast<std::uint32_t>(arguments.GetInt32(name));
    };
    agent.guid = arguments.GetString("WakeOnLanAgentGuid");
    agent.address = IpAddress(number("WakeOnLanDeviceIPAddr"));
    const std::uint32_t port = number("WakeOnLanDeviceAgentPort");
    if (!IsGuid(agent.guid)) return Unusable("WakeOnLanAgentGuid", agent.guid, "a GUID");
    if (port == 0 || port > 65535)
        return KelError{kKelErrorBadInput, "WakeOnLanDeviceAgentPort must be a port from 1 to 65535"};
    agent.port = static_cast<std::uint16_t>(port);
    const auto found = SubnetOf(agent.address, IpAddress(number("WakeOnLanDeviceNetworkMask")));
    if (!found) return found.Error();
    subnet = *found;
    return {};
}
