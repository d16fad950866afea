#include "filestore/module/http_aliases.h"

#include "filestore/module/file_store.h"
#include "kel/format.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"

namespace {

constexpr const char* kModuleAlias = "FileStore";
constexpr const char* kRepositoryAlias = "AlternativePackagesRepositoryPath";

bool IsHttpModuleThere() {
    if (ActionDbIsActionRegistered("HttpProtocolAddAlias")) return true;
    FileStore::debugFileStore.Warning("HttpProtocolHandler's actions are not registered.\n");
    return false;
}

bool AddAlias(const KelString& name, const KelString& path) {
    KelContainer container;
    container.SetString("AliasName", name);
    container.SetString("AliasPath", path);
    return ActionDbInvokeContainer(nullptr, "", "HttpProtocolAddAlias", container, 0, -1, -1, nullptr) ==
           kKelOk;
}

void RemoveOldAliases() {
    KelContainer container;
    container.SetString("AliasName", kModuleAlias);
    container.SetBool("CompletelyRemove", true);
    if (ActionDbInvokeContainer(nullptr, "", "HttpProtocolDeleteAlias", container, 0, -1, -1, nullptr) !=
        kKelOk)
        FileStore::debugFileStore.Error("Failed to completely remove alias %s\n", kModuleAlias);
}

void AddStoreAlias(const char* folder) {
    const KelString name = KelFormat("%s/%s", kModuleAlias, folder);
    if (!AddAlias(name, KelFormat("%S%s", FileStore::strStorageLocationToUse, folder)))
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
    if (!IsHttpModuleThere()) return;
    RemoveOldAliases();
    AddStoreAlias("upstream");
    AddStoreAlias("downstream");
    if (!AddAlias(kModuleAlias, FileStore::strModuleDataPath))
        FileStore::debugFileStore.Error("Failed to add alias %s\n", kModuleAlias);
    AddRepositoryAlias();
}

void FileStorePublishRepositoryAlias() {
    if (IsHttpModuleThere()) AddRepositoryAlias();
}
