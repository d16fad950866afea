#include "kelcore/db/sequence_manager.h"

#include <algorithm>
#include <limits>

void DBSequenceManager::SetConnection(DBConnection* connection) {
    const KelLock lock(mutex_);
    connection_ = connection;
    last_.clear();
}

std::uint64_t DBSequenceManager::GetId(const KelString& table, const KelString& column) {
    const KelLock lock(mutex_);
    if (connection_ == nullptr) return 0;
    const KelString sequence = table + "." + column;
    auto found = last_.find(sequence);
    if (found == last_.end()) {
        const auto largest = connection_->Query(KelFormat("SELECT MAX(%S) FROM %S", column, table));
        if (!largest) return 0;
        const std::int64_t last = std::max<std::int64_t>(largest->GetInt64(0, std::size_t{0}), 0);
        found = last_.emplace(sequence, static_cast<std::uint64_t>(last)).first;
    }
    // Identifiers are signed 64-bit integers in the database.
    if (found->second >= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) return 0;
    return ++found->second;
}
