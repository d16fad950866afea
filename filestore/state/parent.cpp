#include "filestore/state/parent.h"

#include "filestore/state/file_store.h"
#include "kel/container.h"
#include "kel/format.h"
#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/agent.h"
#include "kelcore/error_codes.h"
#include "kelcore/http/url.h"

namespace {

// What FileStore::failures knows.
constexpr const char* kNoRelayModule = "relay module";
constexpr const char* kNoParent = "parent";

}  // namespace

namespace filestore {

KelString Parent::Host() const {
    return FileStore::fPreferIPAddresses || name.empty() ? address : name;
}

KelString Parent::CallUrl() const {
    return UrlForAgent(KelAgentGetName(), KelAgentGetHttpPassword(), KelFormat("%S:%u", Host(), port));
}

bool ReadParent(Parent& parent) {
    KelContainer answer;
    if (CallLocal("RelayGetValues", answer) != kKelOk) return false;
    const KelContainer& values = answer.GetContainer("Values");
    parent.name = values.GetString("ParentName");
    parent.address = values.GetString("ParentIPAddress");
    if (parent.address.empty()) parent.address = parent.name;
    parent.guid = values.GetString("ParentGuid");
    parent.port = static_cast<std::uint32_t>(values.GetInt32("ParentPort", -1));
    parent.isInSync = values.GetBool("ParentSync");
    parent.problem = values.GetString("ParentProblem");
    parent.since = values.GetInt64("ParentSince");
    parent.nextCheck = values.GetInt64("ParentNextCheck");
    return true;
}

std::atomic<std::uint32_t> ParentWatch::changes_ = 0;

bool ParentWatch::HasChanged() const {
    return changes_ != begin_;
}

void ParentWatch::NoteChange() {
    ++changes_;
}

KelString SenderUrl(const KelString& sourceDevice) {
    if (!sourceDevice.empty()) return UrlForAgent(KelAgentGetName(), KelAgentGetHttpPassword(), sourceDevice);
    KelString url, parentGuid;
    FileStore::GetRelayUrl(url, parentGuid);
    return url;
}

}  // namespace filestore

void FileStore::GetRelayUrl(KelString& url, KelString& parentGuid) {
    url.clear();
    filestore::Parent parent;
    if (!filestore::ReadParent(parent)) {
        failures.Failed(KelDebugLevel::Error, kNoRelayModule, "Could not read relay info");
        return;
    }
    failures.Succeeded(kNoRelayModule, "The relay module answers again");
    parentGuid = parent.guid;
    if (!parent.IsKnown()) {
        failures.Failed(KelDebugLevel::Warning, kNoParent, "Current parent is undefined or out of sync");
        return;
    }
    failures.Succeeded(kNoParent, "The parent is in sync again");
    url = parent.CallUrl();
}

void FileStore::GetDeviceUrl(const KelString& deviceUrl, KelString& url, KelString& guid) {
    const StringTokeniser pieces(deviceUrl, '/');
    guid = pieces.GetToken(1);
    // With the GUID, so that no other device is taken for this one where that can be proved.
    url = UrlForAgent(KelAgentGetName(), KelAgentGetHttpPassword(),
                      guid.empty() ? pieces.GetToken(0) : pieces.GetToken(0) + "/" + guid);
}
