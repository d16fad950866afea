#include "cli/unknown_command.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <numeric>
#include <string_view>
#include <utility>
#include <vector>

#include "cli/output.h"

namespace {

constexpr std::size_t kMaxTypingErrors = 2;

/// The number of characters to insert, remove or replace to turn one text into the other.
std::size_t EditDistance(std::string_view from, std::string_view to) {
    std::vector<std::size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), std::size_t{0});
    for (std::size_t i = 1; i <= from.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i);
        for (std::size_t j = 1; j <= to.size(); ++j) {
            const std::size_t replaced = diagonal + (from[i - 1] == to[j - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({replaced, row[j] + 1, row[j - 1] + 1});
        }
    }
    return row.back();
}

/// The known command that `typed` is most likely meant to be; empty when none is close.
KelString SimilarCommand(const CLI::App& app, const KelString& typed) {
    KelString similar;
    std::size_t smallest = kMaxTypingErrors + 1;
    for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
        const std::size_t distance = EditDistance(typed, command->get_name());
        if (distance >= smallest || distance >= command->get_name().size()) continue;
        smallest = distance;
        similar = command->get_name();
    }
    return similar;
}

}  // namespace

bool ReportUnknownCommand(const CLI::App& app) {
    const CLI::App* level = &app;
    while (!level->get_subcommands().empty())
        level = level->get_subcommands().front();
    if (level->get_subcommands([](const CLI::App*) { return true; }).empty()) return false;
    const std::vector<std::string> left = app.remaining(true);
    const auto typed =
        std::ranges::find_if(left, [](const std::string& word) { return !word.starts_with('-'); });
    if (typed == left.end()) return false;
    const KelString similar = SimilarCommand(*level, *typed);
    Complain("there is no command '" + (level == &app ? "" : level->get_name() + " ") + *typed + "'" +
             (similar.empty() ? "; 'kel --help' lists the commands" : "; did you mean '" + similar + "'?"));
    return true;
}
