// The work of the class Delivery on its jobs; registration and actions are in delivery.cpp.

#include <algorithm>
#include <ctime>

#include "kel/file.h"
#include "kelcore/error_codes.h"
#include "modules/delivery/delivery.h"

namespace {

/// Failures after which the other receipts wait for the next try: most likely they would fail too.
constexpr int kMaxReceiptFailures = 10;

}  // namespace

/// Copies a file to the inbox on the caller's thread, so that the file store knows at once whether it
/// succeeded. Commands are left to the thread for jobs: they may take minutes.
unsigned int Delivery::Deliver(const ReceivedFile& file) {
    const KelString destination = inbox_.PathOf(file);
    const bool hasCommand = commands_.Has(file.key.type);
    {
        const KelLock lock(mutexCopy_);
        if (inbox_.Holds(file)) {
            Log().Detail("%S is in place already\n", destination);
            jobs_.EndOtherJobFor(file, destination);
            return kKelOk;
        }
        // Written to disk before the copy: a stop in between must lose neither the command nor the receipt.
        const std::uint64_t job = jobs_.Add(
            file, destination, std::max<std::int64_t>(0, FileGetSize64(file.sourcePath)), std::time(nullptr));
        if (const KelStatus copied = inbox_.Put(file); !copied) {
            LogCopyFailure(copied.Error().message);
            thread_.Signal(0);  // retries the copy even if the file store does not hand the file over again
            return kKelAnswerTryLater;
        }
        copyFailure_.clear();
        jobs_.SetCopied(job);
        // The outcome is not written: after a restart it follows from the file in place.
        if (!hasCommand) jobs_.SetOutcome(job, DeliveryOutcome::Delivered, {}, false);
    }
    Log().Print("Delivered %S to %S\n", file.key.Text(), destination);
    (hasCommand ? thread_ : receiptThread_).Signal(0);
    return kKelOk;
}

void Delivery::LogCopyFailure(const KelString& message) {
    if (message == copyFailure_) return;
    copyFailure_ = message;
    Log().Error("%S; tried again once a minute\n", message);
}

bool Delivery::WorkOnJobs() {
    bool isWorkLeft = false;
    for (const DeliveryJob& job : jobs_.ListOpen()) {
        const JobOutcome outcome = WorkOnJob(job);
        if (outcome == JobOutcome::Cancelled) return true;
        if (outcome == JobOutcome::Later) isWorkLeft = true;
    }
    return isWorkLeft;
}

bool Delivery::SendReceipts() {
    int failures = 0;
    for (const DeliveryJob& job : jobs_.ListConcluded()) {
        if (receiptThread_.CheckCancelled(false) || failures == kMaxReceiptFailures) return true;
        if (receipts_.Send(job)) {
            jobs_.Remove(job.id);
        } else {
            ++failures;
        }
    }
    return failures > 0;
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
    if (!jobs_.IsOpen(job.id) || job.isCopied || inbox_.Holds(job.file)) return JobOutcome::Done;
    if (!FileExists(job.file.sourcePath)) {
        Log().Error("%S was not delivered to %S: the file store no longer has it; publish it again\n",
                    job.file.sourcePath, job.destination);
        Conclude(job, DeliveryOutcome::Failed, "The file store no longer had it when it was to be copied");
        return JobOutcome::Done;
    }
    if (const KelStatus copied = inbox_.Put(job.file); !copied) {
        LogCopyFailure(copied.Error().message);
        return JobOutcome::Later;
    }
    copyFailure_.clear();
    jobs_.SetCopied(job.id);
    Log().Print("Delivered %S to %S\n", job.file.key.Text(), job.destination);
    return JobOutcome::Done;
}
