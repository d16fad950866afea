#include "filestore/module/http_aliases.h"

#include "filestore/db/file_key.h"
#include "filestore/state/file_store.h"
#include "kel/container.h"
#include "kel/format.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"

namespace {

constexpr const char* kModuleAlias = "FileStore";
constexpr const char* kRepositoryAlias = "AlternativePackagesRepositoryPath";

/// False, with a warning, without the HTTP module: nothing can be published then.
bool CheckHttpModule() {
    if (ActionDbIsActionRegistered("HttpProtocolAddAlias")) return true;
    FileStore::debugFileStore.Warning("HttpProtocolHandler's actions are not registered.\n");
    return false;
}

bool AddAlias(const KelString& name, const KelString& path) {
    KelContainer container;
    container.SetString("AliasName", name);
    container.SetString("AliasPath", path);
    return CallLocal("HttpProtocolAddAlias", container) == kKelOk;
}

void RemoveOldAliases() {
    KelContainer container;
    container.SetString("AliasName", kModuleAlias);
    container.SetBool("CompletelyRemove", true);
    if (CallLocal("HttpProtocolDeleteAlias", container) != kKelOk)
        FileStore::debugFileStore.Error("Failed to completely remove alias %s\n", kModuleAlias);
}

void AddStoreAlias(Side side) {
    const KelString name = KelFormat("%s/%s", kModuleAlias, filestore::SideName(side));
    if (!AddAlias(name, FileStore::strStorageLocationToUse + filestore::SideName(side)))
        FileStore::debugFileStore.Error("Failed to add alias %S\n", name);
}

void AddRepositoryAlias() {
    KelString path;
    {
        KelLock lock(FileStore::mutexSettings);
        path = FileStore::strPackagesRepositoryPath;
    }
    if (AddAlias(kRepositoryAlias, path)) return;
    if (path.empty())  // no repository is configured: there is nothing to publish
        FileStore::debugFileStore.Detail("No alias %s: no repository is configured\n", kRepositoryAlias);
    else
        FileStore::debugFileStore.Error("Failed to add alias %s\n", kRepositoryAlias);
}

}  // namespace

void FileStorePublishAliases() {
    if (!CheckHttpModule()) return;
    RemoveOldAliases();
    AddStoreAlias(Side::Upstream);
    AddStoreAlias(Side::Downstream);
    if (!AddAlias(kModuleAlias, FileStore::strModuleDataPath))
        FileStore::debugFileStore.Error("Failed to add alias %s\n", kModuleAlias);
    AddRepositoryAlias();
}

void FileStorePublishRepositoryAlias() {
    if (CheckHttpModule()) AddRepositoryAlias();
}
