#pragma once

#include <cstdint>
#include <optional>
#include <variant>

#include "kel/types.h"

/// Exit codes of the command line.
inline constexpr int kExitDone = 0;
inline constexpr int kExitFailed = 1;       ///< refused or failed
inline constexpr int kExitUsage = 2;        ///< unusable arguments
inline constexpr int kExitUnreachable = 3;  ///< the agent did not answer

/// Which agent to talk to and how to print; the same for every command.
struct CommonOptions {
    KelString root;          ///< root folder of a local agent, or
    KelString url;           ///< "http://host:port" with
    KelString user;          ///< the tree's agent name and
    KelString passwordFile;  ///< a file whose first line is the tree's password, or "https://host:port" with
    KelString keysRoot;      ///< the root folder of the device whose keys are used
    KelString device;        ///< GUID or name of a device to call through that agent, the master
    bool json = false;
    int timeoutSeconds = 60;  ///< to wait for the answer of one call
};

struct InitOptions {
    KelString dir;
    KelString role;
    KelString address;
    std::uint16_t port = 0;
    KelString parent;        ///< "HOST:PORT"
    KelString passwordFile;  ///< of a plain tree
    KelString name;
    bool isPlain = false;  ///< a tree without keys
    KelString token;       ///< the invitation with which a relay or client joins a tree with keys
};

struct InviteOptions {
    KelString role = "client";
    int uses = 1;
    std::int64_t seconds = 86400;  ///< how long it is valid
};

struct KeysOptions {
    enum class Verb : unsigned char { Status, List, Revoke, Join, ForgetParent, Renew, Begin, EndPassword };
    Verb verb = Verb::Status;
    KelString text;      ///< a GUID to revoke, a token to join with
    bool force = false;  ///< refuse members without keys although there are some
};

struct PasswordOptions {
    enum class Verb : unsigned char { Status, Rotate, End };
    Verb verb = Verb::Status;
    KelString file;   ///< whose first line is the new password; "-": the standard input; empty: a random one
    KelString until;  ///< the day on which the former one ends, as "2026-12-31"; empty: when it is removed
    bool force = false;  ///< end the former one although devices still use it
};

struct StatusOptions {};
struct DevicesOptions {};
struct InboxOptions {};
struct CollectedOptions {};
struct UploadOptions {};

struct PublishOptions {
    KelVector<KelString> files;  ///< paths, "@LIST" for those in a file; see SelectFiles
    bool recursive = false;      ///< folders may be among them
    KelString type;
    KelString label;
    KelVector<KelString> devices;  ///< GUIDs, names, patterns, "@LIST"; or "all", or "none"
    int priority = 100;
    bool bypass = false;
    bool wake = false;
    bool watch = false;      ///< keep running until every target has the files
    bool dryRun = false;     ///< only show what would be done
    KelVector<int> stages;   ///< percentages of the targets; empty: all at once
    int stopAtFailures = 1;  ///< of a publication in stages; 0: never
};

struct GroupsOptions {
    enum class Verb : unsigned char { List, Show, Set, Add, Remove, Delete };
    Verb verb = Verb::List;
    KelString name;
    KelVector<KelString> members;  ///< GUIDs, names, patterns, "@LIST"
};

struct ResumeOptions {
    KelString id;
    bool next = false;  ///< release the next stage without waiting for the present one
};

struct PublicationsOptions {
    KelString id;  ///< empty for all
    bool withoutReasons = false;
};

struct WithdrawOptions {
    KelString id;
};

struct RemoveDeviceOptions {
    KelString device;  ///< GUID or name
};

struct WhyOptions {
    KelString what;    ///< a publication's ID, the name of a published file, or the number of a file here
    KelString device;  ///< GUID or name; empty for all
    bool upstream = false;
};

struct WakeOptions {
    KelString device;  ///< GUID or name
};

struct SendOptions {
    KelVector<KelString> files;
    KelString type;
    KelString label;
    int priority = 100;
    bool bypass = false;
};

struct RequestOptions {
    KelString type;
    KelString label;
    KelString name;
    KelString checksum;   ///< empty: any content of this name
    int waitSeconds = 0;  ///< for the file to arrive in the inbox; 0: do not wait
};

struct FilesOptions {
    bool upstream = false;
    std::uint64_t offset = 0;            ///< files to leave out at the beginning
    std::optional<std::uint64_t> limit;  ///< files to print at most; absent: all
};

struct FileOptions {
    std::int32_t id = 0;
    bool upstream = false;
};

struct SettingsOptions {
    KelVector<KelString> names;        ///< get: which; empty for all
    KelVector<KelString> assignments;  ///< set: "SETTING=VALUE"; empty for get
};

struct WindowsOptions {
    KelString direction;  ///< set: up, down or multicast; empty for get
    KelString week;       ///< the rules, or
    KelString slots;      ///< one number, 168 numbers, or empty to remove the window
    bool remove = false;
    int slotType = 2;
    bool utc = false;
};

struct MulticastOptions {
    bool details = false;  ///< one row a device
};

struct ParentOptions {
    KelString place;  ///< "HOST:PORT" of the new parent; empty: show the present one
};

struct CallOptions {
    KelString action;
    KelVector<KelString> arguments;  ///< "name=text" or "name:=JSON"
    bool list = false;               ///< list the actions, or describe the one named
};

struct TopOptions {
    bool once = false;  ///< print one state and end
    bool tree = false;  ///< of the devices below the master
    int limit = 20;     ///< transfers, or devices
};

struct CompletionOptions {
    KelString what;  ///< the shell, or the kind of names

    /// True when the program knows the answer, without an agent.
    bool IsOfProgram() const { return what == "bash" || what == "zsh" || what == "commands"; }
};

struct ManualOptions {};

struct MetricsOptions {
    KelString output;  ///< a file to write instead of printing; empty: none
};

struct AuditOptions {
    std::optional<std::int64_t> since;  ///< seconds since the epoch
    int limit = 1000;
};

struct BackupOptions {
    KelString file;
    bool content = false;  ///< stored and delivered files, too
};

struct RestoreOptions {
    KelString file;
};

struct DoctorOptions {};

using CommandOptions =
    std::variant<InitOptions, StatusOptions, DevicesOptions, PublishOptions, PublicationsOptions, SendOptions,
                 CollectedOptions, RequestOptions, UploadOptions, FilesOptions, FileOptions, SettingsOptions,
                 WindowsOptions, InboxOptions, CallOptions, WhyOptions, GroupsOptions, WakeOptions,
                 MulticastOptions, WithdrawOptions, RemoveDeviceOptions, ResumeOptions, ParentOptions,
                 AuditOptions, MetricsOptions, BackupOptions, RestoreOptions, DoctorOptions, InviteOptions,
                 KeysOptions, PasswordOptions, TopOptions, CompletionOptions, ManualOptions>;

struct Options {
    CommonOptions common;
    CommandOptions command;
};

/// Parses the arguments. Empty when the program has to end at once with `exitCode`, because help or the
/// version was printed to stdout or an error to stderr.
std::optional<Options> ParseOptions(int count, const char* const* arguments, int& exitCode);
