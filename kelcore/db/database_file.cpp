#include "kelcore/db/database_file.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <mutex>
#include <unordered_set>

#include "kel/file.h"
#include "kel/unique_fd.h"

namespace {

struct OpenFiles {
    std::mutex mutex;
    std::condition_variable released;
    std::unordered_set<KelString> paths;
};

OpenFiles& TheOpenFiles() {
    static OpenFiles files;
    return files;
}

KelError FailureTo(const char* what, const KelString& path) {
    const char* reason = std::strerror(errno);
    return {kKelFailure, KelFormat("cannot %s %S: %s", what, path, reason)};
}

/// Makes sure that the file exists and that only its owner can use it; SQLite gives its log the same mode.
KelStatus PrepareFile(const KelString& path) {
    const bool isNew = !FileExists(path);
    const UniqueFd file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!file) return FailureTo("open", path);
    struct stat state {};
    if (fstat(file.Get(), &state) != 0) return FailureTo("examine", path);
    if (!S_ISREG(state.st_mode)) return KelError{kKelFailure, path + " is no file"};
    if ((state.st_mode & 0777) != 0600 && fchmod(file.Get(), 0600) != 0) return FailureTo("restrict", path);
    if (isNew && !FileSync(path)) return FailureTo("sync", path);
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

/// The database goes first: after a stop half-way, the log that is left is ignored beside a new, empty
/// database.
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
    KelStatus status = database.Open(path);
    // Also after a clean stop: files can decay on the disk without being written. A database of a million
    // rows (650 MiB) takes a second, plus the time to read it from the disk.
    if (status) status = database.QuickCheck();
    return status;
}

}  // namespace

std::optional<OpenFileClaim> OpenFileClaim::Take(const KelString& realPath, std::chrono::milliseconds wait) {
    OpenFiles& files = TheOpenFiles();
    std::unique_lock lock(files.mutex);
    const auto deadline = std::chrono::steady_clock::now() + wait;
    if (!files.released.wait_until(lock, deadline, [&] { return files.paths.count(realPath) == 0; }))
        return std::nullopt;
    files.paths.insert(realPath);
    return OpenFileClaim(realPath);
}

OpenFileClaim::~OpenFileClaim() {
    if (realPath_.empty()) return;
    OpenFiles& files = TheOpenFiles();
    const std::lock_guard lock(files.mutex);
    files.paths.erase(realPath_);
    files.released.notify_all();
}

KelResult<SqliteDatabase> OpenDatabase(const KelString& path, const KelDebug& log) {
    SqliteDatabase database;
    KelStatus status = OpenAndCheck(path, database);
    if (status) return database;
    database.Close(false);
    if (!SqliteDatabase::IsDamage(status.Error().code)) return status.Error();

    const KelString aside = NameForDamaged(path);
    if (!MoveAside(path, aside))
        return KelError{kKelFailure, KelFormat("it is damaged (%S) and cannot be moved to %S",
                                               status.Error().message, aside)};
    log.Error(
        "Database %S is damaged (%S). It was moved to %S and an empty one is used; restore a backup, "
        "or let the other devices fill it again.\n",
        path, status.Error().message, aside);
    status = OpenAndCheck(path, database);
    if (status) return database;
    return status.Error();
}
