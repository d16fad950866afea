#include "cli/command_table.h"

#include <CLI/CLI.hpp>

#include "kel/text.h"

namespace {

/// The parser shows what an option takes as "NAME", "NAME:{a,b}" or "NAME:what is checked".
void ReadValue(const std::string& shown, OptionEntry& entry) {
    const auto colon = shown.find(":{");
    entry.value = shown.substr(0, colon == std::string::npos ? shown.find(':') : colon);
    if (shown.starts_with("HOST:PORT")) entry.value = "HOST:PORT";
    if (colon == std::string::npos) return;
    entry.choices = SplitText(shown.substr(colon + 2, shown.find('}') - colon - 2), ',');
}

OptionEntry EntryOf(const CLI::Option& option) {
    OptionEntry entry;
    entry.isRequired = option.get_required();
    entry.isSeveral = option.get_items_expected_max() > 1;
    entry.purpose = option.get_description();
    entry.fallback = option.get_default_str();
    if (option.get_items_expected_max() > 0) ReadValue(option.get_type_name(), entry);
    if (option.get_positional()) {
        entry.name = entry.value = option.get_name(true);
    } else {
        entry.name = "--" + option.get_lnames().front();
        if (!option.get_snames().empty()) entry.letter = "-" + option.get_snames().front();
    }
    return entry;
}

void Add(const CLI::App& app, const KelString& name, KelVector<CommandEntry>& table) {
    CommandEntry command;
    command.name = name;
    command.purpose = app.get_description();
    command.details = DetailsOf(name);
    for (const CLI::Option* option : app.get_options())
        (option->get_positional() ? command.arguments : command.options).push_back(EntryOf(*option));
    const auto below = app.get_subcommands([](const CLI::App*) { return true; });
    for (const CLI::App* verb : below)
        command.verbs.push_back(verb->get_name());
    table.push_back(std::move(command));
    for (const CLI::App* verb : below)
        Add(*verb, name.empty() ? verb->get_name() : name + " " + verb->get_name(), table);
}

KelString UseOf(const OptionEntry& option) {
    const bool isArgument = option.name == option.value;
    KelString text = isArgument || option.value.empty() ? option.name : option.name + " " + option.value;
    if (isArgument && option.isSeveral) text += "...";
    return option.isRequired ? text : "[" + text + "]";
}

}  // namespace

KelVector<CommandEntry> TableOf(const CLI::App& app) {
    KelVector<CommandEntry> table;
    Add(app, {}, table);
    return table;
}

KelString SynopsisOf(const CommandEntry& command) {
    KelString text = command.name;
    for (const OptionEntry& argument : command.arguments)
        text += " " + UseOf(argument);
    for (const bool isRequired : {true, false})
        for (const OptionEntry& option : command.options)
            if (option.isRequired == isRequired && option.name != "--help") text += " " + UseOf(option);
    return text;
}
