#include "filestore/module/file_store.h"
#include "filestore/transfer/offer.h"
#include "kel/ip_address.h"
#include "kelcore/action_db.h"
#include "kelcore/call_origin.h"

namespace {

using filestore::Offer;

KelString ParentName() {
    KelContainer answer;
    ActionDbInvokeContainer(nullptr, "", "RelayGetValues", answer, 0, -1, -1, nullptr);
    return answer.GetContainer("Values").GetString("ParentName");
}

bool IsTrusted(const IpAddress& address) {
    const KelLock lock(FileStore::mutexSettings);
    return !FileStore::strTrustedAddressRange.empty() && FileStore::TrustedIpRange.Contains(address);
}

/// Only the parent may send files down, and whoever the administrator trusts. Self-healing files come from
/// any neighbour that has a good copy.
bool IsSenderAccepted(const KelContainer& arguments, const Offer& offer) {
    if (offer.local || offer.upstream || offer.type == "SelfHealingRecoveredFile") return true;
    const KelString address = ActionRequestAddress(arguments);
    if (const auto sender = IpAddress::Parse(address)) {
        const KelString parentName = ParentName();
        if (!parentName.empty() && IpAddress::Resolve(parentName) == sender) return true;
        if (IsTrusted(*sender)) return true;
    }
    FileStore::debugFileStore.Warning(
        "Receiving downstream remote file from a relay (%S) which is not ours.\n", address);
    return false;
}

void AcknowledgeToParent(const Offer& offer) {
    KelString url, parentGuid, ownGuid;
    FileStore::GetRelayUrl(url, parentGuid);
    if (url.empty()) return;  // the parent repeats the order, then it is acknowledged
    FileStore::GetOurDeviceGUID(ownGuid, true);
    KelContainer call;
    call.SetString("FileType", offer.type);
    call.SetString("FileLabel", offer.label);
    call.SetString("FileName", offer.name);
    call.SetString("FileChecksum", offer.checksum);
    call.SetString("DeviceGUID", ownGuid);
    const unsigned int error =
        ActionDbInvokeContainer(nullptr, url, "FileStoreAcknowledgeFile", call, 0, -1, -1, nullptr);
    if (error != 0)
        FileStore::debugFileStore.Warning(
            "The parent did not take the acknowledgement of %S/%S/%S, error %u; it will repeat the order\n",
            offer.type, offer.label, offer.name, error);
}

/// Package orders are carried out at once when this device can; then nothing is recorded.
bool RunPackageOrder(KelContainer& arguments, const Offer& offer) {
    if (offer.type == "PackagerCopyAdministratedPackage")
        return FileStore::ReceivedCopyPublishedAction(arguments, offer.type, offer.label, offer.name,
                                                      offer.checksum) == 0;
    if (offer.type == "PackagerPublishPackageToMaster")
        return FileStore::ReceivedPublishToMasterAction(arguments, offer.type, offer.label, offer.name,
                                                        offer.checksum) == 0;
    if (offer.type != "PackageDelete") return false;
    KelContainer order = arguments;  // a failed deletion must leave the offer whole
    if (FileStore::ActionHandler_FileStoreDeletePackage(&order) != 0) return false;
    AcknowledgeToParent(offer);
    return true;
}

int Route(KelContainer& arguments, Offer& offer) {
    using Receiver = int (*)(KelContainer&, const KelString&, const KelString&, const KelString&, KelString&,
                             unsigned int, bool, unsigned int, unsigned int);
    Receiver receiver = nullptr;
    if (offer.unconnected) {
        receiver = FileStore::ReceiveUnconnectedLocalFile;
    } else if (offer.upstream) {
        receiver = offer.local ? FileStore::ReceiveUpstreamLocalFile : FileStore::ReceiveUpstreamRemoteFile;
    } else if (offer.local) {
        receiver = FileStore::ReceiveDownstreamLocalFile;
    } else {
        if (RunPackageOrder(arguments, offer)) return 0;
        receiver = FileStore::ReceiveDownstreamRemoteFile;
    }
    return receiver(arguments, offer.type, offer.label, offer.name, offer.checksum, offer.keepCopy,
                    offer.bypass, offer.wakeOnLan, offer.priority);
}

}  // namespace

unsigned int FileStore::ActionHandler_FileStoreReceiveFile(KelContainer* arguments) {
    Offer offer = filestore::ReadOffer(*arguments);
    if (!filestore::CheckOffer(*arguments, offer)) return 1;
    // The sender of a dropped offer is told success: it learns nothing about this device.
    if (!IsSenderAccepted(*arguments, offer)) return 0;
    return static_cast<unsigned int>(Route(*arguments, offer));
}
