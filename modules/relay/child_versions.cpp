#include "modules/relay/child_versions.h"

#include <algorithm>
#include <utility>

#include "kel/text.h"
#include "kelcore/call_origin.h"
#include "kelcore/device_name.h"

namespace {

/// A child calls every CheckInterval, half a minute by default.
constexpr std::int64_t kSilentSeconds = 3600;
constexpr std::size_t kMostChildren = 10'000;
constexpr std::size_t kMostBytes = 64;

}  // namespace

void ChildVersions::Note(const KelContainer& call, std::int64_t now) {
    const KelString guid = call.GetString("ChildGuid");
    const KelString version = call.GetString("ChildVersion");
    const KelString proved = CallOriginOf(call).deviceGuid;
    if (!proved.empty() && proved != guid) return;
    if (!IsGuid(guid) || version.empty() || version.size() > kMostBytes || HasControlCharacter(version))
        return;
    const KelLock lock(mutex_);
    if (children_.size() >= kMostChildren) DropSilent(now);
    if (children_.size() < kMostChildren || children_.contains(guid)) children_[guid] = {version, now};
}

void ChildVersions::DropSilent(std::int64_t now) {
    std::erase_if(children_,
                  [now](const auto& child) { return now - child.second.lastSeen > kSilentSeconds; });
}

KelContainer ChildVersions::List(std::int64_t now) {
    KelContainer list;
    const KelLock lock(mutex_);
    DropSilent(now);
    for (const auto& [guid, child] : children_) {
        KelContainer values;
        values.SetString("GUID", guid);
        values.SetString("Version", child.version);
        values.SetInt64("LastSeen", child.lastSeen);
        list.SetContainer("Values", std::move(values), KelContainer::kAbsent);
    }
    return list;
}
