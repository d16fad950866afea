#pragma once

#include <cstdint>
#include <limits>

#include "filestore/db/file_key.h"
#include "kel/format.h"
#include "kel/mutex.h"
#include "kelcore/db/connection.h"
#include "kelcore/db/result.h"
#include "kelcore/db/sequence_manager.h"

// What the tables share: the open databases, and reading and writing the pieces of statements.

/// What belongs to one of the module's databases.
struct FileStoreDatabase {
    DBConnection& connection;
    KelMutex& mutex;  ///< held around every write
    DBSequenceManager& sequence;
};

// The open databases, from any thread, between SetupDatabases and CleanupDatabases. Defined where the
// connections live, in state/databases.cpp.
FileStoreDatabase FileStoreGetDatabase(Side side);
FileStoreDatabase FileStoreGetCallbackDatabase();

/// Called when a row was deleted, with the mutex of its database held. Defined where the reasons are kept why
/// a file waits, in state/waiting_reasons.cpp.
void FileStoreRowDeleted(Side side, std::uint64_t fileId);

namespace filestore {

/// Runs a statement that writes, under the mutex of the database; false when it failed, which is logged.
bool Change(Side side, const KelString& statement);

/// Texts as an SQL list: 'a', 'b'.
KelString QuotedList(const KelVector<KelString>& texts);

/// Later times in a row were written before the clock was set back. They count as due: otherwise their rows
/// would wait until the clock has caught up. The minute is for what other threads write meanwhile.
inline std::int64_t LatestPossibleTime(std::int64_t now) {
    return now + 60;
}

/// Reads the cells of one row from left to right, in the order in which a statement names its columns.
class RowReader {
  public:
    RowReader(const DBResult& result, std::size_t row) : result_(result), row_(row) {}

    const KelString& Text() { return result_.GetString(row_, column_++); }
    std::int64_t Number() { return result_.GetInt64(row_, column_++); }
    std::uint64_t Unsigned() { return static_cast<std::uint64_t>(Number()); }
    /// 0 for a number that does not fit.
    std::uint32_t Unsigned32() {
        const std::int64_t number = Number();
        return number >= 0 && number <= std::numeric_limits<std::uint32_t>::max()
                   ? static_cast<std::uint32_t>(number)
                   : 0;
    }
    bool Flag() { return Number() != 0; }

  private:
    const DBResult& result_;
    std::size_t row_;
    std::size_t column_ = 0;
};

/// Row identifiers as the text of an SQL list.
class IdList {
  public:
    void Add(std::uint64_t id) {
        text_ += KelFormat("%s%gu", text_.empty() ? "" : ", ", id);
        ++count_;
    }
    void Append(const IdList& other) {
        if (other.IsEmpty()) return;
        text_ += (text_.empty() ? "" : ", ") + other.text_;
        count_ += other.count_;
    }
    bool IsEmpty() const { return count_ == 0; }
    std::size_t Count() const { return count_; }
    const KelString& Text() const { return text_; }

  private:
    KelString text_;
    std::size_t count_ = 0;
};

}  // namespace filestore
