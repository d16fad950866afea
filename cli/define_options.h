#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "cli/options.h"

namespace CLI {
class App;
}

// How the command line is defined: each function below adds commands to `app` with their options, which write
// into `parsed`. Both have to outlive the parsing.

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

// options_tree.cpp: the place of a device in its tree, its keys and its password.
void DefineInit(CLI::App& app, Parsed& parsed);
void DefineKeys(CLI::App& app, Parsed& parsed);
void DefinePassword(CLI::App& app, Parsed& parsed);
void DefineParent(CLI::App& app, Parsed& parsed);

// options_publish.cpp: what the master does.
void DefinePublish(CLI::App& app, Parsed& parsed);
void DefinePublications(CLI::App& app, Parsed& parsed);
void DefineGroups(CLI::App& app, Parsed& parsed);
void DefineWithdraw(CLI::App& app, Parsed& parsed);
void DefineDevices(CLI::App& app, Parsed& parsed);

// options_device.cpp: what any device does.
void DefineQueries(CLI::App& app, Parsed& parsed);
void DefineTop(CLI::App& app, Parsed& parsed);
void DefineUpward(CLI::App& app, Parsed& parsed);
void DefineSettings(CLI::App& app, Parsed& parsed);
void DefineWindows(CLI::App& app, Parsed& parsed);
void DefineCall(CLI::App& app, Parsed& parsed);
void DefineAudit(CLI::App& app, Parsed& parsed);
void DefineMetrics(CLI::App& app, Parsed& parsed);
void DefineCare(CLI::App& app, Parsed& parsed);
void DefineHelp(CLI::App& app, Parsed& parsed);

/// The options --type and --label of a command that names files.
void AddKeyOptions(CLI::App& command, KelString& type, KelString& label);
