#pragma once

#include <cstdint>

#include "kel/mutex.h"
#include "kel/types.h"
#include "kelcore/db/connection.h"

/// Hands out new row identifiers. May be called from any thread.
class DBSequenceManager {
  public:
    /// The connection whose tables the identifiers are for, or null; it must outlive its use here. Forgets
    /// all sequences.
    void SetConnection(DBConnection* connection);

    /// The next identifier for `column` of `table`: 1 above the largest ever seen or handed out in this run.
    /// 0 on failure.
    std::uint64_t GetId(const KelString& table, const KelString& column);

  private:
    KelMutex mutex_;
    DBConnection* connection_ KEL_GUARDED_BY(mutex_) = nullptr;
    KelHash<KelString, std::uint64_t> last_ KEL_GUARDED_BY(mutex_);
};
