// The work of the class Delivery on orders: files that are published again.

#include <algorithm>
#include <cstdlib>
#include <ctime>

#include "kel/format.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_offer.h"
#include "kelcore/file_values.h"
#include "modules/delivery/delivery.h"
#include "modules/delivery/signed_file.h"

namespace {

/// After this time a file is requested again, in case the file store has forgotten the request.
constexpr std::int64_t kAskAgainSeconds = 600;
constexpr std::int64_t kForgetSeconds = 86400;
/// In a tree with keys: small files about publications that programs have taken out of the inbox.
constexpr std::size_t kPastKept = 2000;

constexpr const char* kWithdrawAction = "FileStoreWithdrawFile";
constexpr const char* kReplaced = "A later publication of the same name was delivered here before";

}  // namespace

unsigned int Delivery::TakeOrder(const ReceivedFile& file, const KelContainer& info) {
    auto order = ReadDeliveryOrder(file.key.name, info);
    if (!order) {
        Log().Warning("An order was refused: %S\n", order.Error().message);
        return kKelErrorBadInput;
    }
    if (const KelStatus genuine = Authenticate(*order, info); !genuine) {
        // A forged one does not end the genuine one of the same name.
        if (jobs_.Names(order->publication) || orders_.Has(order->publication)) {
            Log().Error("An order for %S: %S\n", order->file.Text(), genuine.Error().message);
            jobs_.AddTaken(file, {});
            thread_.Signal(0);
            return kKelOk;
        }
        ReceivedFile wanted{order->file, {}};
        wanted.publications = {order->publication};
        Refuse(wanted, genuine.Error().message, file.key);
        return kKelOk;
    }
    order->received = std::time(nullptr);
    // One that is not on the disk is asked for again at the next start.
    if (jobs_.Names(order->publication) || orders_.Add(*order)) jobs_.AddTaken(file, {});
    thread_.Signal(0);
    receiptThread_.Signal(0);
    return kKelOk;
}

/// The orders for this file that no job has answered yet.
KelVector<DeliveryOrder> Delivery::WaitingOrders(const FileKey& key) const {
    KelVector<DeliveryOrder> orders = orders_.List();
    std::erase_if(orders, [this, &key](const DeliveryOrder& order) {
        return order.file != key || order.isEnded || jobs_.Names(order.publication);
    });
    return orders;
}

/// Earlier publications come too late for this destination.
std::int64_t Delivery::EarliestPublication(const KelString& destination) const {
    return std::max(orders_.EarliestFor(destination), jobs_.LatestPublication(destination));
}

void Delivery::ConcludeTooLate(const ReceivedFile& file) {
    Log().Warning("%S is not delivered: %s\n", file.key.Text(), kReplaced);
    jobs_.AddConcluded(file, DeliveryOutcome::Failed, kReplaced, std::time(nullptr));
    jobs_.AddTaken(file, {});
    thread_.Signal(0);
    receiptThread_.Signal(0);
}

/// Makes `file`, which has come, the one that these orders wait for. False when a later publication has taken
/// the place, which the receipts say then. The caller holds mutexCopy_.
bool Delivery::AddOrders(ReceivedFile& file, const KelString& destination,
                         const KelVector<DeliveryOrder>& orders) {
    const std::int64_t latest = EarliestPublication(destination);
    // It has come for the orders alone when its own publication was delivered before.
    if (file.publicationTime <= latest && latest != 0) file.publications.clear();
    for (const DeliveryOrder& order : orders) {
        if (std::ranges::find(file.publications, order.publication) == file.publications.end())
            file.publications.push_back(order.publication);
        file.publicationTime = std::max(file.publicationTime, order.time);
    }
    if (file.publicationTime >= latest) return true;
    ConcludeTooLate(file);
    return false;
}

/// The orders for `file`, which has come, that have ended before need not be kept any longer. True when the
/// file is of no use then: it has come for an order that was withdrawn, or a later publication was delivered.
bool Delivery::ForgetEndedOrders(const ReceivedFile& file, const KelString& destination) {
    const std::int64_t latest = EarliestPublication(destination);
    bool isOfNoUse = false;
    for (const DeliveryOrder& order : orders_.StopExpecting(file.key)) {
        if (!jobs_.Names(order.publication)) orders_.Remove(order.publication);
        const bool cameForIt =
            file.publicationTime == 0 ||
            std::ranges::find(file.publications, order.publication) != file.publications.end();
        isOfNoUse = isOfNoUse || file.publicationTime < latest || (order.isWithdrawn && cameForIt);
    }
    return isOfNoUse;
}

bool Delivery::IsOverdue(const DeliveryOrder& order) const {
    return std::time(nullptr) - order.received >= orderTimeout_;
}

/// What programs have taken out of the inbox is remembered for as long as orders wait: an older one comes no
/// more then.
void Delivery::ForgetPastFromTimeToTime() {
    const std::int64_t now = std::time(nullptr);
    if (std::abs(now - pastForgotten_) < kForgetSeconds) return;
    pastForgotten_ = now;
    orders_.ForgetPast(now - orderTimeout_, AreFilesSigned() ? std::optional(kPastKept) : std::nullopt);
}

/// True when there are orders whose file has not come.
bool Delivery::WorkOnOrders() {
    ForgetPastFromTimeToTime();
    bool isWaiting = false;
    for (const DeliveryOrder& order : orders_.List()) {
        if (receiptThread_.CheckCancelled(false)) return true;
        if (jobs_.Names(order.publication)) continue;
        if (order.isEnded) {
            if (IsOverdue(order)) orders_.Remove(order.publication);
            continue;
        }
        if (ConcludeOrder(order)) continue;
        isWaiting = true;
        const bool isDue = std::abs(std::time(nullptr) - order.asked) >= kAskAgainSeconds;
        if (isDue && !RequestOrdered(order)) {
            orders_.StopExpecting(order.file);
            EndOrder(order, DeliveryOutcome::Failed, "The file is obsolete");
        }
    }
    return isWaiting;
}

/// True when the file needs not come: its publication was processed here before, or a later one, or the time
/// is over.
bool Delivery::ConcludeOrder(const DeliveryOrder& order) {
    const KelString destination = inbox_.PlaceOf({order.file, {}}).Whole();
    const auto past = orders_.FindPast(destination);
    if (past && past->publicationTime == order.time) {
        EndOrder(order, past->outcome, past->message);
    } else if (EarliestPublication(destination) > order.time) {
        EndOrder(order, DeliveryOutcome::Failed, kReplaced);
    } else if (IsOverdue(order)) {
        EndOrder(order, DeliveryOutcome::Failed,
                 KelFormat("No device above had the file for %gd seconds", orderTimeout_));
    } else {
        return false;
    }
    return true;
}

void Delivery::EndOrder(const DeliveryOrder& order, DeliveryOutcome outcome, const KelString& message) {
    const KelLock lock(mutexCopy_);
    if (jobs_.Names(order.publication)) return;        // the file has come meanwhile
    if (!orders_.SetEnded(order.publication)) return;  // it was withdrawn meanwhile
    if (outcome == DeliveryOutcome::Failed)
        Log().Warning("%S is not delivered: %S\n", order.file.Text(), message);
    ReceivedFile file{order.file, {}};
    file.publications = {order.publication};
    jobs_.AddConcluded(file, outcome, message, std::time(nullptr));
}

/// A file that is still to be copied stays. An order goes, unless its file has come.
unsigned int Delivery::Withdraw(KelContainer* arguments) {
    const FileKey key = FileKey::Read(*arguments);
    arguments->Clear();
    const KelLock lock(mutexCopy_);
    if (key.type != kOrderFileType) return jobs_.NeedsSource(key) ? unsigned{kKelAnswerStaysHere} : kKelOk;
    if (!jobs_.Names(key.name)) orders_.Withdraw(key.name);
    return kKelOk;
}

/// Has the file store forget the orders of a job, which are answered. What it keeps does no harm.
void Delivery::ForgetOrderFiles(const KelVector<KelString>& publications, const KelString& type) {
    for (const KelString& publication : publications)
        ForgetInStore({kOrderFileType, type, publication, {}});
}

void Delivery::ForgetInStore(const FileKey& key) {
    if (!ActionDbIsActionRegistered(kWithdrawAction)) return;
    KelContainer call;
    key.Write(call);
    CallLocal(kWithdrawAction, call);
}

/// False when the file can not be had any more.
bool Delivery::RequestOrdered(const DeliveryOrder& order) {
    if (!orders_.SetRequested(order.publication)) return true;  // tried again
    FileOffer request;
    request.key = order.file;
    request.info = order.info;
    request.bypass = order.bypass;
    if (!order.sha256.empty()) {  // what comes is known by its own signature as well then
        request.info->SetString(kValuePublicationId, order.publication);
        request.info->SetInt64(kValuePublicationTime, order.time);
        request.info->SetContainer(kValueSigned, order.signature);
    }
    KelContainer call = request.ToContainer();
    if (CallLocal("FileStoreRequestFile", call) != kKelOk) return true;  // tried again
    orders_.SetAsked(order.publication, std::time(nullptr));
    return !call.GetBool("FileObsolete");
}
