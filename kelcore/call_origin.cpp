#include "kelcore/call_origin.h"

#include <chrono>
#include <mutex>
#include <optional>
#include <utility>

#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/keys/key_ring.h"
#include "kelcore/security.h"

namespace {

constexpr const char* kAddress = "HttpProtocolRequestAddress";
constexpr const char* kOperator = "HttpProtocolRequestCaller";
constexpr const char* kCallers = "HttpProtocolRequestClasses";
constexpr const char* kDevice = "HttpProtocolRequestDevice";
constexpr const char* kMayPassOn = "HttpProtocolRequestMayPassOn";
constexpr const char* kMaster = "HttpProtocolRequestMaster";

/// How long the address of a name counts: a relay with many children would ask the name server for each call.
constexpr std::chrono::seconds kResolvedFor{10};

/// What is known of addresses.
struct Addresses {
    std::mutex mutex;  ///< guards the rest; not held while a name is resolved
    IpRange trusted;
    KelString name;  ///< resolved last
    std::optional<IpAddress> address;
    std::chrono::steady_clock::time_point resolved;
};

Addresses& Known() {
    static Addresses known;
    return known;
}

bool IsTrusted(IpAddress address) {
    const std::lock_guard lock(Known().mutex);
    return Known().trusted.Contains(address);
}

std::optional<IpAddress> AddressOf(const KelString& name) {
    if (const auto dotted = IpAddress::Parse(name)) return dotted;
    const auto now = std::chrono::steady_clock::now();
    {
        const std::lock_guard lock(Known().mutex);
        if (Known().name == name && now - Known().resolved < kResolvedFor) return Known().address;
    }
    const auto address = IpAddress::Resolve(name);
    const std::lock_guard lock(Known().mutex);
    Known().name = name;
    Known().address = address;
    Known().resolved = now;
    return address;
}

bool IsThisDevice(const KelPeer& peer) {
    const AgentSecurityKeys keys = AgentSecurityGetKeys();
    return keys && !peer.deviceGuid.empty() && keys->Get().device.guid == peer.deviceGuid;
}

bool IsParent(const KelPeer& peer, bool mayResolve) {
    if (peer.proof == KelPeer::Proof::Certificate) {
        const AgentSecurityKeys keys = AgentSecurityGetKeys();
        return keys && !peer.deviceGuid.empty() && peer.deviceRole != KelDeviceRole::Client &&
               keys->Get().parent.guid == peer.deviceGuid;
    }
    if (IsTrusted(peer.address)) return true;
    KelContainer answer;
    if (CallLocal("RelayGetValues", answer) != kKelOk) return false;
    const KelContainer& relay = answer.GetContainer("Values");
    if (IpAddress::Parse(relay.GetString("ParentIPAddress")) == peer.address) return true;
    // It may have another address now than when it was called last.
    const KelString name = relay.GetString("ParentName");
    return mayResolve && !name.empty() && AddressOf(name) == peer.address;
}

}  // namespace

KelCallOrigin JudgePeer(const KelPeer& peer, KelCallers wanted) {
    if (peer.proof == KelPeer::Proof::Socket) return {};
    KelCallOrigin origin;
    origin.address = peer.address.ToText();
    if (peer.proof == KelPeer::Proof::None || peer.proof == KelPeer::Proof::MetricsPort) {
        const bool isStranger = peer.proof == KelPeer::Proof::None;
        origin.callers = isStranger ? KelCallers::Stranger : KelCallers::Scraper;
        return origin;
    }
    origin.deviceGuid = peer.deviceGuid;
    origin.mayPassOn = peer.proof != KelPeer::Proof::Certificate || peer.deviceRole != KelDeviceRole::Client;
    const bool isParent = IsParent(peer, Includes(wanted, KelCallers::Parent));
    origin.callers = isParent ? KelCallers::Parent : KelCallers::Child;
    if (isParent || peer.proof == KelPeer::Proof::Password || peer.deviceRole == KelDeviceRole::Master ||
        IsThisDevice(peer))
        origin.callers = origin.callers | KelCallers::Observer;
    return origin;
}

void TrustAsParents(IpRange addresses) {
    const std::lock_guard lock(Known().mutex);
    Known().trusted = std::move(addresses);
}

KelCallOrigin CallOriginOf(const KelContainer& arguments) {
    if (!ActionIsFromOutside(arguments)) return {};
    const KelContainer& info = arguments.GetContainer(kActionRequestInfo);
    return {static_cast<KelCallers>(info.GetInt32(kCallers)),
            info.GetString(kAddress),
            info.GetString(kDevice),
            info.GetBool(kMayPassOn),
            info.GetString(kOperator),
            info.GetString(kMaster)};
}

void SetCallOrigin(const KelCallOrigin& origin, KelContainer& arguments) {
    KelContainer info;
    info.SetInt32(kCallers, static_cast<std::int32_t>(origin.callers));
    if (!origin.address.empty()) info.SetString(kAddress, origin.address);
    if (!origin.deviceGuid.empty()) info.SetString(kDevice, origin.deviceGuid);
    info.SetBool(kMayPassOn, origin.mayPassOn);
    if (!origin.operatorName.empty()) info.SetString(kOperator, origin.operatorName);
    if (!origin.master.empty()) info.SetString(kMaster, origin.master);
    arguments.Remove(kActionRequestInfo);
    arguments.SetContainer(kActionRequestInfo, std::move(info));
}

bool ActionIsFromOutside(const KelContainer& arguments) {
    return arguments.Has(kActionRequestInfo);
}

bool ActionIsFromThisDevice(const KelContainer& arguments) {
    return Includes(CallOriginOf(arguments).callers, KelCallers::Local);
}

bool ActionIsFromParent(const KelContainer& arguments) {
    return Includes(CallOriginOf(arguments).callers, KelCallers::Parent);
}

KelString ActionRequestAddress(const KelContainer& arguments) {
    return CallOriginOf(arguments).address;
}
