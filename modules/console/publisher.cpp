#include "modules/console/publisher.h"

#include <algorithm>
#include <ctime>
#include <unordered_set>

#include "kel/checksum.h"
#include "kel/format.h"
#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_offer.h"
#include "kelcore/file_values.h"
#include "modules/console/device_tree.h"
#include "modules/console/target_decision.h"

namespace {

constexpr std::size_t kPublicationIdBytes = 8;
constexpr char kAllDevices[] = "all";
constexpr char kNoDevice[] = "none";

bool IsOnly(const KelVector<KelString>& wanted, const char* word) {
    return wanted.size() == 1 && wanted.front() == word;
}

/// The indexes in `devices` of the devices that the request names, each once. "all" is every device but the
/// master, which is the first, as far as it can be reached: for the others a text that says why is added to
/// `leftOut`. "none" is no device: the file is only there to be requested. A named device that cannot be
/// reached is an error that names it.
KelResult<KelVector<std::size_t>> ChooseTargets(const KelVector<Device>& devices,
                                                const KelVector<KelString>& wanted,
                                                KelVector<KelString>& leftOut) {
    KelVector<std::size_t> targets;
    if (IsOnly(wanted, kNoDevice)) return targets;
    if (IsOnly(wanted, kAllDevices)) {
        for (std::size_t i = 1; i < devices.size(); ++i)
            targets.push_back(i);
        leftOut = RemoveUnreachable(devices, targets);
        if (!targets.empty()) return targets;
        return KelError{kKelErrorBadInput,
                        leftOut.empty() ? "There is no device but the master yet" : leftOut.front()};
    }
    const DeviceIndex index(devices);
    KelVector<bool> chosen(devices.size());
    for (const KelString& name : wanted) {
        const auto found = index.Find(name);
        if (!found) return found.Error();
        if (!chosen[*found]) targets.push_back(*found);
        chosen[*found] = true;
    }
    if (const auto problems = RemoveUnreachable(devices, targets); !problems.empty())
        return KelError{kKelErrorBadInput, problems.front()};
    return targets;
}

PublicationSummary SummaryOf(const PublicationRequest& request, const PackageFile& file,
                             const KelString& id) {
    PublicationSummary publication;
    publication.id = id;
    publication.file = request.file;
    publication.file.checksum = file.checksum;
    publication.fileSize = file.size;
    publication.createTime = std::time(nullptr);
    publication.priority = request.priority;
    return publication;
}

/// The file as the file store receives it; an empty `devicePath` means no targets.
FileOffer OfferFor(const PublicationRequest& request, const PackageFile& file, KelContainer devicePath) {
    FileOffer offer;
    offer.key = request.file;
    offer.key.checksum = file.checksum;
    offer.filePath = file.path;
    offer.url = file.url;
    offer.size = file.size;
    offer.upstream = false;
    offer.priority = request.priority;
    offer.bypass = request.bypass;
    offer.wakeOnLan = request.wakeOnLan;
    offer.keepCopy = request.keepCopy;
    offer.info = request.fileInfo;
    if (!devicePath.IsEmpty()) offer.devicePath = std::move(devicePath);
    return offer;
}

/// The tree that leads to the devices at those `indexes` whose target is pending; empty without any.
KelResult<KelContainer> OfferedDevicePath(const KelVector<Device>& devices,
                                          const KelVector<std::size_t>& indexes,
                                          const KelVector<PublicationTarget>& targets) {
    KelVector<std::size_t> offered;
    for (std::size_t i = 0; i < targets.size(); ++i) {
        if (targets[i].status == "pending") offered.push_back(indexes[i]);
    }
    if (offered.empty()) return KelContainer();
    return BuildDevicePath(devices, offered);
}

/// The indexes of the devices for which the file is pending and on whose way from the master the device
/// `guid` lies, or which are it. Devices that cannot be reached now are left out.
KelVector<std::size_t> PendingBelow(const KelVector<Device>& devices, const KelString& guid,
                                    const KelVector<PublicationTarget>& targets) {
    std::unordered_set<KelString> pending;
    for (const PublicationTarget& target : targets)
        if (target.status == "pending") pending.insert(target.guid);
    const DeviceWays ways(devices);
    KelVector<std::size_t> found;
    for (std::size_t i = 0; i < devices.size(); ++i) {
        KelVector<std::size_t> way;
        if (!pending.contains(devices[i].guid) || !ways.FindWayUp(i, way)) continue;
        way.push_back(0);  // the master
        if (std::any_of(way.begin(), way.end(),
                        [&](std::size_t device) { return devices[device].guid == guid; }))
            found.push_back(i);
    }
    return found;
}

std::int32_t CountOf(const KelVector<PublicationTarget>& targets, const char* status) {
    return static_cast<std::int32_t>(std::count_if(
        targets.begin(), targets.end(), [status](const auto& target) { return target.status == status; }));
}

}  // namespace

KelResult<Publisher::Plan> Publisher::MakePlan(const PublicationRequest& request) {
    auto devices = directory_.Read();
    if (!devices) return devices.Error();
    KelVector<KelString> leftOut;
    auto targets = ChooseTargets(*devices, request.devices, leftOut);
    if (!targets) return targets.Error();
    if (!leftOut.empty()) {
        log_.Warning("%lu devices are left out of the publication of %S; the first: %S\n", leftOut.size(),
                     request.file.name, leftOut.front());
    }
    return Plan{HexText(RandomBytes(kPublicationIdBytes)), std::move(*devices), std::move(*targets),
                leftOut.size()};
}

KelStatus Publisher::Offer(const PublicationRequest& request, const PackageFile& file, const Plan& plan,
                           const KelVector<PublicationTarget>& targets) {
    auto devicePath = OfferedDevicePath(plan.devices, plan.targets, targets);
    if (!devicePath) return devicePath.Error();
    KelContainer offer = OfferFor(request, file, std::move(*devicePath)).ToContainer();
    const unsigned int code = CallLocal("FileStoreReceiveFile", offer);
    if (code == kKelOk) return {};
    return KelError{code,
                    KelFormat("The file store did not take %S, error %u; see its log", file.path, code)};
}

KelResult<KelContainer> Publisher::Publish(const PublicationRequest& request) {
    const auto plan = MakePlan(request);
    if (!plan) return plan.Error();
    const auto file = CopyToPackages(folder_, request.sourcePath, request.file.label, request.file.name);
    if (!file) return file.Error();
    // Recorded before the file is offered: a receipt may follow at once.
    const auto targets = publications_.Add(SummaryOf(request, *file, plan->id),
                                           [&plan](const KelVector<EarlierTarget>& earlier) {
                                               return DecideTargets(plan->devices, plan->targets, earlier);
                                           });
    if (!targets) return targets.Error();
    if (const KelStatus offered = Offer(request, *file, *plan, *targets); !offered) {
        publications_.Remove(plan->id);  // the copy stays: publishing the same file again will reuse it
        return offered.Error();
    }
    KelContainer result;
    result.SetString("PublicationId", plan->id);
    result.SetString(kValueFileChecksum, file->checksum);
    result.SetInt64(kValueFileSize, file->size);
    result.SetInt32("Targets", static_cast<std::int32_t>(targets->size()));
    result.SetInt32("Delivered", CountOf(*targets, "delivered"));
    result.SetInt32("Failed", CountOf(*targets, "failed"));
    result.SetInt32("Pending", CountOf(*targets, "pending"));
    result.SetInt32("LeftOut", static_cast<std::int32_t>(plan->leftOut));
    return result;
}

bool Publisher::RepeatPublication(const PublicationSummary& publication, const KelVector<Device>& devices,
                                  const KelString& guid) {
    const auto targets = publications_.ListTargets(publication.id);
    if (!targets) return false;
    const auto pending = PendingBelow(devices, guid, *targets);
    const bool isMaster = devices.front().guid == guid;
    if (pending.empty() && !isMaster) return true;
    FileOffer offer;
    offer.key = publication.file;
    const PackageFile file = PlaceInPackages(folder_, offer.key.label, offer.key.checksum, offer.key.name);
    offer.filePath = file.path;
    offer.url = file.url;
    offer.upstream = false;
    offer.priority = publication.priority;
    offer.repeated = true;
    if (!pending.empty()) {
        auto devicePath = BuildDevicePath(devices, pending);
        if (!devicePath) return false;
        offer.devicePath = std::move(*devicePath);
    }
    KelContainer call = offer.ToContainer();
    return CallLocal("FileStoreReceiveFile", call) == kKelOk;
}

bool Publisher::Repeat(const KelString& guid) {
    log_.Warning(
        "The file store of device %S has lost its database: what is pending there is offered again\n", guid);
    const auto devices = directory_.Read();
    const auto publications = publications_.List({});
    bool isRepeated = devices && publications;
    // The oldest first, as they were published.
    for (std::size_t i = isRepeated ? publications->size() : 0; i-- > 0;)
        isRepeated = RepeatPublication((*publications)[i], *devices, guid) && isRepeated;
    if (!isRepeated) log_.Warning("Not everything could be offered again; this is tried again later\n");
    return isRepeated;
}
