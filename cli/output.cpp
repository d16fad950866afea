#include "cli/output.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <numeric>
#include <utility>

#include "cli/json_names.h"
#include "cli/options.h"
#include "cli/terminal.h"
#include "kel/text.h"
#include "kelcore/file_status_name.h"
#include "kelcore/file_values.h"
#include "kelcore/json.h"
#include "kelcore/relative_name.h"

namespace {

constexpr std::size_t kGap = 2;             ///< between columns
constexpr std::size_t kLeastTextWidth = 8;  ///< of a column that is shortened

}  // namespace

Table::Table(KelVector<KelString> headings) : headings_(std::move(headings)) {}

void Table::Fit(std::size_t width, KelVector<std::size_t> texts) {
    limit_ = width;
    texts_ = std::move(texts);
}

void Table::AddRow(KelVector<KelString> cells) {
    cells.resize(headings_.size());
    for (KelString& cell : cells)
        cell = Printable(cell);
    rows_.push_back(std::move(cells));
}

std::size_t Table::Width(std::size_t column) const {
    std::size_t width = DisplayWidth(headings_[column]);
    for (const auto& row : rows_)
        width = std::max(width, DisplayWidth(row[column]));
    return width;
}

bool Table::IsNumeric(std::size_t column) const {
    return !rows_.empty() && std::all_of(rows_.begin(), rows_.end(), [column](const auto& row) {
        return row[column].empty() || ParseInt64(row[column]);
    });
}

void Table::Narrow() {
    if (limit_ == 0 || texts_.empty()) return;
    std::size_t width = std::accumulate(widths_.begin(), widths_.end(), (widths_.size() - 1) * kGap);
    const auto isNarrower = [this](std::size_t one, std::size_t other) {
        return widths_[one] < widths_[other];
    };
    for (; width > limit_; --width) {
        const std::size_t widest = *std::ranges::max_element(texts_, isNarrower);
        if (widths_[widest] <= kLeastTextWidth) return;
        --widths_[widest];
    }
}

KelString Table::RenderRow(const KelVector<KelString>& cells) const {
    KelString line;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        const KelString cell = Shortened(cells[i], std::max<std::size_t>(widths_[i], 1));
        const KelString padding(widths_[i] - DisplayWidth(cell), ' ');
        line += numeric_[i] ? padding + cell : cell + padding;
        line.append(kGap, ' ');
    }
    line.erase(line.find_last_not_of(' ') + 1);
    return line + "\n";
}

KelString Table::Render() {
    const bool isFirst = numeric_.empty();
    widths_.resize(headings_.size());
    for (std::size_t i = 0; i < headings_.size(); ++i) {
        widths_[i] = std::max(widths_[i], Width(i));
        if (isFirst) numeric_.push_back(IsNumeric(i));
    }
    Narrow();
    KelString text = isFirst ? RenderRow(headings_) : KelString();
    for (const auto& row : rows_)
        text += RenderRow(row);
    rows_.clear();
    return text;
}

KelString Printable(std::string_view text) {
    KelString result(text);
    for (char& c : result)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = '?';
    return result;
}

KelString SizeText(std::int64_t bytes) {
    static constexpr std::array<const char*, 5> kUnits = {"B", "KiB", "MiB", "GiB", "TiB"};
    auto value = static_cast<double>(bytes);
    std::size_t unit = 0;
    for (; value >= 1024 && unit + 1 < kUnits.size(); ++unit)
        value /= 1024;
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), unit == 0 ? "%.0f %s" : "%.1f %s", value, kUnits[unit]);
    return text.data();
}

KelString TimeText(std::int64_t seconds) {
    if (seconds == 0) return {};
    const std::time_t time = seconds;
    std::tm parts{};
    localtime_r(&time, &parts);
    std::array<char, 64> text{};
    std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts);
    return text.data();
}

KelString AddressesText(const KelContainer& values, const KelString& name) {
    KelString text;
    for (std::uint32_t i = 0; i < ItemCount(values, name); ++i)
        text += (i == 0 ? "" : ", ") + values.GetContainer(name, i).GetString("Address");
    return text;
}

KelString FileStatusText(const KelString& status) {
    KelString text = FileStatusName(status);
    std::replace(text.begin(), text.end(), '_', ' ');
    return text;
}

Column TextColumn(const KelString& heading, const KelString& name) {
    Column column = ValueColumn(heading, name);
    column.isText = true;
    return column;
}

Column ValueColumn(const KelString& heading, const KelString& name) {
    return {heading, [name](const KelContainer& item) { return item.GetString(name); }};
}

Column SizeColumn(const KelString& heading, const KelString& name) {
    return {heading, [name](const KelContainer& item) { return SizeText(item.GetInt64(name)); }};
}

Column TimeColumn(const KelString& heading, const KelString& name) {
    return {heading, [name](const KelContainer& item) { return TimeText(item.GetInt64(name)); }};
}

Column NameColumn(const KelString& heading) {
    return {heading, [](const KelContainer& item) { return PathInName(item.GetString(kValueFileName)); },
            true};
}

std::uint32_t ItemCount(const KelContainer& list, const KelString& name) {
    return list.Has(name) ? list.Count(name) : 0;
}

Table TableFor(const KelVector<Column>& columns) {
    KelVector<KelString> headings;
    KelVector<std::size_t> texts;
    for (const Column& column : columns) {
        if (column.isText) texts.push_back(headings.size());
        headings.push_back(column.heading);
    }
    Table table(std::move(headings));
    table.Fit(TerminalWidth(), std::move(texts));
    return table;
}

ListPrinter::ListPrinter(bool json, const KelVector<Column>& columns)
    : json_(json), columns_(columns), table_(TableFor(columns)) {}

void ListPrinter::AddJson(const KelContainer& page, const KelString& name) {
    if (!std::exchange(begun_, true)) std::fputs("[", stdout);
    for (std::uint32_t i = 0; i < ItemCount(page, name); ++i)
        std::printf("%s%s", std::exchange(empty_, false) ? "\n" : ",\n",
                    ContainerToJson(ForJson(page.GetContainer(name, i))).c_str());
}

void ListPrinter::Add(const KelContainer& page, const KelString& name) {
    if (json_) return AddJson(page, name);
    for (std::uint32_t i = 0; i < ItemCount(page, name); ++i) {
        KelVector<KelString> cells;
        for (const Column& column : columns_)
            cells.push_back(column.cell(page.GetContainer(name, i)));
        table_.AddRow(std::move(cells));
    }
    std::fputs(table_.Render().c_str(), stdout);
}

void ListPrinter::End() {
    if (json_ && begun_) std::fputs("\n]\n", stdout);
}

void PrintJson(const KelContainer& list, const KelString& name) {
    PrintList(list, true, {}, name);
}

void PrintList(const KelContainer& list, bool json, const KelVector<Column>& columns, const KelString& name) {
    ListPrinter printer(json, columns);
    printer.Add(list, name);
    printer.End();
}

int Complain(const KelString& message) {
    std::fprintf(stderr, "kel: %s\n", Printable(message).c_str());
    return kExitFailed;
}

int Complain(const KelError& error) {
    return Complain(error.message);
}
