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
    const auto change = devices_.Compare(*report, now);
    if (!change) return false;
    const KelString& guid = report->device.guid;
    if (change->hasLostItsStore)
        log_.Warning("The file store of device %S has lost its database\n", guid);
    else if (change->hasMoved)
        log_.Print("Device %S (%S) has moved\n", guid, report->device.name);
    // Stored first, because what is repeated goes where the device is now.
    if (!devices_.Store(*report, now)) return false;
    if (change->hasLostItsStore || change->hasMoved) SetRepeated(guid, false);
    if (!IsRepeated(guid)) {
        if (!publisher_.Repeat(guid)) return false;
        SetRepeated(guid, true);
    }
    if (report->device.role != "master") return true;
    if (!publisher_.RepeatOnceForMaster()) return false;
    withdrawer_.ForgetOrders({});
    return true;
}

bool UpstreamIntake::IsRepeated(const KelString& guid) {
    const KelLock lock(mutex_);
    return !toRepeat_.contains(guid);
}

void UpstreamIntake::SetRepeated(const KelString& guid, bool isRepeated) {
    const KelLock lock(mutex_);
    if (isRepeated)
        toRepeat_.erase(guid);
    else
        toRepeat_.insert(guid);
}

KelResult<bool> UpstreamIntake::StoreReceipt(const KelContainer& content, const KelString& sourceDevice,
                                             std::int64_t now) {
    const auto receipt = ReadDeliveryReceipt(content, sourceDevice);
    if (!receipt) return receipt.Error();
    log_.Detail("Device %S: %S is %S\n", receipt->guid, receipt->file.Text(), receipt->status);
    if (!publications_.Store(*receipt, now)) return false;
    if (!receipt->publications.empty()) withdrawer_.ForgetOrders(receipt->publications);
    if (withdrawer_.HasFailed()) withdrawer_.HandOver();
    return true;
}
