#include "modules/console/earlier_targets.h"

#include <algorithm>
#include <optional>

#include "kel/format.h"
#include "modules/console/device_tree.h"

namespace {

/// What is known of one device; the pointers are null where nothing is.
struct Known {
    const EarlierTarget* pending = nullptr;
    const EarlierTarget* delivered = nullptr;
    const EarlierTarget* failed = nullptr;
    const EarlierTarget* otherContent = nullptr;

    bool WasTarget() const { return pending || delivered || failed; }

    /// Another content came after this one. Of two that came within one second the one published later did.
    bool IsOvertaken() const {
        return otherContent &&
               (otherContent->time > delivered->time || (otherContent->time == delivered->time &&
                                                         otherContent->publication > delivered->publication));
    }
};

using KnownDevices = KelHash<KelString, Known>;

KnownDevices ByDevice(const KelVector<EarlierTarget>& earlier) {
    KnownDevices known;
    for (const EarlierTarget& target : earlier) {
        Known& device = known[target.guid];
        const EarlierTarget*& place = !target.isSameContent          ? device.otherContent
                                      : target.status == "delivered" ? device.delivered
                                      : target.status == "failed"    ? device.failed
                                                                     : device.pending;
        place = &target;
    }
    return known;
}

/// The devices whose stores took the file when it was published before: all on the ways to its targets.
class PassedDevices {
  public:
    PassedDevices(const KelVector<Device>& devices, const KnownDevices& known)
        : devices_(devices), ways_(devices), isPassed_(devices.size()) {
        for (const auto& [guid, device] : known) {
            if (device.WasTarget()) MarkWayTo(guid);
        }
    }

    /// The passed device on the way to `target` that is nearest to the master; null without one.
    const Device* FirstOnTheWayTo(std::size_t target) const {
        KelVector<std::size_t> way;
        if (!ways_.FindWayUp(target, way)) return nullptr;
        const auto first =
            std::find_if(way.rbegin(), way.rend(), [this](std::size_t device) { return isPassed_[device]; });
        return first == way.rend() ? nullptr : &devices_[*first];
    }

  private:
    void MarkWayTo(const KelString& guid) {
        const std::optional<std::size_t> target = ways_.IndexOf(guid);
        KelVector<std::size_t> way;
        if (!target || !ways_.FindWayUp(*target, way)) return;
        for (const std::size_t device : way) {
            if (isPassed_[device]) return;
            isPassed_[device] = true;
        }
    }

    const KelVector<Device>& devices_;
    const DeviceWays ways_;
    KelVector<bool> isPassed_;
};

PublicationTarget SettleKnown(const KelString& guid, const Known& known) {
    if (known.delivered && known.IsOvertaken()) {
        return {guid, "failed", known.otherContent->time,
                "It had this content before another one and takes it no second time; publish the file under "
                "another label"};
    }
    if (known.delivered) return {guid, "delivered", known.delivered->time, "Had it already"};
    if (known.pending) return {guid, "pending", 0, {}};
    return {
        guid, "failed", 0,
        KelFormat("It failed before and is not tried again; publish the file under another label. What it "
                  "said then: %S",
                  known.failed->message)};
}

KelString BlockedBy(const Device& holder) {
    return KelFormat(
        "The store of %S took this file on its way to other targets and passes it on to no further one; "
        "publish the file under another label, or run \"kel request\" on the device itself",
        holder.name);
}

}  // namespace

KelVector<PublicationTarget> SettleTargets(const KelVector<Device>& devices,
                                           const KelVector<std::size_t>& targets,
                                           const KelVector<EarlierTarget>& earlier) {
    const KnownDevices known = ByDevice(earlier);
    const PassedDevices passed(devices, known);
    KelVector<PublicationTarget> settled;
    for (const std::size_t target : targets) {
        const KelString& guid = devices[target].guid;
        if (const auto found = known.find(guid); found != known.end() && found->second.WasTarget()) {
            settled.push_back(SettleKnown(guid, found->second));
        } else if (const Device* holder = passed.FirstOnTheWayTo(target)) {
            settled.push_back({guid, "failed", 0, BlockedBy(*holder)});
        } else {
            settled.push_back({guid, "pending", 0, {}});
        }
    }
    return settled;
}
