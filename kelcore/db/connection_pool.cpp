#include "kelcore/db/connection_pool.h"

#include <chrono>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>

#include "kelcore/agent.h"
#include "kelcore/db/connection_handle.h"
#include "kelcore/db/database_file.h"

namespace {

/// How long a serial pool waits for its file's present connection to be closed.
constexpr std::chrono::seconds kSerialWait{30};

}  // namespace

void DBConnectionPool::SetDatabase(const KelString& kind, [[maybe_unused]] const KelString& server,
                                   const KelString& path, [[maybe_unused]] const KelString& user,
                                   [[maybe_unused]] const KelString& password,
                                   [[maybe_unused]] unsigned int port) {
    kind_ = kind;
    path_ = path;
}

std::unique_ptr<DBConnection> DBConnectionPool::CreateConnection() {
    KelDebug& log = log_ != nullptr ? *log_ : CoreLog();
    if (kind_ != "SQLITE32" || path_.empty()) {
        log.Error("Database \"%S\" of kind \"%S\" cannot be opened: the kind or the path is wrong.\n", path_,
                  kind_);
        return nullptr;
    }
    // One name for the file however it is reached; it need not exist yet.
    std::error_code failure;
    const std::filesystem::path real =
        std::filesystem::weakly_canonical(std::filesystem::absolute(path_, failure), failure);
    if (failure) {
        const KelString reason = failure.message();
        log.Error("Database %S cannot be opened: %S\n", path_, reason);
        return nullptr;
    }
    std::optional<OpenFileClaim> claim = OpenFileClaim::Take(
        real.string(), serial_ ? std::chrono::milliseconds(kSerialWait) : std::chrono::milliseconds(0));
    if (!claim) {
        log.Error("Database %S cannot be opened: this process has a connection to it already.\n", path_);
        return nullptr;
    }
    KelResult<SqliteDatabase> database = OpenDatabase(claim->RealPath(), log);
    if (!database) {
        log.Error("Database %S cannot be opened: %S\n", path_, database.Error().message);
        return nullptr;
    }
    auto handle = std::make_unique<DBConnection::Handle>(std::move(*claim), std::move(*database));
    return std::unique_ptr<DBConnection>(new DBConnection(std::move(handle), log));
}
