#include "modules/console/upstream_intake.h"

#include "kelcore/error_codes.h"
#include "kelcore/file_offer.h"

unsigned int UpstreamIntake::Receive(const KelContainer& file, std::int64_t now) {
    const FileOffer offer = FileOffer::Read(file);
    const KelString& type = offer.key.type;
    const bool isIdentity = type == "IdentityIdentity";
    if (!isIdentity && type != "DeliveryReceipt") return kKelOk;
    const KelString source = offer.sourceDevice.value_or(KelString());
    const KelString path = offer.filePath.value_or(KelString());
    const auto content = ReadReportFile(path);
    if (!content && content.Error().code == kKelErrorNotAvailable) {
        log_.Warning("The file of type %S from %S is tried again later: %S\n", type, source,
                     content.Error().message);
        return kKelAnswerTryLater;
    }
    const auto isWritten = !content     ? KelResult<bool>(content.Error())
                           : isIdentity ? StoreIdentity(*content, source, now)
                                        : StoreReceipt(*content, source, now);
    // An unusable file does not improve by coming again: only a failure of disk or database is worth a
    // retry.
    if (!isWritten) {
        log_.Warning("The file %S of type %S from %S is ignored: %S\n", path, type, source,
                     isWritten.Error().message);
        return kKelAnswerStaysHere;
    }
    return *isWritten ? kKelAnswerStaysHere : kKelAnswerTryLater;
}

KelResult<bool> UpstreamIntake::StoreIdentity(const KelContainer& content, const KelString& sourceDevice,
                                              std::int64_t now) {
    const auto report = ReadIdentityReport(content, sourceDevice);
    if (!report) return report.Error();
    log_.Detail("Device %S (%S) sent its identity\n", report->device.guid, report->device.name);
    const KelString& guid = report->device.guid;
    const auto isLost = devices_.HasLostItsStore(*report, now);
    if (!isLost) return false;
    // Stored only then: until it is, the next report shows the loss as well.
    if (*isLost) {
        log_.Warning("The file store of device %S has lost its database\n", guid);
        if (!publisher_.Repeat(guid)) return false;
    } else if (report->device.role == "master") {
        if (!publisher_.RepeatOnceForMaster()) return false;
        withdrawer_.ForgetOrders({});
    }
    const auto hasMoved = devices_.HasMoved(*report, now);
    const auto wasAway =
        report->device.role == "master" ? KelResult<bool>(false) : devices_.WasAway(guid, now);
    return hasMoved && wasAway && devices_.Store(*report, now) && RepeatWhenBack(guid, *hasMoved || *wasAway);
}

/// What is repeated goes where the device is now: its report has been stored.
bool UpstreamIntake::RepeatWhenBack(const KelString& guid, bool isBack) {
    {
        const KelLock lock(mutex_);
        if (isBack) back_.insert(guid);
        if (!back_.contains(guid)) return true;
    }
    log_.Print("Device %S has moved or was away: what is pending for it is ordered again\n", guid);
    if (!publisher_.Repeat(guid)) return false;
    const KelLock lock(mutex_);
    back_.erase(guid);
    return true;
}

KelResult<bool> UpstreamIntake::StoreReceipt(const KelContainer& content, const KelString& sourceDevice,
                                             std::int64_t now) {
    const auto receipt = ReadDeliveryReceipt(content, sourceDevice);
    if (!receipt) return receipt.Error();
    log_.Detail("Device %S: %S is %S\n", receipt->guid, receipt->file.Text(), receipt->status);
    if (!publications_.Store(*receipt, now)) return false;
    if (receipt->isRefused)
        log_.Error("Device %S was brought %S: %S\n", receipt->guid, receipt->file.Text(), receipt->message);
    if (!receipt->publications.empty()) withdrawer_.ForgetOrders(receipt->publications);
    if (withdrawer_.HasFailed()) withdrawer_.HandOver();
    return true;
}
