#include <algorithm>
#include <array>
#include <filesystem>
#include <optional>

#include "filestore/db/files_table.h"
#include "filestore/db/information_table.h"
#include "filestore/state/file_store.h"
#include "kel/directory.h"
#include "kel/format.h"
#include "kel/ini_file.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/db/connection.h"

using namespace filestore;

namespace {

constexpr std::array kStoreFolders = {"downstream", "upstream"};

/// True when a path is a folder or lies below it, once links are followed.
bool LiesWithin(const KelString& path, const KelString& folder) {
    // What cannot be resolved becomes "/": a folder that holds everything, so that it is not deleted.
    std::error_code failure;
    const auto resolved = [&](const KelString& text) -> KelString {
        return std::filesystem::weakly_canonical(text, failure).string() + "/";
    };
    return resolved(path).starts_with(resolved(folder));
}

/// A store that was copied into its own folders would be deleted with them.
bool IsApart(const KelString& location, const KelString& previous) {
    for (const char* folder : kStoreFolders)
        for (const char* source : kStoreFolders)
            if (LiesWithin(location + folder, previous + source)) {
                FileStore::debugFileStore.Error(
                    "FileStorage leads to %S, which lies in the store's own folder %S%s: the store stays "
                    "where it is; choose another folder\n",
                    location, previous, source);
                return false;
            }
    return true;
}

bool CopyStore(const KelString& previous, const KelString& location) {
    return std::all_of(kStoreFolders.begin(), kStoreFolders.end(), [&](const char* folder) {
        const KelString source = KelFormat("%S/%s/", previous, folder);
        const KelString destination = KelFormat("%S/%s/", location, folder);
        if (PathCreate(destination) && DirCopy(source, destination)) return true;
        FileStore::debugFileStore.Error(
            "Could not copy the folder %S to %S; check permissions and free space. The store stays where it "
            "is; tried again at the next start\n",
            source, destination);
        return false;
    });
}

void DeleteStore(const KelString& location) {
    for (const char* folder : kStoreFolders)
        if (!DirDelete(location + folder, true))
            FileStore::debugFileStore.Warning(
                "The store has moved, but its old folder %S%s could not be removed; remove it\n", location,
                folder);
}

/// Location and paths change together or not at all.
bool RegisterLocation(const KelString& previous, const KelString& location) {
    const KelLock lock(FileStore::mutexDownstream);
    DBTransaction transaction(*FileStore::pDbConnectionDownstream);
    return transaction.IsOpen() && WriteInformation(kStorageLocationField, location) &&
           MoveContentPaths(previous, location) && transaction.Commit();
}

}  // namespace

KelString FileStore::GetFileStorageDirectory() {
    IniFile ini;
    ini.Open(strModuleIniFile);
    KelString location;
    ini.GetEntryValue("Directories", "FileStorage", location, "");
    location = ReplaceAll(location, "\\", "/");
    if (location.empty()) return strModuleDataPath + "/";
    // The current folder is not the same at every start.
    if (!location.starts_with('/')) location = strModuleDataPath + "/" + location;
    location = CompletePath(location);
    if (!location.ends_with('/')) location += '/';
    return location;
}

bool FileStore::ChangeFileStoragePath() {
    const std::optional<KelString> recorded = ReadInformation(kStorageLocationField);
    const KelString previous =
        recorded && !recorded->empty() ? *recorded : KelFormat("%S/", strModuleDataPath);
    if (strStorageLocationToUse == previous) return true;

    // Until the new location is committed everything is where it was, so that a failure or a stop in between
    // leaves the previous location whole and in use. Only then may the old folders go.
    if (!IsApart(strStorageLocationToUse, previous) || !CopyStore(previous, strStorageLocationToUse) ||
        !RegisterLocation(previous, strStorageLocationToUse)) {
        strStorageLocationToUse = previous;
        return false;
    }
    DeleteStore(previous);
    return true;
}
