#include "agent/database_actions.h"

#include <mutex>

#include "agent/agent_actions.h"
#include "kel/directory.h"
#include "kel/path.h"
#include "kelcore/action_db.h"
#include "kelcore/db/connection.h"
#include "kelcore/error_codes.h"

namespace {

KelString FolderOfCopies(const KelString& root) {
    return root + "data/Agent/Backup";
}

unsigned int Refuse(KelContainer* container, unsigned int result, const KelString& message) {
    container->Clear();
    container->SetString("Message", message);
    return result;
}

/// Paths are given as they stand beneath the root folder.
unsigned int MakeCopies(const KelString& root, KelContainer* container) {
    static std::mutex oneAtATime;
    const std::unique_lock lock(oneAtATime, std::try_to_lock);
    if (!lock) return Refuse(container, kKelErrorNotAvailable, "another backup is being made");
    const KelString folder = FolderOfCopies(root);
    DirDelete(folder, true);
    if (!PathCreate(folder))
        return Refuse(container, kKelErrorInternal, folder + ": cannot be created; check its rights");
    const auto copies = DBConnection::CopyOpenDatabases(folder);
    if (!copies) {
        DirDelete(folder, true);
        return Refuse(container, kKelErrorInternal, copies.Error().message);
    }
    container->Clear();
    container->SetString("Folder", folder);
    for (const DBConnection::Copy& copy : *copies) {
        KelContainer values;
        values.SetString("Path", copy.path);
        values.SetString("Copy", copy.copy);
        container->SetContainer("Values", std::move(values), KelContainer::kAbsent);
    }
    return kKelOk;
}

unsigned int CheckDatabases(KelContainer* container) {
    container->Clear();
    for (const DBConnection::Health& database : DBConnection::CheckOpenDatabases()) {
        KelContainer values;
        values.SetString("Path", database.path);
        if (!database.problem.empty()) values.SetString("Problem", database.problem);
        container->SetContainer("Values", std::move(values), KelContainer::kAbsent);
    }
    return kKelOk;
}

}  // namespace

void RegisterDatabaseActions(const KelString& root) {
    ActionDbRegisterAction(
        {.signature = "AgentBackup",
         .purpose =
             "Copies all databases of this device, as they are at one moment, to a folder beneath its root "
             "folder, for a backup. The caller removes the folder; so do the next backup and the next "
             "start.",
         .outputs = "string Folder, container Values[]? {string Path (of a database), string Copy}",
         .results = "17 another backup is being made, 18 a copy failed",
         .callers = KelCallers::Local},
        [root](KelContainer* container) { return MakeCopies(root, container); }, kAgentHandle);
    ActionDbRegisterAction(
        {.signature = "AgentCheckDatabases",
         .purpose = "Checks the structure of all databases of this device, which wait meanwhile.",
         .outputs = "container Values[]? {string Path, string Problem? (absent: it is sound)}",
         .callers = KelCallers::Local},
        CheckDatabases, kAgentHandle);
}

void RemoveBackupCopies(const KelString& root) {
    DirDelete(FolderOfCopies(root), true);
}
