#include "filestore/down/explain.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <utility>

#include "filestore/db/targets_table.h"
#include "filestore/down/announcement.h"
#include "filestore/exchange/reason_of_file.h"
#include "filestore/exchange/side_by_side.h"
#include "filestore/state/device.h"
#include "filestore/state/file_store.h"
#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"

namespace filestore {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kMostAtOnce = 50;
constexpr int kConnectSeconds = 3;
/// What asking one device needs at the least, and how much earlier it is to answer than this device.
constexpr std::chrono::seconds kLeast{kConnectSeconds + 1};

KelString GuidIn(const KelString& name) {
    return StringTokeniser(name, '/').GetToken(1);
}

/// The names of the devices in a sub-tree that are targets themselves.
void CollectTargets(const KelString& name, const KelContainer& below, KelVector<KelString>& targets) {
    if (below.IsEmpty()) targets.push_back(name);
    for (std::size_t i = 0; i < below.GetNameCount(); ++i)
        CollectTargets(below.GetName(i), below.GetContainer(below.GetName(i)), targets);
}

/// A target with its reason; `place`: the device that waits or is waited for.
KelContainer TargetValues(const KelString& name, const WaitingReason& reason, const KelString& place) {
    KelContainer values;
    values.SetString("GUID", GuidIn(name));
    values.SetString("Device", PeerName(name));
    values.SetString("At", place);
    reason.Write(values);
    return values;
}

WaitingReason NotAsked(const KelString& name, const char* why) {
    WaitingReason reason;
    reason.code = Waiting::NotAsked;
    reason.peer = PeerName(name);
    reason.detail = why;
    return reason;
}

/// A next device, and what it answers for the targets that it leads to.
struct Question {
    KelString device;  ///< path name
    KelContainer below;
    std::optional<WaitingReason> ofRow;  ///< what this device knows, if it has a row for it
    ExplainedTargets answer;

    KelVector<KelString> Targets() const {
        KelVector<KelString> targets;
        CollectTargets(device, below, targets);
        return targets;
    }
    void AnswerAll(const WaitingReason& reason, const KelString& place) {
        for (const KelString& target : Targets())
            answer.push_back(TargetValues(target, reason, place));
    }
};

/// Asks the devices of `questions` side by side.
class Inquiry {
  public:
    Inquiry(FileKey key, const ExplainLimits& limits)
        : key_(std::move(key)),
          ownUrl_(OurDeviceUrl()),
          end_(Clock::now() + std::chrono::seconds(limits.seconds)),
          devices_(static_cast<std::size_t>(std::max(limits.devices, 0))) {}

    void Run(KelVector<Question>& questions);

  private:
    void Ask(Question& question) const;
    void Take(Question& question, const KelContainer& given) const;
    void Fail(Question& question, unsigned int error, const KelString& message) const;

    const FileKey key_;
    const KelString ownUrl_;
    const Clock::time_point end_;
    const std::size_t devices_;
    std::int32_t share_ = 0;  ///< of the devices, for each that is asked
};

void Inquiry::Run(KelVector<Question>& questions) {
    const std::size_t asked = std::min(questions.size(), devices_);
    if (asked > 0) share_ = static_cast<std::int32_t>((devices_ - asked) / asked);
    RunSideBySide(asked, kMostAtOnce, [&](std::size_t i) { Ask(questions[i]); });
    for (std::size_t i = asked; i < questions.size(); ++i)
        questions[i].AnswerAll(NotAsked(questions[i].device, "there are too many; ask for one device"),
                               ownUrl_);
}

void Inquiry::Ask(Question& question) const {
    const KelString& device = question.device;
    const auto left = std::chrono::duration_cast<std::chrono::seconds>(end_ - Clock::now());
    if (left < kLeast)
        return question.AnswerAll(NotAsked(device, "no time was left; ask again there"), ownUrl_);
    if (!IsValidDestination(device))
        return question.AnswerAll(NotAsked(device, "its address cannot be called"), ownUrl_);
    KelString url, guid;
    FileStore::GetDeviceUrl(device, url, guid);
    KelContainer call, tree;
    key_.Write(call);
    tree.SetContainer(device, question.below);
    call.SetContainer(kValueDevicePath, std::move(tree));
    call.SetInt32("Seconds", static_cast<std::int32_t>((left - kLeast).count()));
    call.SetInt32("Devices", share_);
    const auto patience = static_cast<int>(left.count()) - kConnectSeconds;
    const unsigned int error = ActionDbInvokeContainer(nullptr, url, "FileStoreExplainFile", call, 0,
                                                       kConnectSeconds, patience, nullptr);
    if (error != kKelOk) return Fail(question, error, call.GetString("Message"));
    Reasons().DeviceAnswered(device);
    Take(question, call);
}

void Inquiry::Fail(Question& question, unsigned int error, const KelString& message) const {
    WaitingReason reason = ReasonOfCall(error, PeerName(question.device));
    if (reason.code == Waiting::PeerRefused && !message.empty()) reason.detail = message;
    Reasons().NoteDevice(question.device, reason);
    if (const auto noted = Reasons().FindDevice(question.device)) reason = *noted;
    if (question.ofRow) reason.nextTry = question.ofRow->nextTry;
    question.AnswerAll(reason, ownUrl_);
}

void Inquiry::Take(Question& question, const KelContainer& given) const {
    if (!given.GetBool("Known")) {
        WaitingReason reason;
        if (question.ofRow) reason = *question.ofRow;
        reason.code = Waiting::UnknownThere;
        reason.peer = PeerName(question.device);
        return question.AnswerAll(reason, ownUrl_);
    }
    const std::uint32_t count = given.Has("Values") ? given.Count("Values") : 0;
    for (const KelString& target : question.Targets()) {
        const KelString guid = GuidIn(target);
        bool isAnswered = false;
        for (std::uint32_t i = 0; i < count && !isAnswered; ++i) {
            const KelContainer& values = given.GetContainer("Values", i);
            isAnswered = values.GetString("GUID") == guid;
            if (isAnswered) question.answer.push_back(values);
        }
        if (!isAnswered)
            question.answer.push_back(TargetValues(
                target, NotAsked(target, "the device above it does not take this one for its parent"),
                ownUrl_));
    }
}

/// The next devices that the rows of a file name, with what is below them; a target on this device is named
/// like a device below it.
KelContainer TreeOfRows(const KelVector<FileStoreTarget>& rows) {
    KelContainer next;
    for (const FileStoreTarget& row : rows) {
        KelContainer tree;
        if (!tree.LoadFromXML(row.DevicePath)) tree.Clear();  // logged whenever it is announced
        const KelString name = row.DeviceGUID.empty() ? OurDeviceUrl() : row.DeviceGUID;
        next.SetContainer(name, tree.IsEmpty() ? KelContainer() : tree.GetContainer(tree.GetName(0)));
    }
    return next;
}

const FileStoreTarget* RowOf(const KelVector<FileStoreTarget>& rows, const KelString& guid) {
    const auto row = std::ranges::find_if(
        rows, [&guid](const FileStoreTarget& one) { return GuidIn(one.DeviceGUID) == guid; });
    return row == rows.end() ? nullptr : &*row;
}

/// True when only the device itself can say more.
bool IsToBeAsked(const std::optional<WaitingReason>& ofRow) {
    return !ofRow || ofRow->code == Waiting::AwaitingAcknowledgement || ofRow->code == Waiting::LastTryFailed;
}

WaitingReason ReasonHere(const FileStoreEntry& file, const std::optional<WaitingReason>& own,
                         const KelVector<FileStoreTarget>& rows, const Circumstances& at) {
    if (own) return *own;
    if (const FileStoreTarget* row = RowOf(rows, {})) return ReasonOfTarget(file, *row, at);
    WaitingReason arrived;
    arrived.code = Waiting::Arrived;
    arrived.since = file.LastStatusChangeTime;
    return arrived;
}

/// The targets below this device, which `next` names by next devices.
ExplainedTargets ExplainBelow(const FileStoreEntry& file, const std::optional<WaitingReason>& own,
                              const KelVector<FileStoreTarget>& rows, const KelContainer& next,
                              const Circumstances& at, const ExplainLimits& limits) {
    const KelString ownUrl = OurDeviceUrl();
    ExplainedTargets targets;
    KelVector<Question> questions;
    for (std::size_t i = 0; i < next.GetNameCount(); ++i) {
        Question question;
        question.device = next.GetName(i);
        if (FileStore::CheckDeviceGuid(question.device)) {
            targets.push_back(TargetValues(question.device, ReasonHere(file, own, rows, at), ownUrl));
            continue;
        }
        question.below = next.GetContainer(question.device);
        if (const FileStoreTarget* row = RowOf(rows, GuidIn(question.device)))
            question.ofRow = ReasonOfTarget(file, *row, at);
        if (own) {
            question.AnswerAll(*own, ownUrl);
        } else if (!IsToBeAsked(question.ofRow)) {
            question.AnswerAll(*question.ofRow, ownUrl);
        } else {
            questions.push_back(std::move(question));
            continue;
        }
        targets.insert(targets.end(), question.answer.begin(), question.answer.end());
    }
    if (!questions.empty()) Inquiry(file.Key(), limits).Run(questions);
    for (const Question& question : questions)
        targets.insert(targets.end(), question.answer.begin(), question.answer.end());
    return targets;
}

}  // namespace

Explanation ExplainFile(Side side, std::uint64_t fileId, const KelContainer& tree,
                        const ExplainLimits& limits) {
    Explanation explanation;
    FileStoreEntry file;
    const bool isKnown = fileId != 0 && file.LoadFromDatabase(fileId, side);
    explanation.own.SetBool("Known", isKnown);
    if (!isKnown) return explanation;
    const Circumstances at = Circumstances::Now();
    const auto own = ReasonOfFile(file, side, at);
    file.Key().Write(explanation.own);
    explanation.own.SetInt64(kValueFileSize, file.FileSize);
    explanation.own.SetString("FileStatus", file.FileStatus);
    if (own) {
        KelContainer reason;
        own->Write(reason);
        explanation.own.SetContainer("Reason", std::move(reason));
    }
    if (side == Side::Upstream) return explanation;
    const auto rows = FindTargets(fileId).value_or(KelVector<FileStoreTarget>());
    KelContainer next = tree.IsEmpty() ? TreeOfRows(rows) : tree.GetContainer(tree.GetName(0));
    // A device with nothing below it is the target itself.
    if (!tree.IsEmpty() && next.IsEmpty()) next.SetContainer(tree.GetName(0), {});
    explanation.targets = ExplainBelow(file, own, rows, next, at, limits);
    return explanation;
}

KelContainer PartOfTree(const KelContainer& tree, const KelString& guid) {
    KelContainer part;
    for (std::size_t i = 0; i < tree.GetNameCount(); ++i) {
        const KelString& name = tree.GetName(i);
        const KelContainer& below = tree.GetContainer(name);
        KelContainer wanted = PartOfTree(below, guid);
        const bool isTarget = below.IsEmpty() && GuidIn(name) == guid;
        if (isTarget || !wanted.IsEmpty()) part.SetContainer(name, std::move(wanted));
    }
    return part;
}

}  // namespace filestore
