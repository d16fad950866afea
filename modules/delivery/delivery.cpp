#include "modules/delivery/delivery.h"

#include <set>
#include <utility>

#include "kel/directory.h"
#include "kel/file.h"
#include "kel/path.h"
#include "kelcore/action_db.h"
#include "kelcore/callback_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"

namespace {

constexpr char kReceiveSignature[] =
    "DeliveryReceiveFile (string FileType, string FileLabel, string FileName, string FileChecksum, string "
    "FilePath, container FileInfo)";
constexpr char kReceivedEvent[] = "FileStoreCallbackReceivedFile";
constexpr char kWithdrawSignature[] =
    "DeliveryWithdrawFile (string FileType, string FileLabel, string FileName, string FileChecksum)";
constexpr char kWithdrawnEvent[] = "FileStoreCallbackWithdrawnFile";
constexpr char kCollectSignature[] =
    "DeliveryCollect (string FileType, string FileLabel, string FileName, string FileChecksum, string "
    "SourceDevice, string FilePath)";
constexpr char kUpstreamEvent[] = "FileStoreCallbackCopyUpstream";
constexpr char kSyncSignature[] = "DeliverySync ()";
constexpr char kSyncEvent[] = "FileStoreCallbackSyncUpstream";
/// A week, so that a large file can come through windows that are open at weekends only.
const IniSetting kOrderTimeout =
    IniSetting::Number("Delivery", "OrderTimeout", std::int64_t{7} * 86400).Between(1, 31'536'000);
constexpr std::uint64_t kRetryMilliseconds = std::uint64_t{60} * 1000;
constexpr std::uint64_t kIdleMilliseconds = std::uint64_t{3600} * 1000;

std::uint64_t PauseAfterWork(bool isWorkLeft) {
    return isWorkLeft ? kRetryMilliseconds : kIdleMilliseconds;
}

/// The values that the lists of delivered and of collected files have in common.
template <class File>
KelContainer ListedValues(const File& file) {
    KelContainer values;
    file.key.Write(values);
    values.SetString("Path", file.path);
    values.SetInt64("Size", file.size);
    return values;
}

}  // namespace

Delivery::Delivery()
    : KelModule("Delivery", "Delivery module"),
      jobs_(Log()),
      commands_(Log()),
      receipts_(Log()),
      thread_(
          Log(), KelPeriodicThread::Begin::WithStep, [this] { return WorkOnJobs(); }, PauseAfterWork),
      receiptThread_(
          Log(), KelPeriodicThread::Begin::WithStep,
          [this] {
              const bool isWaiting = WorkOnOrders();
              return SendReceipts() || isWaiting;
          },
          PauseAfterWork) {}

Delivery::~Delivery() {
    Delivery::Cleanup();
}

void Delivery::Register(const char* handle) {
    ActionDbRegisterActions<Delivery>(
        *this, handle,
        {{&Delivery::ReceiveFile,
          {.signature = kReceiveSignature,
           .purpose = "Delivers a file that has arrived, or carries out an order; for the event "
                      "FileStoreCallbackReceivedFile.",
           .results = "1 unusable; 44001 not copied, to be handed over again",
           .callers = KelCallers::Local}},
         {&Delivery::Withdraw,
          {.signature = kWithdrawSignature,
           .purpose = "Ends a delivery that has not begun; for the event FileStoreCallbackWithdrawnFile.",
           .results = "1 unusable; 44003 the file is still to be copied",
           .callers = KelCallers::Local}},
         {&Delivery::ListFiles,
          {.signature = "DeliveryListFiles",
           .purpose = "Lists the files that were delivered to this device.",
           .outputs = "container Values[]? {string FileType, string FileLabel, string FileName, string "
                      "FileChecksum, string Path, int64 Size (bytes), int64 Time (seconds since the epoch)}",
           .callers = KelCallers::Operator}},
         {&Delivery::Collect,
          {.signature = kCollectSignature,
           .purpose = "Collects a file from below on the master; for the event "
                      "FileStoreCallbackCopyUpstream.",
           .results = "1 unusable; 44001 not copied, to be handed over again; 44003 "
                      "the file stays here, collected or not",
           .callers = KelCallers::Local}},
         {&Delivery::Sync,
          {.signature = kSyncSignature,
           .purpose = "Puts the files in place that were collected with the value SyncFollows; for the event "
                      "FileStoreCallbackSyncUpstream.",
           .results = "44001 not all are in place: to be handed over again",
           .callers = KelCallers::Local}},
         {&Delivery::ListCollected,
          {.signature = "DeliveryListCollected",
           .purpose = "Lists the files that were collected from the devices below.",
           .outputs = "container Values[]? {string Device, string FileType, string FileLabel, string "
                      "FileName, string Path, int64 Size (bytes)}",
           .callers = KelCallers::Operator}}});
    CallbackDbRegisterAction(kReceivedEvent, kReceiveSignature, {}, 0);
    CallbackDbRegisterAction(kWithdrawnEvent, kWithdrawSignature, {}, 0);
}

void Delivery::Unregister() {
    CallbackDbDeleteAction(kReceivedEvent, kReceiveSignature, {});
    CallbackDbDeleteAction(kWithdrawnEvent, kWithdrawSignature, {});
    CallbackDbDeleteAction(kUpstreamEvent, kCollectSignature, {});
    CallbackDbDeleteAction(kSyncEvent, kSyncSignature, {});
}

bool Delivery::Initialise() {
    IniFile ini;
    if (!ini.Open(IniPath())) return false;
    inbox_.Configure(ini, DataPath());
    orderTimeout_ = ReadIniNumber(ini, kOrderTimeout);
    commands_.Configure(ini);
    receipts_.SetFolder(DataPath() + "/Outgoing");
    collected_.Configure(ini, DataPath(), DataPath() + "/Incoming");
    // Every module has registered by now; only a master has this action.
    if (ActionDbIsActionRegistered("QuarnelDbObjectListTypes")) {
        CallbackDbRegisterAction(kUpstreamEvent, kCollectSignature, {}, 0);
        CallbackDbRegisterAction(kSyncEvent, kSyncSignature, {}, 0);
    }
    if (!jobs_.Load(DataPath() + "/Pending") || !orders_.Load(DataPath())) {
        Log().Error("The folders of pending work in %S cannot be created; check its rights\n", DataPath());
        return false;
    }
    RemoveUnfinishedCopies();
    for (const char* folder : {"/Outgoing", "/Incoming"})
        leftOvers_.push_back(std::make_unique<KelLeftOverFolder>(DataPath() + folder));
    return true;
}

std::span<const IniSetting> Delivery::IniSettings() const {
    static const KelVector<IniSetting> settings = [] {
        KelVector<IniSetting> all = Inbox::IniSettings();
        all.push_back(CollectedFiles::Setting());
        all.push_back(kOrderTimeout);
        all.push_back(IniSetting::Text("Commands", "*"));
        return all;
    }();
    return settings;
}

void Delivery::CheckIni(const IniFile& ini, KelVector<IniFault>& faults) const {
    // Commands run with the agent's rights and may name what is secret.
    if (!ini.GetKeys("Commands").empty() && FileIsOpenToOthers(ini.Path()))
        faults.push_back(
            {IniFault::Weight::Vital, "names commands, but others may read or write it; chmod 600 it"});
    Inbox::CheckIni(ini, faults);
    Commands::CheckIni(ini, faults);
}

/// A copy into the inbox is only made for an open job that is on the disk before it. So only the folders of
/// the open jobs are searched, however many folders the inbox has.
void Delivery::RemoveUnfinishedCopies() {
    std::set<KelString> folders;
    for (const DeliveryJob& job : jobs_.ListOpen()) {
        // A link that was planted in its place must not lead elsewhere.
        if (!ObstacleTo(inbox_.PlaceOf(job.file)).empty()) continue;
        KelString folder, name;
        SplitPath(job.destination, folder, name);
        if (folders.insert(folder).second) DirDeleteTempFiles(folder);
    }
}

bool Delivery::Activate() {
    return thread_.Start() && receiptThread_.Start();
}

void Delivery::Cleanup() {
    leftOvers_.clear();
    thread_.Cancel(0, false);  // stops a running command while the other thread ends
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
    const auto file = ReadReceivedFile(*arguments);
    if (!file) return Refuse(arguments, file.Error().message);
    const KelContainer info = arguments->GetContainer(kValueFileInfo);
    arguments->Clear();
    if (file->key.type == kOrderFileType) return TakeOrder(*file, info);
    return Deliver(*file, info, Arrival::HandedOver);
}

unsigned int Delivery::Collect(KelContainer* arguments) {
    const auto file = ReadReceivedFile(*arguments);
    if (!file) return Refuse(arguments, file.Error().message);
    const KelString device = arguments->GetString(kValueSourceDevice);
    const bool syncFollows = arguments->GetBool(kValueSyncFollows);
    arguments->Clear();
    // The master is the top of the tree: files of all types stay here.
    if (!CollectedFiles::IsToBeCollected(file->key.type)) return kKelAnswerStaysHere;
    const KelLock lock(mutexCopy_);
    const auto isNew = syncFollows ? collected_.PutLater(device, *file) : collected_.Put(device, *file);
    if (!isNew) {
        LogCopyFailure(isNew.Error().message);
        return kKelAnswerTryLater;
    }
    if (*isNew) collectedNow_.push_back(KelFormat("Collected %S from %S", file->key.Text(), device));
    if (!syncFollows) LogCollected();
    return kKelAnswerStaysHere;
}

unsigned int Delivery::Sync(KelContainer* arguments) {
    arguments->Clear();
    const KelLock lock(mutexCopy_);
    if (const KelStatus placed = collected_.PutAll(); !placed) {
        collectedNow_.clear();
        LogCopyFailure(placed.Error().message);
        return kKelAnswerTryLater;
    }
    LogCollected();
    return kKelOk;
}

void Delivery::LogCollected() {
    LogCopySuccess();
    for (const KelString& line : std::exchange(collectedNow_, {}))
        Log().Print("%S\n", line);
}

unsigned int Delivery::ListFiles(KelContainer* arguments) {
    arguments->Clear();
    std::uint32_t index = 0;
    const auto wasDelivered = [this](const KelString& path) { return orders_.HasPast(path); };
    for (const DeliveredFile& file : inbox_.List(wasDelivered)) {
        KelContainer values = ListedValues(file);
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
        values.Remove(kValueFileChecksum);  // not known: collected files are not hashed for a list
        values.SetString("Device", file.device);
        arguments->SetContainer("Values", std::move(values), index++);
    }
    return kKelOk;
}
