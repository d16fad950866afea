#include "modules/delivery/commands.h"

#include <system_error>
#include <utility>

#include "kel/format.h"
#include "kelcore/agent.h"
#include "kelcore/error_codes.h"
#include "kelcore/relative_name.h"
#include "modules/delivery/program.h"

namespace {

/// Output beyond this is not logged: a program that loops must not fill the log.
constexpr std::size_t kMaxOutputLines = 1000;

/// What went wrong with a program; empty when nothing did.
KelString ProblemOf(const ProgramResult& result) {
    switch (result.end) {
        case ProgramResult::End::NotStarted:
            return "could not be started: " + std::generic_category().message(result.code);
        case ProgramResult::End::Exited:
            return result.code == 0 ? KelString() : KelFormat("failed with exit code %d", result.code);
        case ProgramResult::End::Killed:
            return KelFormat("was ended by signal %d", result.code);
        case ProgramResult::End::TimedOut:
            return "took too long and was ended";
        case ProgramResult::End::Cancelled:
            break;
    }
    return "was ended because the agent stops; it runs again at the next start";
}

}  // namespace

KelResult<KelVector<KelString>> SplitCommandLine(const KelString& text) {
    KelVector<KelString> words;
    KelString word;
    bool isQuoted = false;
    bool isInWord = false;
    for (const char c : text) {
        if (c == '"') {
            isQuoted = !isQuoted;
            isInWord = true;
        } else if (!isQuoted && (c == ' ' || c == '\t')) {
            if (isInWord) words.push_back(std::move(word));
            word.clear();
            isInWord = false;
        } else {
            word += c;
            isInWord = true;
        }
    }
    if (isQuoted) return KelError{kKelErrorBadInput, KelFormat("The command %S lacks a closing quote", text)};
    if (isInWord) words.push_back(std::move(word));
    if (words.empty() || words.front().empty() || words.front().front() != '/') {
        return KelError{
            kKelErrorBadInput,
            KelFormat("The command \"%S\" does not begin with the absolute path of a program", text)};
    }
    return words;
}

void Commands::Configure(const IniFile& ini) {
    for (const auto& [type, text] : ini.GetEntries("Commands"))
        if (const auto command = SplitCommandLine(text)) commands_[type] = *command;
}

void Commands::CheckIni(const IniFile& ini, KelVector<IniFault>& faults) {
    for (const auto& [type, text] : ini.GetEntries("Commands"))
        if (const auto command = SplitCommandLine(text); !command)
            faults.push_back(
                {IniFault::Weight::Unusable,
                 KelFormat("files of type %S will run no command: %S", type, command.Error().message)});
}

CommandResult Commands::Run(const FileKey& file, const KelString& path,
                            std::function<bool()> cancelled) const {
    Program program;
    program.arguments = commands_.at(file.type);
    program.arguments.push_back(path);
    program.environment = {"KEL_FILE_TYPE=" + file.type, "KEL_FILE_LABEL=" + file.label,
                           "KEL_FILE_NAME=" + PathInName(file.name), "KEL_FILE_CHECKSUM=" + file.checksum};
    program.umask = KelAgentGetProgramUmask();
    program.cancelled = std::move(cancelled);
    const KelString& name = ProgramOf(file.type);
    std::size_t lines = 0;
    program.output = [&](const KelString& line) {
        if (++lines <= kMaxOutputLines) log_.Print("%S: %S\n", name, line);
    };
    log_.Print("Running %S for %S\n", name, path);
    const ProgramResult result = RunProgram(program);
    if (lines > kMaxOutputLines)
        log_.Warning("%S: %lu more lines were left out\n", name, lines - kMaxOutputLines);
    const KelString problem = ProblemOf(result);
    if (result.end == ProgramResult::End::Cancelled) {
        log_.Warning("%S for %S %S\n", name, path, problem);
        return {CommandResult::End::Cancelled, problem};
    }
    if (problem.empty()) {
        log_.Print("%S for %S is done\n", name, path);
        return {};
    }
    log_.Error("%S for %S %S\n", name, path, problem);
    return {CommandResult::End::Failed, KelFormat("%S %S", name, problem)};
}
