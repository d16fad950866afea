#include "modules/delivery/delivery.h"

#include <system_error>

#include "kel/file.h"
#include "kel/path.h"
#include "kelcore/action_db.h"
#include "kelcore/callback_db.h"
#include "kelcore/error_codes.h"
#include "modules/delivery/command_line.h"

namespace {

constexpr char kReceiveSignature[] =
    "DeliveryReceiveFile (string FileType, string FileLabel, string FileName, string FileChecksum, string "
    "FilePath)";
constexpr char kReceivedEvent[] = "FileStoreCallbackReceivedFile";
constexpr unsigned int kNotReady = 44001;  ///< the file store offers the file again
constexpr std::size_t kMaxOutputLines = 1000;

}  // namespace

Delivery::Delivery()
    : KelModule("Delivery", "Delivery module"), jobs_(Log()), thread_([this] { return WorkOnJobs(); }) {}

Delivery::~Delivery() {
    thread_.Cancel(0, true);
}

void Delivery::Register(const char* handle) {
    ActionDbRegisterAction(
        kReceiveSignature, [this](KelContainer* arguments) { return ReceiveFile(arguments); }, handle);
    ActionDbRegisterAction(
        "DeliveryListFiles ()", [this](KelContainer* arguments) { return ListFiles(arguments); }, handle);
    CallbackDbRegisterAction(kReceivedEvent, kReceiveSignature, {}, 0);
}

void Delivery::Unregister() {
    CallbackDbDeleteAction(kReceivedEvent, kReceiveSignature, {});
}

bool Delivery::Initialise() {
    IniFile ini;
    if (!ini.Open(IniPath())) {
        Log().Error("%S cannot be read or is malformed\n", IniPath());
        return false;
    }
    if (const KelStatus configured = inbox_.Configure(ini, DataPath()); !configured) {
        Log().Error("%S\n", configured.Error().message);
        return false;
    }
    for (const KelString& type : ini.GetKeys("Commands")) {
        KelString text;
        ini.GetEntryValue("Commands", type, text, KelString());
        const auto command = SplitCommandLine(text);
        if (!command) {
            Log().Error("Files of type %S will run no command: %S\n", type, command.Error().message);
            continue;
        }
        commands_[type] = *command;
    }
    if (jobs_.Load(DataPath() + "/Pending")) return true;
    Log().Error("The folder %S/Pending cannot be created; check its rights\n", DataPath());
    return false;
}

void Delivery::Activate() {
    thread_.Start();
}

void Delivery::Cleanup() {
    thread_.Cancel(0, true);
}

unsigned int Delivery::ReceiveFile(KelContainer* arguments) {
    const bool isRemote = arguments->Has("HttpProtocolRequestInfo");
    const auto file = ReadReceivedFile(*arguments);
    arguments->Clear();
    if (isRemote || !file) {
        const KelString reason =
            isRemote ? KelString("another device may not name local files") : file.Error().message;
        Log().Warning("A delivery was refused: %S\n", reason);
        arguments->SetString("Message", reason);
        return kKelErrorBadInput;
    }
    return Take(*file);
}

unsigned int Delivery::Take(const ReceivedFile& file) {
    const KelString destination = inbox_.PathOf(file);
    const bool hasCommand = !CommandOf(file.type).empty();
    {
        const KelLock lock(mutexCopy_);
        if (inbox_.Holds(file)) {
            Log().Detail("%S is in place already\n", destination);
            return kKelOk;
        }
        // Kept before the copy, so that a stop in between does not lose the command.
        const std::uint64_t job = hasCommand ? jobs_.Add(file, destination) : 0;
        if (const KelStatus copied = inbox_.Put(file); !copied) {
            LogCopyFailure(copied.Error().message);
            if (job == 0) jobs_.Add(file, destination);
            thread_.Signal(0);
            return kNotReady;
        }
        copyFailure_.clear();
        if (hasCommand) {
            jobs_.SetCopied(job);
        } else {
            jobs_.RemoveFor(destination);
        }
    }
    Log().Print("Delivered %S/%S/%S to %S\n", file.type, file.label, file.name, destination);
    if (hasCommand) thread_.Signal(0);
    return kKelOk;
}

void Delivery::LogCopyFailure(const KelString& message) {
    if (message == copyFailure_) return;
    copyFailure_ = message;
    Log().Error("%S; tried again once a minute\n", message);
}

bool Delivery::WorkOnJobs() {
    bool isWorkLeft = false;
    for (const DeliveryJob& job : jobs_.List()) {
        switch (WorkOnJob(job)) {
            case JobOutcome::Done:
                jobs_.Remove(job.id);
                break;
            case JobOutcome::Later:
                isWorkLeft = true;
                break;
            case JobOutcome::Cancelled:
                return true;
        }
    }
    return isWorkLeft;
}

Delivery::JobOutcome Delivery::WorkOnJob(const DeliveryJob& job) {
    if (thread_.CheckCancelled(false)) return JobOutcome::Cancelled;
    if (const JobOutcome outcome = BringIntoPlace(job); outcome != JobOutcome::Done) return outcome;
    const auto command = CommandOf(job.file.type);
    if (command.empty() || !inbox_.Holds(job.file)) return JobOutcome::Done;
    return RunCommand(job, command);
}

/// Copies the file of a job that is not in place yet. Done also when there is nothing left to copy: a newer
/// content took its place, or the source is gone.
Delivery::JobOutcome Delivery::BringIntoPlace(const DeliveryJob& job) {
    const KelLock lock(mutexCopy_);
    if (!jobs_.Contains(job.id) || job.isCopied || inbox_.Holds(job.file)) return JobOutcome::Done;
    if (!FileExists(job.file.sourcePath)) {
        Log().Error("%S was not delivered to %S: the file store has it no more; publish it again\n",
                    job.file.sourcePath, job.destination);
        return JobOutcome::Done;
    }
    if (const KelStatus copied = inbox_.Put(job.file); !copied) {
        LogCopyFailure(copied.Error().message);
        return JobOutcome::Later;
    }
    copyFailure_.clear();
    jobs_.SetCopied(job.id);
    Log().Print("Delivered %S/%S/%S to %S\n", job.file.type, job.file.label, job.file.name, job.destination);
    return JobOutcome::Done;
}

Delivery::JobOutcome Delivery::RunCommand(const DeliveryJob& job, const KelVector<KelString>& command) {
    Program program;
    program.arguments = command;
    program.arguments.push_back(job.destination);
    program.environment = {"KEL_FILE_TYPE=" + job.file.type, "KEL_FILE_LABEL=" + job.file.label,
                           "KEL_FILE_NAME=" + job.file.name, "KEL_FILE_CHECKSUM=" + job.file.checksum};
    program.cancelled = [this] { return thread_.CheckCancelled(false); };
    std::size_t lines = 0;
    program.output = [&](const KelString& line) {
        if (++lines <= kMaxOutputLines) Log().Print("%S: %S\n", command.front(), line);
    };
    Log().Print("Running %S for %S\n", command.front(), job.destination);
    const ProgramResult result = RunProgram(program);
    if (lines > kMaxOutputLines) {
        Log().Warning("%S: %lu more lines were left out\n", command.front(), lines - kMaxOutputLines);
    }
    LogEnd(job, command.front(), result);
    return result.end == ProgramResult::End::Cancelled ? JobOutcome::Cancelled : JobOutcome::Done;
}

void Delivery::LogEnd(const DeliveryJob& job, const KelString& program, const ProgramResult& result) {
    const KelString what = KelFormat("%S for %S", program, job.destination);
    switch (result.end) {
        case ProgramResult::End::NotStarted:
            return Log().Error("%S could not be started: %S\n", what,
                               std::generic_category().message(result.code));
        case ProgramResult::End::Exited:
            if (result.code != 0) return Log().Error("%S failed with exit code %d\n", what, result.code);
            return Log().Print("%S is done\n", what);
        case ProgramResult::End::Killed:
            return Log().Error("%S was ended by signal %d\n", what, result.code);
        case ProgramResult::End::TimedOut:
            return Log().Error("%S took too long and was ended\n", what);
        case ProgramResult::End::Cancelled:
            return Log().Warning("%S was ended because the agent stops; it runs again at the next start\n",
                                 what);
    }
}

KelVector<KelString> Delivery::CommandOf(const KelString& type) const {
    const auto found = commands_.find(type);
    return found == commands_.end() ? KelVector<KelString>() : found->second;
}

unsigned int Delivery::ListFiles(KelContainer* arguments) {
    arguments->Clear();
    std::uint32_t index = 0;
    for (const DeliveredFile& file : inbox_.List()) {
        KelContainer values;
        values.SetString("FileType", file.type);
        values.SetString("FileLabel", file.label);
        values.SetString("FileName", file.name);
        values.SetString("FileChecksum", file.checksum);
        values.SetString("Path", file.path);
        values.SetInt64("Size", file.size);
        values.SetInt64("Time", file.time);
        arguments->SetContainer("Values", std::move(values), index++);
    }
    return kKelOk;
}
