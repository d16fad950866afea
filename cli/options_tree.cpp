#include "cli/define_options.h"

#include <CLI/CLI.hpp>
#include <utility>

#include "kel/text.h"
#include "kelcore/tree_passwords.h"

namespace {

/// A length of time like "30m", "12h" or "7d" in seconds; nothing when it is none.
std::optional<std::int64_t> ParseDuration(const std::string& text) {
    const auto number = ParseInt64(text.substr(0, text.empty() ? 0 : text.size() - 1));
    for (const auto& [unit, seconds] : {std::pair('m', 60), {'h', 3600}, {'d', 86400}})
        if (number && *number > 0 && *number < 100'000 && text.back() == unit) return *number * seconds;
    return std::nullopt;
}

}  // namespace

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

void DefineParent(CLI::App& app, Parsed& parsed) {
    auto* command = app.add_subcommand("parent", "Show the parent of this device, or give it another one");
    command->add_option("HOST:PORT", parsed.parent.place, "The new parent; used at once and from now on");
    command->callback([&parsed] { parsed.chosen = parsed.parent; });
}
