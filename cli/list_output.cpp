#include "cli/list_output.h"

#include <cstdio>

#include "cli/commands.h"
#include "cli/remote.h"
#include "cli/table.h"
#include "kelcore/json.h"

namespace {

/// The number of values under `name`, 0 when there is none.
std::uint32_t CountOf(const KelContainer& container, const KelString& name) {
    return container.Has(name) ? container.Count(name) : 0;
}

void PrintJson(const KelContainer& answer, const KelString& name) {
    KelString text = "[";
    for (std::uint32_t i = 0; i < CountOf(answer, name); ++i) {
        text += i == 0 ? "\n" : ",\n";
        text += ContainerToJson(answer.GetContainer(name, i));
    }
    std::printf("%s\n]\n", text.c_str());
}

}  // namespace

Column ValueColumn(const KelString& heading, const KelString& name) {
    return {heading, [name](const KelContainer& item) { return item.GetString(name); }};
}

void PrintList(const KelContainer& answer, const KelString& name, bool json,
               const KelVector<Column>& columns) {
    if (json) {
        PrintJson(answer, name);
        return;
    }
    KelVector<KelString> headings;
    for (const Column& column : columns)
        headings.push_back(column.heading);
    Table table(std::move(headings));
    for (std::uint32_t i = 0; i < CountOf(answer, name); ++i) {
        KelVector<KelString> cells;
        for (const Column& column : columns)
            cells.push_back(column.cell(answer.GetContainer(name, i)));
        table.AddRow(std::move(cells));
    }
    std::fputs(table.Render().c_str(), stdout);
}

int PrintActionList(const CommonOptions& common, const KelString& action, KelContainer arguments,
                    const KelVector<Column>& columns) {
    const auto remote = Remote::Open(common);
    if (!remote) return Complain(remote.Error());
    if (const unsigned int result = remote->Call(action, arguments); result != 0) return ExitCodeOf(result);
    PrintList(arguments, "Values", common.json, columns);
    return kExitDone;
}
