#include "filestore/exchange/local_source.h"

#include <algorithm>
#include <filesystem>

#include "filestore/state/file_store.h"
#include "filestore/state/store_layout.h"
#include "filestore/state/store_space.h"
#include "kel/checksum.h"
#include "kel/file.h"
#include "kel/path.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"

namespace fs = std::filesystem;

namespace filestore {

namespace {

/// Under which FileStore::failures knows that there is no room.
constexpr const char* kSpaceFailure = "local space";

bool FailToPlace(const KelString& source, const KelString& destination) {
    FileStore::debugFileStore.Error(
        "Cannot bring '%S' to '%S': check space and permissions, then offer it again\n", source, destination);
    return false;
}

/// Puts the content in its place as a hard link. False where that is impossible: on another file system, or
/// for a file of another user.
bool LinkContent(const KelString& source, const KelString& destination) {
    std::error_code error;
    fs::create_hard_link(source, destination, error);
    if (!error) return FileSync(destination);
    KelString name;
    if (error != std::errc::file_exists || !FileCreateTemp(StoreWorkFolder(), name)) return false;
    FileDelete(name);
    fs::create_hard_link(source, name, error);
    const bool placed = !error && FileRename(name, destination);
    FileDelete(name);  // a rename between two names of one file leaves both
    return placed;
}

/// False, logged, when the store may not take a copy of the source.
bool Reserve(SpaceReservation& space, const LocalSource& source, const KelString& folder,
             WaitingReason& why) {
    const auto size = static_cast<std::uint64_t>(std::max<std::int64_t>(FileGetSize64(source.path), 0));
    std::uint64_t left = 0;
    if (space.Take(folder, size, left)) {
        FileStore::failures.Succeeded(kSpaceFailure, "There is room for files of this device again");
        return true;
    }
    why = {.code = Waiting::DiskFull, .bytes = left, .whole = size};
    FileStore::failures.Failed(
        KelDebugLevel::Error, kSpaceFailure,
        KelFormat("Refusing '%S', which has %lu bytes, and there is room for %lu: make "
                  "room in %S, then offer it again",
                  source.path, size, left, FileStore::strStorageLocationToUse));
    return false;
}

bool CopyContent(const LocalSource& source, const KelString& destination) {
    if (!FileCopy(source.path, destination, false, StoreWorkFolder()))
        return FailToPlace(source.path, destination);
    KelString checksum;
    if (source.computedChecksum.empty() ||
        (FileMd5(destination, checksum) && checksum == source.computedChecksum))
        return true;
    FileDelete(destination);
    FileStore::debugFileStore.Warning(
        "Refusing '%S', which changed while it was taken: offer it again when nobody writes to it\n",
        source.path);
    return false;
}

/// True when both paths are the same name of one file, which must then not be removed.
bool IsSameName(const KelString& left, const KelString& right) {
    const fs::path a = CompletePath(left), b = CompletePath(right);
    std::error_code error;
    return a.filename() == b.filename() && fs::equivalent(a.parent_path(), b.parent_path(), error);
}

}  // namespace

LocalSource ReadLocalSource(const KelContainer& arguments) {
    using Kind = LocalSource::Kind;
    if (arguments.Has(kValueMovePath)) return {Kind::Move, arguments.GetString(kValueMovePath)};
    if (arguments.Has(kValueCopyPath)) return {Kind::Copy, arguments.GetString(kValueCopyPath)};
    if (arguments.Has(kValueFilePath)) return {Kind::External, arguments.GetString(kValueFilePath)};
    return {};
}

bool FillChecksum(const KelString& path, KelString& checksum) {
    if (!checksum.empty() || (FileExists(path) && FileMd5(path, checksum))) return true;
    FileStore::debugFileStore.Warning("Refusing an offer whose file '%S' cannot be read\n", path);
    return false;
}

bool FillChecksum(LocalSource& source, KelString& checksum) {
    const bool isGiven = !checksum.empty();
    if (!FillChecksum(source.path, checksum)) return false;
    if (!isGiven) source.computedChecksum = checksum;
    return true;
}

bool CheckUpstreamSize(const KelString& path, std::int64_t size) {
    if (size < 0)
        FileStore::debugFileStore.Warning("Refusing an offer whose file '%S' cannot be read\n", path);
    if (size == 0)
        FileStore::debugFileStore.Warning(
            "Refusing the empty file '%S': no device above would take it, so it could never be delivered\n",
            path);
    return size > 0;
}

bool PlaceContent(const LocalSource& source, const KelString& destination, bool keepExisting,
                  WaitingReason& why) {
    if (source.kind == LocalSource::Kind::External) return true;
    const std::int64_t sourceSize = FileGetSize64(source.path);
    const std::int64_t present = FileGetSize64(destination);
    if (present >= 0 && (sourceSize < 0 || (keepExisting && sourceSize == present))) return true;
    KelString folder, name;
    SplitPath(destination, folder, name);
    if (!PathCreate(folder) || !PathCreate(StoreWorkFolder())) return FailToPlace(source.path, destination);
    const bool isMove = source.kind == LocalSource::Kind::Move;
    if (isMove && LinkContent(source.path, destination)) return true;
    SpaceReservation space;
    if (!Reserve(space, source, folder, why) || !CopyContent(source, destination)) return false;
    space.Complete();
    return true;
}

unsigned int AnswerNotTaken(KelContainer& arguments, const WaitingReason& why) {
    if (why.code != Waiting::DiskFull) return kKelErrorBadInput;
    arguments.SetString("Message", why.Text());
    return kKelErrorNotAvailable;
}

void RemovePlaced(const LocalSource& source, const KelString& destination) {
    if (source.kind == LocalSource::Kind::External || !FileExists(source.path) ||
        IsSameName(source.path, destination))
        return;
    DeleteFileAndFolder(destination);
}

void RemoveMovedSource(const LocalSource& source, const KelString& destination) {
    if (source.kind != LocalSource::Kind::Move || IsSameName(source.path, destination)) return;
    if (!FileDelete(source.path))
        FileStore::debugFileStore.Warning("Cannot remove '%S', whose content is in the store: remove it\n",
                                          source.path);
}

std::int64_t ContentSize(const LocalSource& source, const KelString& destination) {
    const std::int64_t size = FileGetSize64(source.path);
    if (size >= 0 || source.kind == LocalSource::Kind::External) return size;
    return FileGetSize64(destination);
}

}  // namespace filestore
