#include "modules/console/target_decision.h"

#include <algorithm>
#include <utility>

#include "kel/format.h"
#include "modules/console/device_tree.h"

namespace {

/// What is known about one device; a pointer is null where nothing is.
struct Known {
    const EarlierTarget* holder = nullptr;  ///< its store took this content
    bool isPending = false;
    const EarlierTarget* otherContent = nullptr;  ///< the latest that was delivered
    bool isOtherPending = false;

    bool HasReported(const char* status) const { return holder && holder->status == status; }
};

using KnownDevices = KelHash<KelString, Known>;

KnownDevices ByDevice(const KelVector<EarlierTarget>& earlier) {
    KnownDevices known;
    for (const EarlierTarget& target : earlier) {
        Known& device = known[target.guid];
        if (target.status == "pending") {
            (target.isSameContent ? device.isPending : device.isOtherPending) = true;
        } else {
            (target.isSameContent ? device.holder : device.otherContent) = &target;
        }
    }
    return known;
}

/// Receipts count in whole seconds: of two contents that came within one, either may be there now, so the
/// file counts as replaced.
PublicationTarget DecideDelivered(const KelString& guid, const Known& known) {
    if (known.isOtherPending) {
        return {
            guid, "failed", 0,
            "It had this content before, a store accepts a file only once, and another content is on its way "
            "to it; publish the file under another label"};
    }
    if (known.otherContent && known.otherContent->time >= known.holder->time) {
        return {
            guid, "failed", known.otherContent->time,
            "It had this content before another one, and a store accepts a file only once; publish the file "
            "under another label"};
    }
    return {guid, "delivered", known.holder->time, "Had it already"};
}

PublicationTarget FailedBefore(const KelString& guid, const KelString& message) {
    return {guid, "failed", 0,
            KelFormat("It failed before and is not tried again; publish the file under another label. Its "
                      "message was: %S",
                      message)};
}

PublicationTarget BlockedBy(const Device& holder, const KelString& guid) {
    return {
        guid, "failed", 0,
        KelFormat("The store of %S took this file before and does not pass it on to other devices; publish "
                  "the file under another label, or run \"kel request\" on the device itself",
                  holder.name)};
}

class DecisionMaker {
  public:
    DecisionMaker(const KelVector<Device>& devices, const KelVector<EarlierTarget>& earlier)
        : devices_(devices), ways_(devices), known_(ByDevice(earlier)), isTaker_(devices.size()) {}

    void Add(std::size_t target) {
        KelVector<std::size_t> way;
        if (!ways_.FindWayUp(target, way)) way.clear();
        PublicationTarget decided = Decide(devices_[target].guid, way);
        if (decided.status == "pending") AddTakers(way);
        decision_.targets.push_back(std::move(decided));
    }
    TargetDecision Take() && { return std::move(decision_); }

  private:
    const Known* Find(const KelString& guid) const {
        const auto found = known_.find(guid);
        return found == known_.end() ? nullptr : &found->second;
    }

    PublicationTarget Decide(const KelString& guid, const KelVector<std::size_t>& way) const {
        const Known* known = Find(guid);
        if (known && known->HasReported("delivered")) return DecideDelivered(guid, *known);
        if (known && known->isPending) return {guid, "pending", 0, {}};
        if (known && known->HasReported("failed")) return FailedBefore(guid, known->holder->message);
        // The holder nearest to the master is named: it is the first that does not pass the file on.
        const auto holder = std::find_if(way.rbegin(), way.rend(), [this](std::size_t device) {
            const Known* above = Find(devices_[device].guid);
            return above && above->holder;
        });
        if (holder != way.rend()) return BlockedBy(devices_[*holder], guid);
        return {guid, "pending", 0, {}};
    }

    void AddTakers(const KelVector<std::size_t>& way) {
        for (const std::size_t device : way) {
            if (isTaker_[device]) return;
            isTaker_[device] = true;
            decision_.takers.push_back(devices_[device].guid);
        }
    }

    const KelVector<Device>& devices_;
    const DeviceWays ways_;
    const KnownDevices known_;
    KelVector<bool> isTaker_;
    TargetDecision decision_;
};

}  // namespace

TargetDecision DecideTargets(const KelVector<Device>& devices, const KelVector<std::size_t>& targets,
                             const KelVector<EarlierTarget>& earlier) {
    DecisionMaker maker(devices, earlier);
    for (const std::size_t target : targets)
        maker.Add(target);
    return std::move(maker).Take();
}
