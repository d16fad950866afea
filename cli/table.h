#pragma once

#include <cstdint>
#include <string_view>

#include "kel/types.h"

/// Lines of text cells in columns that are as wide as their widest cell. One thread at a time.
class Table {
  public:
    explicit Table(KelVector<KelString> headings);

    /// Missing cells count as empty, more than there are headings are left out.
    void AddRow(KelVector<KelString> cells);

    /// Heading line and rows, each ending in a newline, without blanks at their ends. Columns whose cells are
    /// all numbers are aligned to the right. Control characters appear as "?", so that a name from outside
    /// cannot steer the terminal.
    KelString Render() const;

  private:
    std::size_t Width(std::size_t column) const;
    bool IsNumeric(std::size_t column) const;
    KelString RenderRow(const KelVector<KelString>& cells, const KelVector<std::size_t>& widths,
                        const KelVector<bool>& numeric) const;

    KelVector<KelString> headings_;
    KelVector<KelVector<KelString>> rows_;
};

/// `text` with control characters replaced by "?".
KelString Printable(std::string_view text);

/// A number of bytes for people: "17 B", "1.5 KiB", "256.0 MiB".
KelString SizeText(std::int64_t bytes);

/// Seconds since the epoch as local time, "2026-01-31 08:15:00"; empty for 0.
KelString TimeText(std::int64_t seconds);
