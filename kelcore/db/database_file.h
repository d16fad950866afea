#pragma once

#include <chrono>
#include <optional>
#include <utility>

#include "kel/debug.h"
#include "kel/result.h"
#include "kel/types.h"
#include "kelcore/db/sqlite_database.h"

/// The right to open a database file, held by one connection of the process at a time. Any thread.
class OpenFileClaim {
  public:
    /// Claims the file at `realPath` (absolute, links resolved); nothing when it stays claimed for `wait`.
    static std::optional<OpenFileClaim> Take(const KelString& realPath, std::chrono::milliseconds wait);

    OpenFileClaim(OpenFileClaim&& other) noexcept : realPath_(std::exchange(other.realPath_, {})) {}
    OpenFileClaim& operator=(OpenFileClaim&&) = delete;
    ~OpenFileClaim();

    const KelString& RealPath() const { return realPath_; }

  private:
    explicit OpenFileClaim(KelString realPath) : realPath_(std::move(realPath)) {}

    KelString realPath_;  ///< empty once moved from
};

/// Opens the database at `path`, which the caller has claimed; creates it (mode 0600) when it is missing. It
/// is checked at every start. A damaged database is moved aside with its log and a new one is made; an error
/// in `log` names both paths.
KelResult<SqliteDatabase> OpenDatabase(const KelString& path, const KelDebug& log);
