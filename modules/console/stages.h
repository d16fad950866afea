#pragma once

#include "kel/container.h"
#include "kel/debug.h"
#include "kel/mutex.h"
#include "kel/periodic_thread.h"
#include "kel/result.h"
#include "kelcore/failure_log.h"
#include "modules/console/publication_store.h"
#include "modules/console/publisher.h"
#include "modules/console/stage_store.h"

/// Carries publications in stages on: when no target of the present stage is pending any more, the next stage
/// is released, which means that its targets are sent orders. When too many targets have failed, the
/// publication is stopped. All state is in the database, and every step can be repeated, so a stop or kill of
/// the master at any point loses nothing. Any thread. The action ConsoleResume calls Resume.
class Stages {
  public:
    Stages(KelDebug& log, StageStore& store, PublicationStore& publications, Publisher& publisher);

    void Register(const char* handle);
    bool Start() { return thread_.Start(); }
    /// Waits for the step in progress. Before the database is closed.
    void Stop() { thread_.Cancel(0, true); }
    /// Results of targets have changed.
    void Signal() { thread_.Signal(0); }

    /// Goes on with a stopped publication; targets that have failed so far count no more. With `next` the
    /// next stage is released at once, also of a publication that is not stopped. An error when it is not in
    /// stages or there is nothing to resume.
    KelStatus Resume(const KelString& id, bool next);

    /// Adds to the publications under Values in `answer` that are in stages: State ("running", "stopped",
    /// "complete" or "withdrawn"), Stage (int32: the present one), StageCount (int32), Reason (why it was
    /// stopped). When Devices are listed, which are those of the only publication, they are sorted by their
    /// Stage, which each gets, and the stages are listed: Stages[i]{Stage, Targets, Delivered, Failed,
    /// Pending, Scheduled (int32)}.
    KelStatus Describe(KelContainer& answer);

  private:
    enum class Decision : unsigned char { Order, DecideAgain, Wait };

    bool Step();
    KelStatus Advance(const KelString& id);
    KelResult<Decision> Decide(StagedPublication& publication, KelVector<KelString>& unordered);
    KelResult<Decision> DecideOnNext(StagedPublication& publication, bool isLast) KEL_REQUIRES(mutex_);
    KelResult<StagedPublication> Read(const KelString& id);
    KelStatus Write(const StagedPublication& publication);
    KelStatus Order(const StagedPublication& publication, KelVector<KelString> guids);
    KelStatus DescribeTargets(const KelString& id, KelContainer& answer);

    KelDebug& log_;
    StageStore& store_;
    PublicationStore& publications_;
    Publisher& publisher_;
    KelFailureLog failures_;  ///< only the thread uses it
    KelMutex mutex_;          ///< held from reading a publication's state until its change is written
    KelPeriodicThread thread_;
};
