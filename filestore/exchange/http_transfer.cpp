#include "filestore/exchange/http_transfer.h"

#include "filestore/state/bandwidth_manager.h"
#include "filestore/state/file_store.h"
#include "kelcore/device_name.h"
#include "kelcore/security.h"

namespace filestore {

HttpTransfer::HttpTransfer(const char* threadName, const KelString& peerUrl, std::function<bool()> cancelled)
    : usable_(UrlParseInet(peerUrl, peer_)) {
    client_.SetDebugContext(FileStore::debugFileStore);
    client_.SetServer(peer_.host, peer_.port);
    client_.SetAuthentification(peer_.user, peer_.password);
    client_.SetCancelCheck(std::move(cancelled));
    client_.EnableAgentSecurity();
    client_.ExpectDevice(GuidOfDevice("device" + peer_.path));
    FileStore::debugFileStore.Detail("%s: SSL is %s\n", threadName,
                                     AgentSecuritySslForceSecCli() ? "enabled" : "disabled");
    FileStore::debugFileStore.Detail("%s: PAC is %s\n", threadName,
                                     AgentSecurityPacForceSecCli() ? "enabled" : "disabled");
}

unsigned int HttpTransfer::Run(const HttpMessage& request, HttpMessage& answer, bool bypass) {
    if (!usable_) return kHttpBadRequest;
    if (bypass) return client_.SendAndRecv(request, answer);
    HttpManagedTransmission transmission(FileStore::bmTrackUsageUp);
    return client_.SendAndRecv(request, answer, transmission);
}

bool HttpTransfer::IsHeldByWindow(unsigned int result, bool bypass) {
    if (bypass || (result != kHttpRefused && result != kHttpCutOff)) return false;
    return PassingNow() == Passing::BypassOnly;
}

HttpBandwidthManager* ChargedFor(bool bypass) {
    return bypass ? nullptr : &FileStore::bmTrackUsageUp;
}

Passing PassingNow() {
    return FileStore::bmTrackUsageUp.TransfersAreDisabled() ? Passing::BypassOnly : Passing::All;
}

}  // namespace filestore
