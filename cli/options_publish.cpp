#include "cli/define_options.h"

#include <CLI/CLI.hpp>
#include <vector>

#include "kel/text.h"

namespace {

void DefineStages(CLI::App& command, PublishOptions& publish) {
    auto* stages =
        command
            .add_option_function<std::vector<std::string>>(
                "--stages",
                [&publish](const std::vector<std::string>& texts) {
                    for (const std::string& text : texts)
                        publish.stages.push_back(std::stoi(text));
                },
                "Release the targets in stages, each when all devices of the one before have the file: the "
                "percentage of the targets that have been released by then, as 5%,50%,100%")
            ->delimiter(',')
            ->allow_extra_args(false)
            ->type_name("PERCENT,...")
            ->check(CLI::Validator(
                [](const std::string& text) {
                    const std::string number = text.substr(0, text.find('%'));
                    const bool isPercentage = text == number || text == number + "%";
                    const auto value = ParseInt64(number);
                    return isPercentage && value && *value >= 1 && *value <= 100
                               ? std::string()
                               : "'" + text + "' is not a percentage from 1% to 100%";
                },
                {}));
    command
        .add_option("--stop-at-failures", publish.stopAtFailures,
                    "Release no more stages once so many targets have failed; 0: whatever fails")
        ->needs(stages)
        ->check(CLI::NonNegativeNumber)
        ->type_name("N")
        ->capture_default_str();
}

}  // namespace

void AddKeyOptions(CLI::App& command, KelString& type, KelString& label) {
    command.add_option("--type", type, "File type")->required()->type_name("TYPE");
    command.add_option("--label", label, "File label")->required()->type_name("LABEL");
}

void DefinePublish(CLI::App& app, Parsed& parsed) {
    PublishOptions& publish = parsed.publish;
    auto* command = app.add_subcommand("publish", "Send files to devices of the tree; on the master");
    command
        ->add_option("FILE", publish.files,
                     "The files, with --recursive also folders; @LIST: a file that names one in each line")
        ->required()
        ->check([](const std::string& path) {
            return path.starts_with('@') ? std::string() : CLI::ExistingPath(path);
        });
    command->add_flag("--recursive", publish.recursive,
                      "Publish the files in folders, each named by its path in the folder");
    AddKeyOptions(*command, publish.type, publish.label);
    command
        ->add_option("--to", publish.devices,
                     "GUIDs, names or patterns of names ('shop-*') of devices, groups, or @LIST: a file that "
                     "holds such; or all; none: devices fetch the file by request")
        ->required()
        ->delimiter(',')
        ->allow_extra_args(false)
        ->type_name("DEVICE,...");
    command->add_option("--priority", publish.priority, "Files of higher priority go first")
        ->type_name("N")
        ->capture_default_str();
    command->add_flag("--bypass", publish.bypass, "Go also while transfer windows are closed");
    command->add_flag("--wake", publish.wake, "Wake devices that do not answer, by Wake-on-LAN");
    command
        ->add_flag("--watch", publish.watch,
                   "Go on until every target has the files; interrupting it leaves the transfers running")
        ->excludes(command->add_flag(
            "--dry-run", publish.dryRun,
            "Publish nothing; show the targets, the relays on their way and the bytes on each link"));
    DefineStages(*command, publish);
    command->callback([&parsed] { parsed.chosen = parsed.publish; });
}

void DefinePublications(CLI::App& app, Parsed& parsed) {
    auto* resume = app.add_subcommand(
        "resume", "Go on with a publication in stages that was stopped by failures; on the master");
    resume->add_option("PUBLICATION", parsed.resume.id, "The publication")->required();
    resume->add_flag("--next", parsed.resume.next,
                     "Release the next stage at once, without waiting for the devices of the present one");
    resume->callback([&parsed] { parsed.chosen = parsed.resume; });

    auto* list = app.add_subcommand("publications", "What was published and who has it; on the master");
    list->add_option("PUBLICATION", parsed.publications.id, "One publication, device by device");
    list->add_flag("--no-reasons", parsed.publications.withoutReasons,
                   "Do not ask the devices why they wait");
    list->callback([&parsed] { parsed.chosen = parsed.publications; });
}

void DefineGroups(CLI::App& app, Parsed& parsed) {
    GroupsOptions& groups = parsed.groups;
    auto* command =
        app.add_subcommand("groups", "Named groups of devices, as targets of publish; on the master");
    command->require_subcommand(0, 1);
    command->add_subcommand("list", "List the groups (the default)");
    // The callback of a subcommand runs before that of its command.
    const auto define = [command, &groups](const char* verb, GroupsOptions::Verb value, const char* text) {
        auto* verbCommand = command->add_subcommand(verb, text);
        verbCommand->add_option("GROUP", groups.name, "Name of the group")->required();
        if (value != GroupsOptions::Verb::Show && value != GroupsOptions::Verb::Delete)
            verbCommand
                ->add_option("DEVICE", groups.members,
                             "GUIDs, names or patterns of names ('shop-*') of devices, or @LIST: a file that "
                             "holds such; patterns count at each publication anew")
                ->required()
                ->delimiter(',');
        verbCommand->callback([&groups, value] { groups.verb = value; });
    };
    define("show", GroupsOptions::Verb::Show, "Show the members of a group");
    define("set", GroupsOptions::Verb::Set, "Make a group, or replace its members");
    define("add", GroupsOptions::Verb::Add, "Add members to a group");
    define("remove", GroupsOptions::Verb::Remove, "Remove members; a group without members is gone");
    define("delete", GroupsOptions::Verb::Delete, "Delete a group");
    command->callback([&parsed] { parsed.chosen = parsed.groups; });
}

void DefineWithdraw(CLI::App& app, Parsed& parsed) {
    auto* command = app.add_subcommand(
        "withdraw", "End a publication: targets that have not begun never get the file; on the master");
    command->add_option("PUBLICATION", parsed.withdraw.id, "The publication, as 'kel publications' shows it")
        ->required();
    command->callback([&parsed] { parsed.chosen = parsed.withdraw; });
}

void DefineDevices(CLI::App& app, Parsed& parsed) {
    auto* command = app.add_subcommand("devices", "The tree as the master knows it");
    command->add_subcommand("list", "Show the devices (the default)");
    auto* remove = command->add_subcommand(
        "remove", "Forget a device, and what is pending for it; when it reports itself, it is new");
    command->require_subcommand(0, 1);
    remove->add_option("DEVICE", parsed.removeDevice.device, "Its GUID or name")->required();
    command->callback([&parsed, remove] {
        if (remove->parsed())
            parsed.chosen = parsed.removeDevice;
        else
            parsed.chosen = DevicesOptions();
    });
}
