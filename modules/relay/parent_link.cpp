#include "modules/relay/parent_link.h"

#include <ctime>

#include "kel/container.h"
#include "kel/file.h"
#include "kel/ip_address.h"
#include "kel/path.h"
#include "kelcore/action_db.h"
#include "kelcore/agent.h"
#include "kelcore/device_name.h"
#include "kelcore/error_codes.h"
#include "kelcore/http/url.h"

namespace {

// Seconds; short, because the agent waits for a call in progress when it stops.
constexpr int kConnectTimeout = 5;
constexpr int kCallTimeout = 15;

KelString OurGuid() {
    KelContainer answer;
    return CallLocal("IdentityGetGUID", answer) == kKelOk ? answer.GetString("GUID") : KelString();
}

/// Calls the parent at `url`. `values` receives the container Values of its answer, empty when the call
/// fails.
unsigned int AskForValues(const KelString& url, const char* action, KelContainer& values) {
    KelContainer answer;
    const unsigned int code =
        ActionDbInvokeContainer(nullptr, url, action, answer, 0, kConnectTimeout, kCallTimeout, nullptr);
    values = answer.GetContainer("Values");
    return code;
}

KelString CallProblem(unsigned int code) {
    switch (code) {
        case kKelErrorUnreachable:
            return "it cannot be reached; check its name and port, and that its agent runs";
        case kKelErrorCredentials:
            return "it refuses the agent name and HTTP password of this device; they must be the same in the "
                   "whole tree";
        default:
            return KelFormat("its answer is error %u", code);
    }
}

/// Passes on which console the devices of the tree report to, as the parent knows it.
void SetConsole(const KelString& consoleId) {
    KelContainer call;
    call.SetString("ConsoleId", consoleId);
    if (!consoleId.empty()) CallLocal("IdentitySetConsole", call);
}

}  // namespace

ParentLink::ParentLink(const KelDebug& log, std::function<void()> inSync)
    : KelPeriodicThread(
          log, Begin::WithStep,
          [this] {
              CheckWhenDue();
              return false;
          },
          [this](bool) { return MillisecondsToNextCheck(); }),
      log_(log),
      inSync_(std::move(inSync)) {}

void ParentLink::Configure(const RelaySettings& settings, const KelString& settledFile) {
    settings_ = settings;
    settledFile_ = settledFile;
    settled_ = FileExists(settledFile);
}

ParentState ParentLink::GetState() const {
    const KelLock lock(mutex_);
    return state_;
}

void ParentLink::ResolveParent() {
    const auto address = IpAddress::Resolve(settings_.parentName);
    if (!address) return;  // the last known address stays; the call itself will show what is wrong
    const KelLock lock(mutex_);
    state_.ipAddress = address->ToText();
}

/// Asks the parent for its GUID and, until this device has found its place, first whether that GUID is final:
/// in the other order the GUID could change between the two calls. Returns what is wrong, empty when the
/// parent is usable.
KelString ParentLink::AskParent(KelString& guid) {
    const KelString url =
        UrlForAgent(KelAgentGetName(), KelAgentGetHttpPassword(),
                    KelFormat("%S:%u", settings_.parentName, unsigned{settings_.parentPort}));
    KelContainer values;
    if (!settled_) {
        const unsigned int code = AskForValues(url, "RelayGetValues", values);
        if (code != kKelOk && code != kKelErrorUnknownAction) return CallProblem(code);
        if (!values.GetBool("SchemeSettled", true)) return "it has not found its own parent yet";
    }
    if (const unsigned int code = AskForValues(url, "IdentityGetValues", values); code != kKelOk)
        return CallProblem(code);
    guid = values.GetString("GUID");
    if (!IsGuid(guid)) return KelFormat("its GUID %S is malformed", guid);
    if (guid != OurGuid()) SetConsole(values.GetString("ConsoleId"));
    if (guid == OurGuid()) return "it is this device itself; correct ParentName and ParentPort in Relay.ini";
    return {};
}

/// Has the module that owns our GUID, if there is one, adopt the scheme of the parent's GUID. Returns what is
/// wrong, empty when our GUID has the scheme.
KelString ParentLink::AdoptScheme(const KelString& parentGuid) {
    {
        const KelLock lock(mutex_);
        state_.inSync = false;
        state_.guid = parentGuid;
    }
    KelContainer none;
    const unsigned int code = CallLocal("IdentityValidateGUIDScheme", none);
    if (code == kKelOk || code == kKelErrorUnknownAction) return {};
    return KelFormat(
        "the scheme of its GUID %S cannot be taken over, error %u; check the rights and free space "
        "of data/Identity",
        parentGuid, code);
}

/// Remembers that our GUID is final.
void ParentLink::Settle() {
    if (settled_) return;
    settled_ = true;
    KelString folder, name;
    SplitPath(settledFile_, folder, name);
    // Its existence is what counts; the text is for people who find the file.
    if (!PathCreate(folder) ||
        !FileWriteText(settledFile_, "This device has taken over its parent's GUID scheme.\n"))
        log_.Warning("%S cannot be written: after a restart, children wait until the parent answers\n",
                     settledFile_);
}

void ParentLink::RequestCheck() {
    isCheckRequested_ = true;
    Signal(0);
}

std::uint64_t ParentLink::MillisecondsToNextCheck() const {
    if (!lastCheck_) return 0;
    const bool isSoon = isCheckRequested_ || !GetState().inSync;
    const std::chrono::milliseconds interval((isSoon ? settings_.retryInterval : settings_.checkInterval) *
                                             RelaySettings::msPerSecond);
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*lastCheck_ + interval -
                                                                   std::chrono::steady_clock::now());
    return left.count() > 0 ? static_cast<std::uint64_t>(left.count()) : 0;
}

void ParentLink::CheckWhenDue() {
    if (MillisecondsToNextCheck() != 0) return;  // woken before its time
    const bool isRequested = isCheckRequested_.exchange(false);
    Check(isRequested);
    lastCheck_ = std::chrono::steady_clock::now();
    const std::int64_t next =
        std::time(nullptr) + static_cast<std::int64_t>(MillisecondsToNextCheck() / 1000);
    const KelLock lock(mutex_);
    state_.nextCheck = next;
}

void ParentLink::Check(bool isRequested) {
    ResolveParent();
    KelString guid;
    KelString problem = AskParent(guid);
    if (CheckCancelled(false)) return;  // the agent stops: no further calls
    if (problem.empty()) {
        const ParentState before = GetState();
        if (before.inSync && before.guid == guid) {
            if (isRequested) inSync_();
            return;
        }
        problem = AdoptScheme(guid);
    }
    if (!problem.empty()) return ReportProblem(problem);
    log_.Print("The parent %S:%u answers, its GUID is %S\n", settings_.parentName,
               unsigned{settings_.parentPort}, guid);
    Settle();
    SetInSync(true, {});
    inSync_();
}

void ParentLink::SetInSync(bool inSync, const KelString& problem) {
    const std::int64_t now = std::time(nullptr);
    const KelLock lock(mutex_);
    // Only the first call finds no time; while a new scheme is adopted, the state is neither.
    if (state_.since == 0 || inSync != state_.problem.empty()) state_.since = now;
    state_.inSync = inSync;
    state_.problem = problem;
}

void ParentLink::ReportProblem(const KelString& problem) {
    const bool isKnown = problem == GetState().problem;
    SetInSync(false, problem);
    if (isKnown) return;
    log_.Warning("The parent %S:%u is out of sync: %S (tried again every %u s)\n", settings_.parentName,
                 unsigned{settings_.parentPort}, problem, settings_.retryInterval);
}
