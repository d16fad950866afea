#include <optional>

#include "filestore/db/information_table.h"
#include "filestore/module/store_move.h"
#include "filestore/state/file_store.h"
#include "kel/format.h"
#include "kel/ini_file.h"
#include "kel/path.h"
#include "kel/text.h"

using namespace filestore;

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
    FinishEarlierMove(previous);
    if (strStorageLocationToUse == previous || MoveStore(previous, strStorageLocationToUse)) return true;
    strStorageLocationToUse = previous;
    return false;
}
