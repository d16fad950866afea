#include "modules/console/console.h"

#include <array>
#include <ctime>
#include <unordered_set>

#include "kel/path.h"
#include "kelcore/action_db.h"
#include "kelcore/callback_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"
#include "kelcore/metrics/metrics.h"
#include "modules/console/console_metrics.h"

namespace {

constexpr char kReceiveSignature[] =
    "ConsoleReceiveUpstream (string FileType, string FileLabel, string FileName, string FileChecksum, string "
    "SourceDevice, string FilePath)";
constexpr char kUpstreamEvent[] = "FileStoreCallbackCopyUpstream";

unsigned int Fail(KelContainer* arguments, const KelError& error) {
    arguments->Clear();
    arguments->SetString("Message", error.message);
    return error.code;
}

std::int64_t SilentSince(const Device& device) {
    const bool isSilent = std::time(nullptr) - device.lastSeen > kSilentSeconds;
    return device.role != "master" && isSilent ? device.lastSeen : 0;
}

KelContainer ValuesOf(const Device& device) {
    KelContainer values;
    values.SetString("GUID", device.guid);
    values.SetString("Name", device.name);
    values.SetString("Role", device.role);
    values.SetString("Address", device.address);
    values.SetString("Parent", device.parentGuid);
    values.SetString("PathName", device.pathName);
    values.SetInt64("FirstSeen", device.firstSeen);
    values.SetInt64("LastSeen", device.lastSeen);
    values.SetInt64("SilentSince", SilentSince(device));
    values.SetString("Version", device.version);
    return values;
}

KelContainer ValuesOf(const PublicationSummary& publication) {
    KelContainer values;
    values.SetString("PublicationId", publication.id);
    publication.file.Write(values);
    values.SetInt64(kValueFileSize, publication.fileSize);
    values.SetInt64("CreateTime", publication.createTime);
    values.SetInt32(kValuePriority, publication.priority);
    values.SetInt32("Targets", publication.targets);
    values.SetInt32("Delivered", publication.delivered);
    values.SetInt32("Failed", publication.failed);
    values.SetInt32("Withdrawn", publication.withdrawn);
    values.SetInt64("WithdrawTime", publication.withdrawTime);
    values.SetInt32("Removed", publication.removed);
    values.SetInt32("Pending", publication.Pending());
    return values;
}

/// The values PublicationId; an empty one names none.
KelVector<KelString> NamedPublications(const KelContainer& arguments) {
    KelVector<KelString> ids;
    const std::uint32_t count = arguments.Has("PublicationId") ? arguments.Count("PublicationId") : 0;
    for (std::uint32_t i = 0; i < count; ++i) {
        if (KelString id = arguments.GetString("PublicationId", {}, i); !id.empty())
            ids.push_back(std::move(id));
    }
    return ids;
}

KelStatus CheckAllKnown(const KelVector<KelString>& ids, const KelVector<PublicationSummary>& publications) {
    std::unordered_set<KelString> known;
    for (const PublicationSummary& publication : publications)
        known.insert(publication.id);
    for (const KelString& id : ids) {
        if (!known.contains(id))
            return KelError{kKelErrorBadInput, KelFormat("There is no publication \"%S\"", id)};
    }
    return {};
}

}  // namespace

Console::Console()
    : KelModule("Console", "Console module"),
      database_(Log()),
      deviceStore_(database_),
      publications_(database_),
      directory_(Log(), deviceStore_),
      groups_(database_),
      groupActions_(Log(), directory_, groups_),
      withdrawals_(database_),
      publisher_(Log(), directory_, groups_, publications_, packages_),
      withdrawer_(Log(), directory_, publications_, withdrawals_, packages_),
      stageStore_(database_),
      stages_(Log(), stageStore_, publications_, publisher_),
      intake_(Log(), deviceStore_, publications_, publisher_, withdrawer_),
      explainer_(directory_, publications_),
      previewer_(directory_, groups_),
      caller_(directory_) {
    publications_.SetListener([this] { stages_.Signal(); });
}

void Console::Register(const char* handle) {
    ActionDbRegisterActions<Console>(
        *this, handle,
        {{&Console::ListDevices,
          {.signature = "ConsoleListDevices",
           .purpose = "Lists the devices of the tree, the master first.",
           .outputs =
               "container Values[] {string GUID, string Name, string Role, string Address, string Parent "
               "(its GUID), string PathName, int64 FirstSeen (seconds since the epoch), int64 LastSeen, "
               "int64 SilentSince (0: is not silent), string Version (of its program; empty: unknown)}",
           .results = "18 the database cannot be read",
           .callers = KelCallers::Operator}},
         {&Console::ListPublications,
          {.signature = "ConsoleListPublications",
           .purpose = "Lists publications, the latest first; a single one with its devices.",
           .inputs = "string PublicationId[]? (absent: all), bool CountsOnly?",
           .outputs =
               "container Values[]? {string PublicationId, string FileType, string FileLabel, string "
               "FileName, string "
               "FileChecksum, int64 FileSize (bytes), int64 CreateTime (seconds since the epoch), int32 "
               "Priority, int32 Targets, int32 Delivered, int32 Failed, int32 Withdrawn, int64 "
               "WithdrawTime, int32 Removed, int32 Pending, string State? (these in stages), int32 Stage?, "
               "int32 "
               "StageCount?, string Reason?}, container Devices[]? {string GUID, string Name, string "
               "Status, int64 Time, string Message, int32 Stage?}, container Stages[]? {int32 Stage, "
               "int32 Targets, int32 Delivered, int32 Failed, int32 Pending, int32 Scheduled}",
           .results = "1 no such publication; 18 the database cannot be read",
           .callers = KelCallers::Operator}},
         {&Console::Publish,
          {.signature = "ConsolePublish",
           .purpose = "Publishes a file of this device to devices of the tree.",
           .inputs =
               "string FilePath, string FileType, string FileLabel, string FileName? (absent: that of "
               "the path), string Device[]? (GUIDs, names, patterns, groups, or all), int32 Priority?, "
               "bool Bypass?, bool WakeOnLan?, int32 KeepCopy?, container FileInfo?, int32 Stage[]? (per "
               "cent of the targets), int32 StopAtFailures?",
           .outputs =
               "string PublicationId, string FileChecksum, int64 FileSize (bytes), int32 Targets, int32 "
               "Delivered, int32 Failed, int32 Pending, int32 LeftOut (devices that \"all\" could not "
               "reach)",
           .results = "1 unusable; 17 the file store does not answer; 18 not written; "
                      "the file store's when it refuses the file",
           .callers = KelCallers::Local,
           .changes = true}},
         {&Console::Preview,
          {.signature = "ConsolePreview",
           .purpose = "Says what publishing files would do, without doing any of it.",
           .inputs = "string FilePath[], string FileName[]?, string FileType, string FileLabel, string "
                     "Device[], int32 Stage[]?",
           .outputs =
               "container PreviewFiles[] {string FileName, int64 FileSize (bytes), string FileChecksum, "
               "bool Held (the targets would get orders)}, container Targets[]? {string GUID, string "
               "Name, int32 Stage, string Via}, container Links[]? {string From, string To, string "
               "FromGuid, string ToGuid, int32 Targets (behind it), int64 Bytes}, int32 LeftOut",
           .results = "1 unusable",
           .callers = KelCallers::Local}},
         {&Console::Explain,
          {.signature = "ConsoleExplain",
           .purpose =
               "Says why the pending targets of a publication do not have the file, asking the devices "
               "on the way.",
           .inputs = "string PublicationId, string Device? (GUID or name)",
           .outputs = "container Values[]? {string GUID, string Name, string Device?, string At?, string "
                      "AtName?, string Code, string Message, string Peer?, int64 Bytes?, int64 Size?, int64 "
                      "Count?, int64 Since?, int64 NextTry?}, int32 LeftOut",
           .results = "1 no such publication or device; 17 the file store does not answer",
           .callers = KelCallers::Operator}},
         {&Console::Withdraw,
          {.signature = "ConsoleWithdraw",
           .purpose = "Ends a publication: targets that have not begun never get the file.",
           .inputs = "string PublicationId",
           .outputs =
               "container Values {string PublicationId, string FileType, string FileLabel, string FileName, "
               "string "
               "FileChecksum, int64 FileSize (bytes), int64 CreateTime (seconds since the epoch), int32 "
               "Priority, int32 Targets, int32 Delivered, int32 Failed, int32 Withdrawn, int64 "
               "WithdrawTime, int32 Removed, int32 Pending}",
           .results = "1 no such publication; 18 not written",
           .callers = KelCallers::Local,
           .changes = true}},
         {&Console::RemoveDevice,
          {.signature = "ConsoleRemoveDevice",
           .purpose =
               "Removes a device from the tree until it reports itself again, and revokes its certificate, "
               "if it has one.",
           .inputs = "string Device (GUID or name)",
           .outputs = "string GUID, string Name",
           .results = "1 no such device; 18 not written",
           .callers = KelCallers::Local,
           .changes = true}},
         {&Console::CallDevice,
          {.signature = "ConsoleCallDevice",
           .purpose = "Calls an action on a device of the tree for the operator of the master.",
           .inputs = "string Device (GUID or name), string Action, container Arguments?, int32 Seconds? (for "
                     "the answer)",
           .outputs = "int64 Result, container Answer (those of the action)",
           .results = "1 no such device, or no way to it; 17 a device on the way does "
                      "not take it; 21 one does not answer",
           .callers = KelCallers::Local}},
         {&Console::ReceiveUpstream,
          {.signature = kReceiveSignature,
           .purpose = "Takes identities and receipts of the devices below; for the event "
                      "FileStoreCallbackCopyUpstream.",
           .results = "44001 not recorded, to be handed over again; 44003 taken",
           .callers = KelCallers::Local}},
         {[](Console&, KelContainer* arguments) {
              return Fail(arguments,
                          {kKelErrorNotAvailable, "This console keeps no database that runs scripts"});
          },
          {.signature = "QuarnelDbRunScript",
           .purpose = "Tells other modules that this device is the master; runs nothing.",
           .inputs = "string Script",
           .results = "17 always",
           .callers = KelCallers::Local}},
         {[](Console&, KelContainer* arguments) {
              arguments->Clear();
              arguments->SetString("Types", "Device");
              return unsigned{kKelOk};
          },
          {.signature = "QuarnelDbObjectListTypes",
           .purpose = "Tells other modules that this device is the master.",
           .outputs = "string Types[]",
           .callers = KelCallers::Local}}});
    groupActions_.Register(handle);
    stages_.Register(handle);
    KelMetricsRegister(handle, [this](KelMetricsPage& page) { CollectConsoleMetrics(database_, page); });
    CallbackDbRegisterAction(kUpstreamEvent, kReceiveSignature, {}, 0);
}

void Console::Unregister() {
    CallbackDbDeleteAction(kUpstreamEvent, kReceiveSignature, {});
}

bool Console::Initialise() {
    if (!PathCreate(DataPath())) {
        Log().Error("The folder %S cannot be created; check its rights\n", DataPath());
        return false;
    }
    RemoveUnfinishedCopies(DataPath());
    directory_.SetIniPath(IniPath());
    publisher_.SetFolder(DataPath());
    withdrawer_.SetFolder(DataPath());
    incomingFolder_.emplace(IncomingFolder(DataPath()));
    packageFolder_.emplace(PackagesFolder(DataPath()), [this](const KelString& path, bool removes) {
        return withdrawer_.ExaminePackage(path, removes);
    });
    return database_.Open(DataPath(), SchemaPath());
}

std::span<const IniSetting> Console::IniSettings() const {
    static const std::array settings = {IniSetting::Text("Devices", "*"),
                                        IniSetting::Text("SqlUpgrade", "Sql*")};
    return settings;
}

void Console::CheckIni(const IniFile& ini, KelVector<IniFault>& faults) const {
    KelVector<KelString> problems;
    ReadDevices(ini, problems);
    for (const KelString& problem : problems)
        faults.push_back({IniFault::Weight::Unusable, problem + "; it is left out"});
}

bool Console::Activate() {
    KelContainer alias;
    alias.SetString("AliasName", kPackageAlias);
    alias.SetString("AliasPath", DataPath());
    const unsigned int code = CallLocal("HttpProtocolAddAlias", alias);
    if (code != kKelOk) {
        Log().Error("Failed to add alias %s, error %u; no device can fetch published files\n", kPackageAlias,
                    code);
    }
    // All devices report themselves to a console that has lost its database.
    KelContainer console;
    console.SetString("ConsoleId", database_.Id());
    CallLocal("IdentitySetConsole", console);
    withdrawer_.HandOver();
    return stages_.Start();
}

void Console::Cleanup() {
    packageFolder_.reset();
    incomingFolder_.reset();
    stages_.Stop();
    database_.Close();
}

unsigned int Console::ListDevices(KelContainer* arguments) {
    const auto devices = directory_.Read();
    if (!devices) return Fail(arguments, devices.Error());
    arguments->Clear();
    std::uint32_t index = 0;
    for (const Device& device : *devices)
        arguments->SetContainer("Values", ValuesOf(device), index++);
    return kKelOk;
}

KelResult<KelContainer> Console::ReadTargets(const KelString& id) {
    const auto targets = publications_.ListTargets(id);
    if (!targets) return targets.Error();
    const auto devices = directory_.Read();
    if (!devices) return devices.Error();
    KelHash<KelString, KelString> names;
    for (const Device& device : *devices)
        names[device.guid] = device.name;
    KelContainer result;
    std::uint32_t index = 0;
    for (const PublicationTarget& target : *targets) {
        KelContainer values;
        values.SetString("GUID", target.guid);
        values.SetString("Name", names[target.guid]);
        values.SetString("Status", target.status);
        values.SetInt64("Time", target.time);
        values.SetString("Message", target.message);
        result.SetContainer("Devices", std::move(values), index++);
    }
    return result;
}

unsigned int Console::ListPublications(KelContainer* arguments) {
    const KelVector<KelString> ids = NamedPublications(*arguments);
    const auto publications = publications_.List(ids);
    if (!publications) return Fail(arguments, publications.Error());
    if (const KelStatus known = CheckAllKnown(ids, *publications); !known)
        return Fail(arguments, known.Error());
    // Devices are listed for a single publication only: a list of all would be large.
    auto result = KelResult<KelContainer>(KelContainer());
    if (ids.size() == 1 && !arguments->GetBool("CountsOnly")) result = ReadTargets(ids.front());
    if (!result) return Fail(arguments, result.Error());
    *arguments = std::move(*result);
    std::uint32_t index = 0;
    for (const PublicationSummary& publication : *publications)
        arguments->SetContainer("Values", ValuesOf(publication), index++);
    const KelStatus described = stages_.Describe(*arguments);
    return described ? unsigned{kKelOk} : Fail(arguments, described.Error());
}

unsigned int Console::Publish(KelContainer* arguments) {
    // A file that is published once more must not meet its own withdrawal.
    if (!withdrawer_.HandOver())
        return Fail(arguments, {kKelErrorNotAvailable, "The file store does not answer; see its log"});
    const auto request = ReadPublicationRequest(*arguments);
    auto result = request ? publisher_.Publish(*request) : KelResult<KelContainer>(request.Error());
    if (!result) {
        Log().Warning("Nothing was published: %S\n", result.Error().message);
        return Fail(arguments, result.Error());
    }
    Log().Print("Published %S to %d devices as %S\n", request->file.Text(), result->GetInt32("Targets"),
                result->GetString("PublicationId"));
    *arguments = std::move(*result);
    return kKelOk;
}

unsigned int Console::Preview(KelContainer* arguments) {
    auto result = previewer_.Preview(*arguments);
    if (!result) return Fail(arguments, result.Error());
    *arguments = std::move(*result);
    return kKelOk;
}

unsigned int Console::Explain(KelContainer* arguments) {
    auto result = explainer_.Explain(arguments->GetString("PublicationId"), arguments->GetString("Device"));
    if (!result) return Fail(arguments, result.Error());
    *arguments = std::move(*result);
    return kKelOk;
}

unsigned int Console::Withdraw(KelContainer* arguments) {
    const KelString id = arguments->GetString("PublicationId");
    const KelStatus withdrawn = withdrawer_.WithdrawPublication(id);
    if (!withdrawn) return Fail(arguments, withdrawn.Error());
    stages_.Signal();
    const auto publications = publications_.List({id});
    if (!publications) return Fail(arguments, publications.Error());
    arguments->Clear();
    for (const PublicationSummary& publication : *publications)
        arguments->SetContainer("Values", ValuesOf(publication));
    return kKelOk;
}

unsigned int Console::RemoveDevice(KelContainer* arguments) {
    auto result = withdrawer_.RemoveDevice(arguments->GetString("Device"));
    if (!result) return Fail(arguments, result.Error());
    stages_.Signal();
    *arguments = std::move(*result);
    return RevokeKeys(arguments);
}

/// In a tree with keys, a device that was removed stays out until it is invited again.
unsigned int Console::RevokeKeys(KelContainer* arguments) {
    KelContainer revoke;
    const KelString guid = arguments->GetString("GUID");
    revoke.SetString("GUID", guid);
    const unsigned int code = CallLocal("KeysRevoke", revoke);
    if (code == kKelOk || code == kKelErrorUnknownAction || code == kKelErrorMissingContent) return kKelOk;
    return Fail(arguments,
                {code, "The device was removed, but its certificate was not revoked: " +
                           revoke.GetString("Message") + "; revoke it with 'kel keys revoke " + guid + "'"});
}

unsigned int Console::CallDevice(KelContainer* arguments) {
    auto result = caller_.Call(*arguments);
    if (!result) return Fail(arguments, result.Error());
    *arguments = std::move(*result);
    return kKelOk;
}

unsigned int Console::ReceiveUpstream(KelContainer* arguments) {
    const unsigned int code = intake_.Receive(*arguments, std::time(nullptr));
    arguments->Clear();
    return code;
}
