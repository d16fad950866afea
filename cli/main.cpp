#include <exception>

#include "cli/commands.h"
#include "cli/output.h"

int main(int count, char** arguments) {
    int exitCode = kExitUsage;
    const auto options = ParseOptions(count, arguments, exitCode);
    if (!options) return exitCode;
    try {
        return std::visit([&options](const auto& command) { return RunCommand(options->common, command); },
                          options->command);
    } catch (const std::exception& error) {
        return Complain(KelString(error.what()));
    }
}
