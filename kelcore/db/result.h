#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <variant>

#include "kel/types.h"

/// A value for a parameter ("?") of a statement.
using DBValue = std::variant<std::int64_t, KelString>;

/// The rows that a statement gave, all held in memory. A plain value: one thread at a time.
class DBResult {
  public:
    DBResult() = default;
    DBResult(KelVector<KelString> columns, KelVector<KelVector<KelString>> rows)
        : columns_(std::move(columns)), rows_(std::move(rows)) {}

    std::size_t GetRowCount() const { return rows_.size(); }
    const KelVector<KelString>& GetColumns() const { return columns_; }

    // Cell by column name (any case) or position, counted from 0. A missing row or column, and SQL NULL, read
    // as an empty text and 0; a text that is no number reads as 0.
    const KelString& GetString(std::size_t row, std::string_view column) const;
    const KelString& GetString(std::size_t row, std::size_t column) const;
    std::int64_t GetInt64(std::size_t row, std::string_view column) const;
    std::int64_t GetInt64(std::size_t row, std::size_t column) const;
    std::uint32_t GetUint32(std::size_t row, std::string_view column) const;
    bool GetBool(std::size_t row, std::string_view column) const { return GetInt64(row, column) != 0; }

  private:
    std::size_t ColumnIndex(std::string_view column) const;

    KelVector<KelString> columns_;
    KelVector<KelVector<KelString>> rows_;
};
