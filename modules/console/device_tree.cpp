#include "modules/console/device_tree.h"

#include "kel/format.h"
#include "kelcore/error_codes.h"

namespace {

constexpr std::size_t kMaster = 0;

/// The part of the tree that leads to the targets. Each target's way is walked up only to the first device
/// that is included already, so that building takes time in proportion to the tree.
class TargetTree {
  public:
    explicit TargetTree(const KelVector<Device>& devices)
        : devices_(devices),
          ways_(devices),
          isTarget_(devices.size()),
          isIncluded_(devices.size()),
          children_(devices.size()) {
        isIncluded_[kMaster] = true;
    }

    KelStatus AddTarget(std::size_t target) {
        if (isTarget_[target]) return {};
        KelVector<std::size_t> way;
        if (KelStatus found = ways_.FindWayUp(target, way); !found) return found;
        isTarget_[target] = true;
        for (std::size_t i = 0; i < way.size() && !isIncluded_[way[i]]; ++i) {
            isIncluded_[way[i]] = true;
            children_[i + 1 < way.size() ? way[i + 1] : kMaster].push_back(way[i]);
        }
        return {};
    }

    KelContainer Below(std::size_t device) const {
        KelContainer below;
        if (children_[device].empty()) return below;
        // A relay that is a target itself appears again among its children: its entry above only leads on.
        if (isTarget_[device]) below.SetContainer(devices_[device].pathName, KelContainer());
        for (const std::size_t child : children_[device]) {
            below.SetContainer(devices_[child].pathName, Below(child));
        }
        return below;
    }

  private:
    const KelVector<Device>& devices_;
    const DeviceWays ways_;
    KelVector<bool> isTarget_;
    KelVector<bool> isIncluded_;
    KelVector<KelVector<std::size_t>> children_;
};

}  // namespace

DeviceWays::DeviceWays(const KelVector<Device>& devices) : devices_(devices) {
    for (std::size_t i = 0; i < devices.size(); ++i)
        indexes_.emplace(devices[i].guid, i);
}

KelStatus DeviceWays::FindWayUp(std::size_t device, KelVector<std::size_t>& way) const {
    const KelString& name = devices_[device].name;
    while (device != kMaster) {
        way.push_back(device);
        if (way.size() >= kMaxTreeLevels) {
            return KelError{kKelErrorBadInput,
                            KelFormat("The parents of device %S form a circle or are more than %lu", name,
                                      kMaxTreeLevels)};
        }
        const auto parent = indexes_.find(devices_[device].parentGuid);
        if (parent == indexes_.end()) {
            return KelError{kKelErrorBadInput,
                            KelFormat("Device %S cannot be reached: its parent, or one above it, is the "
                                      "unknown device %S",
                                      name, devices_[device].parentGuid)};
        }
        if (devices_[parent->second].role == "client") {
            return KelError{kKelErrorBadInput,
                            KelFormat("Device %S cannot be reached: %S above it is a client, not a relay",
                                      name, devices_[parent->second].name)};
        }
        device = parent->second;
    }
    return {};
}

KelResult<KelContainer> BuildDevicePath(const KelVector<Device>& devices,
                                        const KelVector<std::size_t>& targets) {
    if (targets.empty()) return KelError{kKelErrorBadInput, "There are no target devices"};
    TargetTree tree(devices);
    for (const std::size_t target : targets) {
        if (const KelStatus added = tree.AddTarget(target); !added) return added.Error();
    }
    KelContainer path;
    path.SetContainer(devices[kMaster].pathName, tree.Below(kMaster));
    return path;
}

KelVector<KelString> RemoveUnreachable(const KelVector<Device>& devices, KelVector<std::size_t>& targets) {
    TargetTree tree(devices);
    KelVector<KelString> problems;
    std::erase_if(targets, [&](std::size_t target) {
        const KelStatus added = tree.AddTarget(target);
        if (!added) problems.push_back(added.Error().message);
        return !added;
    });
    return problems;
}
