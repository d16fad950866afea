#include "modules/identity/identity.h"

#include <algorithm>
#include <ctime>

#include "kel/directory.h"
#include "kel/path.h"
#include "kelcore/action_db.h"
#include "kelcore/agent.h"
#include "kelcore/callback_db.h"
#include "kelcore/device_name.h"
#include "kelcore/error_codes.h"
#include "modules/identity/guid.h"

namespace {

constexpr char kInSyncSignature[] = "IdentityParentInSync ()";
constexpr char kInSyncEvent[] = "RelayCallbackParentInSync";

/// The longest pause while the identity file waits for another module, which may come at any moment.
constexpr std::uint32_t kWaitingSeconds = 2;

/// As a console makes it: a random number in hexadecimal digits.
bool IsConsoleId(const KelString& text) {
    return text.size() == 16 && text.find_first_not_of("0123456789abcdefABCDEF") == KelString::npos;
}

}  // namespace

Identity::Identity()
    : KelModule("Identity", "Identity module"),
      report_(Log()),
      watcher_(
          Log(), KelPeriodicThread::Begin::WithPause,
          [this] {
              CheckAddress();
              return ReportIdentity(std::time(nullptr));
          },
          [this](bool isWaiting) {
              const std::uint32_t seconds = checkSeconds_;
              return std::uint64_t{isWaiting ? std::min(seconds, kWaitingSeconds) : seconds} * 1000;
          }) {}

Identity::~Identity() {
    watcher_.Cancel(0, true);
}

void Identity::Register(const char* handle) {
    ActionDbRegisterActions<Identity>(
        *this, handle,
        {{&Identity::GetGuid,
          {.signature = "IdentityGetGUID",
           .purpose = "Gives the GUID of this device.",
           .outputs = "string GUID",
           .callers = KelCallers::Operator}},
         {&Identity::GetHostname,
          {.signature = "IdentityGetHostname",
           .purpose = "Gives the host name of this device.",
           .outputs = "string HostName",
           .callers = KelCallers::Operator}},
         {&Identity::GetValues,
          {.signature = "IdentityGetValues",
           .purpose = "Says who this device is.",
           .outputs = "container Values {string GUID, string HostName, string IPAddress, string MACAddress, "
                      "string NetworkMask, bool PreferIPAddresses, string ConsoleId? (of the console whose "
                      "devices report to it)}",
           .callers = KelCallers::Child | KelCallers::Operator}},
         {&Identity::GetIpAddress,
          {.signature = "AgentGetIPAddress",
           .purpose = "Gives the address of this device.",
           .outputs = "string IPAddress",
           .callers = KelCallers::Operator}},
         {&Identity::SetConsole,
          {.signature = "IdentitySetConsole",
           .purpose = "Takes over the identifier of the console, a part of the identity that is sent up.",
           .inputs = "string ConsoleId",
           .results = "1 not 16 hexadecimal digits",
           .callers = KelCallers::Local}},
         {&Identity::ValidateGuidScheme,
          {.signature = "IdentityValidateGUIDScheme",
           .purpose = "Adopts the scheme of the parent's GUID, if that is known.",
           .results = "18 the new GUID cannot be written",
           .callers = KelCallers::Local}},
         {&Identity::ParentInSync,
          {.signature = kInSyncSignature,
           .purpose = "Looks whether the identity is to be sent; for the event RelayCallbackParentInSync.",
           .callers = KelCallers::Local}}});
    CallbackDbRegisterAction(kInSyncEvent, kInSyncSignature, {}, 0);
}

void Identity::Unregister() {
    CallbackDbDeleteAction(kInSyncEvent, kInSyncSignature, {});
}

bool Identity::Initialise() {
    if (!PathCreate(DataPath())) {
        Log().Error("The folder %S cannot be created; check its rights\n", DataPath());
        return false;
    }
    DirDeleteTempFiles(DataPath());  // left by a process that was killed while it wrote the GUID
    guidPath_ = DataPath() + "/guid";
    report_.SetFolder(DataPath() + "/Outgoing");
    const auto guid = LoadOrMakeGuid(guidPath_, Log());
    if (!guid) {
        Log().Error("%S\n", guid.Error().message);
        return false;
    }
    const auto values = ReadValues();
    if (!values) {
        Log().Error("%S\n", values.Error().message);
        return false;
    }
    const KelLock lock(mutex_);
    guid_ = *guid;
    values_ = *values;
    return true;
}

bool Identity::Activate() {
    return watcher_.Start();
}

void Identity::Cleanup() {
    watcher_.Cancel(0, true);
}

KelResult<DeviceValues> Identity::ReadValues() {
    IniFile ini;
    if (!ini.Open(IniPath()))
        return KelError{kKelErrorBadInput, KelFormat("%S cannot be read or is malformed", IniPath())};
    checkSeconds_ = ReadCheckInterval(ini);
    return DetermineDeviceValues(ini, KelAgentGetAddress(), ListNetworkInterfaces());
}

void Identity::LogOnce(const KelString& problem) {
    {
        const KelLock lock(mutex_);
        if (problem == problem_) return;
        problem_ = problem;
    }
    if (!problem.empty()) Log().Warning("%S; the known values stay in use\n", problem);
}

void Identity::CheckAddress() {
    const auto values = ReadValues();
    // An interface that is down for a moment, or an ini file that is being edited, must not lose the address.
    if (!values || values->ipAddress.empty()) {
        LogOnce(values ? KelString("No network interface has an IPv4 address") : values.Error().message);
        return;
    }
    LogOnce({});  // the next problem is logged again, even if it is the same
    KelString oldAddress;
    {
        const KelLock lock(mutex_);
        oldAddress = values_.ipAddress;
        values_ = *values;
    }
    if (oldAddress == values->ipAddress) return;
    Log().Print("The IP address of this device changed from %S to %S\n", oldAddress, values->ipAddress);
    KelContainer change;
    change.SetString("NewIPAddress", values->ipAddress);
    change.SetString("OldIPAddress", oldAddress);
    KelContainer results;
    CallbackDbTrigger("IdentityCallbackIPChange", change, results);
}

bool Identity::ReportIdentity(std::int64_t now) {
    KelString guid;
    KelString consoleId;
    DeviceValues values;
    {
        const KelLock lock(mutex_);
        guid = guid_;
        consoleId = consoleId_;
        values = values_;
    }
    return report_.SendWhenDue(guid, values, consoleId, now) == IdentityReport::Outcome::Waiting;
}

unsigned int Identity::GetGuid(KelContainer* arguments) {
    arguments->Clear();
    const KelLock lock(mutex_);
    arguments->SetString("GUID", guid_);
    return kKelOk;
}

unsigned int Identity::GetHostname(KelContainer* arguments) {
    arguments->Clear();
    const KelLock lock(mutex_);
    arguments->SetString("HostName", values_.hostName);
    return kKelOk;
}

unsigned int Identity::GetIpAddress(KelContainer* arguments) {
    arguments->Clear();
    const KelLock lock(mutex_);
    arguments->SetString("IPAddress", values_.ipAddress);
    return kKelOk;
}

unsigned int Identity::GetValues(KelContainer* arguments) {
    arguments->Clear();
    KelContainer values;
    {
        const KelLock lock(mutex_);
        values.SetString("GUID", guid_);
        values.SetString("HostName", values_.hostName);
        values.SetString("IPAddress", values_.ipAddress);
        values.SetString("MACAddress", values_.macAddress);
        values.SetString("NetworkMask", values_.networkMask);
        values.SetBool("PreferIPAddresses", values_.preferIpAddresses);
        if (!consoleId_.empty()) values.SetString("ConsoleId", consoleId_);
    }
    arguments->SetContainer("Values", std::move(values));
    return kKelOk;
}

/// The new GUID goes to the disk first: if the agent used it and then stopped before it was written, the
/// device would come back under its old one.
bool Identity::AdoptScheme(const KelString& parentGuid, KelString& oldGuid, KelString& newGuid) {
    const KelLock adoptLock(mutexAdopt_);
    {
        const KelLock lock(mutex_);
        oldGuid = guid_;
    }
    newGuid = WithSchemeOf(oldGuid, parentGuid);
    if (newGuid == oldGuid) return true;
    if (const KelStatus kept = KeepGuid(guidPath_, newGuid); !kept) {
        const KelString failure = KelFormat("The GUID %S cannot be kept, %S stays in use: %S", newGuid,
                                            oldGuid, kept.Error().message);
        if (failure != adoptFailure_) Log().Error("%S\n", failure);
        adoptFailure_ = failure;
        return false;
    }
    adoptFailure_.clear();
    const KelLock lock(mutex_);
    guid_ = newGuid;
    return true;
}

unsigned int Identity::ValidateGuidScheme(KelContainer* arguments) {
    arguments->Clear();
    KelContainer relay;
    if (CallLocal("RelayGetValues", relay) != kKelOk) return kKelOk;  // no relay module, so no parent
    const KelContainer& values = relay.GetContainer("Values");
    const KelString parentGuid = values.GetString("ParentGuid");
    if (parentGuid.empty()) return kKelOk;
    if (!IsGuid(parentGuid)) {
        Log().Warning("The parent's GUID %S is malformed; its scheme is not adopted\n", parentGuid);
        return kKelOk;
    }
    KelString oldGuid;
    KelString newGuid;
    if (!AdoptScheme(parentGuid, oldGuid, newGuid)) return kKelErrorInternal;
    if (oldGuid == newGuid) return kKelOk;
    Log().Print("The GUID of this device changed from %S to %S to match the scheme of its parent\n", oldGuid,
                newGuid);
    KelContainer change;
    change.SetString("GUID", newGuid);
    change.SetString("OldGUID", oldGuid);
    KelContainer results;
    CallbackDbTrigger("IdentityCallbackGUIDChange", change, results);
    watcher_.Signal(0);  // the identity file is due at once
    return kKelOk;
}

/// It may be another one, of which the identity file tells.
unsigned int Identity::ParentInSync(KelContainer* arguments) {
    arguments->Clear();
    watcher_.Signal(0);
    return kKelOk;
}

unsigned int Identity::SetConsole(KelContainer* arguments) {
    const KelString consoleId = arguments->GetString("ConsoleId");
    arguments->Clear();
    if (!IsConsoleId(consoleId)) {
        Log().Warning("Refused the identifier '%S' of a console\n", consoleId);
        return kKelErrorBadInput;
    }
    {
        const KelLock lock(mutex_);
        if (consoleId == consoleId_) return kKelOk;
        consoleId_ = consoleId;
    }
    watcher_.Signal(0);  // the identity file is due at once
    return kKelOk;
}
