#include "cli/define_options.h"

#include <CLI/CLI.hpp>
#include <ctime>
#include <limits>
#include <utility>

#include "kel/text.h"

namespace {

/// A moment as --since takes it, in seconds since the epoch; nothing when it is none.
std::optional<std::int64_t> ParseMoment(const std::string& text, std::int64_t now) {
    const auto number = ParseInt64(text.substr(0, text.empty() ? 0 : text.size() - 1));
    for (const auto& [unit, seconds] : {std::pair('m', 60), {'h', 3600}, {'d', 86400}})
        if (number && *number >= 0 && *number < 100'000 && text.back() == unit)
            return now - *number * seconds;
    for (const char* form : {"%Y-%m-%d", "%Y-%m-%d %H:%M"}) {
        std::tm parts{};
        parts.tm_isdst = -1;
        const char* const end = strptime(text.c_str(), form, &parts);
        if (end != nullptr && *end == 0) return std::mktime(&parts);
    }
    return std::nullopt;
}

}  // namespace

void DefineQueries(CLI::App& app, Parsed& parsed) {
    app.add_subcommand("status", "This device: role, parent, queues")->callback([&parsed] {
        parsed.chosen = StatusOptions();
    });
    DefineDevices(app, parsed);
    app.add_subcommand("inbox", "Files delivered to this device")->callback([&parsed] {
        parsed.chosen = InboxOptions();
    });
    auto* why = app.add_subcommand("why", "Why a file has not arrived: asks the devices on its way");
    why->add_option(
           "FILE", parsed.why.what,
           "A publication or the name of a published file, on the master; or the number in 'kel files'")
        ->required();
    why->add_option("DEVICE", parsed.why.device, "Only this target: its GUID, or on the master its name");
    why->add_flag("--upstream", parsed.why.upstream, "The number is one of 'kel files --upstream'");
    why->callback([&parsed] { parsed.chosen = parsed.why; });
    auto* wake = app.add_subcommand("wake", "Wake a sleeping device by Wake-on-LAN; on the master");
    wake->add_option("DEVICE", parsed.wake.device, "GUID or name of the device")->required();
    wake->callback([&parsed] { parsed.chosen = parsed.wake; });
    auto* files = app.add_subcommand("files", "Files in the store");
    files->add_flag("--upstream", parsed.files.upstream, "Those on their way to the master");
    files->add_option("--limit", parsed.files.limit, "Print at most so many")
        ->type_name("N")
        ->check(CLI::NonNegativeNumber);
    files->add_option("--offset", parsed.files.offset, "Leave out so many at the beginning")
        ->type_name("N")
        ->check(CLI::NonNegativeNumber);
    files->callback([&parsed] { parsed.chosen = parsed.files; });
    auto* file = app.add_subcommand("file", "One file of the store, with all its values");
    file->add_option("ID", parsed.file.id, "The number that 'kel files' shows")
        ->required()
        ->check(CLI::Range(1, std::numeric_limits<std::int32_t>::max()));
    file->add_flag("--upstream", parsed.file.upstream, "One of those on their way to the master");
    file->callback([&parsed] { parsed.chosen = parsed.file; });
}

void DefineTop(CLI::App& app, Parsed& parsed) {
    auto* command = app.add_subcommand(
        "top",
        "What a device transfers now, how fast, and what holds it up: a view that is refreshed every second");
    command->add_flag("--once", parsed.top.once, "Print the present state and end; so does --json");
    command->add_flag("--tree", parsed.top.tree, "A line for each device of the tree; on the master");
    command->add_option("-n,--limit", parsed.top.limit, "Show at most so many transfers or devices")
        ->type_name("N")
        ->check(CLI::Range(1, 10'000))
        ->capture_default_str();
    command->callback([&parsed] { parsed.chosen = parsed.top; });
}

void DefineUpward(CLI::App& app, Parsed& parsed) {
    SendOptions& send = parsed.send;
    auto* command = app.add_subcommand("send", "Send files of this device up to the master");
    command->add_option("FILE", send.files, "The files")->required()->check(CLI::ExistingFile);
    AddKeyOptions(*command, send.type, send.label);
    command->add_option("--priority", send.priority, "Kept with the files")
        ->type_name("N")
        ->capture_default_str();
    command->add_flag("--bypass", send.bypass, "Go also while transfer windows are closed");
    command->callback([&parsed] { parsed.chosen = parsed.send; });

    app.add_subcommand("collected", "Files that came up from the devices; on the master")
        ->callback([&parsed] { parsed.chosen = CollectedOptions(); });
    app.add_subcommand("upload", "Pack and send up now what waits for it")->callback([&parsed] {
        parsed.chosen = UploadOptions();
    });

    RequestOptions& request = parsed.request;
    auto* ask = app.add_subcommand("request", "Ask the devices above for a file");
    AddKeyOptions(*ask, request.type, request.label);
    ask->add_option("--name", request.name, "File name")->required()->type_name("NAME");
    ask->add_option("--checksum", request.checksum, "MD5 of the content; default: any content")
        ->type_name("MD5");
    ask->add_option("--wait", request.waitSeconds, "Wait up to this long for the delivery")
        ->type_name("SECONDS")
        ->check(CLI::Range(0, 86400));
    ask->callback([&parsed] { parsed.chosen = parsed.request; });
}

void DefineSettings(CLI::App& app, Parsed& parsed) {
    auto* command = app.add_subcommand("settings", "Settings of the file store");
    command->require_subcommand(1);
    auto* get = command->add_subcommand("get", "Show settings");
    get->add_option("SETTING", parsed.settings.names, "Settings to show; default: all");
    auto* set = command->add_subcommand("set", "Change settings");
    set->add_option("SETTING=VALUE", parsed.settings.assignments, "Names and new values")->required();
    command->callback([&parsed] { parsed.chosen = parsed.settings; });
}

void DefineWindows(CLI::App& app, Parsed& parsed) {
    WindowsOptions& windows = parsed.windows;
    auto* command = app.add_subcommand("windows", "Transfer windows: when and how fast files move");
    command->add_subcommand("get", "Show the windows (the default)");
    auto* set = command->add_subcommand("set", "Set or remove the window of a direction");
    command->require_subcommand(0, 1);
    set->add_option("DIRECTION", windows.direction, "The direction")
        ->required()
        ->check(CLI::IsMember({"up", "down", "multicast"}));
    auto* week =
        set->add_option("WEEK", windows.week,
                        "Rules, as \"mon-fri 8-18 4M; sat,sun closed; else 20M\": days, hours and rate"
                        " (512k, 4M, 1G, 50%, 5/1000 or closed); the first that covers an hour counts");
    auto* slots =
        set->add_option(
               "--slots", windows.slots,
               "A rate for every hour, or 168 rates separated by blanks, Monday 00:00 first; 0: closed")
            ->type_name("RATES");
    auto* remove = set->add_flag("--remove", windows.remove, "No window: always open, no limit");
    slots->excludes(remove)->excludes(week);
    remove->excludes(week);
    set->add_option("--slot-type", windows.slotType,
                    "Unit of --slots: 1 bit/s, 2 kbit/s, 3 Mbit/s, 7 percent, 8 per thousand")
        ->type_name("TYPE")
        ->capture_default_str()
        ->check(CLI::IsMember({1, 2, 3, 7, 8}));
    set->add_flag("--utc", windows.utc, "The hours are in UTC, not local time");
    set->callback([&windows] {
        if (windows.week.empty() && windows.slots.empty() && !windows.remove)
            throw CLI::RequiredError("WEEK, --slots or --remove");
    });
    command->callback([&parsed] { parsed.chosen = parsed.windows; });

    auto* multicast = app.add_subcommand("multicast", "Files that are being sent to many devices at once");
    multicast->add_flag("--details", parsed.multicast.details, "Every device, with its state");
    multicast->callback([&parsed] { parsed.chosen = parsed.multicast; });
}

void DefineCall(CLI::App& app, Parsed& parsed) {
    auto* command = app.add_subcommand("call", "Call any action, or list the actions");
    command->add_option("ACTION", parsed.call.action, "Name of the action");
    auto* arguments =
        command->add_option("ARGUMENT", parsed.call.arguments,
                            "name=text or name:=JSON; a name given several times has several values");
    command
        ->add_flag("--list", parsed.call.list,
                   "List the actions of the agent, or show what ACTION takes and gives; calls nothing")
        ->excludes(arguments);
    command->callback([&parsed] {
        if (!parsed.call.list && parsed.call.action.empty()) throw CLI::RequiredError("ACTION or --list");
        parsed.chosen = parsed.call;
    });
}

void DefineAudit(CLI::App& app, Parsed& parsed) {
    auto* command = app.add_subcommand(
        "audit", "Who changed settings, windows, publications and devices, and how: on this device");
    command
        ->add_option_function<std::string>(
            "--since",
            [&parsed](const std::string& text) {
                parsed.audit.since = ParseMoment(text, std::time(nullptr));
            },
            "Only from then on: YYYY-MM-DD, 'YYYY-MM-DD HH:MM', or how long ago: 30m, 12h, 7d")
        ->type_name("TIME")
        ->check(CLI::Validator(
            [](const std::string& text) {
                return ParseMoment(text, 0) ? std::string()
                                            : "'" + text + "' is no time, as 2026-01-31 or 7d";
            },
            {}));
    command->add_option("--limit", parsed.audit.limit, "Print at most so many, the latest")
        ->type_name("N")
        ->check(CLI::PositiveNumber)
        ->capture_default_str();
    command->callback([&parsed] { parsed.chosen = parsed.audit; });
}

void DefineMetrics(CLI::App& app, Parsed& parsed) {
    auto* command =
        app.add_subcommand("metrics", "Numbers for a monitoring system, in the format of Prometheus");
    command->add_option("--output", parsed.metrics.output, "Write this file, in place of an older one")
        ->type_name("FILE");
    command->callback([&parsed] { parsed.chosen = parsed.metrics; });
}

void DefineCare(CLI::App& app, Parsed& parsed) {
    auto* backup = app.add_subcommand("backup", "Back up the agent of a root folder, running or stopped");
    backup->add_option("FILE", parsed.backup.file, "The archive to write; it will hold keys and passwords")
        ->required();
    backup->add_flag("--content", parsed.backup.content,
                     "Also stored and delivered files; without them, the tree brings back what is missing");
    backup->callback([&parsed] { parsed.chosen = parsed.backup; });
    auto* restore =
        app.add_subcommand("restore", "Restore a backup to a root folder, new or of a stopped agent");
    restore->add_option("FILE", parsed.restore.file, "What 'kel backup' has written")->required();
    restore->callback([&parsed] { parsed.chosen = parsed.restore; });
    app.add_subcommand("doctor", "Find out what would stop this device from working, and what to do")
        ->callback([&parsed] { parsed.chosen = DoctorOptions(); });
}

void DefineHelp(CLI::App& app, Parsed& parsed) {
    auto* completion =
        app.add_subcommand("completion", "Print what completes command lines of kel in a shell");
    completion
        ->add_option("WHAT", parsed.completion.what,
                     "The shell; or, for the scripts, the kind of names to print, one a line")
        ->required()
        ->check(CLI::IsMember(
            {"bash", "zsh", "commands", "devices", "groups", "publications", "settings", "actions"}));
    completion->callback([&parsed] { parsed.chosen = parsed.completion; });
    app.add_subcommand("manual", "Print the manual page")->callback([&parsed] {
        parsed.chosen = ManualOptions();
    });
}
