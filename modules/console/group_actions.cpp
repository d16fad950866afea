#include "modules/console/group_actions.h"

#include <set>

#include "kel/format.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"
#include "modules/console/target_choice.h"

namespace {

constexpr const char* kSet = "ConsoleSetGroup";
constexpr const char* kAdd = "ConsoleAddToGroup";
constexpr const char* kRemove = "ConsoleRemoveFromGroup";
constexpr const char* kDelete = "ConsoleDeleteGroup";

KelVector<KelString> MembersIn(const KelContainer& arguments) {
    KelVector<KelString> members;
    const std::uint32_t count = arguments.Has("Member") ? arguments.Count("Member") : 0;
    for (std::uint32_t i = 0; i < count; ++i)
        members.push_back(arguments.GetString("Member", {}, i));
    return members;
}

KelContainer ValuesOf(const KelString& member, const KelVector<Device>& devices) {
    const auto targets = ChooseTargets(devices, {}, {member});
    KelContainer values;
    values.SetString("Member", member);
    values.SetInt32("Devices", targets ? static_cast<std::int32_t>(targets->indexes.size()) : 0);
    values.SetString("Message", targets ? KelString() : targets.Error().message);
    return values;
}

KelContainer ValuesOf(const DeviceGroup& group, const KelVector<Device>& devices) {
    std::set<std::size_t> indexes;
    for (const KelString& member : group.members)
        if (const auto targets = ChooseTargets(devices, {}, {member}))
            indexes.insert(targets->indexes.begin(), targets->indexes.end());
    KelContainer values;
    values.SetString("Name", group.name);
    values.SetInt32("Members", static_cast<std::int32_t>(group.members.size()));
    values.SetInt32("Devices", static_cast<std::int32_t>(indexes.size()));
    return values;
}

unsigned int Answer(KelContainer* arguments, const KelResult<KelContainer>& result) {
    arguments->Clear();
    if (result)
        *arguments = *result;
    else
        arguments->SetString("Message", result.Error().message);
    return result ? unsigned{kKelOk} : result.Error().code;
}

}  // namespace

void GroupActions::Register(const char* handle) {
    const auto change = [](const char* action) {
        return [action](GroupActions& groups, KelContainer* arguments) {
            const KelStatus changed = groups.Change(action, *arguments);
            return Answer(arguments, changed ? KelResult<KelContainer>(KelContainer()) : changed.Error());
        };
    };
    constexpr const char* kResults = "1 unusable, no such group; 18 not written";
    constexpr KelValueList kMembers =
        "string Name, string Member[] (GUIDs, names or patterns of names of devices)";
    ActionDbRegisterActions<GroupActions>(
        *this, handle,
        {{[](GroupActions& groups, KelContainer* arguments) {
              return Answer(arguments, groups.List(arguments->GetString("Name")));
          },
          {.signature = "ConsoleListGroups",
           .purpose = "Lists the groups of devices, or the members of one.",
           .inputs = "string Name?",
           .outputs =
               "container Values[]? {string Name? (of a group), int32 Members?, string Member? (of the "
               "group that was named), string Message? (why it stands for no device), int32 Devices "
               "(that it stands for now)}",
           .results = "1 no such group; 18 the database cannot be read",
           .callers = KelCallers::Operator}},
         {change(kSet),
          {.signature = kSet,
           .purpose = "Makes a group, or replaces its members.",
           .inputs = kMembers,
           .results = kResults,
           .callers = KelCallers::Local,
           .changes = true}},
         {change(kAdd),
          {.signature = kAdd,
           .purpose = "Adds members to a group, which is made when there is none.",
           .inputs = kMembers,
           .results = kResults,
           .callers = KelCallers::Local,
           .changes = true}},
         {change(kRemove),
          {.signature = kRemove,
           .purpose = "Removes members from a group, which is gone without any.",
           .inputs = kMembers,
           .results = kResults,
           .callers = KelCallers::Local,
           .changes = true}},
         {change(kDelete),
          {.signature = kDelete,
           .purpose = "Deletes a group.",
           .inputs = "string Name",
           .results = kResults,
           .callers = KelCallers::Local,
           .changes = true}}});
}

KelResult<KelContainer> GroupActions::List(const KelString& name) {
    const auto groups = groups_.List();
    if (!groups) return groups.Error();
    const auto devices = directory_.Read();
    if (!devices) return devices.Error();
    KelContainer result;
    if (name.empty()) {
        for (const DeviceGroup& group : *groups)
            result.SetContainer("Values", ValuesOf(group, *devices), KelContainer::kAbsent);
        return result;
    }
    const DeviceGroup* group = FindGroup(*groups, name);
    if (group == nullptr) return KelError{kKelErrorBadInput, KelFormat("There is no group \"%S\"", name)};
    for (const KelString& member : group->members)
        result.SetContainer("Values", ValuesOf(member, *devices), KelContainer::kAbsent);
    return result;
}

/// A later device may take the name all the same: ChooseTargets refuses it then.
KelStatus GroupActions::CheckIsNoDevice(const KelString& name) {
    const auto devices = directory_.Read();
    if (!devices) return devices.Error();
    if (!DeviceIndex(*devices).HasName(name)) return {};
    return KelError{kKelErrorBadInput, KelFormat("\"%S\" is the name of a device", name)};
}

KelStatus GroupActions::Change(const char* action, const KelContainer& arguments) {
    const KelString name = arguments.GetString("Name");
    const KelVector<KelString> members = MembersIn(arguments);
    if (action == kDelete) return groups_.Delete(name);
    if (action == kRemove) return groups_.Remove(name, members);
    if (KelStatus checked = CheckIsNoDevice(name); !checked) return checked;
    return action == kSet ? groups_.Set(name, members) : groups_.Add(name, members);
}
