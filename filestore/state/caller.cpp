#include "filestore/state/caller.h"

#include <algorithm>

#include "filestore/state/file_store.h"
#include "kel/ip_address.h"
#include "kel/text.h"
#include "kelcore/call_origin.h"
#include "kelcore/device_name.h"

namespace filestore {

namespace {

bool HasAddress(const KelString& device, const KelString& address) {
    const auto caller = IpAddress::Parse(address);
    if (!caller) return false;
    const StringTokeniser parts(device, '/');
    const KelString hostAndPort = parts.GetToken(0);
    const KelString host = hostAndPort.substr(0, hostAndPort.find(':'));
    const KelString listed = parts.GetToken(3);  // of a path name
    return IpAddress::Parse(host) == caller || IpAddress::Parse(listed) == caller ||
           (IsHostName(host) && IpAddress::Resolve(host) == caller);
}

}  // namespace

bool IsCallOf(const KelContainer& arguments, const KelString& device) {
    const KelCallOrigin origin = CallOriginOf(arguments);
    if (Includes(origin.callers, KelCallers::Local)) return true;
    if (Includes(origin.callers, KelCallers::Operator)) return device.empty();
    if (!origin.deviceGuid.empty()) return StringTokeniser(device, '/').GetToken(1) == origin.deviceGuid;
    return HasAddress(device, origin.address);
}

bool CheckIsCallOf(const KelContainer& arguments, const KelString& device) {
    if (IsCallOf(arguments, device)) return true;
    const KelCallOrigin origin = CallOriginOf(arguments);
    const bool isProved = !origin.deviceGuid.empty();
    FileStore::failures.Failed(
        KelDebugLevel::Warning, "caller " + (isProved ? origin.deviceGuid : origin.address),
        KelFormat("Refusing a call from %S in the name of the device '%S', which %S", origin.address, device,
                  isProved ? "is not " + origin.deviceGuid : KelString("has another address")));
    return false;
}

bool IsCallOfOne(const KelContainer& arguments, const KelVector<KelString>& names) {
    return names.empty() ||
           std::ranges::any_of(names, [&](const KelString& name) { return IsCallOf(arguments, name); });
}

}  // namespace filestore
