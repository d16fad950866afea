#include "modules/console/stage_store.h"

#include <algorithm>
#include <array>

#include "kel/format.h"
#include "kelcore/error_codes.h"
#include "modules/console/stage_plan.h"

namespace {

using State = StagedPublication::State;

constexpr std::size_t kRowsPerStatement = 500;
constexpr std::array kStates = {State::Running, State::Stopped, State::Complete};
const KelError kUnreadable{kKelErrorNotAvailable, "The console's database cannot be read; see its log"};

KelString QuotedList(const KelString* begin, const KelString* end) {
    KelString list;
    for (const KelString* text = begin; text != end; ++text)
        list += KelFormat("%s'%Q'", text == begin ? "" : ", ", *text);
    return list;
}

/// `assignment` for these targets, as far as `condition` holds.
void AddUpdates(const KelString& assignment, const KelString& id, const KelString& condition,
                const KelVector<KelString>& guids, std::size_t begin, std::size_t end,
                KelVector<KelString>& statements) {
    for (std::size_t at = begin; at < end; at += kRowsPerStatement)
        statements.push_back(
            KelFormat("UPDATE PublicationTargets SET %S WHERE PublicationId = '%Q' AND %S AND GUID IN (%S)",
                      assignment, id, condition,
                      QuotedList(guids.data() + at, guids.data() + std::min(end, at + kRowsPerStatement))));
}

State StateOf(const KelString& name) {
    const auto found =
        std::ranges::find_if(kStates, [&name](State state) { return name == StageStateName(state); });
    return found == kStates.end() ? State::Stopped : *found;
}

}  // namespace

const char* StageStateName(State state) {
    switch (state) {
        case State::Running:
            return "running";
        case State::Stopped:
            return "stopped";
        default:
            return "complete";
    }
}

KelVector<KelString> StageStatements(const PublicationRequest& request, const KelString& id,
                                     const KelVector<KelString>& guids) {
    KelVector<KelString> statements;
    if (request.stages.empty()) return statements;
    const KelVector<std::size_t> ends = StageEnds(request.stages, guids.size());
    statements.push_back(KelFormat(
        "INSERT INTO StagedPublications (PublicationId, Stages, StopAtFailures, Bypass, WakeOnLan, FileInfo) "
        "VALUES ('%Q', %lu, %d, %d, %d, '%Q')",
        id, ends.size(), request.stopAtFailures, request.bypass, request.wakeOnLan,
        request.fileInfo.SaveToXML()));
    std::size_t begin = 0;
    for (std::size_t stage = 0; stage < ends.size(); begin = ends[stage++])
        AddUpdates(KelFormat("Stage = %lu, Status = '%s'", stage + 1, stage == 0 ? "pending" : "scheduled"),
                   id, "Status = 'pending'", guids, begin, ends[stage], statements);
    return statements;
}

KelResult<KelVector<StagedPublication>> StageStore::List(const KelVector<KelString>& ids,
                                                         std::optional<State> state) {
    KelString condition = "1";
    if (!ids.empty())
        condition = KelFormat("PublicationId IN (%S)", QuotedList(ids.data(), ids.data() + ids.size()));
    if (state) condition += KelFormat(" AND State = '%s'", StageStateName(*state));
    const auto rows = database_.Select(KelFormat(
        "SELECT PublicationId, State, Reason, FileInfo, Stages, Released, StopAtFailures, Accepted, Bypass, "
        "WakeOnLan FROM StagedPublications WHERE %S",
        condition));
    if (!rows) return kUnreadable;
    KelVector<StagedPublication> publications(rows->GetRowCount());
    for (std::size_t row = 0; row < publications.size(); ++row) {
        const auto number = [&](std::size_t column) {
            return static_cast<std::int32_t>(rows->GetInt64(row, column));
        };
        StagedPublication& publication = publications[row];
        publication.id = rows->GetString(row, 0);
        publication.state = StateOf(rows->GetString(row, 1));
        publication.reason = rows->GetString(row, 2);
        // An empty one is what it is replaced by if it were malformed.
        if (!publication.request.fileInfo.LoadFromXML(rows->GetString(row, 3)))
            publication.request.fileInfo = {};
        publication.stages = number(4);
        publication.released = number(5);
        publication.stopAtFailures = number(6);
        publication.accepted = number(7);
        publication.request.bypass = number(8) != 0;
        publication.request.wakeOnLan = number(9) != 0;
    }
    return publications;
}

KelResult<KelVector<StageCounts>> StageStore::Count(const KelString& id) {
    const auto rows = database_.Select(KelFormat(
        "SELECT Stage, COUNT(*), SUM(Status = 'delivered'), SUM(Status = 'failed'), SUM(Status = 'pending'), "
        "SUM(Status = 'scheduled') FROM PublicationTargets WHERE PublicationId = '%Q' AND Stage > 0 GROUP BY "
        "Stage "
        "ORDER BY Stage",
        id));
    if (!rows) return kUnreadable;
    KelVector<StageCounts> stages(rows->GetRowCount());
    for (std::size_t row = 0; row < stages.size(); ++row) {
        const std::array members = {&StageCounts::stage,  &StageCounts::targets, &StageCounts::delivered,
                                    &StageCounts::failed, &StageCounts::pending, &StageCounts::scheduled};
        for (std::size_t column = 0; column < members.size(); ++column)
            stages[row].*members[column] = static_cast<std::int32_t>(rows->GetInt64(row, column));
    }
    return stages;
}

KelResult<KelVector<KelString>> StageStore::Targets(const KelString& id, const char* status,
                                                    std::int32_t first, std::int32_t last,
                                                    std::size_t limit) {
    const auto rows = database_.Select(KelFormat(
        "SELECT GUID FROM PublicationTargets WHERE PublicationId = '%Q' AND Status = '%s' AND Stage "
        "BETWEEN %d AND %d LIMIT %lu",
        id, status, first, last, limit));
    if (!rows) return kUnreadable;
    KelVector<KelString> guids;
    for (std::size_t row = 0; row < rows->GetRowCount(); ++row)
        guids.push_back(rows->GetString(row, std::size_t{0}));
    return guids;
}

KelResult<KelHash<KelString, std::int32_t>> StageStore::StagesByGuid(const KelString& id) {
    const auto rows = database_.Select(
        KelFormat("SELECT GUID, Stage FROM PublicationTargets WHERE PublicationId = '%Q'", id));
    if (!rows) return kUnreadable;
    KelHash<KelString, std::int32_t> stages;
    for (std::size_t row = 0; row < rows->GetRowCount(); ++row)
        stages[rows->GetString(row, std::size_t{0})] =
            static_cast<std::int32_t>(rows->GetInt64(row, std::size_t{1}));
    return stages;
}

KelResult<std::int32_t> StageStore::CountFailed(const KelString& id) {
    const auto rows = database_.Select(KelFormat(
        "SELECT COUNT(*) FROM PublicationTargets WHERE PublicationId = '%Q' AND Status = 'failed'", id));
    if (!rows) return kUnreadable;
    return static_cast<std::int32_t>(rows->GetInt64(0, std::size_t{0}));
}

bool StageStore::SetPending(const KelString& id, const KelVector<KelString>& guids) {
    KelVector<KelString> statements;
    AddUpdates("Status = 'pending'", id, "Status = 'scheduled'", guids, 0, guids.size(), statements);
    return database_.Write(statements);
}

bool StageStore::Update(const StagedPublication& publication) {
    return database_.Write({KelFormat(
        "UPDATE StagedPublications SET State = '%s', Released = %d, Accepted = %d, Reason = '%Q' WHERE "
        "PublicationId = '%Q'",
        StageStateName(publication.state), publication.released, publication.accepted, publication.reason,
        publication.id)});
}
