#include <algorithm>
#include <array>
#include <filesystem>
#include <optional>

#include "filestore/db/schema.h"
#include "filestore/module/file_store.h"
#include "kel/directory.h"
#include "kel/format.h"
#include "kel/ini_file.h"
#include "kel/path.h"
#include "kel/text.h"

using namespace filestore;

namespace {

constexpr const char* kCurrentPathField = "FileStorageCurrentPath";
constexpr std::array kStoreFolders = {"downstream", "upstream"};

/// The location that the database says is in use; nothing when it has no such row.
std::optional<KelString> RecordedLocation() {
    const auto result = FileStore::pDbConnectionDownstream->Query(KelFormat(
        "SELECT FieldValue FROM %s WHERE FieldName = '%s'", kTableDatabaseInformation, kCurrentPathField));
    if (!result || result->GetRowCount() == 0) return std::nullopt;
    return result->GetString(0, std::size_t{0});
}

/// Whether a path is a folder or below it, once links are followed.
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

bool RecordLocation(bool rowExists, const KelString& location) {
    const KelString statement = rowExists
                                    ? KelFormat("UPDATE %s SET FieldValue = '%Q'WHERE FieldName = '%s'",
                                                kTableDatabaseInformation, location, kCurrentPathField)
                                    : KelFormat("INSERT INTO %s (FieldName, FieldValue) VALUES ('%s', '%Q')",
                                                kTableDatabaseInformation, kCurrentPathField, location);
    return FileStore::pDbConnectionDownstream->Query(statement) != nullptr;
}

bool RewritePaths(const KelString& previous, const KelString& location) {
    return FileStore::pDbConnectionDownstream->Query(
               KelFormat("UPDATE %s set FilePath = '%Q' || substr(FilePath, length('%Q')+1, 256) WHERE "
                         "FilePath LIKE '%Q%'",
                         kTableFiles, location, previous, previous)) != nullptr;
}

/// Location and paths change together or not at all.
bool RegisterLocation(bool rowExists, const KelString& previous, const KelString& location) {
    const KelLock lock(FileStore::mutexDownstream);
    DBTransaction transaction(*FileStore::pDbConnectionDownstream);
    return transaction.IsOpen() && RecordLocation(rowExists, location) && RewritePaths(previous, location) &&
           transaction.Commit();
}

}  // namespace

KelString FileStore::GetFileStorageDirectory() {
    IniFile ini;
    ini.Open(strModuleIniFile);
    KelString location;
    ini.GetEntryValue("Directories", "FileStorage", location, "");
    location = ReplaceAll(location, "\\", "/");
    if (location.empty()) return strModuleDataPath + "/";
    location = CompletePath(location);
    if (!location.ends_with('/')) location += '/';
    return location;
}

bool FileStore::ChangeFileStoragePath() {
    const std::optional<KelString> recorded = RecordedLocation();
    const KelString previous =
        recorded && !recorded->empty() ? *recorded : KelFormat("%S/", strModuleDataPath);
    if (strStorageLocationToUse == previous) return true;

    // Until the new location is committed everything is where it was, so that a failure or a stop in between
    // leaves the previous location whole and in use. Only then may the old folders go.
    if (!IsApart(strStorageLocationToUse, previous) || !CopyStore(previous, strStorageLocationToUse) ||
        !RegisterLocation(recorded.has_value(), previous, strStorageLocationToUse)) {
        strStorageLocationToUse = previous;
        return false;
    }
    DeleteStore(previous);
    return true;
}
