#include "modules/delivery/receipt.h"

#include "kel/directory.h"
#include "kel/file.h"
#include "kel/path.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_offer.h"
#include "kelcore/file_values.h"

namespace {

constexpr std::size_t kMd5Digits =
    32;  ///< a longer text in its place could make the name too long for a file

KelString AskModule(const char* action, const char* valueName) {
    KelContainer answer;
    return CallLocal(action, answer) == kKelOk ? answer.GetString(valueName) : KelString();
}

KelContainer ContentOf(const DeliveryJob& job, const KelString& guid, const KelString& deviceUrl) {
    KelContainer content;
    content.SetString("GUID", guid);
    content.SetString("DeviceUrl", deviceUrl);
    job.file.key.Write(content);
    for (std::uint32_t i = 0; i < job.file.publications.size(); ++i)
        content.SetString(kValuePublicationId, job.file.publications[i], i);
    content.SetInt64(kValueFileSize, job.size);
    content.SetString("Status", DeliveryOutcomeName(job.outcome));
    content.SetString("Message", job.message);
    content.SetInt64("Time", job.time);
    if (job.refused) content.SetBool("Refused", true);
    return content;
}

KelContainer OfferOf(const DeliveryJob& job, const KelString& guid, const KelString& path) {
    const FileKey& file = job.file.key;
    FileOffer offer;
    offer.key.type = kReceiptFileType;
    offer.key.label = file.type;
    offer.key.name = KelFormat("%S-%S-%gd.xml", guid, file.checksum.substr(0, kMd5Digits), job.time);
    offer.upstream = true;
    offer.movePath = path;
    return offer.ToContainer();  // without a checksum: the file store computes it
}

}  // namespace

void ReceiptSender::SetFolder(const KelString& folder) {
    folder_ = folder;
    for (const KelString& name : DirList(folder))
        FileDelete(folder + "/" + name);
}

bool ReceiptSender::Send(const DeliveryJob& job) {
    const KelString guid = AskModule("IdentityGetGUID", "GUID");
    const KelString deviceUrl = AskModule("FileStoreGetDeviceUrl", "DeviceUrl");
    if (guid.empty() || deviceUrl.empty()) return Fail("The modules Identity and FileStore do not answer");
    KelString path;
    if (!PathCreate(folder_) || !ContentOf(job, guid, deviceUrl).SaveToTempFile(path, folder_)) {
        return Fail(KelFormat("A receipt cannot be written in %S; check its rights and free space", folder_));
    }
    KelContainer offer = OfferOf(job, guid, path);
    const unsigned int code = CallLocal("FileStoreReceiveFile", offer);
    if (code != kKelOk) {
        FileDelete(path);  // the next try writes it again
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
