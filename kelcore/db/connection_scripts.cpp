#include <cstdint>
#include <limits>
#include <optional>

#include "kel/ini_file.h"
#include "kel/text.h"
#include "kelcore/db/connection.h"
#include "kelcore/db/connection_handle.h"

namespace {

constexpr const char* kMarkersTable = "DatabaseInformation";
constexpr const char* kVersionKey = "SchemaVersion";

KelString EntryKey(unsigned int number) {
    return KelFormat("Sql%u", number);
}

bool ReadEntry(const IniFile& ini, const KelString& section, unsigned int number, KelString& script) {
    return ini.GetEntryValue(section, EntryKey(number), script, "");
}

/// The number of the last entry, counting on from `first` until one is missing; `first` - 1 when there is
/// none.
unsigned int LastEntry(const IniFile& ini, const KelString& section, unsigned int first) {
    KelString script;
    unsigned int number = first;
    while (ReadEntry(ini, section, number, script))
        ++number;
    return number - 1;
}

}  // namespace

bool DBConnection::OpenScripts(IniFile& ini, const KelString& iniFile) const {
    if (ini.Open(iniFile)) return true;
    log_.Error("Database %S: its scripts in %S cannot be read.\n", handle_->claim.RealPath(), iniFile);
    return false;
}

bool DBConnection::RunScript(const KelString& script) {
    const KelLock lock(handle_->mutex);
    return Check(handle_->database.RunScript(script), script);
}

bool DBConnection::RunScriptOnce(const KelString& markerKey, const KelString& script) {
    const auto marker =
        Query(KelFormat("SELECT FieldValue FROM %s WHERE FieldName = '%Q'", kMarkersTable, markerKey));
    if (!marker) return false;
    if (marker->GetRowCount() != 0) return true;
    // One transaction, so that a crash leaves neither a script without its mark nor a mark alone.
    DBTransaction transaction(*this);
    return transaction.IsOpen() && RunScript(script) &&
           Query(KelFormat("INSERT INTO %s (FieldName, FieldValue) VALUES ('%Q', '1')", kMarkersTable,
                           markerKey)) &&
           transaction.Commit();
}

bool DBConnection::CreateKeyTable(const KelString& table, const KelString& keyColumn,
                                  const KelString& valueColumn) {
    return Query(KelFormat("CREATE TABLE IF NOT EXISTS %S (%S TEXT PRIMARY KEY NOT NULL, %S TEXT)", table,
                           keyColumn, valueColumn)) != nullptr;
}

bool DBConnection::RunIniScripts(const KelString& iniFile, const KelString& section, bool once) {
    IniFile ini;
    if (!OpenScripts(ini, iniFile)) return false;
    if (once && !CreateKeyTable(kMarkersTable, "FieldName", "FieldValue")) return false;
    bool allSucceeded = true;
    KelString script;
    for (unsigned int number = 1; ReadEntry(ini, section, number, script); ++number) {
        const bool succeeded =
            once ? RunScriptOnce(KelFormat("SqlRunOnce:%S:%S", section, EntryKey(number)), script)
                 : RunScript(script);
        if (succeeded) continue;
        log_.Error("Database %S: entry %S of section %S in %S failed; correct it and start again.\n",
                   handle_->claim.RealPath(), EntryKey(number), section, iniFile);
        allSucceeded = false;
    }
    return allSucceeded;
}

std::optional<unsigned int> DBConnection::ReadSchemaVersion(const KelString& table,
                                                            const KelString& keyColumn,
                                                            const KelString& valueColumn) {
    const auto result =
        Query(KelFormat("SELECT %S FROM %S WHERE %S = '%s'", valueColumn, table, keyColumn, kVersionKey));
    if (!result) return std::nullopt;
    if (result->GetRowCount() == 0) return 0;
    const KelString& text = result->GetString(0, std::size_t{0});
    const std::optional<std::uint64_t> version = ParseUint64(text);
    if (!version || *version >= std::numeric_limits<unsigned int>::max()) {
        log_.Error("Database %S: its schema version \"%S\" is no number; it is not upgraded.\n",
                   handle_->claim.RealPath(), text);
        return std::nullopt;
    }
    return static_cast<unsigned int>(*version);
}

bool DBConnection::RunUpgrade(const KelString& table, const KelString& keyColumn,
                              const KelString& valueColumn, const KelString& iniFile,
                              const KelString& section, const DBUpgradeProgress& progress) {
    IniFile ini;
    if (!OpenScripts(ini, iniFile) || !CreateKeyTable(table, keyColumn, valueColumn)) return false;
    const std::optional<unsigned int> current = ReadSchemaVersion(table, keyColumn, valueColumn);
    if (!current) return false;

    KelString script;
    // Statements of this program might damage data whose schema it does not know.
    if (*current > 0 && !ReadEntry(ini, section, *current, script)) {
        ReportNewerSchema(*current);
        return false;
    }
    const unsigned int target = LastEntry(ini, section, *current + 1);
    if (target == *current) return true;
    if (*current > 0 && !CopyBeforeUpgrade(*current)) return false;
    if (!UpgradeTo(target, *current, table, keyColumn, valueColumn, ini, section, progress)) {
        log_.Error(
            "Database %S: the upgrade from schema version %u to %u (section %S of %S) failed; it is "
            "unchanged, "
            "and the former version of the program can be installed again\n",
            handle_->claim.RealPath(), *current, target, section, iniFile);
        return false;
    }
    if (*current > 0)
        log_.Print("Database %S: upgraded from schema version %u to %u\n", handle_->claim.RealPath(),
                   *current, target);
    return true;
}

bool DBConnection::UpgradeTo(unsigned int target, unsigned int current, const KelString& table,
                             const KelString& keyColumn, const KelString& valueColumn, const IniFile& ini,
                             const KelString& section, const DBUpgradeProgress& progress) {
    DBTransaction transaction(*this);
    if (!transaction.IsOpen()) return false;
    for (unsigned int version = current + 1; version <= target; ++version) {
        KelString script;
        if (!ReadEntry(ini, section, version, script) || !RunScript(script)) return false;
        if (progress) progress(version, target);
    }
    return Query(KelFormat("DELETE FROM %S WHERE %S = '%s'", table, keyColumn, kVersionKey)) &&
           Query(KelFormat("INSERT INTO %S (%S, %S) VALUES ('%s', '%u')", table, keyColumn, valueColumn,
                           kVersionKey, target)) &&
           transaction.Commit();
}
