#include "modules/console/upstream_intake.h"

#include "kelcore/error_codes.h"

namespace {

constexpr unsigned int kNotReady = 44001;   ///< the file store offers the file again
constexpr unsigned int kStaysHere = 44003;  ///< the file store keeps the file and sends it nowhere

}  // namespace

unsigned int UpstreamIntake::Take(const KelContainer& file, std::int64_t now) {
    const KelString type = file.GetString("FileType");
    const bool isIdentity = type == "IdentityIdentity";
    if (!isIdentity && type != "DeliveryReceipt") return kKelOk;
    const KelString source = file.GetString("SourceDevice");
    const KelString path = file.GetString("FilePath");
    const auto content = ReadReportFile(path);
    const auto isWritten = !content     ? KelResult<bool>(content.Error())
                           : isIdentity ? TakeIdentity(*content, source, now)
                                        : TakeReceipt(*content, source, now);
    if (!isWritten) {
        log_.Warning("The file %S of type %S from %S is ignored: %S\n", path, type, source,
                     isWritten.Error().message);
        return kStaysHere;
    }
    return *isWritten ? kStaysHere : kNotReady;
}

KelResult<bool> UpstreamIntake::TakeIdentity(const KelContainer& content, const KelString& sourceDevice,
                                             std::int64_t now) {
    const auto report = ReadIdentityReport(content, sourceDevice);
    if (!report) return report.Error();
    log_.Detail("Device %S (%S) told who it is\n", report->device.guid, report->device.name);
    return devices_.Take(*report, now);
}

KelResult<bool> UpstreamIntake::TakeReceipt(const KelContainer& content, const KelString& sourceDevice,
                                            std::int64_t now) {
    const auto receipt = ReadDeliveryReceipt(content, sourceDevice);
    if (!receipt) return receipt.Error();
    log_.Detail("Device %S: %S/%S/%S is %S\n", receipt->guid, receipt->fileType, receipt->fileLabel,
                receipt->fileName, receipt->status);
    return publications_.Take(*receipt, now);
}
