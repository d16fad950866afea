#include "filestore/down/acknowledge.h"
#include "filestore/down/receive_offer.h"
#include "filestore/down/withdraw.h"
#include "filestore/exchange/offer.h"
#include "filestore/packages/package_orders.h"
#include "filestore/state/device.h"
#include "filestore/state/file_store.h"
#include "filestore/state/parent.h"
#include "filestore/up/receive_offer.h"
#include "filestore/up/unconnected.h"
#include "kel/ip_address.h"
#include "kelcore/action_db.h"
#include "kelcore/call_origin.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"

using namespace filestore;

namespace {

/// Only the parent may send files down, and the addresses that the administrator trusts.
bool IsSenderAccepted(const KelContainer& arguments, const Offer& offer) {
    if (offer.local || offer.upstream || ActionIsFromParent(arguments)) return true;
    FileStore::debugFileStore.Warning(
        "Receiving downstream remote file from a relay (%S) which is not ours.\n",
        ActionRequestAddress(arguments));
    return false;
}

/// The sender of a dropped offer gets a success, and learns which device it would have to be, as far as that
/// is known.
unsigned int AnswerStranger(KelContainer& arguments) {
    arguments.Clear();
    Parent parent;
    const bool isKnown = ReadParent(parent) && parent.IsKnown();
    arguments.SetString(kValueParentGuid, isKnown ? parent.guid : KelString());
    return kKelOk;
}

void AcknowledgeToParent(const FileKey& key) {
    KelString url, parentGuid;
    FileStore::GetRelayUrl(url, parentGuid);
    if (url.empty()) return;  // the parent repeats the order, which is then acknowledged
    if (const unsigned int error = SendAcknowledgement(url, key, OurDeviceUrl()); error != kKelOk)
        FileStore::debugFileStore.Warning(
            "The parent did not take the acknowledgement of %S, error %u; it will repeat the order\n",
            key.Text(), error);
}

/// Carries a package order out at once when this device can: nothing is recorded then. False when the offer
/// is to be recorded like any other file.
bool CarryOutPackageOrder(KelContainer& arguments, const Offer& offer) {
    if (offer.key.type == "PackagerCopyAdministratedPackage" ||
        offer.key.type == "PackagerPublishPackageToMaster") {
        const PackageOrder outcome = offer.key.type == "PackagerPublishPackageToMaster"
                                         ? PublishPackageToMaster(arguments, offer.key)
                                         : CopyPublishedPackage(arguments, offer.key);
        // Until it is acknowledged, the parent repeats the order, and the package is published once more.
        if (outcome == PackageOrder::CarriedOut) AcknowledgeToParent(offer.key);
        return outcome != PackageOrder::NotHeld;
    }
    if (offer.key.type != kPackageDeletionType) return false;
    KelContainer order = arguments;  // a failed deletion must leave the offer whole
    if (FileStore::ActionHandler_FileStoreDeletePackage(&order) != kKelOk) return false;
    AcknowledgeToParent(offer.key);
    return true;
}

unsigned int Route(KelContainer& arguments, Offer& offer) {
    if (offer.unconnected) return KeepUnconnected(arguments, offer);
    if (offer.upstream)
        return offer.local ? ReceiveUpstreamLocal(arguments, offer) : ReceiveUpstreamRemote(arguments, offer);
    if (offer.local) return ReceiveDownstreamLocal(arguments, offer);
    if (CarryOutPackageOrder(arguments, offer)) return kKelOk;
    return ReceiveDownstreamRemote(arguments, offer);
}

int ResultOf(PackageOrder outcome) {
    return outcome == PackageOrder::NotHeld ? kKelErrorBadInput : kKelOk;
}

using Receiver = unsigned int (*)(KelContainer&, Offer&);

/// Calls a receiver for a caller that names the parts of the offer one by one.
int Receive(Receiver receiver, KelContainer& arguments, const FileKey& key, KelString& checksum,
            unsigned int keepCopy, bool bypass, unsigned int wakeOnLan, unsigned int priority) {
    Offer offer;
    offer.key = key;
    offer.keepCopy = keepCopy;
    offer.bypass = bypass;
    offer.wakeOnLan = wakeOnLan;
    offer.priority = priority;
    const unsigned int result = receiver(arguments, offer);
    checksum = offer.key.checksum;
    return static_cast<int>(result);
}

}  // namespace

unsigned int FileStore::ActionHandler_FileStoreReceiveFile(KelContainer* arguments) {
    Offer offer = ReadOffer(*arguments);
    if (!CheckOffer(*arguments, offer)) return kKelErrorBadInput;
    // What is kept aside is offered again by this device, in its own name.
    if (offer.unconnected && !ActionIsFromThisDevice(*arguments)) return kKelErrorBadInput;
    if (!IsSenderAccepted(*arguments, offer)) return AnswerStranger(*arguments);
    return Route(*arguments, offer);
}

int FileStore::ReceiveUpstreamLocalFile(KelContainer& arguments, const KelString& type,
                                        const KelString& label, const KelString& name, KelString& checksum,
                                        unsigned int keepCopy, bool bypass, unsigned int wakeOnLan,
                                        unsigned int priority) {
    return Receive(ReceiveUpstreamLocal, arguments, {type, label, name, checksum}, checksum, keepCopy, bypass,
                   wakeOnLan, priority);
}

int FileStore::ReceiveUpstreamRemoteFile(KelContainer& arguments, const KelString& type,
                                         const KelString& label, const KelString& name, KelString& checksum,
                                         unsigned int keepCopy, bool bypass, unsigned int wakeOnLan,
                                         unsigned int priority) {
    return Receive(ReceiveUpstreamRemote, arguments, {type, label, name, checksum}, checksum, keepCopy,
                   bypass, wakeOnLan, priority);
}

int FileStore::ReceiveUnconnectedLocalFile(KelContainer& arguments, const KelString& type,
                                           const KelString& label, const KelString& name, KelString& checksum,
                                           unsigned int keepCopy, bool bypass, unsigned int wakeOnLan,
                                           unsigned int priority) {
    return Receive(KeepUnconnected, arguments, {type, label, name, checksum}, checksum, keepCopy, bypass,
                   wakeOnLan, priority);
}

int FileStore::ReceiveDownstreamLocalFile(KelContainer& arguments, const KelString& type,
                                          const KelString& label, const KelString& name, KelString& checksum,
                                          unsigned int keepCopy, bool bypass, unsigned int wakeOnLan,
                                          unsigned int priority) {
    return Receive(ReceiveDownstreamLocal, arguments, {type, label, name, checksum}, checksum, keepCopy,
                   bypass, wakeOnLan, priority);
}

int FileStore::ReceiveDownstreamRemoteFile(KelContainer& arguments, const KelString& type,
                                           const KelString& label, const KelString& name, KelString& checksum,
                                           unsigned int keepCopy, bool bypass, unsigned int wakeOnLan,
                                           unsigned int priority) {
    return Receive(ReceiveDownstreamRemote, arguments, {type, label, name, checksum}, checksum, keepCopy,
                   bypass, wakeOnLan, priority);
}

int FileStore::ReceivedCopyPublishedAction(KelContainer& arguments, const KelString& type,
                                           const KelString& label, const KelString& name,
                                           const KelString& checksum) {
    return ResultOf(CopyPublishedPackage(arguments, {type, label, name, checksum}));
}

int FileStore::ReceivedPublishToMasterAction(KelContainer& arguments, const KelString& type,
                                             const KelString& label, const KelString& name,
                                             const KelString& checksum) {
    return ResultOf(PublishPackageToMaster(arguments, {type, label, name, checksum}));
}
