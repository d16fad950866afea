#include "cli/options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <ctime>
#include <limits>
#include <numeric>
#include <string_view>
#include <utility>

#include "cli/command_table.h"
#include "cli/local_root.h"
#include "cli/output.h"
#include "cli/remote.h"
#include "kel/text.h"
#include "kelcore/tree_passwords.h"
#include "kelcore/version.h"

namespace {

constexpr std::size_t kMaxTypingErrors = 2;

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

/// A length of time like "30m", "12h" or "7d" in seconds; nothing when it is none.
std::optional<std::int64_t> ParseDuration(const std::string& text) {
    const auto number = ParseInt64(text.substr(0, text.empty() ? 0 : text.size() - 1));
    for (const auto& [unit, seconds] : {std::pair('m', 60), {'h', 3600}, {'d', 86400}})
        if (number && *number > 0 && *number < 100'000 && text.back() == unit) return *number * seconds;
    return std::nullopt;
}

/// Receives the values of all options; `chosen` is set by the command that was given.
struct Parsed {
    CommonOptions common;
    InitOptions init;
    PublishOptions publish;
    PublicationsOptions publications;
    ResumeOptions resume;
    SendOptions send;
    RequestOptions request;
    FilesOptions files;
    FileOptions file;
    SettingsOptions settings;
    WindowsOptions windows;
    CallOptions call;
    AuditOptions audit;
    MetricsOptions metrics;
    WhyOptions why;
    GroupsOptions groups;
    WakeOptions wake;
    MulticastOptions multicast;
    WithdrawOptions withdraw;
    RemoveDeviceOptions removeDevice;
    ParentOptions parent;
    BackupOptions backup;
    RestoreOptions restore;
    InviteOptions invite;
    KeysOptions keys;
    PasswordOptions password;
    TopOptions top;
    CompletionOptions completion;
    std::optional<CommandOptions> chosen;
};

void DefineCommon(CLI::App& app, CommonOptions& common) {
    auto* root = app.add_option("--root", common.root,
                                "Root folder of an agent on this machine; default: $KEL_ROOT, else "
                                "/var/lib/kel if that is there")
                     ->type_name("DIR");
    auto* url = app.add_option("--url", common.url, "Address of an agent: http://HOST:PORT")
                    ->type_name("URL")
                    ->check([](const std::string& text) {
                        const auto address = AddressOfUrl(text);
                        return address ? std::string() : Printable(address.Error().message);
                    });
    auto* user =
        app.add_option("--user", common.user, "Agent name of the tree, with --url")->type_name("NAME");
    auto* password =
        app.add_option("--password-file", common.passwordFile, "File that holds the tree's password")
            ->type_name("FILE");
    root->excludes(url)->excludes(user);
    user->needs(url);
    url->needs(user)->needs(password);
    app.add_option("--device", common.device,
                   "The device of the tree that the command is for, by its GUID or name; on the master")
        ->type_name("DEVICE");
    app.add_flag("--json", common.json, "Print JSON");
    app.add_option("--timeout", common.timeoutSeconds, "Seconds to wait for an answer")
        ->type_name("SECONDS")
        ->check(CLI::Range(1, 86400))
        ->capture_default_str();
}

void DefineInit(CLI::App& app, Parsed& parsed) {
    InitOptions& init = parsed.init;
    auto* command = app.add_subcommand("init", "Make the root folder of a new agent");
    command->add_option("DIR", init.dir, "The folder; it must be empty or not exist yet")->required();
    command->add_option("--role", init.role, "Place in the tree")
        ->required()
        ->type_name("ROLE")
        ->check(CLI::IsMember({"master", "relay", "client"}));
    command->add_option("--address", init.address, "IPv4 address of this device")
        ->required()
        ->type_name("ADDRESS")
        ->check(CLI::ValidIPV4);
    command->add_option("--port", init.port, "HTTP port; 0: any free port")->required()->type_name("PORT");
    command->add_option("--parent", init.parent, "The parent; not for a master")->type_name("HOST:PORT");
    command
        ->add_option("--password-file", init.passwordFile,
                     "File whose first line is the password of a plain tree, the same on all devices")
        ->type_name("FILE");
    auto* plain = command->add_flag("--plain", init.isPlain,
                                    "A tree without keys, in which whoever has the password is a device");
    command
        ->add_option(
            "--join", init.token,
            "Invitation of the master ('kel invite') with which a relay or client joins a tree with keys")
        ->type_name("TOKEN")
        ->excludes(plain);
    command->add_option("--name", init.name, "Agent name of the tree")
        ->default_val("agent")
        ->type_name("NAME");
    command->callback([&parsed] { parsed.chosen = parsed.init; });
}

void DefineKeys(CLI::App& app, Parsed& parsed) {
    auto* invite = app.add_subcommand("invite", "Make an invitation for new devices; on the master");
    invite->add_option("--role", parsed.invite.role, "What they may be; relay: a client, too")
        ->type_name("ROLE")
        ->check(CLI::IsMember({"relay", "client"}))
        ->capture_default_str();
    invite->add_option("--uses", parsed.invite.uses, "How many devices may use it")
        ->type_name("N")
        ->check(CLI::Range(1, 100000))
        ->capture_default_str();
    invite
        ->add_option_function<std::string>(
            "--expires",
            [&parsed](const std::string& text) { parsed.invite.seconds = ParseDuration(text).value_or(0); },
            "How long it is valid, at most 366d")
        ->type_name("DURATION")
        ->default_str("1d")
        ->check(CLI::Validator(
            [](const std::string& text) {
                return ParseDuration(text) ? std::string()
                                           : "'" + text + "' is not a duration like 30m, 12h or 7d";
            },
            {}));
    invite->callback([&parsed] { parsed.chosen = parsed.invite; });

    KeysOptions& keys = parsed.keys;
    auto* command = app.add_subcommand("keys", "Keys and certificates of a tree with keys");
    command->require_subcommand(0, 1);
    const auto define = [command, &keys](const char* verb, KeysOptions::Verb value, const char* text) {
        auto* verbCommand = command->add_subcommand(verb, text);
        verbCommand->callback([&keys, value] { keys.verb = value; });
        return verbCommand;
    };
    define("status", KeysOptions::Verb::Status, "Show the keys of this device (the default)");
    define("list", KeysOptions::Verb::List,
           "List the devices with certificates, and revoked ones; on the master");
    define("revoke", KeysOptions::Verb::Revoke, "Revoke the certificates of a device; on the master")
        ->add_option("GUID", keys.text, "The device")
        ->required();
    define("join", KeysOptions::Verb::Join, "Join the tree with an invitation, also again")
        ->add_option("TOKEN", keys.text, "The invitation, as 'kel invite' has printed it")
        ->required();
    define("renew", KeysOptions::Verb::Renew,
           "Make a new key for this device now, and have the former one revoked");
    define("forget-parent", KeysOptions::Verb::ForgetParent,
           "Learn the key of the parent anew, after the parent was set up again");
    define("begin", KeysOptions::Verb::Begin,
           "Give the master of a plain tree keys; its devices get theirs with 'join', one after the other");
    define("end-password", KeysOptions::Verb::EndPassword,
           "Refuse members without keys, when all devices of a former plain tree have joined")
        ->add_flag("--force", keys.force, "Also while devices without keys come");
    command->callback([&parsed] { parsed.chosen = parsed.keys; });
}

void DefinePassword(CLI::App& app, Parsed& parsed) {
    PasswordOptions& password = parsed.password;
    auto* command = app.add_subcommand("password", "Change the password of a plain tree");
    command->require_subcommand(0, 1);
    const auto define = [command, &password](const char* verb, PasswordOptions::Verb value,
                                             const char* text) {
        auto* verbCommand = command->add_subcommand(verb, text);
        verbCommand->callback([&password, value] { password.verb = value; });
        return verbCommand;
    };
    define("status", PasswordOptions::Verb::Status,
           "Show whether the former password is accepted, and who uses it (the default)");
    auto* rotate = define("rotate", PasswordOptions::Verb::Rotate,
                          "Give this device the next password of the tree; the present one stays accepted");
    rotate
        ->add_option("--password-file", password.file,
                     "File whose first line is the next password; -: the standard input; without it, a "
                     "random one is made and printed")
        ->type_name("FILE");
    rotate->add_option("--until", password.until, "The day on which the present one ends, as 2026-12-31")
        ->type_name("DAY")
        ->check([](const std::string& text) {
            return ParsePasswordEnd(text) ? std::string() : "'" + text + "' is no day, as 2026-12-31";
        });
    define("end", PasswordOptions::Verb::End, "Accept the former password no longer")
        ->add_flag("--force", password.force, "Also while devices come with it");
    command->callback([&parsed] { parsed.chosen = parsed.password; });
}

void AddKeyOptions(CLI::App& command, KelString& type, KelString& label) {
    command.add_option("--type", type, "File type")->required()->type_name("TYPE");
    command.add_option("--label", label, "File label")->required()->type_name("LABEL");
}

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

void DefineParent(CLI::App& app, Parsed& parsed) {
    auto* command = app.add_subcommand("parent", "Show the parent of this device, or give it another one");
    command->add_option("HOST:PORT", parsed.parent.place, "The new parent; used at once and from now on");
    command->callback([&parsed] { parsed.chosen = parsed.parent; });
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

void DefineMetrics(CLI::App& app, Parsed& parsed) {
    auto* command =
        app.add_subcommand("metrics", "Numbers for a monitoring system, in the format of Prometheus");
    command->add_option("--output", parsed.metrics.output, "Write this file, in place of an older one")
        ->type_name("FILE");
    command->callback([&parsed] { parsed.chosen = parsed.metrics; });
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

/// Names the command that does not exist, of the program or of one of its commands, and a similar one.
/// False, without a message, when the arguments failed for another reason.
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

constexpr std::size_t kHelpWidth = 100;

/// `text` in lines of at most so many characters.
KelString Wrapped(const KelString& text, std::size_t width) {
    KelString result;
    std::size_t used = 0;
    for (const KelString& word : SplitText(text, ' ')) {
        const bool fits = used + 1 + word.size() <= width;
        if (used > 0) result += fits ? " " : "\n";
        used = used > 0 && fits ? used + 1 + word.size() : word.size();
        result += word;
    }
    return result;
}

/// Gives each command below `app` its longer text.
void AddDetails(CLI::App& app, const KelString& name) {
    for (CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
        const KelString full = name.empty() ? command->get_name() : name + " " + command->get_name();
        command->footer(Wrapped(DetailsOf(full), kHelpWidth));
        AddDetails(*command, full);
    }
}

void Define(CLI::App& app, Parsed& parsed) {
    app.set_version_flag("--version", KelString("kel ") + KelVersion());
    app.require_subcommand(1);
    app.fallthrough();
    app.footer("Exit codes: 0 done, 1 refused or failed, 2 usage, 3 unreachable.");
    DefineCommon(app, parsed.common);
    DefineInit(app, parsed);
    DefineQueries(app, parsed);
    DefineTop(app, parsed);
    DefinePublish(app, parsed);
    DefinePublications(app, parsed);
    DefineGroups(app, parsed);
    DefineWithdraw(app, parsed);
    DefineUpward(app, parsed);
    DefineSettings(app, parsed);
    DefineWindows(app, parsed);
    DefineParent(app, parsed);
    DefineCall(app, parsed);
    DefineAudit(app, parsed);
    DefineMetrics(app, parsed);
    DefineCare(app, parsed);
    DefineKeys(app, parsed);
    DefinePassword(app, parsed);
    DefineHelp(app, parsed);
    AddDetails(app, {});
}

/// True for a command that asks no agent.
bool IsOfProgram(const CommandOptions& command) {
    const auto* completion = std::get_if<CompletionOptions>(&command);
    return std::holds_alternative<InitOptions>(command) || std::holds_alternative<ManualOptions>(command) ||
           (completion != nullptr && completion->IsOfProgram());
}

constexpr const char* kProgram = "kel";
constexpr const char* kProgramPurpose = "Operates agents of a device tree.";

}  // namespace

KelVector<CommandEntry> CommandTable() {
    Parsed parsed;
    CLI::App app(kProgramPurpose, kProgram);
    Define(app, parsed);
    return TableOf(app);
}

std::optional<Options> ParseOptions(int count, const char* const* arguments, int& exitCode) {
    Parsed parsed;
    CLI::App app(kProgramPurpose, kProgram);
    Define(app, parsed);
    try {
        app.parse(count, arguments);
        const bool asksAgent = !IsOfProgram(*parsed.chosen);
        if (asksAgent && parsed.common.root.empty() && parsed.common.url.empty())
            parsed.common.root = DefaultRoot();
        if (asksAgent && parsed.common.root.empty() && parsed.common.url.empty())
            throw CLI::RequiredError("--root or --url");
    } catch (const CLI::ParseError& error) {
        exitCode = kExitUsage;
        if (error.get_exit_code() == 0 || !ReportUnknownCommand(app))
            exitCode = app.exit(error) == 0 ? kExitDone : kExitUsage;
        return {};
    }
    exitCode = kExitDone;
    return Options{parsed.common, *parsed.chosen};
}
