#include "agent/agent_options.h"

#include <getopt.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <cstdio>

#include "kel/directory.h"
#include "kel/path.h"
#include "kelcore/version.h"

namespace {

constexpr const char* kHelp =
    "Usage: kelagent --root DIR [--modules DIR] [--check]\n"
    "       kelagent --actions [--modules DIR]\n"
    "\n"
    "Runs the device agent in the foreground until SIGTERM or SIGINT; a second signal ends it at once.\n"
    "\n"
    "  --root DIR      folder of this agent: config/, data/ and log/ lie in it\n"
    "  --modules DIR   folder of the module libraries (default: ../modules or ../lib/kel/modules beside\n"
    "                  the folder of this program)\n"
    "  --check         examine the configuration, print what is wrong and end\n"
    "  --actions       describe the actions of all modules, in Markdown, and end\n"
    "  --foreground    stay in the foreground (always so)\n"
    "  --help          show this text\n"
    "  --version       show the version\n"
    "\n"
    "Exit codes: 0 stopped on request or nothing wrong, 1 failure, 2 unusable arguments,\n"
    "3 another agent runs on this root.\n";

KelString ProgramFolder() {
    std::array<char, PATH_MAX> buffer{};
    const ssize_t length = readlink("/proc/self/exe", buffer.data(), buffer.size());
    if (length <= 0) return "./";
    KelString folder;
    KelString name;
    SplitPath(KelString(buffer.data(), static_cast<std::size_t>(length)), folder, name);
    return folder;
}

KelString Folder(const KelString& path) {
    KelString complete = CompletePath(path);
    if (!complete.ends_with('/')) complete += '/';
    return complete;
}

KelString DefaultModulesDir() {
    const KelString beside = Folder(ProgramFolder() + "../modules");
    return DirExists(beside) ? beside : Folder(ProgramFolder() + "../lib/kel/modules");
}

}  // namespace

std::optional<AgentOptions> ParseAgentOptions(int count, char** arguments, int& exitCode) {
    static constexpr std::array<option, 8> kOptions = {{{"root", required_argument, nullptr, 'r'},
                                                        {"modules", required_argument, nullptr, 'm'},
                                                        {"check", no_argument, nullptr, 'c'},
                                                        {"actions", no_argument, nullptr, 'a'},
                                                        {"foreground", no_argument, nullptr, 'f'},
                                                        {"help", no_argument, nullptr, 'h'},
                                                        {"version", no_argument, nullptr, 'v'},
                                                        {nullptr, 0, nullptr, 0}}};
    AgentOptions options;
    optind = 0;  // starts over, so that the function can be called again
    exitCode = kExitUsage;
    for (int found; (found = getopt_long(count, arguments, "h", kOptions.data(), nullptr)) != -1;) {
        switch (found) {
            case 'r':
                options.root = optarg;
                break;
            case 'm':
                options.modulesDir = optarg;
                break;
            case 'c':
                options.check = true;
                break;
            case 'a':
                options.actions = true;
                break;
            case 'f':
                break;
            case 'h':
                std::fputs(kHelp, stdout);
                exitCode = kExitClean;
                return {};
            case 'v':
                std::printf("kelagent %s\n", KelVersion());
                exitCode = kExitClean;
                return {};
            default:
                return {};
        }
    }
    if (optind < count || (options.root.empty() && !options.actions)) {
        if (optind < count)
            std::fprintf(stderr, "kelagent: unexpected argument '%s'; see --help\n", arguments[optind]);
        else
            std::fputs("kelagent: --root is missing; see --help\n", stderr);
        return {};
    }
    if (!options.root.empty()) options.root = Folder(options.root);
    options.modulesDir = options.modulesDir.empty() ? DefaultModulesDir() : Folder(options.modulesDir);
    exitCode = kExitClean;
    return options;
}
