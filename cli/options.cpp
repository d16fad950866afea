#include "cli/options.h"

#include <CLI/CLI.hpp>
#include <utility>

#include "cli/command_table.h"
#include "cli/define_options.h"
#include "cli/local_root.h"
#include "cli/output.h"
#include "cli/remote.h"
#include "cli/unknown_command.h"
#include "kel/text.h"
#include "kelcore/version.h"

namespace {

void DefineCommon(CLI::App& app, CommonOptions& common) {
    auto* root = app.add_option("--root", common.root,
                                "Root folder of an agent on this machine; default: $KEL_ROOT, else "
                                "/var/lib/kel if that is there")
                     ->type_name("DIR");
    auto* url =
        app.add_option("--url", common.url,
                       "Address of an agent: https://HOST:PORT[/GUID] in a tree with keys, where those "
                       "of --root are used; http://HOST:PORT in a plain tree")
            ->type_name("URL")
            ->check([](const std::string& text) {
                const auto place = ParseAgentUrl(text);
                return place ? std::string() : Printable(place.Error().message);
            });
    auto* user =
        app.add_option("--user", common.user, "Agent name of the tree, with http://")->type_name("NAME");
    auto* password =
        app.add_option("--password-file", common.passwordFile, "File that holds the tree's password")
            ->type_name("FILE");
    root->excludes(user);
    user->needs(url)->needs(password);
    app.add_option("--device", common.device,
                   "The device of the tree that the command is for, by its GUID or name; on the master")
        ->type_name("DEVICE");
    app.add_flag("--json", common.json, "Print JSON");
    app.add_option("--timeout", common.timeoutSeconds, "Seconds to wait for an answer")
        ->type_name("SECONDS")
        ->check(CLI::Range(1, 86400))
        ->capture_default_str();
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

/// Completes what says which agent is asked. Throws CLI::ParseError when something is missing.
void ChooseAgent(CommonOptions& common) {
    const bool isSecure = common.url.starts_with("https:");
    const auto refuse = [](const char* text) { throw CLI::ValidationError("--url", text); };
    if (isSecure && !common.user.empty())
        refuse("https:// uses the keys of a root folder; with --user, it is http://HOST:PORT");
    if (!isSecure && !common.url.empty()) {
        if (!common.root.empty()) refuse("with --root, it is https://HOST:PORT");
        if (common.user.empty()) refuse("http:// needs --user and --password-file");
        return;
    }
    if (common.root.empty()) common.root = DefaultRoot();
    if (common.root.empty() && isSecure) refuse("https:// needs --root, the folder of a device with keys");
    if (common.root.empty()) throw CLI::RequiredError("--root or --url");
    if (isSecure) common.keysRoot = std::exchange(common.root, {});
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
        if (!IsOfProgram(*parsed.chosen)) ChooseAgent(parsed.common);
    } catch (const CLI::ParseError& error) {
        exitCode = kExitUsage;
        if (error.get_exit_code() == 0 || !ReportUnknownCommand(app))
            exitCode = app.exit(error) == 0 ? kExitDone : kExitUsage;
        return {};
    }
    exitCode = kExitDone;
    return Options{parsed.common, *parsed.chosen};
}
