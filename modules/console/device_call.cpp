#include "modules/console/device_call.h"

#include <optional>
#include <utility>

#include "kel/format.h"
#include "kelcore/action_db.h"
#include "kelcore/audit.h"
#include "kelcore/call_origin.h"
#include "kelcore/error_codes.h"
#include "kelcore/operator_call.h"
#include "modules/console/device_tree.h"

namespace {

/// The devices from below the master down to the one at `target`; none for the master itself.
KelResult<KelVector<OperatorCall::Stop>> WayTo(const KelVector<Device>& devices, std::size_t target) {
    KelVector<std::size_t> way;
    if (const KelStatus found = DeviceWays(devices).FindWayUp(target, way); !found) return found.Error();
    KelVector<OperatorCall::Stop> stops;
    for (auto device = way.rbegin(); device != way.rend(); ++device)
        stops.push_back({devices[*device].pathName, devices[*device].name});
    return stops;
}

/// An action that the master lacks is taken for one that changes something.
bool IsToBeAudited(const KelString& action) {
    return ActionDbChanges(action).value_or(true);
}

KelResult<KelContainer> Perform(const OperatorCall& call, const KelContainer& arguments) {
    if (!call.way.empty()) return PassOn(call);
    return RunOperatorCall(call, ActionRequestAddress(arguments));
}

}  // namespace

KelResult<KelContainer> DeviceCaller::Call(const KelContainer& arguments) {
    const auto devices = directory_.Read();
    if (!devices) return devices.Error();
    const auto target = DeviceIndex(*devices).Find(arguments.GetString("Device"));
    if (!target) return target.Error();
    OperatorCall call;
    auto way = WayTo(*devices, *target);
    if (!way) return way.Error();
    call.way = std::move(*way);
    call.action = arguments.GetString("Action");
    if (call.action.empty()) return KelError{kKelErrorBadInput, "The action to call is missing"};
    call.arguments = arguments.GetContainer("Arguments");
    call.operatorName = CallOriginOf(arguments).operatorName;
    call.master = devices->front().address;
    call.seconds = arguments.GetInt32("Seconds", OperatorCall::kDefaultSeconds);

    std::optional<AuditedCall> audited;
    // The device itself, which may be this one, records the call as well.
    if (!call.way.empty() && IsToBeAudited(call.action)) {
        KelContainer recorded = call.arguments;
        SetCallOrigin(CallOriginOf(arguments), recorded);
        audited.emplace(call.action, recorded, (*devices)[*target].name);
    }
    auto given = Perform(call, arguments);
    if (!audited) return given;
    if (given) {
        audited->End(static_cast<unsigned int>(given->GetInt64("Result")), given->GetContainer("Answer"));
    } else {
        KelContainer refusal;
        refusal.SetString("Message", given.Error().message);
        audited->End(given.Error().code, refusal);
    }
    return given;
}
