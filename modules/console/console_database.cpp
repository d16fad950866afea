#include "modules/console/console_database.h"

#include <algorithm>
#include <array>

#include "kel/checksum.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/text.h"

namespace {

constexpr std::size_t kIdBytes = 8;
constexpr std::array kTables = {"Devices", "Publications", "PublicationTargets", "GroupMembers",
                                "StagedPublications"};

}  // namespace

bool ConsoleDatabase::Open(const KelString& folder, const KelString& iniFile) {
    const KelLock lock(mutex_);
    const KelString path = folder + "/Console.sqlite";
    pool_.SetDebug(log_);
    pool_.SetDatabase("SQLITE32", "", path, "", "", 0);
    connection_ = pool_.CreateConnection();
    if (!connection_) return false;
    connection_->DisableBackupResult();
    if (!connection_->RunUpgrade("DatabaseInformation", "FieldName", "FieldValue", iniFile, "SqlUpgrade",
                                 nullptr)) {
        connection_.reset();
        return false;
    }
    const KelVector<KelString> present = connection_->GetTablesList();
    for (const char* table : kTables) {
        if (std::find(present.begin(), present.end(), table) != present.end()) continue;
        log_.Error("%S has no table %s, which section SqlUpgrade of %S makes; install the program again\n",
                   path, table, iniFile);
        connection_.reset();
        return false;
    }
    ForgetIdAfterRestore(folder + "/restored");
    return true;
}

void ConsoleDatabase::ForgetIdAfterRestore(const KelString& mark) {
    if (!FileExists(mark) || !Write({"DELETE FROM DatabaseInformation WHERE FieldName = 'ConsoleId'"}))
        return;
    log_.Print("The console was restored from a backup; it asks all devices to report themselves again\n");
    FileDelete(mark);
}

KelString ConsoleDatabase::Id() {
    const auto read = [this] {
        return Select("SELECT FieldValue FROM DatabaseInformation WHERE FieldName = 'ConsoleId'");
    };
    const KelLock lock(mutex_);
    const auto known = read();
    if (!known) return {};
    if (known->GetRowCount() != 0) return known->GetString(0, std::size_t{0});
    const KelString made = HexText(RandomBytes(kIdBytes));
    return Write({KelFormat(
               "INSERT INTO DatabaseInformation (FieldName, FieldValue) VALUES ('ConsoleId', '%S')", made)})
               ? made
               : KelString();
}

void ConsoleDatabase::Close() {
    const KelLock lock(mutex_);
    connection_.reset();
}

std::shared_ptr<const DBResult> ConsoleDatabase::Select(const KelString& statement) {
    const KelLock lock(mutex_);
    return connection_ ? connection_->Query(statement) : nullptr;
}

bool ConsoleDatabase::Write(const KelVector<KelString>& statements) {
    const KelLock lock(mutex_);
    if (!connection_) return false;
    DBTransaction transaction(*connection_);
    if (!transaction.IsOpen()) return false;
    for (const KelString& statement : statements) {
        if (!connection_->Query(statement))
            return false;  // the transaction rolls back at the end of its scope
    }
    return transaction.Commit();
}
