#include "modules/delivery/delivery.h"

#include <algorithm>
#include <ctime>
#include <set>
#include <system_error>

#include "kel/directory.h"
#include "kel/file.h"
#include "kel/path.h"
#include "kelcore/action_db.h"
#include "kelcore/call_origin.h"
#include "kelcore/callback_db.h"
#include "kelcore/error_codes.h"
#include "modules/delivery/command_line.h"

namespace {

constexpr char kReceiveSignature[] =
    "DeliveryReceiveFile (string FileType, string FileLabel, string FileName, string FileChecksum, string "
    "FilePath)";
constexpr char kReceivedEvent[] = "FileStoreCallbackReceivedFile";
constexpr char kCollectSignature[] =
    "DeliveryCollect (string FileType, string FileLabel, string FileName, string FileChecksum, string "
    "SourceDevice, string FilePath)";
constexpr char kUpstreamEvent[] = "FileStoreCallbackCopyUpstream";
constexpr unsigned int kNotReady = 44001;   ///< the file store offers the file again
constexpr unsigned int kStaysHere = 44003;  ///< the file store keeps the file and sends it nowhere
constexpr std::size_t kMaxOutputLines = 1000;
constexpr int kMaxReceiptFailures = 10;  ///< in one go
constexpr std::uint64_t kRetryMilliseconds = std::uint64_t{60} * 1000;
constexpr std::uint64_t kIdleMilliseconds = std::uint64_t{3600} * 1000;

std::uint64_t PauseAfterWork(bool isWorkLeft) {
    return isWorkLeft ? kRetryMilliseconds : kIdleMilliseconds;
}

/// What is wrong with how a program ended, empty when nothing is.
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

/// What the lists of delivered and of collected files tell of each.
template <class File>
KelContainer ListedValues(const File& file) {
    KelContainer values;
    values.SetString("FileType", file.type);
    values.SetString("FileLabel", file.label);
    values.SetString("FileName", file.name);
    values.SetString("Path", file.path);
    values.SetInt64("Size", file.size);
    return values;
}

}  // namespace

Delivery::Delivery()
    : KelModule("Delivery", "Delivery module"),
      jobs_(Log()),
      receipts_(Log()),
      thread_(
          Log(), KelPeriodicThread::Begin::WithStep, [this] { return WorkOnJobs(); }, PauseAfterWork),
      receiptThread_(
          Log(), KelPeriodicThread::Begin::WithStep, [this] { return SendReceipts(); }, PauseAfterWork) {}

Delivery::~Delivery() {
    Delivery::Cleanup();
}

void Delivery::Register(const char* handle) {
    const auto bind = [this](unsigned int (Delivery::*handler)(KelContainer*)) {
        return [this, handler](KelContainer* arguments) { return (this->*handler)(arguments); };
    };
    ActionDbRegisterAction(kReceiveSignature, bind(&Delivery::ReceiveFile), handle);
    ActionDbRegisterAction("DeliveryListFiles ()", bind(&Delivery::ListFiles), handle);
    ActionDbRegisterAction(kCollectSignature, bind(&Delivery::Collect), handle);
    ActionDbRegisterAction("DeliveryListCollected ()", bind(&Delivery::ListCollected), handle);
    CallbackDbRegisterAction(kReceivedEvent, kReceiveSignature, {}, 0);
}

void Delivery::Unregister() {
    CallbackDbDeleteAction(kReceivedEvent, kReceiveSignature, {});
    CallbackDbDeleteAction(kUpstreamEvent, kCollectSignature, {});
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
    receipts_.SetFolder(DataPath() + "/Outgoing");
    collected_.SetFolders(DataPath() + "/Collected", DataPath() + "/Incoming");
    // Every module has registered by now: this one tells a master.
    if (ActionDbIsActionRegistered("QuarnelDbObjectListTypes"))
        CallbackDbRegisterAction(kUpstreamEvent, kCollectSignature, {}, 0);
    if (!jobs_.Load(DataPath() + "/Pending")) {
        Log().Error("The folder %S/Pending cannot be created; check its rights\n", DataPath());
        return false;
    }
    RemoveUnfinishedCopies();
    return true;
}

/// A copy into the inbox is made for an open job that is on the disk before it, so the folders of the open
/// jobs are the only ones to be looked through, however many the inbox has.
void Delivery::RemoveUnfinishedCopies() {
    std::set<KelString> folders;
    for (const DeliveryJob& job : jobs_.List(true)) {
        KelString folder, name;
        SplitPath(job.destination, folder, name);
        if (folders.insert(folder).second) DirDeleteTempFiles(folder);
    }
}

bool Delivery::Activate() {
    thread_.Start();
    receiptThread_.Start();
    return true;
}

void Delivery::Cleanup() {
    thread_.Cancel(0, false);
    receiptThread_.Cancel(0, true);
    thread_.Cancel(0, true);
}

unsigned int Delivery::Refuse(KelContainer* arguments, const KelString& reason) {
    Log().Warning("A file was refused: %S\n", reason);
    arguments->Clear();
    arguments->SetString("Message", reason);
    return kKelErrorBadInput;
}

unsigned int Delivery::ReceiveFile(KelContainer* arguments) {
    if (!ActionIsFromThisDevice(*arguments))
        return Refuse(arguments, "another device may not name local files");
    const auto file = ReadReceivedFile(*arguments);
    if (!file) return Refuse(arguments, file.Error().message);
    arguments->Clear();
    return Take(*file);
}

unsigned int Delivery::Collect(KelContainer* arguments) {
    if (!ActionIsFromThisDevice(*arguments))
        return Refuse(arguments, "another device may not name local files");
    const auto file = ReadReceivedFile(*arguments);
    if (!file) return Refuse(arguments, file.Error().message);
    const KelString device = arguments->GetString("SourceDevice");
    arguments->Clear();
    if (!CollectedFiles::IsToBeCollected(file->type)) return kStaysHere;
    const KelLock lock(mutexCopy_);
    const auto isNew = collected_.Put(device, *file);
    if (!isNew) {
        LogCopyFailure(isNew.Error().message);
        return kNotReady;
    }
    copyFailure_.clear();
    if (*isNew) Log().Print("Collected %S/%S/%S from %S\n", file->type, file->label, file->name, device);
    return kStaysHere;
}

unsigned int Delivery::Take(const ReceivedFile& file) {
    const KelString destination = inbox_.PathOf(file);
    const bool hasCommand = !CommandOf(file.type).empty();
    {
        const KelLock lock(mutexCopy_);
        if (inbox_.Holds(file)) {
            Log().Detail("%S is in place already\n", destination);
            jobs_.EndOtherJobFor(file, destination);
            return kKelOk;
        }
        // Kept before the copy, so that a stop in between loses neither the command nor the receipt.
        const std::uint64_t job = jobs_.Add(
            file, destination, std::max<std::int64_t>(0, FileGetSize64(file.sourcePath)), std::time(nullptr));
        if (const KelStatus copied = inbox_.Put(file); !copied) {
            LogCopyFailure(copied.Error().message);
            thread_.Signal(0);
            return kNotReady;
        }
        copyFailure_.clear();
        jobs_.SetCopied(job);
        // Not kept: after a restart the file in its place tells the same.
        if (!hasCommand) jobs_.SetOutcome(job, DeliveryOutcome::Delivered, {}, false);
    }
    Log().Print("Delivered %S/%S/%S to %S\n", file.type, file.label, file.name, destination);
    (hasCommand ? thread_ : receiptThread_).Signal(0);
    return kKelOk;
}

void Delivery::LogCopyFailure(const KelString& message) {
    if (message == copyFailure_) return;
    copyFailure_ = message;
    Log().Error("%S; tried again once a minute\n", message);
}

bool Delivery::WorkOnJobs() {
    bool isWorkLeft = false;
    for (const DeliveryJob& job : jobs_.List(true)) {
        const JobOutcome outcome = WorkOnJob(job);
        if (outcome == JobOutcome::Cancelled) return true;
        if (outcome == JobOutcome::Later) isWorkLeft = true;
    }
    return isWorkLeft;
}

bool Delivery::SendReceipts() {
    int failures = 0;
    for (const DeliveryJob& job : jobs_.List(false)) {
        if (receiptThread_.CheckCancelled(false) || failures == kMaxReceiptFailures) return true;
        if (receipts_.Send(job)) {
            jobs_.Remove(job.id);
        } else {
            ++failures;
        }
    }
    return failures > 0;
}

void Delivery::Conclude(const DeliveryJob& job, DeliveryOutcome outcome, const KelString& message) {
    jobs_.SetOutcome(job.id, outcome, message, true);
    receiptThread_.Signal(0);
}

Delivery::JobOutcome Delivery::WorkOnJob(const DeliveryJob& job) {
    if (thread_.CheckCancelled(false)) return JobOutcome::Cancelled;
    if (const JobOutcome outcome = BringIntoPlace(job); outcome != JobOutcome::Done) return outcome;
    if (!jobs_.IsOpen(job.id)) return JobOutcome::Done;
    const auto command = CommandOf(job.file.type);
    if (command.empty()) {
        Conclude(job, DeliveryOutcome::Delivered);
        return JobOutcome::Done;
    }
    if (!inbox_.Holds(job.file)) {
        Log().Error("%S does not run for %S, which was changed or removed\n", command.front(),
                    job.destination);
        Conclude(job, DeliveryOutcome::Failed, "The file was changed or removed before its command ran");
        return JobOutcome::Done;
    }
    return RunCommand(job, command);
}

/// Copies the file of a job that is not in place yet. Done also when there is nothing left to copy: a newer
/// content took its place, or the source is gone.
Delivery::JobOutcome Delivery::BringIntoPlace(const DeliveryJob& job) {
    const KelLock lock(mutexCopy_);
    if (!jobs_.IsOpen(job.id) || job.isCopied || inbox_.Holds(job.file)) return JobOutcome::Done;
    if (!FileExists(job.file.sourcePath)) {
        Log().Error("%S was not delivered to %S: the file store has it no more; publish it again\n",
                    job.file.sourcePath, job.destination);
        Conclude(job, DeliveryOutcome::Failed, "The file store had it no more when it was to be copied");
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
    const KelString problem = ProblemOf(result);
    if (result.end == ProgramResult::End::Cancelled) {
        Log().Warning("%S for %S %S\n", command.front(), job.destination, problem);
        return JobOutcome::Cancelled;
    }
    if (problem.empty()) {
        Log().Print("%S for %S is done\n", command.front(), job.destination);
        Conclude(job, DeliveryOutcome::Delivered);
    } else {
        Log().Error("%S for %S %S\n", command.front(), job.destination, problem);
        Conclude(job, DeliveryOutcome::Failed, KelFormat("%S %S", command.front(), problem));
    }
    return JobOutcome::Done;
}

KelVector<KelString> Delivery::CommandOf(const KelString& type) const {
    const auto found = commands_.find(type);
    return found == commands_.end() ? KelVector<KelString>() : found->second;
}

unsigned int Delivery::ListFiles(KelContainer* arguments) {
    arguments->Clear();
    std::uint32_t index = 0;
    for (const DeliveredFile& file : inbox_.List()) {
        KelContainer values = ListedValues(file);
        values.SetString("FileChecksum", file.checksum);
        values.SetInt64("Time", file.time);
        arguments->SetContainer("Values", std::move(values), index++);
    }
    return kKelOk;
}

unsigned int Delivery::ListCollected(KelContainer* arguments) {
    arguments->Clear();
    std::uint32_t index = 0;
    for (const CollectedFile& file : collected_.List()) {
        KelContainer values = ListedValues(file);
        values.SetString("Device", file.device);
        arguments->SetContainer("Values", std::move(values), index++);
    }
    return kKelOk;
}
