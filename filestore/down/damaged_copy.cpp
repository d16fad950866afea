#include "filestore/down/damaged_copy.h"

#include <ctime>
#include <unordered_map>

#include "filestore/db/file_status.h"
#include "filestore/db/files_table.h"
#include "filestore/down/download_outcome.h"
#include "filestore/state/device.h"
#include "filestore/state/file_store.h"
#include "filestore/state/store_layout.h"
#include "kel/checksum.h"
#include "kel/file.h"
#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"

namespace filestore {

namespace {

struct Report {
    FileKey key;
    std::int64_t verified = 0;  ///< seconds since the epoch; 0: not yet
};

/// Reports beyond these are dropped: the device repeats them with its next failed download.
constexpr std::size_t kMostReports = 10'000;

KelMutex mutexReports;
KelHash<KelString, Report> reports KEL_GUARDED_BY(mutexReports);  ///< by checksum and key

/// What is to be verified now; forgets what was verified so long ago that it may be verified again.
KelVector<FileKey> TakeReports(std::int64_t now) {
    const KelLock lock(mutexReports);
    const auto timeOut = static_cast<std::int64_t>(FileStore::ulPullTimeout);
    std::erase_if(reports, [now, timeOut](const auto& entry) {
        const std::int64_t verified = entry.second.verified;
        return verified != 0 && (verified > now || verified + timeOut <= now);
    });
    KelVector<FileKey> keys;
    for (auto& [text, report] : reports) {
        if (report.verified == 0) keys.push_back(report.key);
        report.verified = report.verified == 0 ? now : report.verified;
    }
    return keys;
}

bool IsIntact(const FileStoreEntry& file, const KelString& path) {
    KelString checksum;
    return FileMd5(path, checksum) && IsEqualTo(checksum, file.FileChecksum, false);
}

/// The row may have changed while the content was read: only an available file is requested.
void FetchAnew(const FileStoreEntry& file, const KelString& path) {
    const KelLock lock(FileStore::mutexDownstream);
    if (ReadFileStatus(Side::Downstream, file.FileId) != kStatusAvailable ||
        !UpdateFileStatus(Side::Downstream, file.FileId, kStatusToBeRequested, NextTry::AtOnce))
        return;
    FileDelete(path);
    FileStore::WakeWorker(Worker::Push);
}

void Verify(const FileKey& key) {
    FileStoreEntry file(key);
    if (!LoadKnownFile(Side::Downstream, file) || file.FileStatus != kStatusAvailable ||
        MayHaveAnyContent(file))
        return;
    const KelString path = ContentPath(file, Side::Downstream);
    if (IsIntact(file, path)) {
        FileStore::debugFileStore.Print(
            "PullThread: The copy %S, which a device could not use, is intact: check the link to that "
            "device\n",
            path);
        return;
    }
    // The master has no parent to fetch it from.
    if (file.ExternalFile || ActionDbIsActionRegistered("QuarnelDbRunScript")) {
        FileStore::debugFileStore.Error(
            "PullThread: The copy %S is damaged: restore it or publish it again\n", path);
        return;
    }
    FileStore::debugFileStore.Warning("PullThread: The copy %S is damaged and is fetched anew\n", path);
    FetchAnew(file, path);
}

}  // namespace

void ReportDamage(const FileStoreEntry& file, const KelString& sender) {
    KelContainer call;
    file.Key().Write(call);
    call.SetString(kValueDeviceGuid, OurDeviceUrl());
    call.SetBool(kValueContentDamaged, true);
    if (const unsigned int error = CallDevice(sender, "FileStoreRequestFile", call); error != kKelOk)
        FileStore::debugFileStore.Detail("PullThread: The report of a damaged copy failed, error %u\n",
                                         error);
}

void RememberReportedDamage(const FileKey& key) {
    const KelLock lock(mutexReports);
    if (reports.size() >= kMostReports) return;
    reports.try_emplace(key.Text() + "/" + key.checksum, Report{key});
    FileStore::WakeWorker(Worker::Pull);
}

void VerifyReportedCopies(const std::function<bool()>& cancelled) {
    for (const FileKey& key : TakeReports(std::time(nullptr))) {
        if (cancelled()) return;
        Verify(key);
    }
}

}  // namespace filestore
