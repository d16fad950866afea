#include "modules/console/device_groups.h"

#include <algorithm>

#include "kel/format.h"
#include "kel/text.h"
#include "kelcore/device_name.h"
#include "kelcore/error_codes.h"
#include "modules/console/device.h"
#include "modules/console/target_choice.h"

namespace {

KelError Refused(const KelString& message) {
    return {kKelErrorBadInput, message};
}

/// What `kel publish --to` takes for something other than a device or group.
bool IsReserved(const KelString& text) {
    return IsEqualTo(text, "all", false) || IsEqualTo(text, "none", false) || text.starts_with('@') ||
           text.find(',') != KelString::npos || Trim(text) != text;
}

KelStatus CheckGroupName(const KelString& name) {
    if (IsDeviceName(name) && !IsReserved(name) && !IsNamePattern(name) && !IsGuid(name)) return {};
    return Refused(
        KelFormat("\"%S\" cannot be the name of a group: it must have 1 to 253 bytes without control "
                  "characters and any of '/,*?[, no \"@\" at its beginning, and not be \"all\", \"none\" "
                  "or a GUID",
                  name));
}

KelString Insertion(const KelString& group, const KelString& member) {
    return KelFormat("INSERT OR IGNORE INTO GroupMembers (GroupName, Member) VALUES ('%Q', '%Q')", group,
                     member);
}

KelString Deletion(const KelString& group) {
    return KelFormat("DELETE FROM GroupMembers WHERE GroupName = '%Q'", group);
}

}  // namespace

const DeviceGroup* FindGroup(const KelVector<DeviceGroup>& groups, const KelString& name) {
    const auto found = std::ranges::find_if(
        groups, [&name](const DeviceGroup& group) { return IsEqualTo(group.name, name, false); });
    return found == groups.end() ? nullptr : &*found;
}

KelResult<KelVector<DeviceGroup>> DeviceGroups::List() {
    const auto rows =
        database_.Select("SELECT GroupName, Member FROM GroupMembers ORDER BY GroupName, rowid");
    if (!rows) return KelError{kKelErrorNotAvailable, "The console's database cannot be read; see its log"};
    KelVector<DeviceGroup> groups;
    for (std::size_t row = 0; row < rows->GetRowCount(); ++row) {
        const KelString name = rows->GetString(row, std::size_t{0});
        if (groups.empty() || !IsEqualTo(groups.back().name, name, false)) groups.push_back({name, {}});
        groups.back().members.push_back(rows->GetString(row, 1));
    }
    return groups;
}

KelResult<DeviceGroup> DeviceGroups::Find(const KelString& name) {
    const auto groups = List();
    if (!groups) return groups.Error();
    if (const DeviceGroup* group = FindGroup(*groups, name)) return *group;
    return Refused(KelFormat("There is no group \"%S\"", name));
}

KelStatus DeviceGroups::CheckMembers(const KelString& name, const KelVector<KelString>& members) {
    if (members.empty()) return Refused(KelFormat("No members for the group \"%S\" are named", name));
    const auto groups = List();
    if (!groups) return groups.Error();
    for (const KelString& member : members) {
        if (!IsDeviceName(member) || IsReserved(member))
            return Refused(
                KelFormat("\"%S\" cannot be a member of a group: it is no GUID, name or pattern", member));
        if (IsEqualTo(member, name, false) || FindGroup(*groups, member) != nullptr)
            return Refused(KelFormat("\"%S\" is a group, which cannot be a member of another", member));
    }
    return {};
}

KelStatus DeviceGroups::Write(const KelVector<KelString>& statements) {
    if (database_.Write(statements)) return {};
    return KelError{kKelErrorInternal, "The group cannot be written to the console's database; see its log"};
}

KelStatus DeviceGroups::Set(const KelString& name, const KelVector<KelString>& members) {
    if (KelStatus checked = CheckGroupName(name); !checked) return checked;
    const KelLock lock(mutex_);
    if (KelStatus checked = CheckMembers(name, members); !checked) return checked;
    KelVector<KelString> statements = {Deletion(name)};
    for (const KelString& member : members)
        statements.push_back(Insertion(name, member));
    return Write(statements);
}

KelStatus DeviceGroups::Add(const KelString& name, const KelVector<KelString>& members) {
    if (KelStatus checked = CheckGroupName(name); !checked) return checked;
    const KelLock lock(mutex_);
    if (KelStatus checked = CheckMembers(name, members); !checked) return checked;
    const auto present = Find(name);
    KelVector<KelString> statements;
    for (const KelString& member : members)
        statements.push_back(Insertion(present ? present->name : name, member));
    return Write(statements);
}

KelStatus DeviceGroups::Remove(const KelString& name, const KelVector<KelString>& members) {
    const KelLock lock(mutex_);
    const auto group = Find(name);
    if (!group) return group.Error();
    if (members.empty()) return Refused(KelFormat("No members of the group \"%S\" are named", name));
    KelVector<KelString> statements;
    for (const KelString& member : members) {
        const bool isMember = std::ranges::any_of(group->members, [&member](const KelString& present) {
            return IsEqualTo(present, member, false);
        });
        if (!isMember) return Refused(KelFormat("\"%S\" is no member of the group \"%S\"", member, name));
        statements.push_back(
            KelFormat("DELETE FROM GroupMembers WHERE GroupName = '%Q' AND Member = '%Q'", name, member));
    }
    return Write(statements);
}

KelStatus DeviceGroups::Delete(const KelString& name) {
    const KelLock lock(mutex_);
    const auto group = Find(name);
    return group ? Write({Deletion(name)}) : KelStatus(group.Error());
}
