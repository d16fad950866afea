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

/// The location that the database says is in use; nothing when it has no such row.
std::optional<KelString> RecordedLocation() {
    const auto result = FileStore::pDbConnectionDownstream->Query(KelFormat(
        "SELECT FieldValue FROM %s WHERE FieldName = '%s'", kTableDatabaseInformation, kCurrentPathField));
    if (!result || result->GetRowCount() == 0) return std::nullopt;
    return result->GetString(0, std::size_t{0});
}

bool MoveFolder(const KelString& source, const KelString& destination) {
    if (PathCreate(destination) && DirCopy(source, destination) && DirDelete(source, true)) return true;
    FileStore::debugFileStore.Error(
        "Could not move the folder %S to %S; check permissions and free space. The store stays where it is; "
        "tried again at the next start\n",
        source, destination);
    return false;
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

    for (const char* folder : {"downstream", "upstream"})
        if (!MoveFolder(KelFormat("%S/%s/", previous, folder),
                        KelFormat("%S/%s/", strStorageLocationToUse, folder)))
            return false;

    KelLock lock(mutexDownstream);
    DBTransaction transaction(*pDbConnectionDownstream);
    return RecordLocation(recorded.has_value(), strStorageLocationToUse) &&
           RewritePaths(previous, strStorageLocationToUse) && transaction.Commit();
}
