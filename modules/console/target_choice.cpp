#include "modules/console/target_choice.h"

#include <fnmatch.h>

#include <utility>

#include "kel/format.h"
#include "kel/text.h"
#include "kelcore/error_codes.h"
#include "modules/console/device_tree.h"

namespace {

constexpr char kAllDevices[] = "all";
constexpr char kNoDevice[] = "none";

bool IsOnly(const KelVector<KelString>& wanted, const char* word) {
    return wanted.size() == 1 && wanted.front() == word;
}

/// Collects targets, each once, in the order in which they are added.
class Choice {
  public:
    Choice(const KelVector<Device>& devices, const KelVector<DeviceGroup>& groups)
        : devices_(devices), groups_(groups), index_(devices), ways_(devices), isChosen_(devices.size()) {}

    KelStatus Add(const KelString& wanted) {
        const DeviceGroup* group = FindGroup(groups_, wanted);
        if (group == nullptr) return AddDevices(wanted);
        if (index_.HasName(wanted))
            return KelError{
                kKelErrorBadInput,
                KelFormat("\"%S\" is the name of a device and of a group; give the device's GUID, or "
                          "the group another name",
                          wanted)};
        for (const KelString& member : group->members) {
            if (const KelStatus added = AddDevices(member); !added)
                return KelError{added.Error().code,
                                KelFormat("Group \"%S\": %S", group->name, added.Error().message)};
        }
        return {};
    }

    /// What a GUID, name or pattern stands for.
    KelStatus AddDevices(const KelString& wanted) {
        const auto found = index_.Find(wanted);
        if (!found && IsNamePattern(wanted)) return AddMatching(wanted);
        if (!found) return found.Error();
        KelVector<std::size_t> way;
        KelStatus reachable = ways_.FindWayUp(*found, way);
        if (reachable) Choose(*found);
        return reachable;
    }

    /// All of `candidates` that can be reached; when that is none, an error that says why or is `otherwise`.
    KelStatus AddReachable(const KelVector<std::size_t>& candidates, const KelString& otherwise) {
        KelVector<KelString> problems;
        for (const std::size_t device : candidates) {
            KelVector<std::size_t> way;
            if (const KelStatus reachable = ways_.FindWayUp(device, way); reachable)
                Choose(device);
            else
                problems.push_back(reachable.Error().message);
        }
        if (problems.size() == candidates.size())
            return KelError{kKelErrorBadInput, problems.empty() ? otherwise : problems.front()};
        result_.leftOut.insert(result_.leftOut.end(), problems.begin(), problems.end());
        return {};
    }

    ChosenTargets Take() { return std::move(result_); }

  private:
    KelStatus AddMatching(const KelString& pattern) {
        const KelString wanted = ToLowerText(pattern);
        KelVector<std::size_t> matching;
        for (std::size_t i = 1; i < devices_.size(); ++i)
            if (fnmatch(wanted.c_str(), ToLowerText(devices_[i].name).c_str(), FNM_NOESCAPE) == 0)
                matching.push_back(i);
        return AddReachable(matching, KelFormat("No name of a device matches the pattern \"%S\"", pattern));
    }

    void Choose(std::size_t device) {
        if (!isChosen_[device]) result_.indexes.push_back(device);
        isChosen_[device] = true;
    }

    const KelVector<Device>& devices_;
    const KelVector<DeviceGroup>& groups_;
    const DeviceIndex index_;
    const DeviceWays ways_;
    KelVector<bool> isChosen_;
    ChosenTargets result_;
};

}  // namespace

bool IsNamePattern(const KelString& text) {
    return text.find_first_of("*?[") != KelString::npos;
}

KelResult<ChosenTargets> ChooseTargets(const KelVector<Device>& devices, const KelVector<DeviceGroup>& groups,
                                       const KelVector<KelString>& wanted) {
    Choice choice(devices, groups);
    if (IsOnly(wanted, kNoDevice)) return choice.Take();
    if (IsOnly(wanted, kAllDevices)) {
        KelVector<std::size_t> all;
        for (std::size_t i = 1; i < devices.size(); ++i)
            all.push_back(i);
        const KelStatus added = choice.AddReachable(all, "There is no device but the master yet");
        if (!added) return added.Error();
        return choice.Take();
    }
    for (const KelString& name : wanted)
        if (const KelStatus added = choice.Add(name); !added) return added.Error();
    return choice.Take();
}
