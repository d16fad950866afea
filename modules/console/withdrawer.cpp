#include "modules/console/withdrawer.h"

#include <algorithm>
#include <ctime>
#include <mutex>
#include <unordered_set>

#include "kel/file.h"
#include "kel/format.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"
#include "modules/console/device_tree.h"
#include "modules/console/package_folder.h"

namespace {

using Guids = KelVector<KelString>;

/// The target tree for the devices `targets` and for the relays on the way to the devices `below`; empty when
/// there are none. Devices that are not known or cannot be reached are left out.
KelResult<KelContainer> TreeOf(const KelVector<Device>& devices, const Guids& targets, const Guids& below) {
    const DeviceIndex index(devices);
    const DeviceWays ways(devices);
    KelVector<std::size_t> chosen;
    for (const KelString& guid : targets)
        if (const auto found = index.Find(guid)) chosen.push_back(*found);
    std::unordered_set<std::size_t> relays;
    for (const KelString& guid : below) {
        const auto found = index.Find(guid);
        KelVector<std::size_t> way;
        if (found && ways.FindWayUp(*found, way) && !way.empty()) relays.insert(way.begin() + 1, way.end());
    }
    chosen.insert(chosen.end(), relays.begin(), relays.end());
    RemoveUnreachable(devices, chosen);
    return chosen.empty() ? KelResult<KelContainer>(KelContainer()) : BuildDevicePath(devices, chosen);
}

/// All orders of a publication.
FileKey OrderKey(const FileKey& file, const KelString& publication) {
    return {kOrderFileType, file.type, publication, {}};
}

Guids GuidsOf(const KelVector<PublicationTarget>& targets, const char* status = nullptr) {
    Guids guids;
    for (const PublicationTarget& target : targets)
        if (status == nullptr || target.status == status) guids.push_back(target.guid);
    return guids;
}

KelResult<std::size_t> FindRemovable(const KelVector<Device>& devices, const KelString& guidOrName) {
    const auto found = DeviceIndex(devices).Find(guidOrName);
    if (!found) return found.Error();
    const Device& device = devices[*found];
    if (*found == 0) return KelError{kKelErrorBadInput, "The master itself cannot be removed"};
    const auto child = std::find_if(devices.begin(), devices.end(), [&device](const Device& other) {
        return other.parentGuid == device.guid;
    });
    if (child != devices.end())
        return KelError{kKelErrorBadInput,
                        KelFormat("%S has devices below it, %S is one: remove them first, or give them "
                                  "another parent",
                                  device.name, child->name)};
    return *found;
}

}  // namespace

/// The orders first: the file is then not requested any more.
KelResult<KelVector<StoreWithdrawal>> Withdrawer::Plan(const PublicationSummary& publication) {
    const auto targets = publications_.ListTargets(publication.id);
    if (!targets) return targets.Error();
    const auto devices = directory_.Read();
    if (!devices) return devices.Error();
    const auto isWanted = withdrawals_.IsPublished(publication.file, publication.id);
    if (!isWanted) return isWanted.Error();
    const auto elsewhere = withdrawals_.PendingDevices(publication.file, publication.id);
    if (!elsewhere) return elsewhere.Error();
    const Guids all = GuidsOf(*targets), pending = GuidsOf(*targets, "pending");
    KelVector<StoreWithdrawal> plan;
    if (publication.orderTime != 0) {
        // An order may just have been sent to targets that are still scheduled.
        Guids ordered = pending;
        for (KelString& guid : GuidsOf(*targets, "scheduled"))
            ordered.push_back(std::move(guid));
        auto tree = TreeOf(*devices, ordered, all);
        if (!tree) return tree.Error();
        plan.push_back({.file = OrderKey(publication.file, publication.id), .devicePath = std::move(*tree)});
    }
    Guids others = pending;
    const std::unordered_set<KelString> kept(elsewhere->begin(), elsewhere->end());
    std::erase_if(others, [&kept](const KelString& guid) { return kept.contains(guid); });
    auto tree = TreeOf(*devices, others, *isWanted ? Guids() : all);
    if (!tree) return tree.Error();
    if (!*isWanted || !tree->IsEmpty())
        plan.push_back({.file = publication.file, .devicePath = std::move(*tree), .keepContent = *isWanted});
    return plan;
}

KelStatus Withdrawer::WithdrawPublication(const KelString& id) {
    const std::lock_guard lock(packages_);
    const auto publications = publications_.List({id});
    if (!publications) return publications.Error();
    if (publications->empty())
        return KelError{kKelErrorBadInput, KelFormat("There is no publication \"%S\"", id)};
    const PublicationSummary& publication = publications->front();
    if (publication.withdrawTime == 0) {
        const auto plan = Plan(publication);
        if (!plan) return plan.Error();
        const KelStatus recorded = withdrawals_.WithdrawPublication(id, std::time(nullptr), *plan);
        if (!recorded) return recorded;
        log_.Print("Publication %S of %S is withdrawn\n", id, publication.file.Text());
    }
    HandOverAll();
    return {};
}

KelResult<KelContainer> Withdrawer::RemoveDevice(const KelString& guidOrName) {
    const auto devices = directory_.Read();
    if (!devices) return devices.Error();
    const auto found = FindRemovable(*devices, guidOrName);
    if (!found) return found.Error();
    const Device& device = (*devices)[*found];
    if (directory_.IsListed(device.guid))
        return KelError{kKelErrorBadInput,
                        KelFormat("%S is listed in Console.ini; remove its entry there", device.name)};
    const auto open = withdrawals_.OpenPublications(device.guid);
    if (!open) return open.Error();
    const auto tree = TreeOf(*devices, {device.guid}, {});
    KelVector<StoreWithdrawal> plan;
    KelVector<KelString> ids;
    for (const OpenPublication& publication : *open) {
        ids.push_back(publication.id);
        if (!tree || tree->IsEmpty()) continue;
        for (const FileKey& file : {OrderKey(publication.file, publication.id), publication.file})
            if (publication.isOrdered || file == publication.file)
                plan.push_back({.file = file, .devicePath = *tree, .keepContent = true, .isRemoval = true});
    }
    if (const KelStatus removed = withdrawals_.RemoveDevice(device.guid, plan); !removed)
        return removed.Error();
    log_.Print("Device %S (%S) is removed\n", device.guid, device.name);
    HandOver();
    if (!ids.empty()) ForgetOrders(ids);
    KelContainer result;
    result.SetString("GUID", device.guid);
    result.SetString("Name", device.name);
    return result;
}

void Withdrawer::ForgetOrders(const KelVector<KelString>& ids) {
    const auto concluded = withdrawals_.ConcludedOrders(ids);
    if (!concluded || concluded->empty()) return;
    const auto publications = publications_.List(*concluded);
    const auto devices = directory_.Read();
    for (std::size_t i = 0; publications && devices && i < publications->size(); ++i) {
        const PublicationSummary& publication = (*publications)[i];
        const auto targets = publications_.ListTargets(publication.id);
        auto tree =
            targets ? TreeOf(*devices, {}, GuidsOf(*targets)) : KelResult<KelContainer>(targets.Error());
        if (!tree) continue;
        // The targets have forgotten theirs when they answered.
        const KelVector<StoreWithdrawal> plan = {
            {.file = OrderKey(publication.file, publication.id), .devicePath = std::move(*tree)}};
        if (!withdrawals_.RemoveOrders(publication.id, plan)) return;
    }
    HandOver();
}

bool Withdrawer::RemovePackage(const FileKey& file) {
    const auto isPublished = withdrawals_.IsContentPublished(file);
    if (!isPublished) return false;
    if (!*isPublished) FileDelete(PlaceInPackages(folder_, file.label, file.checksum, file.name).path);
    return true;
}

bool Withdrawer::ExaminePackage(const KelString& path, bool removes) {
    const auto package = PackageAt(folder_, path);
    // Not waited for: the next search comes in a day.
    const std::unique_lock lock(packages_, std::try_to_lock);
    if (!package || !lock) return false;
    const auto isPublished = withdrawals_.IsContentPublished(*package);
    if (!isPublished || *isPublished) return false;
    if (removes) FileDelete(path);
    return true;
}

bool Withdrawer::HandOverOne(const StoreWithdrawal& withdrawal) {
    KelContainer call;
    withdrawal.file.Write(call);
    if (!withdrawal.devicePath.IsEmpty()) call.SetContainer(kValueDevicePath, withdrawal.devicePath);
    call.SetBool("KeepContent", withdrawal.keepContent);
    call.SetBool("Removed", withdrawal.isRemoval);
    const unsigned int code = CallLocal("FileStoreWithdrawFile", call);
    if (code == kKelErrorBadInput) {
        log_.Error("The file store refuses to withdraw %S; see its log\n", withdrawal.file.Text());
    } else if (code != kKelOk) {
        log_.Warning("The file store did not withdraw %S, error %u; it is asked again later\n",
                     withdrawal.file.Text(), code);
        return false;
    }
    const bool isPackage = withdrawal.file.type != kOrderFileType && !withdrawal.keepContent;
    return (!isPackage || RemovePackage(withdrawal.file)) && withdrawals_.Delete(withdrawal.id);
}

/// In the order of the records.
bool Withdrawer::HandOverAll() {
    const auto waiting = withdrawals_.List();
    hasFailed_ = !waiting || !std::all_of(waiting->begin(), waiting->end(),
                                          [this](const StoreWithdrawal& one) { return HandOverOne(one); });
    return !hasFailed_;
}

bool Withdrawer::HandOver() {
    const std::lock_guard lock(packages_);
    return HandOverAll();
}
