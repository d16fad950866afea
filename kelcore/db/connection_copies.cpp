#include <algorithm>
#include <chrono>
#include <mutex>
#include <span>
#include <thread>
#include <utility>

#include "kel/directory.h"
#include "kel/file.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/db/connection.h"
#include "kelcore/db/connection_handle.h"

namespace {

constexpr const char* kBeforeUpgrade = ".schema-";

/// How long a moment without transactions is looked for, in all databases and in one. They take milliseconds.
constexpr std::chrono::seconds kMostWait{30};
constexpr std::chrono::milliseconds kMostWaitForOne{200};
constexpr std::chrono::milliseconds kBetweenTries{1};

/// The copies beside the database at `path`, with their folder.
KelVector<KelString> UpgradeCopiesOf(const KelString& path) {
    KelString folder, name;
    SplitPath(path, folder, name);
    KelVector<KelString> copies;
    for (const KelString& file : DirList(folder))
        if (file.starts_with(name + kBeforeUpgrade)) copies.push_back(folder + file);
    std::ranges::sort(copies);
    return copies;
}

}  // namespace

DBConnection::Handle::OpenHandles& DBConnection::Handle::Open() {
    static OpenHandles open;
    return open;
}

DBConnection::Handle::Handle(OpenFileClaim fileClaim, SqliteDatabase openDatabase)
    : claim(std::move(fileClaim)), database(std::move(openDatabase)) {
    OpenHandles& open = Open();
    const std::lock_guard lock(open.mutex);
    open.handles.push_back(this);
}

DBConnection::Handle::~Handle() {
    OpenHandles& open = Open();
    const std::lock_guard lock(open.mutex);
    std::erase(open.handles, this);
}

KelStatus DBConnection::Handle::CopyTo(const KelString& folder, KelVector<Copy>& copies) {
    KelString ofDatabase, name;
    SplitPath(claim.RealPath(), ofDatabase, name);
    const KelString place = folder + "/" + std::to_string(copies.size()) + "/";
    if (!PathCreate(place)) return KelError{kKelFailure, place + ": cannot be created"};
    const Copy copy{claim.RealPath(), place + name};
    if (const KelStatus made = database.CopyTo(copy.copy); !made)
        return KelError{made.Error().code, copy.copy + ": " + made.Error().message};
    copies.push_back(copy);
    return {};
}

/// Locks the handles one after the other, then copies them in reverse order: each copy is made under a lock
/// that is held since all were locked. A thread may need one of those that are locked to end its transaction
/// in another one, so this gives up after a while.
KelResult<bool> DBConnection::Handle::CopyAll(std::span<Handle* const> next, const KelString& folder,
                                              KelVector<Copy>& copies) {
    if (next.empty()) return true;
    Handle& handle = *next.front();
    const auto deadline = std::chrono::steady_clock::now() + kMostWaitForOne;
    do {
        {
            const KelLock lock(handle.mutex);
            if (!handle.database.InTransaction()) {
                const auto others = CopyAll(next.subspan(1), folder, copies);
                if (!others || !*others) return others;
                if (const KelStatus copied = handle.CopyTo(folder, copies); !copied) return copied.Error();
                return true;
            }
        }
        std::this_thread::sleep_for(kBetweenTries);
    } while (std::chrono::steady_clock::now() < deadline);
    return false;
}

KelResult<KelVector<DBConnection::Copy>> DBConnection::CopyOpenDatabases(const KelString& folder) {
    Handle::OpenHandles& open = Handle::Open();
    const auto deadline = std::chrono::steady_clock::now() + kMostWait;
    for (;;) {
        {
            const std::lock_guard lock(open.mutex);
            KelVector<Copy> copies;
            const auto made = Handle::CopyAll(open.handles, folder, copies);
            if (!made) return made.Error();
            if (*made) return copies;
        }
        if (std::chrono::steady_clock::now() > deadline)
            return KelError{kKelFailure, "the databases are being written all the time; try again"};
        std::this_thread::sleep_for(kBetweenTries);
    }
}

KelVector<DBConnection::Health> DBConnection::CheckOpenDatabases() {
    Handle::OpenHandles& open = Handle::Open();
    const std::lock_guard lock(open.mutex);
    KelVector<Health> checked;
    for (Handle* const handle : open.handles) {
        const KelLock handleLock(handle->mutex);
        const KelStatus status = handle->database.QuickCheck();
        checked.push_back({handle->claim.RealPath(), status ? KelString() : status.Error().message});
    }
    return checked;
}

bool DBConnection::CopyBeforeUpgrade(unsigned int version) {
    const KelString copy = handle_->claim.RealPath() + kBeforeUpgrade + std::to_string(version);
    // Left by a start that failed behind its upgrade: the database has been put back since, or is the same.
    FileDelete(copy);
    const KelLock lock(handle_->mutex);
    const KelStatus copied = handle_->database.CopyTo(copy);
    if (copied) return true;
    log_.Error("Database %S cannot be copied to %S before its upgrade: %S\n", handle_->claim.RealPath(), copy,
               copied.Error().message);
    return false;
}

void DBConnection::RemoveUpgradeCopies() {
    Handle::OpenHandles& open = Handle::Open();
    const std::lock_guard lock(open.mutex);
    for (const Handle* const handle : open.handles)
        for (const KelString& copy : UpgradeCopiesOf(handle->claim.RealPath()))
            FileDelete(copy);
}

void DBConnection::ReportNewerSchema(unsigned int version) const {
    const KelString& path = handle_->claim.RealPath();
    const KelVector<KelString> copies = UpgradeCopiesOf(path);
    log_.Error(
        "Database %S has schema version %u, which a newer version of the program made: install that one, "
        "or %S\n",
        path, version,
        copies.empty() ? KelString("restore a backup that this version made")
                       : "go back to the copy made before: stop the agent, remove " + path +
                             "-wal and move " + copies.back() + " to " + path);
}
