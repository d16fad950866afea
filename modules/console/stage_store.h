#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "kel/result.h"
#include "kel/types.h"
#include "modules/console/console_database.h"
#include "modules/console/publication_request.h"

/// A publication whose targets are released in stages.
struct StagedPublication {
    enum class State : unsigned char {
        Running,   ///< the next stage follows when the present one has ended
        Stopped,   ///< too many targets failed; `reason` says how many. Resume goes on
        Complete,  ///< every target of every stage has ended
    };
    KelString id;
    State state = State::Running;
    std::int32_t stages = 1;
    std::int32_t released = 1;        ///< the present stage, 1 for the first
    std::int32_t stopAtFailures = 0;  ///< 0: never
    std::int32_t accepted = 0;        ///< failures before it was last resumed, which do not count
    KelString reason;
    PublicationRequest request;  ///< what the orders of later stages repeat: bypass, wakeOnLan, fileInfo
};

/// "running", "stopped" or "complete".
const char* StageStateName(StagedPublication::State state);

/// The targets of one stage.
struct StageCounts {
    std::int32_t stage = 0;
    std::int32_t targets = 0;
    std::int32_t delivered = 0;
    std::int32_t failed = 0;
    std::int32_t pending = 0;    ///< released
    std::int32_t scheduled = 0;  ///< not released
};

/// The statements that make a new publication one in stages, to be written with it: `guids` are its targets
/// in their order. None when the request has no stages.
KelVector<KelString> StageStatements(const PublicationRequest& request, const KelString& id,
                                     const KelVector<KelString>& guids);

/// The stages of publications in the console's database. A target whose stage is not released has the status
/// "scheduled", which "pending" follows when it has been sent its order. Any thread.
class StageStore {
  public:
    explicit StageStore(ConsoleDatabase& database) : database_(database) {}

    /// Those with these identifiers, or all; in one state only when that is given. An error when they cannot
    /// be read.
    KelResult<KelVector<StagedPublication>> List(
        const KelVector<KelString>& ids, std::optional<StagedPublication::State> state = std::nullopt);

    KelResult<KelVector<StageCounts>> Count(const KelString& id);

    /// Targets with this status in the stages `first` to `last`, at most `limit`, as GUIDs.
    KelResult<KelVector<KelString>> Targets(const KelString& id, const char* status, std::int32_t first,
                                            std::int32_t last, std::size_t limit);

    /// The stage of each target.
    KelResult<KelHash<KelString, std::int32_t>> StagesByGuid(const KelString& id);

    /// The number of failed targets.
    KelResult<std::int32_t> CountFailed(const KelString& id);

    // Changes; false when they could not be written.

    /// These targets have been sent their order.
    bool SetPending(const KelString& id, const KelVector<KelString>& guids);
    /// State, released stages, accepted failures and reason.
    bool Update(const StagedPublication& publication);

  private:
    ConsoleDatabase& database_;
};
