#include "filestore/up/lost_store.h"

#include <ctime>
#include <functional>

#include "filestore/db/file_status.h"
#include "filestore/db/files_selection.h"
#include "filestore/db/files_table.h"
#include "filestore/db/information_table.h"
#include "filestore/state/device.h"
#include "filestore/state/file_store.h"
#include "filestore/up/upstream_file.h"
#include "kel/checksum.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"

namespace filestore {

namespace {

constexpr std::int64_t kTimeOfChildren = 86400;  ///< seconds
constexpr const char* kNone = "0";
constexpr std::uint32_t kRoleClient = 4;

bool IsRole(std::uint32_t role) {
    return static_cast<std::uint32_t>(FileStore::eKeepCopyMask) == role;
}

/// Calls `visit` for the path of every file beneath the storage folder's `path`, which itself lies there.
void ForEachFile(const KelString& path, const std::function<void(const KelString&)>& visit) {
    const KelString absolute = FileStore::strStorageLocationToUse + path;
    if (!DirExists(absolute)) return visit(path);
    for (const KelString& name : DirList(absolute))
        if (!name.starts_with(kTempFilePrefix)) ForEachFile(path + "/" + name, visit);
}

bool IsIntact(const KelString& path, const KelString& expected) {
    KelString checksum;
    if (FileMd5(path, checksum) && IsEqualTo(checksum, expected, false)) return true;
    FileStore::debugFileStore.Warning("%S is in the store, unknown and damaged: remove it\n", path);
    return false;
}

FileStoreEntry EntryOf(const StoredPlace& place, const KelString& path, const KelString& ownUrl) {
    FileStoreEntry entry(place.key);
    entry.FilePath = path;
    entry.FileSize = FileGetSize64(path);
    entry.Upstream = true;
    entry.Repeated = true;
    entry.SourceDevice = ownUrl;
    entry.TransportMode = kTransportLocal;
    entry.FileStatus = kStatusToBeHandled;
    return entry;
}

bool IsKnown(const StoredPlace& place) {
    const auto file = FindUpstreamFileOfUrl(StoredUrl(Side::Upstream, place.key, place.source));
    return !file || file->row;
}

/// False when the database failed.
bool RecordUnknownFile(const KelString& stored, const KelString& ownUrl) {
    const auto place = ParseStoredPath(stored);
    if (!place || (!place->source.empty() && place->source != SourceFolder(ownUrl)) || IsKnown(*place))
        return true;
    const KelString path = FileStore::strStorageLocationToUse + stored;
    if (!IsIntact(path, place->key.checksum)) return true;
    const KelLock lock(FileStore::mutexUpstream);
    if (IsKnown(*place)) return true;
    FileStore::debugFileStore.Print("%S was found in the store and is sent again\n", path);
    return EntryOf(*place, path, ownUrl).CreateInDatabase(Side::Upstream) != 0;
}

}  // namespace

bool OfferAgainAfterLoss(const KelString& parentUrl, const KelString& parentGuid) {
    KelContainer answer;
    if (CallDevice(parentUrl, "FileStoreGetDeviceUrl", answer) != kKelOk) return false;
    const KelString id = answer.GetString("UpstreamDatabase");
    if (id.empty()) return true;  // an older agent
    const KelString present = parentGuid + "/" + id;
    const KelString known = ReadInformation(kParentStoreField, Side::Upstream).value_or("");
    if (known == present) return true;
    // Another parent has not lost anything: what went to the one before goes on from there.
    const bool isLost = known.starts_with(parentGuid + "/");
    if (isLost)
        FileStore::debugFileStore.Warning(
            "PushThread: The parent has lost its upstream database: what was sent to it is offered again\n");
    if (isLost && !RepeatSentFiles()) return false;
    FileStore::WakeWorker(Worker::Push);
    return WriteInformation(kParentStoreField, present, Side::Upstream);
}

void NoteNewDatabase() {
    if (ReadInformation(kUnknownFilesField, Side::Upstream)) return;
    const bool isNew = !HasFiles(Side::Upstream);
    WriteInformation(kUnknownFilesField, isNew ? KelFormat("%ld", std::time(nullptr)) : KelString(kNone),
                     Side::Upstream);
}

void RecordUnknownFiles() {
    const KelString since = ReadInformation(kUnknownFilesField, Side::Upstream).value_or(kNone);
    const KelString ownUrl = OurDeviceUrl();
    if (since == kNone || ownUrl.empty()) return;
    const auto begin = static_cast<std::int64_t>(ParseUint64(since).value_or(0));
    if (!IsRole(kRoleClient) && std::time(nullptr) < begin + kTimeOfChildren) return;
    bool complete = true;
    ForEachFile(SideName(Side::Upstream), [&complete, &ownUrl](const KelString& path) {
        complete = RecordUnknownFile(path, ownUrl) && complete;
    });
    if (complete) WriteInformation(kUnknownFilesField, kNone, Side::Upstream);
    FileStore::WakeWorker(Worker::Handler);
}

}  // namespace filestore
