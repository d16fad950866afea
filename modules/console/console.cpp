#include "modules/console/console.h"

#include "kel/checksum.h"
#include "kel/ini_file.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/agent.h"
#include "kelcore/error_codes.h"
#include "modules/console/device_list.h"
#include "modules/console/device_tree.h"

namespace {

constexpr std::size_t kPublicationIdBytes = 8;

unsigned int CallLocal(const char* action, KelContainer& container) {
    return ActionDbInvokeContainer(nullptr, {}, action, container, 0, -1, -1, nullptr);
}

}  // namespace

Console::Console() : KelModule("Console", "Console module") {}

void Console::Register(const char* handle) {
    ActionDbRegisterAction(
        "ConsoleListDevices ()", [this](KelContainer* arguments) { return ListDevices(arguments); }, handle);
    ActionDbRegisterAction(
        "ConsolePublish (string FilePath, string FileType, string FileLabel, string FileName, string Device, "
        "int32 Priority, bool Bypass, bool WakeOnLan, int32 KeepCopy, container FileInfo)",
        [this](KelContainer* arguments) { return Publish(arguments); }, handle);
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
}

bool Console::Initialise() {
    if (PathCreate(DataPath())) return true;
    Log().Error("The folder %S cannot be created; check its rights\n", DataPath());
    return false;
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

unsigned int Console::Fail(KelContainer* arguments, const KelError& error) {
    arguments->Clear();
    arguments->SetString("Message", error.message);
    return error.code;
}

KelResult<Device> Console::ReadMaster() const {
    KelContainer identity;
    KelContainer http;
    if (CallLocal("IdentityGetValues", identity) != kKelOk ||
        CallLocal("HttpProtocolGetParams", http) != kKelOk) {
        return KelError{kKelErrorNotAvailable, "The modules Identity and HttpProtocol do not answer"};
    }
    const KelContainer& values = identity.GetContainer("Values");
    const KelString ipAddress = values.GetString("IPAddress");
    const KelString hostName = values.GetBool("PreferIPAddresses") ? ipAddress : values.GetString("HostName");
    Device master;
    const KelString pathName = KelFormat(
        "%S:%d/%S/%S/%S/%S", hostName, http.GetContainer("Values").GetInt32("Port"), values.GetString("GUID"),
        values.GetString("MACAddress"), ipAddress, values.GetString("NetworkMask"));
    if (const KelStatus parsed = ParsePathName(pathName, master); !parsed) {
        return KelError{kKelErrorNotAvailable,
                        "The master's own address is not known yet: " + parsed.Error().message};
    }
    master.name = values.GetString("HostName");
    master.role = "master";
    return master;
}

void Console::LogProblemsOnce(const KelVector<KelString>& problems) {
    std::unordered_set<KelString> present(problems.begin(), problems.end());
    {
        const KelLock lock(mutex_);
        present.swap(loggedProblems_);
    }
    for (const KelString& problem : problems) {
        if (!present.contains(problem)) Log().Warning("%S is left out: %S\n", IniPath(), problem);
    }
}

KelResult<KelVector<Device>> Console::ReadTree() {
    auto master = ReadMaster();
    if (!master) return master.Error();
    IniFile ini;
    if (!ini.Open(IniPath())) {
        return KelError{kKelErrorNotAvailable, KelFormat("%S cannot be read or is malformed", IniPath())};
    }
    KelVector<KelString> problems;
    KelVector<Device> devices = {*master};
    for (Device& device : ReadDevices(ini, problems)) {
        if (device.guid != master->guid) devices.push_back(std::move(device));
    }
    LogProblemsOnce(problems);
    return devices;
}

unsigned int Console::ListDevices(KelContainer* arguments) {
    const auto devices = ReadTree();
    if (!devices) return Fail(arguments, devices.Error());
    arguments->Clear();
    std::uint32_t index = 0;
    for (const Device& device : *devices) {
        KelContainer values;
        values.SetString("GUID", device.guid);
        values.SetString("Name", device.name);
        values.SetString("Role", device.role);
        values.SetString("Address", device.address);
        values.SetString("Parent", device.parentGuid);
        values.SetString("PathName", device.pathName);
        arguments->SetContainer("Values", std::move(values), index++);
    }
    return kKelOk;
}

/// True for a call of this process or over the network from this device.
bool Console::IsCallerTrusted(const KelContainer& arguments) const {
    if (!arguments.Has("HttpProtocolRequestInfo")) return true;
    const KelString caller =
        arguments.GetContainer("HttpProtocolRequestInfo").GetString("HttpProtocolRequestAddress");
    if (caller == "127.0.0.1") return true;
    KelString ownAddress = KelAgentGetAddress();
    if (ownAddress.empty()) {
        KelContainer answer;
        if (CallLocal("AgentGetIPAddress", answer) == kKelOk) ownAddress = answer.GetString("IPAddress");
    }
    return !caller.empty() && caller == ownAddress;
}

KelResult<KelContainer> Console::PublishFile(const PublicationRequest& request) {
    const auto devices = ReadTree();
    if (!devices) return devices.Error();
    const auto targets = ChooseTargets(*devices, request.devices);
    if (!targets) return targets.Error();
    auto devicePath = BuildDevicePath(*devices, *targets);
    if (!devicePath) return devicePath.Error();
    const auto file = CopyToPackages(DataPath(), request.filePath, request.fileLabel, request.fileName);
    if (!file) return file.Error();
    KelContainer offer = OfferFor(request, *file, std::move(*devicePath));
    if (const unsigned int code = CallLocal("FileStoreReceiveFile", offer); code != kKelOk) {
        return KelError{code,
                        KelFormat("The file store did not take %S, error %u; see its log", file->path, code)};
    }
    KelContainer result;
    result.SetString("PublicationId", HexText(RandomBytes(kPublicationIdBytes)));
    result.SetString("FileChecksum", file->checksum);
    result.SetInt64("FileSize", file->size);
    result.SetInt32("Targets", static_cast<std::int32_t>(targets->size()));
    return result;
}

unsigned int Console::Publish(KelContainer* arguments) {
    if (!IsCallerTrusted(*arguments)) {
        const KelError refusal{kKelErrorBadInput,
                               KelFormat("A publication of the local file %S was refused, for it was "
                                         "asked for by another device",
                                         arguments->GetString("FilePath"))};
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
