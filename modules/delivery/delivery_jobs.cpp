// The work of the class Delivery on its jobs; registration and actions are in delivery.cpp.

#include <algorithm>
#include <ctime>

#include "kel/file.h"
#include "kel/format.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"
#include "modules/delivery/delivery.h"
#include "modules/delivery/signed_file.h"

namespace {

/// Failures after which the other receipts wait for the next try: most likely they would fail too.
constexpr int kMaxReceiptFailures = 10;

/// Without arguments, lists the files that were handed over and not taken; with "Taken", forgets these.
constexpr const char* kUntakenAction = "FileStoreGetUntakenFiles";

/// The failures that the log of failures knows.
constexpr const char* kCopying = "copying";
constexpr const char* kRemembering = "remembering";

}  // namespace

/// Whether a file that has come is to be delivered; the log and a receipt say why it is not. Adds the orders
/// that wait for it. The caller holds mutexCopy_.
bool Delivery::Admit(ReceivedFile& file, const KelContainer& info, const KelString& destination,
                     Arrival& arrival) {
    const auto orders = WaitingOrders(file.key);
    if (const KelStatus genuine = Authenticate(file, info, orders); !genuine) {
        Refuse(file, genuine.Error().message, file.key);
        return false;
    }
    const bool isOfNoUse = ForgetEndedOrders(file, destination);
    if (!orders.empty()) {
        arrival = Arrival::Ordered;
        return AddOrders(file, destination, orders);
    }
    if (isOfNoUse) {
        Log().Print("%S is not delivered: its order has ended\n", file.key.Text());
        jobs_.AddTaken(file, {});
        thread_.Signal(0);
        return false;
    }
    if (!AreFilesSigned() || file.publicationTime >= EarliestPublication(destination)) return true;
    ConcludeTooLate(file);
    return false;
}

/// Copies a file to the inbox on the caller's thread, so that the file store knows at once whether it
/// succeeded. Commands are left to the thread for jobs: they may take minutes. Of a file that was never taken
/// the command and the receipt are due even if it is in place, and so they are of one that was ordered.
unsigned int Delivery::Deliver(ReceivedFile file, const KelContainer& info, Arrival arrival) {
    const FilePlace place = inbox_.PlaceOf(file);
    const KelString destination = place.Whole();
    const bool hasCommand = commands_.Has(file.key.type);
    {
        const KelLock lock(mutexCopy_);
        if (!Admit(file, info, destination, arrival)) return kKelOk;
        const bool isInPlace = inbox_.Holds(file);
        if (const KelString obstacle = ObstacleTo(place); !obstacle.empty()) {
            FailAtOnce(file, KelFormat("%S is in the way; remove it and publish the file again", obstacle));
            return kKelOk;
        }
        if (isInPlace && arrival == Arrival::HandedOver && !IsNew(file, destination)) {
            Log().Detail("%S is in place already\n", destination);
            jobs_.EndOtherJobFor(file, destination);
            jobs_.AddTaken(file, destination);
            thread_.Signal(0);
            return kKelOk;
        }
        // Written to disk before the copy: a stop in between must lose neither the command nor the receipt.
        const std::uint64_t job = jobs_.Add(
            file, destination, std::max<std::int64_t>(0, FileGetSize64(file.sourcePath)), std::time(nullptr));
        const KelStatus copied = isInPlace ? KelStatus() : inbox_.Put(file);
        if (!copied && copied.Error().code == kKelErrorBadInput) {
            EndAsRefused(job, file.key, copied.Error().message);
            return kKelOk;
        }
        if (!copied) {
            LogCopyFailure(copied.Error().message);
            thread_.Signal(0);  // retries the copy even if the file store does not hand the file over again
            return kKelAnswerTryLater;
        }
        LogCopySuccess();
        jobs_.SetCopied(job);
        // The outcome is not written: after a restart it follows from the file in place.
        if (!hasCommand) jobs_.SetOutcome(job, DeliveryOutcome::Delivered, {}, false);
        // One in place that was never taken was delivered, and logged, before a stop.
        if (!isInPlace || arrival == Arrival::Ordered)
            Log().Print("Delivered %S to %S\n", file.key.Text(), destination);
    }
    thread_.Signal(0);
    if (!hasCommand) receiptThread_.Signal(0);
    return kKelOk;
}

/// For a file that cannot be delivered, now or later. The caller holds mutexCopy_.
void Delivery::FailAtOnce(const ReceivedFile& file, const KelString& message) {
    Log().Warning("%S is not delivered: %S\n", file.key.Text(), message);
    jobs_.AddConcluded(file, DeliveryOutcome::Failed, message, std::time(nullptr));
    jobs_.AddTaken(file, {});
    thread_.Signal(0);
    receiptThread_.Signal(0);
}

/// For what is not the master's. The file store remembers it until the receipt is handed over.
void Delivery::Refuse(const ReceivedFile& file, const KelString& message, const FileKey& refused) {
    Log().Error("%S: %S\n", file.key.Text(), message);
    jobs_.AddConcluded(file, DeliveryOutcome::Failed, message, std::time(nullptr), refused);
    receiptThread_.Signal(0);
}

void Delivery::EndAsRefused(std::uint64_t job, const FileKey& key, const KelString& message) {
    Log().Error("%S: %S\n", key.Text(), message);
    jobs_.SetRefused(job, message);
    thread_.Signal(0);
    receiptThread_.Signal(0);
}

/// In a tree with keys: no receipt has answered this publication, though its content may be in place.
bool Delivery::IsNew(const ReceivedFile& file, const KelString& destination) const {
    return AreFilesSigned() && file.publicationTime > EarliestPublication(destination);
}

/// Has the file store forget the files that are taken. False when that is to be repeated.
bool Delivery::ReportTaken() {
    for (FileKey& key : jobs_.DrainTaken())
        taken_.push_back(std::move(key));
    if (taken_.empty()) return true;
    KelContainer arguments;
    for (std::uint32_t i = 0; i < taken_.size(); ++i) {
        KelContainer values;
        taken_[i].Write(values);
        arguments.SetContainer("Taken", std::move(values), i);
    }
    if (ActionDbIsActionRegistered(kUntakenAction) && CallLocal(kUntakenAction, arguments) != kKelOk)
        return false;
    taken_.clear();
    return true;
}

/// Delivers what the file store has handed over to an earlier run that did not take it. True when there was
/// nothing more.
bool Delivery::AskForUntaken() {
    KelContainer answer;
    if (!ActionDbIsActionRegistered(kUntakenAction)) return true;
    if (CallLocal(kUntakenAction, answer) != kKelOk) return false;
    bool isMore = false;
    if (!answer.Has("Values")) return true;
    for (std::uint32_t i = 0; i < answer.Count("Values"); ++i) {
        const auto file = ReadReceivedFile(answer.GetContainer("Values", i));
        if (!file || jobs_.Knows(file->key)) continue;
        isMore = true;
        const KelContainer& info = answer.GetContainer("Values", i).GetContainer(kValueFileInfo);
        if (file->key.type == kOrderFileType)
            TakeOrder(*file, info);
        else
            Deliver(*file, info, Arrival::NeverTaken);
    }
    return !isMore;
}

void Delivery::LogCopyFailure(const KelString& message) {
    failures_.Failed(KelDebugLevel::Error, kCopying, message + "; tried again once a minute");
}

void Delivery::LogCopySuccess() {
    failures_.Succeeded(kCopying, "Files can be copied again");
}

bool Delivery::WorkOnJobs() {
    // Before commands run, so that none runs again for a file that is still thought to be untaken.
    bool isWorkLeft = !jobs_.KeepAll();
    if (!ReportTaken()) {
        isWorkLeft = true;
    } else if (!hasAsked_) {
        hasAsked_ = AskForUntaken();
        if (!ReportTaken() || !hasAsked_) isWorkLeft = true;
    }
    for (const DeliveryJob& job : jobs_.ListOpen()) {
        const JobOutcome outcome = WorkOnJob(job);
        if (outcome == JobOutcome::Cancelled) return true;
        if (outcome == JobOutcome::Later) isWorkLeft = true;
    }
    if (!ReportTaken()) isWorkLeft = true;
    return isWorkLeft;
}

bool Delivery::SendReceipts() {
    int failures = 0;
    for (const DeliveryJob& job : jobs_.ListConcluded()) {
        if (receiptThread_.CheckCancelled(false) || failures == kMaxReceiptFailures) return true;
        const bool isRemembered = job.refused || Remember(job);  // the genuine one may still come
        if (!isRemembered || !receipts_.Send(job)) {
            ++failures;
            continue;
        }
        KelVector<KelString> ordered;
        {
            const KelLock lock(mutexCopy_);  // a file that arrives now finds both, or neither
            ordered = orders_.SetAnswered(job.file.publications);
            jobs_.Remove(job.id);
        }
        if (!job.isTaken) thread_.Signal(0);  // only now may the file store forget the file
        ForgetOrderFiles(ordered, job.file.key.type);
        if (job.refused) ForgetInStore(*job.refused);
    }
    return failures > 0;
}

/// Before the receipt is sent: afterwards the same publication may be ordered once more.
bool Delivery::Remember(const DeliveryJob& job) {
    if (orders_.Remember(job)) {
        failures_.Succeeded(kRemembering, "Results of publications can be written down again");
        return true;
    }
    failures_.Failed(
        KelDebugLevel::Error, kRemembering,
        KelFormat("The result for %S cannot be written down, so its receipt waits; check free space "
                  "and rights in %S; tried again once a minute",
                  job.destination, DataPath()));
    return false;
}

void Delivery::Conclude(const DeliveryJob& job, DeliveryOutcome outcome, const KelString& message) {
    jobs_.SetOutcome(job.id, outcome, message, true);
    receiptThread_.Signal(0);
}

Delivery::JobOutcome Delivery::WorkOnJob(const DeliveryJob& job) {
    if (thread_.CheckCancelled(false)) return JobOutcome::Cancelled;
    if (const JobOutcome outcome = BringIntoPlace(job); outcome != JobOutcome::Done) return outcome;
    if (!jobs_.IsOpen(job.id)) return JobOutcome::Done;
    const KelString& type = job.file.key.type;
    if (!commands_.Has(type)) {
        Conclude(job, DeliveryOutcome::Delivered);
        return JobOutcome::Done;
    }
    // The command must not run for a content other than the one that its receipt will name.
    if (!inbox_.Holds(job.file)) {
        Log().Error("%S does not run for %S, which was changed or removed\n", commands_.ProgramOf(type),
                    job.destination);
        Conclude(job, DeliveryOutcome::Failed, "The file was changed or removed before its command ran");
        return JobOutcome::Done;
    }
    const CommandResult result =
        commands_.Run(job.file.key, job.destination, [this] { return thread_.CheckCancelled(false); });
    if (result.end == CommandResult::End::Cancelled) return JobOutcome::Cancelled;
    const bool isDone = result.end == CommandResult::End::Done;
    Conclude(job, isDone ? DeliveryOutcome::Delivered : DeliveryOutcome::Failed, result.message);
    return JobOutcome::Done;
}

/// Copies the file of a job to its destination unless it is there. Also Done when there is nothing to copy: a
/// newer content has taken its place, or the source is gone.
Delivery::JobOutcome Delivery::BringIntoPlace(const DeliveryJob& job) {
    const KelLock lock(mutexCopy_);
    if (!jobs_.IsOpen(job.id) || job.isCopied) return JobOutcome::Done;
    if (AreFilesSigned() && job.file.sha256.empty()) {
        EndAsRefused(job.id, job.file.key,
                     "It came before this tree had keys, so it is not signed; publish it again");
        return JobOutcome::Done;
    }
    if (inbox_.Holds(job.file)) {
        jobs_.SetCopied(job.id);
        return JobOutcome::Done;
    }
    if (!FileExists(job.file.sourcePath)) {
        Log().Error("%S was not delivered to %S: the file store no longer has it; publish it again\n",
                    job.file.sourcePath, job.destination);
        Conclude(job, DeliveryOutcome::Failed, "The file store no longer had it when it was to be copied");
        return JobOutcome::Done;
    }
    const KelStatus copied = inbox_.Put(job.file);
    if (!copied && copied.Error().code == kKelErrorBadInput) {
        EndAsRefused(job.id, job.file.key, copied.Error().message);
        return JobOutcome::Done;
    }
    if (!copied) {
        LogCopyFailure(copied.Error().message);
        return JobOutcome::Later;
    }
    LogCopySuccess();
    jobs_.SetCopied(job.id);
    Log().Print("Delivered %S to %S\n", job.file.key.Text(), job.destination);
    return JobOutcome::Done;
}
