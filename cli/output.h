#pragma once

#include <cstdint>
#include <functional>
#include <string_view>

#include "kel/container.h"
#include "kel/result.h"
#include "kel/types.h"

// What the commands print: tables or JSON to stdout, errors to stderr. One thread at a time.

/// Lines of text cells in columns that are as wide as their widest cell.
class Table {
  public:
    explicit Table(KelVector<KelString> headings);

    /// Keeps lines within so many columns of a terminal, as far as columns of text, given by their numbers,
    /// can be shortened: the widest of them first. A width of 0: no limit.
    void Fit(std::size_t width, KelVector<std::size_t> texts);

    /// Missing cells count as empty; cells beyond the last heading are dropped.
    void AddRow(KelVector<KelString> cells);

    /// Heading line and rows, each ending in a newline, without trailing blanks, and forgets the rows: rows
    /// added later are rendered without the heading, in columns that are no narrower. Columns whose cells are
    /// all numbers, the first time, are aligned to the right. Control characters appear as "?", so that a
    /// name from another device cannot send escape sequences to the terminal.
    KelString Render();

  private:
    std::size_t Width(std::size_t column) const;
    bool IsNumeric(std::size_t column) const;
    void Narrow();
    KelString RenderRow(const KelVector<KelString>& cells) const;

    KelVector<KelString> headings_;
    KelVector<KelVector<KelString>> rows_;
    KelVector<std::size_t> widths_;
    KelVector<bool> numeric_;  ///< empty until the first rendering
    std::size_t limit_ = 0;    ///< of a line; 0: none
    KelVector<std::size_t> texts_;
};

/// `text` with control characters replaced by "?".
KelString Printable(std::string_view text);

/// A number of bytes in readable form: "17 B", "1.5 KiB", "256.0 MiB".
KelString SizeText(std::int64_t bytes);

/// Seconds since the epoch as local time, "2026-01-31 08:15:00"; empty for 0.
KelString TimeText(std::int64_t seconds);

/// The values Address of the containers with this name, separated by commas.
KelString AddressesText(const KelContainer& values, const KelString& name);

/// A file's status in readable form: "_AGTMOD_FILESTORESTATUS_TOBEUPLOADED_" gives "to be uploaded".
KelString FileStatusText(const KelString& status);

/// A column of a list: its heading and the text of a cell.
struct Column {
    KelString heading;
    std::function<KelString(const KelContainer& item)> cell;
    bool isText = false;  ///< may be shortened where the terminal is too narrow
};

/// An empty table of these columns that fits the terminal.
Table TableFor(const KelVector<Column>& columns);

/// Columns that show the value `name` of each item: as it is, as text that may be shortened, as SizeText, as
/// TimeText.
Column TextColumn(const KelString& heading, const KelString& name);
Column ValueColumn(const KelString& heading, const KelString& name);
Column SizeColumn(const KelString& heading, const KelString& name);
Column TimeColumn(const KelString& heading, const KelString& name);

/// A column that shows the name of a file, as a path where it stands for one.
Column NameColumn(const KelString& heading);

/// The number of items of a list, the containers under `name`; 0 when there is none.
std::uint32_t ItemCount(const KelContainer& list, const KelString& name = "Values");

/// Prints a list that comes in pages, as a table of `columns` or as an array of JSON objects with the names
/// of cli/json_names.h. Holds one page at a time.
class ListPrinter {
  public:
    ListPrinter(bool json, const KelVector<Column>& columns);

    /// Prints the containers under `name` in `page`.
    void Add(const KelContainer& page, const KelString& name = "Values");
    /// Prints what ends the list.
    void End();

  private:
    void AddJson(const KelContainer& page, const KelString& name);

    const bool json_;
    const KelVector<Column>& columns_;
    Table table_;
    bool begun_ = false;
    bool empty_ = true;
};

/// Prints a whole list as JSON.
void PrintJson(const KelContainer& list, const KelString& name = "Values");

/// Prints a whole list as JSON or as a table of `columns`.
void PrintList(const KelContainer& list, bool json, const KelVector<Column>& columns,
               const KelString& name = "Values");

/// Print the message and return kExitFailed.
int Complain(const KelString& message);
int Complain(const KelError& error);
