#include "modules/relay/relay.h"

#include <ctime>

#include "kel/directory.h"
#include "kel/ini_file.h"
#include "kelcore/action_db.h"
#include "kelcore/agent.h"
#include "kelcore/call_origin.h"
#include "kelcore/callback_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"

namespace {

constexpr const char* kReadyEvent = "AgentCallbackReady";
constexpr const char* kReadySignature = "RelayAgentReady ()";

}  // namespace

Relay::Relay()
    : KelModule("Relay", "Relay module"),
      replay_(Log(), [this] { return replayThread_.CheckCancelled(false); }),
      replayThread_(
          Log(), KelPeriodicThread::Begin::WithStep,
          [this] {
              ReplayUnconnected();
              return false;
          },
          [this](bool) { return settings_.checkInterval * RelaySettings::msPerSecond; }),
      parentLink_(Log(), {[this] { ReportChange(); },
                          [this](const KelString& formerParent) { ReportInSync(formerParent); }}) {}

Relay::~Relay() {
    Relay::Cleanup();
}

void Relay::Register(const char* handle) {
    ActionDbRegisterAction(
        "RelayGetValues ()", [this](KelContainer* arguments) { return GetValues(arguments); }, handle);
    ActionDbRegisterAction(
        "RelayCheckParent ()",
        [this](KelContainer* arguments) {
            arguments->Clear();
            parentLink_.RequestCheck();
            return static_cast<unsigned int>(kKelOk);
        },
        handle);
    ActionDbRegisterAction(
        kReadySignature,
        [this](KelContainer* arguments) {
            arguments->Clear();
            parentLink_.ReportAgain();
            return static_cast<unsigned int>(kKelOk);
        },
        handle);
    CallbackDbRegisterAction(kReadyEvent, kReadySignature, {}, 0);
    ActionDbRegisterAction(
        "RelaySetParent (string ParentName, int32 ParentPort)",
        [this](KelContainer* arguments) { return SetParent(arguments); }, handle);
    ActionDbRegisterAction(
        "RelayReceiveFile (string FileType, string FileLabel, string FileName, string FileChecksum, string "
        "SourceDevice, bool Upstream, string FilePath, container FileInfo)",
        [this](KelContainer* arguments) { return ReceiveFile(arguments); }, handle);
    ActionDbRegisterAction(
        "RelayClearPackage (string FileType, string FileLabel)",
        [this](KelContainer* arguments) { return ClearPackage(arguments); }, handle);
}

void Relay::Unregister() {
    CallbackDbDeleteAction(kReadyEvent, kReadySignature, {});
}

bool Relay::Initialise() {
    IniFile ini;
    if (!ini.Open(IniPath())) return false;
    settings_ = ReadRelaySettings(ini);
    parentLink_.Configure(IniPath(), settings_, DataPath());
    packages_.SetFolders(DataPath() + "/Packages", DataPath() + "/Incoming");
    DirDeleteTempFiles(DataPath());
    return true;
}

bool Relay::Activate() {
    if (settings_.role == RelayRole::Master) return replayThread_.Start();
    if (settings_.parent.IsNone())
        Log().Warning("This device has no parent; set ParentName and ParentPort in %S\n", IniPath());
    return replayThread_.Start() && parentLink_.Start();
}

void Relay::Cleanup() {
    parentLink_.Cancel(0, true);
    replayThread_.Cancel(0, true);
}

void Relay::ReportChange() {
    KelContainer results;
    CallbackDbTrigger("RelayCallbackParentChange", {}, results);
}

void Relay::ReportInSync(const KelString& formerParent) {
    replayThread_.Signal(0);
    KelContainer values, results;
    if (!formerParent.empty()) values.SetString("FormerParent", formerParent);
    CallbackDbTrigger("RelayCallbackParentInSync", values, results);
}

void Relay::ReplayUnconnected() {
    if (settings_.role == RelayRole::Master || parentLink_.GetState().inSync)
        replay_.Run(KelAgentGetDataDir() + "FileStore/unconnected", std::time(nullptr));
}

unsigned int Relay::Answer(KelContainer* arguments, const KelStatus& status) {
    arguments->Clear();
    if (status) return kKelOk;
    Log().Warning("%S\n", status.Error().message);
    arguments->SetString("Message", status.Error().message);
    return status.Error().code;
}

unsigned int Relay::ReceiveFile(KelContainer* arguments) {
    if (!ActionIsFromThisDevice(*arguments))
        return Answer(arguments, KelError{kKelErrorBadInput, "Another device may not name local files"});
    const auto path = packages_.Keep(*arguments);
    if (!path) return Answer(arguments, path.Error());
    Log().Print("Kept a copy of the package %S\n", *path);
    arguments->Clear();
    arguments->SetString(kValueFilePath, *path);
    return kKelOk;
}

unsigned int Relay::ClearPackage(KelContainer* arguments) {
    if (!ActionIsFromThisDevice(*arguments))
        return Answer(arguments, KelError{kKelErrorBadInput, "Another device may not clear packages here"});
    return Answer(arguments, packages_.Clear(*arguments));
}

unsigned int Relay::GetValues(KelContainer* arguments) const {
    const ParentState parent = parentLink_.GetState();
    KelContainer values;
    values.SetBool("IsEnabled", settings_.role != RelayRole::Client);
    values.SetString("Role", RelayRoleName(settings_.role));
    values.SetString("ParentName", parent.place.name);
    values.SetString("ParentIPAddress", parent.ipAddress);
    values.SetString("ParentGuid", parent.guid);
    values.SetInt32("ParentPort", parent.place.port);
    values.SetBool("ParentSync", parent.inSync);
    values.SetInt64("ParentSince", parent.since);
    values.SetInt64("ParentNextCheck", parent.nextCheck);
    values.SetString("ParentProblem", parent.problem);
    values.SetBool("SchemeSettled", parent.place.IsNone() || parentLink_.IsSettled());
    for (std::uint32_t i = 0; i < parent.above.size(); ++i)
        values.SetString("Above", parent.above[i], i);
    arguments->Clear();
    arguments->SetContainer("Values", std::move(values));
    return kKelOk;
}

unsigned int Relay::SetParent(KelContainer* arguments) {
    if (!ActionIsFromThisDevice(*arguments))
        return Answer(arguments, KelError{kKelErrorBadInput, "Only this device may change its parent"});
    const std::int32_t port = arguments->GetInt32("ParentPort");
    ParentPlace place{arguments->GetString("ParentName"), 0};
    if (port > 0 && port <= 65535) place.port = static_cast<std::uint16_t>(port);
    const auto state = parentLink_.SetParent(place);
    if (!state) return Answer(arguments, state.Error());
    arguments->Clear();
    arguments->SetString("ParentName", place.name);
    arguments->SetInt32("ParentPort", place.port);
    arguments->SetBool("ParentSync", state->inSync);
    arguments->SetString("ParentProblem", state->problem);
    return kKelOk;
}
