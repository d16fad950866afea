#include "modules/identity/identity_report.h"

#include <optional>

#include "kel/directory.h"
#include "kel/file.h"
#include "kel/path.h"
#include "kelcore/action_db.h"
#include "kelcore/device_name.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_offer.h"
#include "kelcore/file_values.h"
#include "kelcore/version.h"
#include "modules/identity/guid.h"

namespace {

constexpr std::int64_t kResendSeconds = std::int64_t{24} * 3600;

std::optional<KelContainer> ValuesOf(const char* action) {
    KelContainer answer;
    if (CallLocal(action, answer) != kKelOk) return std::nullopt;
    return answer.GetContainer("Values");
}

/// True once our GUID will not change any more: on the master, and when it has the known scheme of the
/// parent.
bool IsGuidFinal(const KelContainer& relay, const KelString& guid) {
    if (relay.GetString("Role") == "master") return true;
    const KelString parentGuid = relay.GetString("ParentGuid");
    return relay.GetBool("ParentSync") && IsGuid(parentGuid) && WithSchemeOf(guid, parentGuid) == guid;
}

KelContainer IdentityOf(const KelString& guid, const DeviceValues& values, const KelContainer& relay,
                        int port) {
    const KelString& host = values.preferIpAddresses ? values.ipAddress : values.hostName;
    const KelString deviceUrl = KelFormat("%S:%d/%S", host, port, guid);
    KelContainer identity;
    identity.SetString("GUID", guid);
    identity.SetString("HostName", values.hostName);
    identity.SetString("Role", relay.GetString("Role"));
    identity.SetInt32("Port", port);
    identity.SetString("IPAddress", values.ipAddress);
    identity.SetString("MACAddress", values.macAddress);
    identity.SetString("NetworkMask", values.networkMask);
    identity.SetString("ParentGuid", relay.GetString("ParentGuid"));
    identity.SetString("DeviceUrl", deviceUrl);
    identity.SetString("PathName", KelFormat("%S/%S/%S/%S", deviceUrl, values.macAddress, values.ipAddress,
                                             values.networkMask));
    identity.SetBool("PreferIPAddresses", values.preferIpAddresses);
    identity.SetString("Version", KelVersion());
    return identity;
}

KelContainer OfferOf(const KelString& guid, const KelString& path) {
    KelContainer info;
    info.SetString("GUID", guid);
    FileOffer offer;
    offer.key = {kIdentityFileType, "Identity", guid + ".xml", {}};
    offer.upstream = true;
    offer.movePath = path;
    offer.info = std::move(info);
    return offer.ToContainer();  // without a checksum: the file store computes it
}

}  // namespace

void IdentityReport::SetFolder(const KelString& folder) {
    folder_ = folder;
    for (const KelString& name : DirList(folder))
        FileDelete(folder + "/" + name);
}

IdentityReport::Outcome IdentityReport::SendWhenDue(const KelString& guid, const DeviceValues& values,
                                                    const KelString& consoleId, std::int64_t now) {
    const auto relay = ValuesOf("RelayGetValues");
    const auto http = ValuesOf("HttpProtocolGetParams");
    // Until all of these are known, the file would name a device that others cannot reach.
    const int port = http ? http->GetInt32("Port") : 0;
    if (!relay || port == 0 || values.ipAddress.empty() || !IsGuidFinal(*relay, guid))
        return Outcome::Waiting;
    KelContainer identity = IdentityOf(guid, values, *relay, port);
    if (!consoleId.empty()) identity.SetString("ConsoleId", consoleId);
    KelContainer store;
    if (CallLocal("FileStoreGetDeviceUrl", store) == kKelOk && store.Has("DownstreamDatabase"))
        identity.SetString("StoreId", store.GetString("DownstreamDatabase"));
    // A clock that was set back must not silence the device until it has caught up.
    const bool isRecent = now >= sentTime_ && now - sentTime_ < kResendSeconds;
    if (isRecent && identity == sent_) return Outcome::UpToDate;
    return Send(std::move(identity), now);
}

IdentityReport::Outcome IdentityReport::Send(KelContainer identity, std::int64_t now) {
    // The time is left out of what is compared with the next identity, where it would always differ.
    KelContainer content = identity;
    content.SetInt64("Time", now);
    KelString path;
    if (!PathCreate(folder_) || !content.SaveToTempFile(path, folder_)) {
        return Fail(
            KelFormat("The identity file cannot be written in %S; check its rights and free space", folder_));
    }
    const KelString guid = identity.GetString("GUID");
    KelContainer offer = OfferOf(guid, path);
    const unsigned int code = CallLocal("FileStoreReceiveFile", offer);
    if (code != kKelOk) {
        FileDelete(path);
        return Fail(KelFormat("The file store did not take the identity file, error %u; see its log", code));
    }
    log_.Detail("The identity of this device, %S, is on its way up\n", guid);
    problem_.clear();
    sent_ = std::move(identity);
    sentTime_ = now;
    return Outcome::UpToDate;
}

IdentityReport::Outcome IdentityReport::Fail(const KelString& problem) {
    if (problem != problem_) log_.Warning("%S; tried again at the next check\n", problem);
    problem_ = problem;
    return Outcome::Failed;
}
