#include "modules/console/explanation.h"

#include <algorithm>
#include <utility>

#include "kel/format.h"
#include "kelcore/action_db.h"
#include "kelcore/device_name.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"
#include "modules/console/device_tree.h"

namespace {

constexpr std::size_t kMostTargets = 500;
constexpr std::int32_t kSecondsOfOne = 20;  ///< for the answer to a single question
constexpr std::int32_t kSecondsOfTwo = 10;  ///< to each of two

using Names = KelHash<KelString, KelString>;  ///< of devices by GUID

Names NamesOf(const KelVector<Device>& devices) {
    Names names;
    for (const Device& device : devices)
        names[device.guid] = device.name;
    return names;
}

KelString NameOf(const Names& names, const KelString& guid) {
    const auto name = names.find(guid);
    return name == names.end() ? guid : name->second;
}

/// The GUIDs of the pending targets; of one device only when it is named.
KelResult<KelVector<KelString>> PendingGuids(const KelVector<PublicationTarget>& targets,
                                             const KelVector<Device>& devices, const KelString& device) {
    KelString only;
    if (!device.empty()) {
        const auto found = DeviceIndex(devices).Find(device);
        if (!found) return found.Error();
        only = devices[*found].guid;
    }
    KelVector<KelString> guids;
    bool isTarget = false;
    for (const PublicationTarget& target : targets) {
        if (!only.empty() && target.guid != only) continue;
        isTarget = true;
        if (target.status == "pending") guids.push_back(target.guid);
    }
    if (!only.empty() && !isTarget)
        return KelError{kKelErrorBadInput, KelFormat("%S is no target of this publication", device)};
    return guids;
}

/// What the file store answers about a file and the devices in `tree`, within so many seconds.
KelResult<KelContainer> Ask(const FileKey& file, const KelContainer& tree, std::int32_t seconds) {
    KelContainer call;
    file.Write(call);
    call.SetContainer(kValueDevicePath, tree);
    call.SetInt32("Seconds", seconds);
    if (const unsigned int error = CallLocal("FileStoreExplainFile", call); error != kKelOk)
        return KelError{error, KelFormat("The file store gives no reasons: %S", call.GetString("Message"))};
    return call;
}

using Reasons = KelHash<KelString, KelContainer>;  ///< by the GUID of the target

/// The reasons in an answer about an order that say why it has not come. An order that is there has done its
/// part, and one that a device does not know may have been replaced by a later one.
Reasons RealReasons(const KelContainer& answer) {
    Reasons reasons;
    for (std::uint32_t i = 0; answer.Has("Values") && i < answer.Count("Values"); ++i) {
        const KelContainer& values = answer.GetContainer("Values", i);
        const KelString code = values.GetString("Code");
        if (code != "arrived" && code != "unknown_there" && code != "not_asked")
            reasons[values.GetString("GUID")] = values;
    }
    return reasons;
}

KelContainer Unplaced(const KelString& guid, const KelString& name, const KelString& message) {
    KelContainer values;
    values.SetString("GUID", guid);
    values.SetString("Name", name);
    values.SetString("Code", "no_way");
    values.SetString("Message", message);
    return values;
}

/// The indexes of the devices that the master can reach; for the others, values that say why not.
KelVector<std::size_t> Placed(const KelVector<Device>& devices, const KelVector<KelString>& guids,
                              KelContainer& result) {
    const DeviceIndex index(devices);
    KelVector<std::size_t> placed;
    std::uint32_t unplaced = 0;
    for (const KelString& guid : guids) {
        const auto found = index.Find(guid);
        KelVector<std::size_t> one;
        if (found) one = {*found};
        const KelVector<KelString> problems =
            found ? RemoveUnreachable(devices, one) : KelVector<KelString>{found.Error().message};
        if (problems.empty())
            placed.push_back(*found);
        else
            result.SetContainer("Values",
                                Unplaced(guid, found ? devices[*found].name : KelString(), problems.front()),
                                unplaced++);
    }
    return placed;
}

}  // namespace

KelResult<KelContainer> Explainer::Explain(const KelString& publicationId, const KelString& device) {
    const auto publications = publications_.List({publicationId});
    if (!publications) return publications.Error();
    if (publications->empty())
        return KelError{kKelErrorBadInput, KelFormat("There is no publication \"%S\"", publicationId)};
    const auto targets = publications_.ListTargets(publicationId);
    if (!targets) return targets.Error();
    const auto devices = directory_.Read();
    if (!devices) return devices.Error();
    auto pending = PendingGuids(*targets, *devices, device);
    if (!pending) return pending.Error();
    KelContainer result;
    const std::size_t leftOut = pending->size() - std::min(pending->size(), kMostTargets);
    pending->resize(pending->size() - leftOut);
    result.SetInt32("LeftOut", static_cast<std::int32_t>(leftOut));
    const KelVector<std::size_t> placed = Placed(*devices, *pending, result);
    if (placed.empty()) return result;
    const auto tree = BuildDevicePath(*devices, placed);
    if (!tree) return tree.Error();

    const PublicationSummary& publication = publications->front();
    const bool isOrdered = publication.orderTime != 0;
    const auto ofFile = Ask(publication.file, *tree, isOrdered ? kSecondsOfTwo : kSecondsOfOne);
    if (!ofFile) return ofFile.Error();
    if (!ofFile->GetBool("Known"))
        return KelError{kKelErrorMissingContent, "The store of the master does not know the file any more"};
    Reasons ofOrder;
    if (isOrdered) {
        const FileKey order = {kOrderFileType, publication.file.type, publication.id, {}};
        if (const auto answer = Ask(order, *tree, kSecondsOfTwo)) ofOrder = RealReasons(*answer);
    }
    const Names names = NamesOf(*devices);
    std::uint32_t index = result.Has("Values") ? result.Count("Values") : 0;
    for (std::uint32_t i = 0; ofFile->Has("Values") && i < ofFile->Count("Values"); ++i) {
        KelContainer values = ofFile->GetContainer("Values", i);
        if (const auto order = ofOrder.find(values.GetString("GUID")); order != ofOrder.end())
            values = order->second;
        values.SetString("Name", NameOf(names, values.GetString("GUID")));
        values.SetString("AtName", NameOf(names, KelString(GuidOfDevice(values.GetString("At")))));
        result.SetContainer("Values", std::move(values), index++);
    }
    return result;
}
