#include "modules/console/stages.h"

#include <algorithm>
#include <utility>

#include "kel/format.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"

namespace {

using State = StagedPublication::State;

constexpr std::uint64_t kRetryMilliseconds = 10'000;
/// A safety net: every result of a target is signalled.
constexpr std::uint64_t kIdleMilliseconds = 300'000;
constexpr std::size_t kAll = 10'000'000;

std::uint64_t PauseAfterWork(bool isWorkLeft) {
    return isWorkLeft ? kRetryMilliseconds : kIdleMilliseconds;
}

KelContainer ValuesOf(const StageCounts& counts) {
    KelContainer values;
    values.SetInt32("Stage", counts.stage);
    values.SetInt32("Targets", counts.targets);
    values.SetInt32("Delivered", counts.delivered);
    values.SetInt32("Failed", counts.failed);
    values.SetInt32("Pending", counts.pending);
    values.SetInt32("Scheduled", counts.scheduled);
    return values;
}

}  // namespace

Stages::Stages(KelDebug& log, StageStore& store, PublicationStore& publications, Publisher& publisher)
    : log_(log),
      store_(store),
      publications_(publications),
      publisher_(publisher),
      failures_(log),
      thread_(
          log, KelPeriodicThread::Begin::WithPause, [this] { return Step(); }, PauseAfterWork) {}

void Stages::Register(const char* handle) {
    ActionDbRegisterActions<Stages>(
        *this, handle,
        {{[](Stages& stages, KelContainer* arguments) {
              const KelStatus resumed =
                  stages.Resume(arguments->GetString("PublicationId"), arguments->GetBool("Next"));
              arguments->Clear();
              if (resumed) return unsigned{kKelOk};
              arguments->SetString("Message", resumed.Error().message);
              return resumed.Error().code;
          },
          {.signature = "ConsoleResume",
           .purpose = "Goes on with a publication in stages.",
           .inputs = "string PublicationId, bool Next? (without waiting for the present stage)",
           .results = "1 no such publication, nothing to resume; 18 not written",
           .callers = KelCallers::Local,
           .changes = true}}});
}

KelResult<StagedPublication> Stages::Read(const KelString& id) {
    const auto known = publications_.List({id});
    if (!known) return known.Error();
    if (known->empty()) return KelError{kKelErrorBadInput, KelFormat("There is no publication \"%S\"", id)};
    auto found = store_.List({id});
    if (!found) return found.Error();
    if (found->empty()) return KelError{kKelErrorBadInput, KelFormat("The publication %S has no stages", id)};
    if (known->front().withdrawTime != 0)
        return KelError{kKelErrorBadInput, KelFormat("The publication %S is withdrawn", id)};
    return std::move(found->front());
}

KelStatus Stages::Write(const StagedPublication& publication) {
    if (store_.Update(publication)) return {};
    return KelError{kKelErrorInternal,
                    "The publication cannot be written to the console's database; see its log"};
}

KelStatus Stages::Resume(const KelString& id, bool next) {
    const KelLock lock(mutex_);
    auto publication = Read(id);
    if (!publication) return publication.Error();
    const bool isLast = publication->released == publication->stages;
    if (publication->state == State::Complete || (isLast && publication->state == State::Running))
        return KelError{kKelErrorBadInput, KelFormat("All stages of the publication %S are released", id)};
    if (publication->state == State::Running && !next)
        return KelError{
            kKelErrorBadInput,
            KelFormat("The publication %S is not stopped: devices of stage %d are pending; with --next "
                      "stage %d is released without waiting for them",
                      id, publication->released, publication->released + 1)};
    const auto failed = store_.CountFailed(id);
    if (!failed) return failed.Error();
    publication->accepted = *failed;
    publication->state = State::Running;
    publication->reason.clear();
    if (next && !isLast) ++publication->released;
    KelStatus written = Write(*publication);
    if (written)
        log_.Print("Publication %S goes on at stage %d of %d\n", id, publication->released,
                   publication->stages);
    Signal();
    return written;
}

bool Stages::Step() {
    const auto running = store_.List({}, State::Running);
    bool isWorkLeft = !running;
    if (!running) return isWorkLeft;
    for (const StagedPublication& publication : *running) {
        if (thread_.CheckCancelled(false)) return true;
        const KelString& id = publication.id;
        if (const KelStatus advanced = Advance(id); advanced) {
            failures_.Succeeded(id, KelFormat("The publication %S goes on", id));
        } else {
            failures_.Failed(
                KelDebugLevel::Warning, id,
                KelFormat("Stage %d of the publication %S waits: %S; tried again every ten seconds",
                          publication.released, id, advanced.Error().message));
            isWorkLeft = true;
        }
    }
    return isWorkLeft;
}

/// Does all that is to be done for a publication now. An error: it is to be tried again.
KelStatus Stages::Advance(const KelString& id) {
    for (;;) {
        StagedPublication publication;
        publication.id = id;
        KelVector<KelString> unordered;
        const auto decision = Decide(publication, unordered);
        if (!decision) return decision.Error();
        if (*decision == Decision::Wait) return {};
        if (*decision == Decision::DecideAgain) continue;
        if (KelStatus ordered = Order(publication, std::move(unordered)); !ordered) return ordered;
    }
}

/// What is to be done next for the publication with the identifier in `publication`, which is read, and which
/// targets are to be sent orders.
KelResult<Stages::Decision> Stages::Decide(StagedPublication& publication, KelVector<KelString>& unordered) {
    const KelLock lock(mutex_);
    auto read = store_.List({publication.id}, State::Running);
    if (!read) return read.Error();
    if (read->empty()) return Decision::Wait;
    publication = std::move(read->front());
    const auto failed = store_.CountFailed(publication.id);
    if (!failed) return failed.Error();
    const bool isTooMuch =
        publication.stopAtFailures > 0 && *failed - publication.accepted >= publication.stopAtFailures;
    const auto scheduled = store_.Targets(publication.id, "scheduled", 1, publication.stages, 1);
    if (!scheduled) return scheduled.Error();
    if (isTooMuch && !scheduled->empty()) {
        publication.state = State::Stopped;
        publication.reason = KelFormat("%d of its targets failed", *failed);
        if (KelStatus written = Write(publication); !written) return written.Error();
        log_.Warning("Publication %S was stopped at stage %d of %d: %S\n", publication.id,
                     publication.released, publication.stages, publication.reason);
        return Decision::Wait;
    }
    auto due = store_.Targets(publication.id, "scheduled", 1, publication.released, kAll);
    if (!due) return due.Error();
    unordered = std::move(*due);
    // Without scheduled targets there is no next stage, as when the publication was withdrawn.
    return unordered.empty() ? DecideOnNext(publication, scheduled->empty())
                             : KelResult<Decision>(Decision::Order);
}

/// All targets of the released stages have been sent their orders.
KelResult<Stages::Decision> Stages::DecideOnNext(StagedPublication& publication, bool isLast) {
    const auto pending =
        store_.Targets(publication.id, "pending", isLast ? 1 : publication.released, publication.stages, 1);
    if (!pending) return pending.Error();
    if (!pending->empty()) return Decision::Wait;
    if (isLast)
        publication.state = State::Complete;
    else
        ++publication.released;
    if (KelStatus written = Write(publication); !written) return written.Error();
    if (isLast)
        log_.Print("All stages of the publication %S have ended\n", publication.id);
    else
        log_.Print("Publication %S goes on to stage %d of %d\n", publication.id, publication.released,
                   publication.stages);
    return Decision::DecideAgain;
}

/// Only then are the targets no longer scheduled: an order that is repeated after a crash does no harm.
KelStatus Stages::Order(const StagedPublication& publication, KelVector<KelString> guids) {
    const auto summary = publications_.List({publication.id});
    if (!summary) return summary.Error();
    if (summary->empty()) return {};
    const std::size_t wanted = guids.size();
    if (KelStatus ordered = publisher_.OrderOn(summary->front(), publication.request, guids); !ordered)
        return ordered;
    if (!guids.empty() && !store_.SetPending(publication.id, guids))
        return KelError{kKelErrorInternal, "the console's database cannot be written; see its log"};
    if (guids.size() == wanted) return {};
    return KelError{kKelErrorNotAvailable,
                    KelFormat("%lu of its devices cannot be reached", wanted - guids.size())};
}

KelStatus Stages::Describe(KelContainer& answer) {
    const std::uint32_t count = answer.Has("Values") ? answer.Count("Values") : 0;
    KelVector<KelString> ids;
    for (std::uint32_t i = 0; count < 500 && i < count; ++i)
        ids.push_back(answer.GetContainer("Values", i).GetString("PublicationId"));
    const auto staged = store_.List(ids);
    if (!staged) return staged.Error();
    KelHash<KelString, const StagedPublication*> byId;
    for (const StagedPublication& publication : *staged)
        byId[publication.id] = &publication;
    for (std::uint32_t i = 0; i < count; ++i) {
        KelContainer values = answer.GetContainer("Values", i);
        const auto found = byId.find(values.GetString("PublicationId"));
        if (found == byId.end()) continue;
        const bool isWithdrawn = values.GetInt64("WithdrawTime") != 0;
        values.SetString("State", isWithdrawn ? "withdrawn" : StageStateName(found->second->state));
        values.SetInt32("Stage", found->second->released);
        values.SetInt32("StageCount", found->second->stages);
        values.SetString("Reason", found->second->reason);
        answer.SetContainer("Values", std::move(values), i);
    }
    return byId.empty() || !answer.Has("Devices") ? KelStatus() : DescribeTargets(staged->front().id, answer);
}

KelStatus Stages::DescribeTargets(const KelString& id, KelContainer& answer) {
    const auto stages = store_.StagesByGuid(id);
    if (!stages) return stages.Error();
    KelVector<KelContainer> devices;
    for (std::uint32_t i = 0; i < answer.Count("Devices"); ++i) {
        KelContainer device = answer.GetContainer("Devices", i);
        const auto stage = stages->find(device.GetString("GUID"));
        device.SetInt32("Stage", stage == stages->end() ? 0 : stage->second);
        devices.push_back(std::move(device));
    }
    std::ranges::stable_sort(devices, {},
                             [](const KelContainer& device) { return device.GetInt32("Stage"); });
    for (std::uint32_t i = 0; i < devices.size(); ++i)
        answer.SetContainer("Devices", std::move(devices[i]), i);
    const auto counts = store_.Count(id);
    if (!counts) return counts.Error();
    for (const StageCounts& stage : *counts)
        answer.SetContainer("Stages", ValuesOf(stage), KelContainer::kAbsent);
    return {};
}
