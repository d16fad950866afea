#include "filestore/transfer/http_transfer.h"

#include "filestore/db/schema.h"
#include "filestore/module/file_store.h"

namespace filestore {

HttpTransfer::HttpTransfer(const char* threadName, const KelString& peerUrl, std::function<bool()> cancelled)
    : usable_(UrlParseInet(peerUrl, peer_)) {
    client_.SetDebugContext(FileStore::debugFileStore);
    client_.SetServer(peer_.host, peer_.port);
    client_.SetAuthentification(peer_.user, peer_.password);
    client_.SetCancelCheck(std::move(cancelled));
    SetUpSecurity(threadName);
}

void HttpTransfer::SetUpSecurity(const char* threadName) {
    const bool ssl = AgentSecuritySslForceSecCli();
    const bool pac = AgentSecurityPacForceSecCli();
    FileStore::debugFileStore.Detail("%s: SSL is %s\n", threadName, ssl ? "enabled" : "disabled");
    FileStore::debugFileStore.Detail("%s: PAC is %s\n", threadName, pac ? "enabled" : "disabled");
    if (ssl) client_.EnableSsl(AgentSecuritySslCliCtxAcquire());
    if (pac) client_.EnablePac(AgentSecurityPacShrCtxAcquire());
}

unsigned int HttpTransfer::Run(const HttpMessage& request, HttpMessage& answer, bool bypass) {
    if (!usable_) return kHttpBadRequest;
    if (bypass) return client_.SendAndRecv(request, answer);
    HttpManagedTransmission transmission(FileStore::bmTrackUsageUp);
    return client_.SendAndRecv(request, answer, transmission);
}

KelString BypassFilter() {
    return FileStore::bmTrackUsageUp.TransfersAreDisabled() ? KelFormat("AND %s = %u", kBypass, 1U)
                                                            : KelString();
}

}  // namespace filestore
