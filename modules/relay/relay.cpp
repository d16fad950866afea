#include "modules/relay/relay.h"

#include <ctime>

#include "kel/directory.h"
#include "kel/ini_file.h"
#include "kelcore/action_db.h"
#include "kelcore/agent.h"
#include "kelcore/callback_db.h"
#include "kelcore/device_name.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"
#include "kelcore/metrics/metrics.h"
#include "kelcore/operator_call.h"
#include "kelcore/version.h"

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
    KelMetricsRegister(handle, [this](KelMetricsPage& page) { CollectMetrics(page); });
    ActionDbRegisterActions<Relay>(
        *this, handle,
        {{&Relay::GetValues,
          {.signature = "RelayGetValues",
           .purpose = "Gives the role of this device, its parent and whether that answers.",
           .inputs = "string ChildGuid?, string ChildVersion? (of a child that asks)",
           .outputs =
               "container Values {bool IsEnabled (true on a relay and on the master), string Role, "
               "string ParentName, string ParentIPAddress, string ParentGuid, int32 ParentPort, bool "
               "ParentSync, int64 ParentSince (of ParentSync), int64 ParentNextCheck (seconds since "
               "the epoch, 0 before the first call), string ParentProblem (why it is out of sync), "
               "bool SchemeSettled (the GUID scheme of this device is final), string Above[]? (GUIDs "
               "of the devices above, the parent first), string Version (of the program), int64 Time (here, "
               "seconds since the epoch), string ParentOwnAddress? (from which it calls), string "
               "ParentVersion?, int64 ParentTimeAhead? (seconds by "
               "which the parent's clock is ahead)}",
           .callers = KelCallers::Child | KelCallers::Operator}},
         {&Relay::ListChildren,
          {.signature = "RelayListChildren",
           .purpose = "Lists the children that have called in the last hour, with their versions.",
           .outputs = "container Values[]? {string GUID, string Version (of the program), int64 LastSeen "
                      "(seconds since the epoch)}",
           .callers = KelCallers::Operator}},
         {[](Relay& relay, KelContainer* arguments) {
              arguments->Clear();
              relay.parentLink_.RequestCheck();
              return unsigned{kKelOk};
          },
          {.signature = "RelayCheckParent",
           .purpose = "Has the parent called soon, for modules that could not reach it.",
           .callers = KelCallers::Local}},
         {[](Relay& relay, KelContainer* arguments) {
              arguments->Clear();
              relay.parentLink_.ReportAgain();
              return unsigned{kKelOk};
          },
          {.signature = kReadySignature,
           .purpose =
               "Has the parent reported once more when it answered before this device could be called; "
               "for the event AgentCallbackReady.",
           .callers = KelCallers::Local}},
         {&Relay::SetParent,
          {.signature = "RelaySetParent",
           .purpose = "Makes another device the parent, at once and from now on.",
           .inputs = "string ParentName, int32 ParentPort",
           .outputs = "string ParentName, int32 ParentPort, bool ParentSync, string ParentProblem",
           .results = "1 unusable, this device or one below it; 18 not written",
           .callers = KelCallers::Local,
           .changes = true}},
         {&Relay::ReceiveFile,
          {.signature = "RelayReceiveFile (string FileType, string FileLabel, string FileName, string "
                        "FileChecksum, string SourceDevice, bool Upstream, string FilePath, container "
                        "FileInfo)",
           .purpose = "Keeps a copy of a published package for the network of this relay.",
           .inputs = "string FileLabel, string FileName, string FilePath",
           .outputs = "string FilePath (of the copy)",
           .results = "1 unusable; 13 no such file; 18 not written",
           .callers = KelCallers::Local}},
         {&Relay::ClearPackage,
          {.signature = "RelayClearPackage",
           .purpose = "Removes the kept copy of a file, or all that are kept under a label.",
           .inputs = "string FileType?, string FileLabel, string FileName? (absent: all)",
           .results = "1 unusable; 18 not removed",
           .callers = KelCallers::Local}},
         {&Relay::CallDevice,
          {.signature = "RelayCallDevice",
           .purpose = "Passes a call of the operator at the master on to a device below, or runs it when it "
                      "is for this one.",
           .inputs = "container Way[] (this device and those below that lead to the one called) {string "
                     "PathName, string Name}, string Action, container Arguments?, string Operator?, string "
                     "Master (HOST:PORT), int32 Seconds? (for the answer)",
           .outputs = "int64 Result, container Answer",
           .results =
               "1 unusable or not for this device; 17 not from the parent, or not passed on; 21 the next "
               "device does not answer",
           .callers = KelCallers::Parent}}});
    CallbackDbRegisterAction(kReadyEvent, kReadySignature, {}, 0);
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
    leftOvers_.emplace(DataPath() + "/Incoming");
    return true;
}

bool Relay::Activate() {
    if (settings_.role == RelayRole::Master) return replayThread_.Start();
    if (settings_.parent.IsNone())
        Log().Warning("This device has no parent; set ParentName and ParentPort in %S\n", IniPath());
    return replayThread_.Start() && parentLink_.Start();
}

void Relay::Cleanup() {
    leftOvers_.reset();
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
    const auto path = packages_.Keep(*arguments);
    if (!path) return Answer(arguments, path.Error());
    Log().Print("Kept a copy of the package %S\n", *path);
    arguments->Clear();
    arguments->SetString(kValueFilePath, *path);
    return kKelOk;
}

unsigned int Relay::ClearPackage(KelContainer* arguments) {
    return Answer(arguments, packages_.Clear(*arguments));
}

unsigned int Relay::CallDevice(KelContainer* arguments) {
    auto call = OperatorCall::Read(*arguments);
    if (!call) return Answer(arguments, call.Error());
    KelContainer own;
    CallLocal("IdentityGetGUID", own);
    const OperatorCall::Stop stop = call->way.front();
    const KelString guid = own.GetString("GUID");
    if (guid.empty() || ParseDevicePathName(stop.pathName)->guid != guid)
        return Answer(arguments, KelError{kKelErrorBadInput,
                                          KelFormat("Another device than %S answers at its address %S",
                                                    stop.name, ParseDevicePathName(stop.pathName)->address)});
    if (call->way.size() == 1) {
        *arguments = RunOperatorCall(*call, ActionRequestAddress(*arguments));
        return kKelOk;
    }
    call->way.erase(call->way.begin());
    auto answer = PassOn(*call);
    if (!answer) return Answer(arguments, answer.Error());
    *arguments = std::move(*answer);
    return kKelOk;
}

unsigned int Relay::ListChildren(KelContainer* arguments) {
    *arguments = childVersions_.List(std::time(nullptr));
    return kKelOk;
}

unsigned int Relay::GetValues(KelContainer* arguments) {
    childVersions_.Note(*arguments, std::time(nullptr));
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
    values.SetString("Version", KelVersion());
    values.SetInt64("Time", std::time(nullptr));
    if (!parent.ownAddress.empty()) values.SetString("ParentOwnAddress", parent.ownAddress);
    if (!parent.version.empty()) {
        values.SetString("ParentVersion", parent.version);
        values.SetInt64("ParentTimeAhead", parent.timeAhead);
    }
    arguments->Clear();
    arguments->SetContainer("Values", std::move(values));
    return kKelOk;
}

void Relay::CollectMetrics(KelMetricsPage& page) {
    static constexpr KelMetric kDevice(KelMetric::Kind::Gauge, "kel_device_info",
                                       "The role of this device in its tree; the value is 1.");
    static constexpr KelMetric kInSync(KelMetric::Kind::Gauge, "kel_parent_in_sync",
                                       "1 while the parent answers, else 0; none on a master.");
    page.Add(kDevice, {{"role", RelayRoleName(settings_.role)}}, 1);
    const ParentState parent = parentLink_.GetState();
    if (!parent.place.IsNone()) page.Add(kInSync, parent.inSync ? 1 : 0);
}

unsigned int Relay::SetParent(KelContainer* arguments) {
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
