#include "modules/console/console.h"

#include <ctime>

#include "kel/checksum.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/call_origin.h"
#include "kelcore/callback_db.h"
#include "kelcore/error_codes.h"
#include "modules/console/device_tree.h"

namespace {

constexpr std::size_t kPublicationIdBytes = 8;
constexpr char kReceiveSignature[] =
    "ConsoleReceiveUpstream (string FileType, string FileLabel, string FileName, string FileChecksum, string "
    "SourceDevice, string FilePath)";
constexpr char kUpstreamEvent[] = "FileStoreCallbackCopyUpstream";

unsigned int CallLocal(const char* action, KelContainer& container) {
    return ActionDbInvokeContainer(nullptr, {}, action, container, 0, -1, -1, nullptr);
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
    return values;
}

KelContainer ValuesOf(const PublicationSummary& publication) {
    KelContainer values;
    values.SetString("PublicationId", publication.id);
    values.SetString("FileType", publication.fileType);
    values.SetString("FileLabel", publication.fileLabel);
    values.SetString("FileName", publication.fileName);
    values.SetString("FileChecksum", publication.fileChecksum);
    values.SetInt64("FileSize", publication.fileSize);
    values.SetInt64("CreateTime", publication.createTime);
    values.SetInt32("Priority", publication.priority);
    values.SetInt32("Targets", publication.targets);
    values.SetInt32("Delivered", publication.delivered);
    values.SetInt32("Failed", publication.failed);
    values.SetInt32("Pending", publication.targets - publication.delivered - publication.failed);
    return values;
}

PublicationSummary SummaryOf(const PublicationRequest& request, const PackageFile& file,
                             const KelString& id) {
    PublicationSummary publication;
    publication.id = id;
    publication.fileType = request.fileType;
    publication.fileLabel = request.fileLabel;
    publication.fileName = request.fileName;
    publication.fileChecksum = file.checksum;
    publication.fileSize = file.size;
    publication.createTime = std::time(nullptr);
    publication.priority = request.priority;
    return publication;
}

}  // namespace

Console::Console()
    : KelModule("Console", "Console module"),
      database_(Log()),
      deviceStore_(database_),
      publications_(database_),
      directory_(Log(), deviceStore_),
      intake_(Log(), deviceStore_, publications_) {}

void Console::Register(const char* handle) {
    const auto bind = [this](unsigned int (Console::*handler)(KelContainer*)) {
        return [this, handler](KelContainer* arguments) { return (this->*handler)(arguments); };
    };
    ActionDbRegisterAction("ConsoleListDevices ()", bind(&Console::ListDevices), handle);
    ActionDbRegisterAction("ConsoleListPublications (string PublicationId)", bind(&Console::ListPublications),
                           handle);
    ActionDbRegisterAction(
        "ConsolePublish (string FilePath, string FileType, string FileLabel, string FileName, string Device, "
        "int32 Priority, bool Bypass, bool WakeOnLan, int32 KeepCopy, container FileInfo)",
        bind(&Console::Publish), handle);
    ActionDbRegisterAction(kReceiveSignature, bind(&Console::ReceiveUpstream), handle);
    ActionDbRegisterAction(
        "QuarnelDbRunScript (string Script)",
        [this](KelContainer* arguments) {
            return Fail(arguments,
                        {kKelErrorNotAvailable, "This console keeps no database that runs scripts"});
        },
        handle);
    ActionDbRegisterAction(
        "QuarnelDbObjectListTypes ()",
        [](KelContainer* arguments) {
            arguments->Clear();
            arguments->SetString("Types", "Device");
            return unsigned{kKelOk};
        },
        handle);
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
    directory_.SetIniPath(IniPath());
    return database_.Open(DataPath(), IniPath());
}

void Console::Activate() {
    KelContainer alias;
    alias.SetString("AliasName", kPackageAlias);
    alias.SetString("AliasPath", DataPath());
    const unsigned int code = CallLocal("HttpProtocolAddAlias", alias);
    if (code != kKelOk) {
        Log().Error("Failed to add alias %s, error %u; no device can fetch published files\n", kPackageAlias,
                    code);
    }
}

void Console::Cleanup() {
    database_.Close();
}

unsigned int Console::Fail(KelContainer* arguments, const KelError& error) {
    arguments->Clear();
    arguments->SetString("Message", error.message);
    return error.code;
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
    const KelString id = arguments->GetString("PublicationId");
    const auto publications = publications_.List(id.empty() ? std::nullopt : std::optional(id));
    if (!publications) return Fail(arguments, publications.Error());
    auto result = KelResult<KelContainer>(KelContainer());
    if (!id.empty()) {
        if (publications->empty())
            return Fail(arguments, {kKelErrorBadInput, KelFormat("There is no publication \"%S\"", id)});
        result = ReadTargets(id);
        if (!result) return Fail(arguments, result.Error());
    }
    *arguments = std::move(*result);
    std::uint32_t index = 0;
    for (const PublicationSummary& publication : *publications)
        arguments->SetContainer("Values", ValuesOf(publication), index++);
    return kKelOk;
}

KelResult<PublicationPlan> Console::Plan(const PublicationRequest& request) {
    const auto devices = directory_.Read();
    if (!devices) return devices.Error();
    KelVector<KelString> leftOut;
    const auto targets = ChooseTargets(*devices, request.devices, leftOut);
    if (!targets) return targets.Error();
    if (!leftOut.empty()) {
        Log().Warning("%lu devices are left out of the publication of %S; the first: %S\n", leftOut.size(),
                      request.fileName, leftOut.front());
    }
    PublicationPlan plan;
    plan.id = HexText(RandomBytes(kPublicationIdBytes));
    plan.leftOut = leftOut.size();
    if (targets->empty()) return plan;
    auto path = BuildDevicePath(*devices, *targets);
    if (!path) return path.Error();
    plan.devicePath = std::move(*path);
    for (const std::size_t target : *targets)
        plan.guids.push_back((*devices)[target].guid);
    return plan;
}

/// Records the publication before the file goes out, since a receipt may follow at once.
KelStatus Console::Offer(const PublicationRequest& request, const PackageFile& file,
                         const PublicationPlan& plan) {
    if (!publications_.Add(SummaryOf(request, file, plan.id), plan.guids)) {
        return KelError{kKelErrorInternal,
                        "The publication cannot be written to the console's database; see its log"};
    }
    KelContainer offer = OfferFor(request, file, plan.devicePath);
    const unsigned int code = CallLocal("FileStoreReceiveFile", offer);
    if (code == kKelOk) return {};
    publications_.Remove(plan.id);
    return KelError{code,
                    KelFormat("The file store did not take %S, error %u; see its log", file.path, code)};
}

KelResult<KelContainer> Console::PublishFile(const PublicationRequest& request) {
    const auto plan = Plan(request);
    if (!plan) return plan.Error();
    const auto file = CopyToPackages(DataPath(), request.filePath, request.fileLabel, request.fileName);
    if (!file) return file.Error();
    if (const KelStatus offered = Offer(request, *file, *plan); !offered) return offered.Error();
    KelContainer result;
    result.SetString("PublicationId", plan->id);
    result.SetString("FileChecksum", file->checksum);
    result.SetInt64("FileSize", file->size);
    result.SetInt32("Targets", static_cast<std::int32_t>(plan->guids.size()));
    result.SetInt32("LeftOut", static_cast<std::int32_t>(plan->leftOut));
    return result;
}

unsigned int Console::Publish(KelContainer* arguments) {
    if (!ActionIsFromThisDevice(*arguments)) {
        const KelError refusal{kKelErrorBadInput,
                               KelFormat("A publication of the local file %S was refused, for it was "
                                         "asked for by another device, %S",
                                         arguments->GetString("FilePath"), ActionRequestAddress(*arguments))};
        Log().Warning("%S\n", refusal.message);
        return Fail(arguments, refusal);
    }
    const auto request = ReadPublicationRequest(*arguments);
    auto result = request ? PublishFile(*request) : KelResult<KelContainer>(request.Error());
    if (!result) {
        Log().Warning("Nothing was published: %S\n", result.Error().message);
        return Fail(arguments, result.Error());
    }
    Log().Print("Published %S/%S/%S to %d devices as %S\n", request->fileType, request->fileLabel,
                request->fileName, result->GetInt32("Targets"), result->GetString("PublicationId"));
    *arguments = std::move(*result);
    return kKelOk;
}

unsigned int Console::ReceiveUpstream(KelContainer* arguments) {
    if (!ActionIsFromThisDevice(*arguments)) {
        const KelString address = ActionRequestAddress(*arguments);
        Log().Warning("A file was refused, for another device, %S, may not hand over local files\n", address);
        return Fail(arguments, {kKelErrorBadInput, "Only modules of this device may hand over files"});
    }
    const unsigned int code = intake_.Take(*arguments, std::time(nullptr));
    arguments->Clear();
    return code;
}
