// The work of the class ParentLink when the device gets another parent.

#include <utility>

#include "kel/container.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kelcore/device_name.h"
#include "kelcore/error_codes.h"
#include "modules/relay/parent_link.h"

namespace {

constexpr std::chrono::seconds kPatience{10};

/// The first fault with which the module would not start; empty when there is none.
KelString VitalFault(const IniFile& ini) {
    KelVector<IniFault> faults = FindIniFaults(ini, RelayIniSettings());
    CheckRelayIni(ini, faults);
    for (const IniFault& fault : faults)
        if (fault.weight == IniFault::Weight::Vital) return fault.text;
    return {};
}

KelString LastParentPath(const KelString& folder) {
    return folder + "/parent.xml";
}

}  // namespace

KelResult<ParentState> ParentLink::SetParent(const ParentPlace& place) {
    if (role_ == RelayRole::Master) return KelError{kKelErrorBadInput, "A master has no parent"};
    if (!IsHostName(place.name) || place.port == 0)
        return KelError{
            kKelErrorBadInput,
            KelFormat("\"%S\" is not the host name or IPv4 address and port of a parent", place.Text())};
    const ParentAnswer answer = AskParent(place, false);
    if (answer.isLoop)
        return KelError{kKelErrorBadInput,
                        KelFormat("%S cannot be the parent: %S", place.Text(), answer.problem)};
    {
        const KelLock lock(mutexIni_);
        if (const KelStatus written = WriteParent(iniPath_, place); !written)
            return KelError{kKelErrorInternal, written.Error().message};
    }
    const auto end = std::chrono::steady_clock::now() + kPatience;
    KelLock lock(mutex_);
    const std::uint64_t number = ++asked_;
    Signal(0);
    while (answered_ < number && !CheckCancelled(false))
        if (checked_.wait_until(mutex_, end) == std::cv_status::timeout) break;
    ParentState state = state_;
    if (state.place != place || (!state.inSync && state.problem.empty())) {
        state.inSync = false;
        state.problem = answer.problem.empty() ? "it has not answered yet" : answer.problem;
    }
    return state;
}

/// What is wrong with the ini file stays in use as it was before, and is logged once.
void ParentLink::FollowIni() {
    const KelString problem = TakeFromIni();
    if (!problem.empty() && problem != iniProblem_)
        log_.Warning("%S: %S; %s\n", iniPath_, problem,
                     GetState().place.IsNone() ? "there is no parent" : "the parent stays as it is");
    iniProblem_ = problem;
    const KelString present = GetState().place.Text();
    const KelString before = std::exchange(followed_, present);
    if (!before.empty() && before != present) events_.changed();
}

KelString ParentLink::TakeFromIni() {
    RelaySettings settings;
    {
        const KelLock lock(mutexIni_);
        IniFile ini;
        if (!ini.Open(iniPath_)) return "the file cannot be read or is malformed";
        if (KelString fault = VitalFault(ini); !fault.empty()) return fault;
        settings = ReadRelaySettings(ini);
    }
    if (settings.role != role_) return "another role needs a restart of the agent";
    checkInterval_ = settings.checkInterval;
    retryInterval_ = settings.retryInterval;
    if (settings.parent == GetState().place) return {};
    const ParentAnswer answer = settings.parent.IsNone() ? ParentAnswer() : AskParent(settings.parent, false);
    if (answer.isLoop)
        return KelFormat("%S cannot be the parent: %S", settings.parent.Text(), answer.problem);
    TakeOver(settings.parent);
    return {};
}

void ParentLink::TakeOver(const ParentPlace& place) {
    KelString former;
    {
        const KelLock lock(mutex_);
        former = state_.place.Text();
        state_ = {};
        state_.place = place;
    }
    if (place.IsNone())
        log_.Warning("This device has no parent any more; it was %S\n", former);
    else
        log_.Print("The parent is %S now%s%S\n", place.Text(), former.empty() ? "" : " instead of ", former);
}

void ParentLink::LoadLastParent() {
    KelContainer last;
    const KelString path = LastParentPath(folder_);
    if (FileExists(path) && !last.LoadFromFile(path)) last.Clear();
    lastParent_ = last.GetString("Parent");
    lastGuid_ = last.GetString("GUID");
    followed_ = lastParent_;
}

/// Where the device that was the parent before this one can be called; empty when it was the same device, or
/// none.
KelString ParentLink::FormerParent(const ParentPlace& place, const KelString& guid) const {
    return lastGuid_ == guid || lastParent_ == place.Text() ? KelString() : lastParent_;
}

void ParentLink::RememberParent(const ParentPlace& place, const KelString& guid) {
    if (lastGuid_ == guid && lastParent_ == place.Text()) return;
    lastParent_ = place.Text();
    lastGuid_ = guid;
    KelContainer last;
    last.SetString("Parent", lastParent_);
    last.SetString("GUID", lastGuid_);
    const KelString path = LastParentPath(folder_);
    if (!PathCreate(folder_) || !last.SaveToFile(path))
        log_.Warning("%S cannot be written: a change of the parent while the agent is off goes unnoticed\n",
                     path);
}
