#include "kelcore/db/open_database.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <utility>

#include "kel/file.h"
#include "kel/unique_fd.h"

namespace {

KelError SystemError(const char* what, const KelString& path) {
    const char* reason = std::strerror(errno);
    return {1, KelFormat("cannot %s %S: %s", what, path, reason)};
}

/// Makes sure that the file exists and that only its owner can use it; SQLite gives its log the same mode.
KelStatus PrepareFile(const KelString& path) {
    const bool isNew = !FileExists(path);
    const UniqueFd file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!file) return SystemError("open", path);
    struct stat state {};
    if (fstat(file.Get(), &state) != 0) return SystemError("examine", path);
    if (!S_ISREG(state.st_mode)) return KelError{1, path + " is no file"};
    if ((state.st_mode & 0777) != 0600 && fchmod(file.Get(), 0600) != 0) return SystemError("restrict", path);
    if (isNew && !FileSync(path)) return SystemError("sync", path);
    return {};
}

KelString NameForDamaged(const KelString& path) {
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%SZ", &utc);
    const KelString base = path + ".damaged-" + stamp;
    KelString name = base;
    for (unsigned int i = 2; FileExists(name); ++i)
        name = KelFormat("%S-%u", base, i);
    return name;
}

/// The database goes first: stopped half-way, the log that stays is ignored beside a new, empty database.
bool MoveAside(const KelString& path, const KelString& destination) {
    if (!FileRename(path, destination)) return false;
    for (const char* suffix : {"-wal", "-shm"}) {
        const KelString companion = path + suffix;
        if (FileExists(companion) && !FileRename(companion, destination + suffix)) return false;
    }
    return true;
}

KelStatus OpenAndCheck(const KelString& path, SqliteDatabase& database) {
    if (KelStatus prepared = PrepareFile(path); !prepared) return prepared;
    const bool stoppedUncleanly = FileExists(path + "-wal");
    KelStatus status = database.Open(path);
    if (status && stoppedUncleanly) status = database.QuickCheck();
    return status;
}

}  // namespace

KelResult<SqliteDatabase> OpenDatabase(const KelString& path, const KelDebug& log) {
    SqliteDatabase database;
    KelStatus status = OpenAndCheck(path, database);
    if (status) return database;
    database.Close(false);
    if (!SqliteDatabase::IsDamage(status.Error().code)) return status.Error();

    const KelString aside = NameForDamaged(path);
    if (!MoveAside(path, aside))
        return KelError{
            1, KelFormat("it is damaged (%S) and cannot be moved to %S", status.Error().message, aside)};
    log.Error(
        "Database %S is damaged (%S). It was moved to %S and an empty one is used; restore a backup "
        "or let the neighbours fill it again.\n",
        path, status.Error().message, aside);
    status = OpenAndCheck(path, database);
    if (status) return database;
    return status.Error();
}
