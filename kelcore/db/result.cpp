#include "kelcore/db/result.h"

#include <limits>

#include "kel/text.h"

namespace {

const KelString& NoText() {
    static const KelString empty;
    return empty;
}

}  // namespace

std::size_t DBResult::ColumnIndex(std::string_view column) const {
    std::size_t index = 0;
    while (index < columns_.size() && !IsEqualTo(columns_[index], column, false))
        ++index;
    return index;
}

const KelString& DBResult::GetString(std::size_t row, std::size_t column) const {
    if (row >= rows_.size() || column >= rows_[row].size()) return NoText();
    return rows_[row][column];
}

const KelString& DBResult::GetString(std::size_t row, std::string_view column) const {
    return GetString(row, ColumnIndex(column));
}

std::int64_t DBResult::GetInt64(std::size_t row, std::size_t column) const {
    return ParseInt64(GetString(row, column)).value_or(0);
}

std::int64_t DBResult::GetInt64(std::size_t row, std::string_view column) const {
    return GetInt64(row, ColumnIndex(column));
}

std::uint32_t DBResult::GetUint32(std::size_t row, std::string_view column) const {
    const std::int64_t value = GetInt64(row, column);
    const bool fits = value >= 0 && value <= std::numeric_limits<std::uint32_t>::max();
    return fits ? static_cast<std::uint32_t>(value) : 0;
}
