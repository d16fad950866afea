#include "modules/relay/parent_link.h"

#include <algorithm>
#include <ctime>
#include <utility>

#include "kel/container.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/ip_address.h"
#include "kel/path.h"
#include "kelcore/action_db.h"
#include "kelcore/device_name.h"
#include "kelcore/error_codes.h"
#include "kelcore/stopping.h"

namespace {

constexpr const char* kCorrect = "; correct ParentName and ParentPort in Relay.ini";

/// Passes on which console the devices of the tree report to, as the parent knows it.
void SetConsole(const KelString& consoleId) {
    KelContainer call;
    call.SetString("ConsoleId", consoleId);
    if (!consoleId.empty()) CallLocal("IdentitySetConsole", call);
}

}  // namespace

ParentLink::ParentLink(const KelDebug& log, Events events)
    : KelPeriodicThread(
          log, Begin::WithStep,
          [this] {
              CheckWhenDue();
              return false;
          },
          [this](bool) { return MillisecondsToNextCheck(); }),
      log_(log),
      events_(std::move(events)) {}

void ParentLink::Configure(const KelString& iniPath, const RelaySettings& settings, const KelString& folder) {
    iniPath_ = iniPath;
    folder_ = folder;
    role_ = settings.role;
    checkInterval_ = settings.checkInterval;
    retryInterval_ = settings.retryInterval;
    settled_ = FileExists(folder + "/settled");
    LoadLastParent();
    const KelLock lock(mutex_);
    state_ = {};
    state_.place = settings.parent;
}

ParentState ParentLink::GetState() const {
    const KelLock lock(mutex_);
    return state_;
}

void ParentLink::RequestCheck() {
    isCheckRequested_ = true;
    Signal(0);
}

void ParentLink::ReportAgain() {
    isReportDue_ = true;
    Signal(0);
}

std::uint64_t ParentLink::MillisecondsToNextCheck() const {
    if (!lastCheck_) return 0;
    bool isSoon = isCheckRequested_;
    {
        const KelLock lock(mutex_);
        if (answered_ < asked_) return 0;
        isSoon = isSoon || !state_.inSync;
    }
    const std::chrono::milliseconds interval((isSoon ? retryInterval_ : checkInterval_) *
                                             RelaySettings::msPerSecond);
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*lastCheck_ + interval -
                                                                   std::chrono::steady_clock::now());
    return left.count() > 0 ? static_cast<std::uint64_t>(left.count()) : 0;
}

void ParentLink::CheckWhenDue() {
    if (isReportDue_.exchange(false) && GetState().inSync && !CheckCancelled(false)) events_.inSync({});
    if (MillisecondsToNextCheck() != 0) return;  // woken before its time
    std::uint64_t asked = 0;
    {
        const KelLock lock(mutex_);
        asked = asked_;
    }
    Check(isCheckRequested_.exchange(false));
    lastCheck_ = std::chrono::steady_clock::now();
    {
        const KelLock lock(mutex_);
        answered_ = asked;
        checked_.notify_all();
    }
    const std::int64_t next =
        std::time(nullptr) + static_cast<std::int64_t>(MillisecondsToNextCheck() / 1000);
    const KelLock lock(mutex_);
    state_.nextCheck = next;
}

void ParentLink::Check(bool isRequested) {
    FollowIni();
    const ParentPlace place = GetState().place;
    if (place.IsNone() || CheckCancelled(false)) return;
    ResolveParent();
    const ParentAnswer answer = AskParent(place, !settled_);
    if (CheckCancelled(false) || KelAgentIsStopping()) return;  // no further calls, and no warning
    KelString problem = answer.problem + (answer.isLoop ? kCorrect : "");
    if (problem.empty()) {
        SetConsole(answer.consoleId);
        if (!NoteAnswer(answer)) {
            if (isRequested) events_.inSync({});
            return;
        }
        problem = AdoptScheme(answer.guid);
    }
    if (!problem.empty()) return ReportProblem(problem);
    log_.Print("The parent %S answers, its GUID is %S\n", place.Text(), answer.guid);
    Settle();
    SetInSync(true, {});
    events_.inSync(FormerParent(place, answer.guid));
    RememberParent(place, answer.guid);
}

void ParentLink::ResolveParent() {
    const auto address = IpAddress::Resolve(GetState().place.name);
    if (!address) return;  // the last known address stays; the call itself will show what is wrong
    const KelLock lock(mutex_);
    state_.ipAddress = address->ToText();
}

/// True when the parent answers again, or is another device: it is out of sync then until the rest is done.
bool ParentLink::NoteAnswer(const ParentAnswer& answer) {
    const KelLock lock(mutex_);
    const bool isNew = !state_.inSync || state_.guid != answer.guid;
    if (isNew) state_.inSync = false;
    state_.guid = answer.guid;
    state_.ownAddress = answer.ownAddress;
    state_.version = answer.version;
    state_.timeAhead = answer.timeAhead;
    state_.above = {answer.guid};
    state_.above.insert(state_.above.end(), answer.above.begin(), answer.above.end());
    return isNew;
}

/// Has the module that owns our GUID, if there is one, adopt the scheme of the parent's GUID. Returns what is
/// wrong, empty when our GUID has the scheme.
KelString ParentLink::AdoptScheme(const KelString& parentGuid) {
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
    const KelString path = folder_ + "/settled";
    // Its existence is what counts; the text is for people who find the file.
    if (!PathCreate(folder_) ||
        !FileWriteText(path, "This device has taken over its parent's GUID scheme.\n"))
        log_.Warning("%S cannot be written: after a restart, children wait until the parent answers\n", path);
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
    const ParentState before = GetState();
    SetInSync(false, problem);
    if (problem == before.problem) return;
    log_.Warning("The parent %S is out of sync: %S (tried again every %u s)\n", before.place.Text(), problem,
                 retryInterval_.load());
}
