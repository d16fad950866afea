#include "modules/delivery/receipt.h"

#include "kel/directory.h"
#include "kel/file.h"
#include "kel/path.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"

namespace {

constexpr std::size_t kMd5Digits = 32;  ///< what else may stand there would make a name too long for a file

KelString Ask(const char* action, const char* valueName) {
    KelContainer answer;
    const auto code = ActionDbInvokeContainer(nullptr, {}, action, answer, 0, -1, -1, nullptr);
    return code == kKelOk ? answer.GetString(valueName) : KelString();
}

KelContainer ContentOf(const DeliveryJob& job, const KelString& guid, const KelString& deviceUrl) {
    KelContainer content;
    content.SetString("GUID", guid);
    content.SetString("DeviceUrl", deviceUrl);
    content.SetString("FileType", job.file.type);
    content.SetString("FileLabel", job.file.label);
    content.SetString("FileName", job.file.name);
    content.SetString("FileChecksum", job.file.checksum);
    content.SetInt64("FileSize", job.size);
    content.SetString("Status", DeliveryOutcomeName(job.outcome));
    content.SetString("Message", job.message);
    content.SetInt64("Time", job.time);
    return content;
}

KelContainer OfferOf(const DeliveryJob& job, const KelString& guid, const KelString& path) {
    KelContainer offer;
    offer.SetString("FileType", "DeliveryReceipt");
    offer.SetString("FileLabel", job.file.type);
    offer.SetString("FileName",
                    KelFormat("%S-%S-%gd.xml", guid, job.file.checksum.substr(0, kMd5Digits), job.time));
    offer.SetBool("Upstream", true);
    offer.SetString("MovePath", path);
    return offer;
}

}  // namespace

void ReceiptSender::SetFolder(const KelString& folder) {
    folder_ = folder;
    for (const KelString& name : DirList(folder))
        FileDelete(folder + "/" + name);
}

bool ReceiptSender::Send(const DeliveryJob& job) {
    const KelString guid = Ask("IdentityGetGUID", "GUID");
    const KelString deviceUrl = Ask("FileStoreGetDeviceUrl", "DeviceUrl");
    if (guid.empty() || deviceUrl.empty()) return Fail("The modules Identity and FileStore do not answer");
    KelString path;
    if (!PathCreate(folder_) || !ContentOf(job, guid, deviceUrl).SaveToTempFile(path, folder_)) {
        return Fail(KelFormat("A receipt cannot be written in %S; check its rights and free space", folder_));
    }
    KelContainer offer = OfferOf(job, guid, path);
    const unsigned int code =
        ActionDbInvokeContainer(nullptr, {}, "FileStoreReceiveFile", offer, 0, -1, -1, nullptr);
    if (code != kKelOk) {
        FileDelete(path);
        return Fail(KelFormat("The file store did not take a receipt, error %u; see its log", code));
    }
    problem_.clear();
    return true;
}

bool ReceiptSender::Fail(const KelString& problem) {
    if (problem != problem_) log_.Warning("%S; tried again once a minute\n", problem);
    problem_ = problem;
    return false;
}
