#pragma once

#include <functional>

#include "cli/options.h"
#include "kel/container.h"
#include "kel/types.h"

/// A column of a list: its heading and the text of a cell.
struct Column {
    KelString heading;
    std::function<KelString(const KelContainer& item)> cell;
};

/// A column that shows the value `name` of each item as it is.
Column ValueColumn(const KelString& heading, const KelString& name);

/// Prints the containers under `name` in `answer`: as an array of JSON objects with the values' own names, or
/// as a table of `columns`.
void PrintList(const KelContainer& answer, const KelString& name, bool json,
               const KelVector<Column>& columns);

/// Calls `action` on the agent and prints the containers under "Values". An exit code.
int PrintActionList(const CommonOptions& common, const KelString& action, KelContainer arguments,
                    const KelVector<Column>& columns);
