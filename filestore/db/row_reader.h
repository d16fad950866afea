#pragma once

#include <cstdint>
#include <limits>

#include "kelcore/db/result.h"

namespace filestore {

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

}  // namespace filestore
