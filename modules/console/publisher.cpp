#include "modules/console/publisher.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <unordered_set>

#include "kel/checksum.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/error_text.h"
#include "kelcore/file_offer.h"
#include "kelcore/file_values.h"
#include "kelcore/keys/publication_signature.h"
#include "kelcore/security.h"
#include "modules/console/device_tree.h"
#include "modules/console/stage_plan.h"
#include "modules/console/stage_store.h"
#include "modules/console/target_choice.h"

namespace {

constexpr std::size_t kIdBytes = 8;
/// Between two orders for a publication, seconds.
constexpr std::int64_t kLongestOrderGap = 86400;
/// A publication to more devices is signed for every device of the tree.
constexpr std::size_t kMostNamed = 50;

PublicationSummary SummaryOf(const PublicationRequest& request, const PackageFile& file,
                             const KelString& id) {
    PublicationSummary publication;
    publication.id = id;
    publication.file = request.file;
    publication.file.checksum = file.checksum;
    publication.fileSize = file.size;
    publication.sha256 = file.sha256;
    publication.createTime = std::time(nullptr);
    publication.priority = request.priority;
    return publication;
}

/// The file as the file store receives it. It may be there already, as repeated publications are, and then
/// stays as it is. Without targets and what devices know the publication by, so far.
FileOffer OfferFor(const PublicationRequest& request, const PublicationSummary& publication,
                   const PackageFile& place) {
    FileOffer offer;
    offer.key = publication.file;
    offer.filePath = place.path;
    offer.url = place.url;
    offer.upstream = false;
    offer.priority = publication.priority;
    offer.bypass = request.bypass;
    offer.wakeOnLan = request.wakeOnLan;
    offer.keepCopy = request.keepCopy;
    offer.info = request.fileInfo;
    offer.repeated = true;
    return offer;
}

/// What the delivery module of a target needs to request the file, likewise. The random identifier keeps two
/// orders of the same publication apart: a store takes each once.
KelContainer OrderFor(const PublicationRequest& request, const PublicationSummary& publication) {
    KelContainer order;
    publication.file.Write(order);
    order.SetBool(kValueBypass, request.bypass);
    order.SetContainer(kValueFileInfo, request.fileInfo);
    order.SetString("OrderId", HexText(RandomBytes(kIdBytes)));
    return order;
}

/// The devices that the master's signature names: the targets, unless the file is meant for all, or for so
/// many that their names would weigh more than most files.
KelVector<KelString> NamedFor(const PublicationRequest& request, KelVector<KelString> guids) {
    const bool isForAll = !request.devices.empty() && request.devices.front() == "all";
    if (isForAll || guids.size() > kMostNamed) guids.clear();
    return guids;
}

KelResult<bool> OfferToStore(const FileOffer& offer) {
    KelContainer call = offer.ToContainer();
    const unsigned int code = CallLocal("FileStoreReceiveFile", call);
    if (code == kKelOk) return call.GetBool(kValueContentHeld);
    return KelError{
        code, KelFormat("The file store did not take %S, error %u; see its log", offer.key.Text(), code)};
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

}  // namespace

KelResult<Publisher::Plan> Publisher::MakePlan(const PublicationRequest& request) {
    auto devices = directory_.Read();
    if (!devices) return devices.Error();
    const auto groups = groups_.List();
    if (!groups) return groups.Error();
    auto targets = ChooseTargets(*devices, *groups, request.devices);
    if (!targets) return targets.Error();
    const KelVector<KelString>& leftOut = targets->leftOut;
    if (!leftOut.empty()) {
        log_.Warning("%lu devices are left out of the publication of %S; the first: %S\n", leftOut.size(),
                     request.file.name, leftOut.front());
    }
    return Plan{HexText(RandomBytes(kIdBytes)), std::move(*devices), std::move(targets->indexes),
                leftOut.size()};
}

PackageFile Publisher::PlaceOf(const PublicationSummary& publication) const {
    const FileKey& file = publication.file;
    PackageFile place = PlaceInPackages(folder_, file.label, file.checksum, file.name);
    place.size = publication.fileSize;
    return place;
}

/// What was published in a plain tree has none so far.
KelResult<KelString> Publisher::Sha256Of(const PublicationSummary& publication) {
    if (!publication.sha256.empty()) return publication.sha256;
    auto digest = Sha256OfPackage(PlaceOf(publication));
    if (digest) publications_.SetSha256(publication.id, *digest);
    return digest;
}

KelStatus Publisher::SetPublication(const PublicationSummary& publication, const KelVector<KelString>& isFor,
                                    KelContainer& info) {
    info.SetString(kValuePublicationId, publication.id);
    info.SetInt64(kValuePublicationTime, publication.createTime);
    if (!AgentSecurityGetKeys()) return {};
    const auto sha256 = Sha256Of(publication);
    if (!sha256) return sha256.Error();
    const KelPublication toSign{publication.file, publication.fileSize,   *sha256,
                                publication.id,   publication.createTime, isFor};
    KelContainer call = toSign.ToContainer();
    const unsigned int code = CallLocal("KeysSign", call);
    if (code != kKelOk)
        return KelError{code, KelFormat("The publication of %S cannot be signed: %S", publication.file.Text(),
                                        call.GetString("Message", KelErrorText(code)))};
    info.SetContainer(kValueSigned, call.GetContainer(kValueSigned));
    return {};
}

KelResult<bool> Publisher::OfferFile(const PublicationRequest& request, const PublicationSummary& publication,
                                     const KelVector<KelString>& isFor, const KelContainer* devicePath) {
    FileOffer offer = OfferFor(request, publication, PlaceOf(publication));
    offer.size = publication.fileSize;
    if (devicePath != nullptr) offer.devicePath = *devicePath;
    if (const KelStatus set = SetPublication(publication, isFor, *offer.info); !set) return set.Error();
    return OfferToStore(offer);
}

KelStatus Publisher::Order(const PublicationRequest& request, const PublicationSummary& publication,
                           const KelVector<KelString>& isFor, KelContainer devicePath) {
    KelContainer order = OrderFor(request, publication);
    if (KelStatus set = SetPublication(publication, isFor, order); !set) return set;
    const KelString folder = IncomingFolder(folder_);
    KelString path;
    if (!PathCreate(folder) || !order.SaveToTempFile(path, folder))
        return KelError{
            kKelErrorInternal,
            KelFormat("An order cannot be written in %S; check its rights and free space", folder)};
    FileOffer offer;
    offer.key = {kOrderFileType, publication.file.type, publication.id, {}};
    offer.movePath = path;
    offer.upstream = false;
    offer.priority = publication.priority;
    offer.bypass = request.bypass;
    offer.wakeOnLan = request.wakeOnLan;
    offer.info = std::move(order);
    offer.devicePath = std::move(devicePath);
    const auto offered = OfferToStore(offer);
    if (!offered) {
        FileDelete(path);
        return offered.Error();
    }
    publications_.SetOrdered(publication.id, std::time(nullptr));
    return {};
}

/// A store below that has the file takes no other offer of it, so the targets of a file that was published or
/// was here before are ordered to request it.
KelStatus Publisher::Offer(const PublicationRequest& request, const PublicationSummary& publication,
                           const Plan& plan) {
    KelVector<KelString> guids;
    for (const std::size_t target : plan.targets)
        guids.push_back(plan.devices[target].guid);
    const KelVector<KelString> isFor = NamedFor(request, std::move(guids));
    if (plan.targets.empty()) {
        const auto offered = OfferFile(request, publication, isFor, nullptr);
        return offered ? KelStatus() : offered.Error();
    }
    auto devicePath = BuildDevicePath(plan.devices, plan.targets);
    if (!devicePath) return devicePath.Error();
    const auto isKnown = publications_.IsKnown(publication.file, publication.id);
    if (!isKnown) return isKnown.Error();
    const auto isHeld = OfferFile(request, publication, isFor, *isKnown ? nullptr : &*devicePath);
    if (!isHeld) return isHeld.Error();
    return *isKnown || *isHeld ? Order(request, publication, isFor, std::move(*devicePath)) : KelStatus();
}

KelResult<KelContainer> Publisher::Publish(const PublicationRequest& request) {
    auto plan = MakePlan(request);
    if (!plan) return plan.Error();
    const auto copy = [&] {
        return CopyToPackages(folder_, request.sourcePath, request.file.label, request.file.name);
    };
    auto file = copy();
    const std::shared_lock lock(packages_);
    // An earlier publication of the file that was withdrawn meanwhile has taken the copy along.
    if (file && !FileExists(file->path)) file = copy();
    if (!file) return file.Error();
    PublicationSummary publication = SummaryOf(request, *file, plan->id);
    KelVector<KelString> guids;
    for (const std::size_t target : plan->targets)
        guids.push_back(plan->devices[target].guid);
    // Recorded before the file is offered: a receipt may follow at once.
    const KelVector<KelString> stages = StageStatements(request, plan->id, guids);
    if (const KelStatus added = publications_.Add(publication, guids, stages); !added) return added.Error();
    plan->targets.resize(StageEnds(request.stages, guids.size()).front());
    if (const KelStatus offered = Offer(request, publication, *plan); !offered) {
        publications_.Remove(plan->id);  // the copy stays: publishing the same file again will reuse it
        return offered.Error();
    }
    {
        const KelLock doneLock(mutex_);
        done_.insert(plan->id);
    }
    const auto targets = static_cast<std::int32_t>(guids.size());
    KelContainer result;
    result.SetString(kValuePublicationId, plan->id);
    result.SetString(kValueFileChecksum, file->checksum);
    result.SetInt64(kValueFileSize, file->size);
    result.SetInt32("Targets", targets);
    result.SetInt32("Delivered", 0);
    result.SetInt32("Failed", 0);
    result.SetInt32("Pending", targets);
    result.SetInt32("LeftOut", static_cast<std::int32_t>(plan->leftOut));
    return result;
}

KelStatus Publisher::OrderOn(const PublicationSummary& publication, const PublicationRequest& request,
                             KelVector<KelString>& guids) {
    const auto devices = directory_.Read();
    if (!devices) return devices.Error();
    const DeviceIndex index(*devices);
    const DeviceWays ways(*devices);
    KelVector<std::size_t> targets;
    std::erase_if(guids, [&](const KelString& guid) {
        const auto found = index.Find(guid);
        KelVector<std::size_t> way;
        if (!found || !ways.FindWayUp(*found, way)) return true;
        targets.push_back(*found);
        return false;
    });
    if (targets.empty()) return {};
    auto devicePath = BuildDevicePath(*devices, targets);
    const std::shared_lock lock(packages_);
    const auto now = publications_.List({publication.id});
    if (!now) return now.Error();
    if (now->empty() || now->front().withdrawTime != 0) {
        guids.clear();
        return {};
    }
    if (!devicePath) return devicePath.Error();
    return Order(request, publication, NamedFor(request, guids), std::move(*devicePath));
}

bool Publisher::RepeatPublication(const PublicationSummary& publication, const KelVector<Device>& devices,
                                  const KelString& guid) {
    if (publication.withdrawTime != 0) return true;
    const bool isHere = devices.front().guid == guid && FileExists(PlaceOf(publication).path);
    if (!isHere && publication.Pending() <= 0) return true;
    const auto targets = publications_.ListTargets(publication.id);
    if (!targets) return false;
    const auto guidsOf = [](const auto& items, const auto& guidOf) {
        KelVector<KelString> guids;
        for (const auto& item : items)
            guids.push_back(guidOf(item));
        return guids;
    };
    PublicationRequest request;  // how it was requested then is not known any more
    if (isHere &&
        !OfferFile(request, publication,
                   NamedFor(request, guidsOf(*targets, [](const auto& target) { return target.guid; })),
                   nullptr))
        return false;
    const KelVector<std::size_t> pending = PendingBelow(devices, guid, *targets);
    if (pending.empty()) return true;
    auto devicePath = BuildDevicePath(devices, pending);
    return devicePath &&
           Order(request, publication,
                 NamedFor(request, guidsOf(pending, [&](std::size_t index) { return devices[index].guid; })),
                 std::move(*devicePath));
}

bool Publisher::RepeatAll(const KelString& guid,
                          const std::function<bool(const PublicationSummary&)>& isDue) {
    const auto devices = directory_.Read();
    const auto publications = publications_.List({});
    bool isRepeated = devices && publications;
    // The oldest first, as they were published.
    for (std::size_t i = isRepeated ? publications->size() : 0; i-- > 0;) {
        const PublicationSummary& publication = (*publications)[i];
        if (!isDue(publication)) continue;
        if (!RepeatPublication(publication, *devices, guid)) {
            isRepeated = false;
        } else if (guid == devices->front().guid) {
            const KelLock lock(mutex_);
            done_.insert(publication.id);
        }
    }
    if (!isRepeated) log_.Warning("Not everything could be published again; this is tried again later\n");
    return isRepeated;
}

bool Publisher::Repeat(const KelString& guid) {
    return RepeatAll(guid, [](const PublicationSummary&) { return true; });
}

bool Publisher::IsDueOnce(const PublicationSummary& publication) {
    const std::int64_t latest = std::max(publication.createTime, publication.orderTime);
    const std::int64_t gap = std::min(latest - publication.createTime, kLongestOrderGap);
    const KelLock lock(mutex_);
    return !done_.contains(publication.id) && std::abs(std::time(nullptr) - latest) >= gap;
}

bool Publisher::RepeatOnceForMaster() {
    const auto devices = directory_.Read();
    return devices && RepeatAll(devices->front().guid, [this](const PublicationSummary& publication) {
               return IsDueOnce(publication);
           });
}
