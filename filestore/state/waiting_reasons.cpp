#include "filestore/state/waiting_reasons.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <utility>

#include "filestore/db/database.h"
#include "kel/format.h"
#include "kelcore/error_codes.h"
#include "kelcore/error_text.h"
#include "kelcore/http/client.h"
#include "kelcore/http/message.h"
#include "kelcore/http/url.h"
#include "kelcore/metrics/metrics_page.h"

namespace filestore {

namespace {

constexpr std::size_t kMostEntries = 50000;
constexpr std::int64_t kKept = 86400;  ///< seconds for which a reason counts that is not noted again

/// The names of the codes, in their order.
constexpr std::array kNames = {"not_tried",
                               "announced",
                               "transferring",
                               "awaiting_content",
                               "awaiting_acknowledgement",
                               "wake_up_sent",
                               "peer_unreachable",
                               "peer_refused",
                               "cut_off",
                               "checksum_wrong",
                               "window_closed",
                               "disk_full",
                               "local_failure",
                               "parent_unreachable",
                               "parent_lacks_file",
                               "to_be_packed",
                               "consumer_later",
                               "last_try_failed",
                               "gathering_targets",
                               "awaiting_group",
                               "awaiting_requests",
                               "multicast_under_way",
                               "unknown_there",
                               "not_asked",
                               "arrived"};
static_assert(kNames.size() == static_cast<std::size_t>(Waiting::Arrived) + 1);

constexpr std::array kStepNames = {"download", "acknowledge", "request", "handle",
                                   "send",     "upload",      "announce"};
static_assert(kStepNames.size() == static_cast<std::size_t>(WaitingStep::Announce) + 1);

/// The reasons that are failures; with the others, a step has done its part or waits its turn.
constexpr std::array kFailures = {Waiting::PeerUnreachable, Waiting::PeerRefused,    Waiting::CutOff,
                                  Waiting::ChecksumWrong,   Waiting::DiskFull,       Waiting::LocalFailure,
                                  Waiting::ParentUnknown,   Waiting::ParentLacksFile};

constexpr KelMetric kFailed(KelMetric::Kind::Counter, "kel_store_failures_total",
                            "Steps of files that have failed, by step and reason; each is tried again.");
std::array<std::array<KelCounter, kNames.size()>, kStepNames.size()> failures;

KelString DiskFullText(const WaitingReason& reason) {
    if (reason.whole == 0) return KelFormat("the disk is full; %gu bytes are free", reason.bytes);
    return KelFormat("the disk is full; %gu bytes are needed, %gu are free", reason.whole, reason.bytes);
}

KelString TransferText(const WaitingReason& reason) {
    if (reason.whole == 0) return KelFormat("being transferred; %gu bytes so far", reason.bytes);
    return KelFormat("being transferred; %gu of %gu bytes so far", reason.bytes, reason.whole);
}

KelString AnswerText(unsigned int status) {
    switch (status) {
        case kHttpStatusUnauthorized:
            return KelErrorText(kKelErrorCredentials);
        case kHttpStatusNotFound:
        case kHttpStatusRangeNotSatisfiable:
            return "it does not have the content";
        default:
            return KelFormat("it answers with HTTP status %u; its log says why", status);
    }
}

WaitingReason Make(Waiting code, KelString peer, KelString detail = {}) {
    WaitingReason reason;
    reason.code = code;
    reason.peer = std::move(peer);
    reason.detail = std::move(detail);
    return reason;
}

}  // namespace

const char* NameOf(Waiting code) {
    return kNames[static_cast<std::size_t>(code)];
}

KelString WaitingReason::Text() const {
    switch (code) {
        case Waiting::NotTried:
            return "its turn has not come yet";
        case Waiting::Announced:
            return "announced, not yet downloaded";
        case Waiting::Transferring:
            return TransferText(*this);
        case Waiting::AwaitingContent:
            return "its content is awaited";
        case Waiting::AwaitingAcknowledgement:
            return KelFormat("announced to %S, which has not acknowledged it", peer);
        case Waiting::WakeUpSent:
            return KelFormat("%S does not answer; a wake-up was sent", peer);
        case Waiting::PeerUnreachable:
            return KelFormat("%S does not answer", peer);
        case Waiting::PeerRefused:
            return KelFormat("%S: %S", peer, detail);
        case Waiting::CutOff:
            return KelFormat("the connection to %S broke after %gu bytes", peer, bytes);
        case Waiting::ChecksumWrong:
            return KelFormat("the content from %S has a wrong checksum (%u times)", peer, count);
        case Waiting::WindowClosed:
            return "the transfer window is closed";
        case Waiting::DiskFull:
            return DiskFullText(*this);
        case Waiting::LocalFailure:
            return detail;
        case Waiting::ParentUnknown:
            return peer.empty() ? detail : KelFormat("the parent %S: %S", peer, detail);
        case Waiting::ParentLacksFile:
            return KelFormat("requested; the parent %S does not have it yet", peer);
        case Waiting::ToBePacked:
            return "waits for its archive to be packed";
        case Waiting::ConsumerLater:
            return KelFormat("%S wants it later", detail);
        case Waiting::LastTryFailed:
            return "the last try failed; why is not known since the agent was started";
        case Waiting::GatheringTargets:
            return "more targets are waited for before it is sent by multicast";
        case Waiting::AwaitingGroup:
            return "another file is being sent by multicast";
        case Waiting::AwaitingRequests:
            return KelFormat("too few devices to send it by multicast: %S", detail);
        case Waiting::MulticastUnderWay:
            return "a multicast transfer of it is in progress, which began before this target was named";
        case Waiting::UnknownThere:
            return KelFormat("%S does not know the file", peer);
        case Waiting::NotAsked:
            return KelFormat("%S was not asked: %S", peer, detail);
        case Waiting::Arrived:
            return "the file is there; its receipt is awaited";
    }
    return {};
}

void WaitingReason::Write(KelContainer& values) const {
    values.SetString("Code", NameOf(code));
    values.SetString("Message", Text());
    if (!peer.empty()) values.SetString("Peer", peer);
    if (bytes != 0 || whole != 0) values.SetInt64("Bytes", static_cast<std::int64_t>(bytes));
    if (whole != 0) values.SetInt64("Size", static_cast<std::int64_t>(whole));
    if (count != 0) values.SetInt64("Count", count);
    if (since != 0) values.SetInt64("Since", since);
    if (nextTry != 0) values.SetInt64("NextTry", nextTry);
}

WaitingReason ReasonOfCall(unsigned int error, const KelString& peer) {
    if (error == kKelErrorUnreachable) return Make(Waiting::PeerUnreachable, peer);
    return Make(Waiting::PeerRefused, peer, KelErrorText(error));
}

WaitingReason ReasonOfTransfer(unsigned int result, unsigned int status, const KelString& peer,
                               const KelString& errorText) {
    switch (result) {
        case kHttpCompleted:
            return Make(Waiting::PeerRefused, peer, AnswerText(status));
        case kHttpUnreachable:
            return Make(Waiting::PeerUnreachable, peer);
        case kHttpCutOff:
            return Make(Waiting::CutOff, peer);
        case kHttpDiskFull:
            return Make(Waiting::DiskFull, {});
        case kHttpLocalFile:
            return Make(Waiting::LocalFailure, {}, errorText);
        default:
            return Make(Waiting::PeerRefused, peer, errorText);
    }
}

KelString PeerName(const KelString& url) {
    UrlInet parsed;
    if (UrlParseInet(url, parsed)) return KelFormat("%S:%u", parsed.host, unsigned{parsed.port});
    return url.substr(0, url.find('/'));
}

/// Rows may reach another status, such as requested again, without having moved on.
void WaitingReasons::DropOld(std::int64_t now) {
    std::erase_if(entries_, [now](const auto& entry) { return entry.second.noted < now - kKept; });
    dropAt_ = std::clamp(2 * entries_.size(), kFewEntries, kMostEntries);
}

void WaitingReasons::Put(Key key, WaitingStep step, WaitingReason reason) {
    failures[static_cast<std::size_t>(step)][static_cast<std::size_t>(reason.code)].Add();
    const std::int64_t now = std::time(nullptr);
    const KelLock lock(mutex_);
    const auto known = entries_.find(key);
    if (known == entries_.end() && entries_.size() >= dropAt_) {
        DropOld(now);
        if (entries_.size() >= kMostEntries) return;  // the rows still say what can be derived from them
    }
    const bool goesOn =
        known != entries_.end() && known->second.step == step && known->second.reason.code == reason.code;
    reason.since = goesOn ? known->second.reason.since : now;
    reason.count = goesOn ? known->second.reason.count + 1 : 1;
    entries_[std::move(key)] = {step, std::move(reason), now};
}

void WaitingReasons::Note(Side side, std::uint64_t fileId, WaitingStep step, WaitingReason reason) {
    Put({side, fileId, {}}, step, std::move(reason));
}

void WaitingReasons::MovedOn(Side side, std::uint64_t fileId) {
    const KelLock lock(mutex_);
    entries_.erase({side, fileId, {}});
}

std::optional<WaitingReason> WaitingReasons::Find(Side side, std::uint64_t fileId, WaitingStep step,
                                                  std::int64_t createTime) const {
    const KelLock lock(mutex_);
    const auto entry = entries_.find({side, fileId, {}});
    if (entry == entries_.end() || entry->second.step != step || entry->second.noted < createTime)
        return std::nullopt;
    return entry->second.reason;
}

void WaitingReasons::NoteDevice(const KelString& deviceGuid, WaitingReason reason) {
    Put({Side::Downstream, 0, deviceGuid}, WaitingStep::Announce, std::move(reason));
}

void WaitingReasons::DeviceAnswered(const KelString& deviceGuid) {
    const KelLock lock(mutex_);
    entries_.erase({Side::Downstream, 0, deviceGuid});
}

std::optional<WaitingReason> WaitingReasons::FindDevice(const KelString& deviceGuid) const {
    const KelLock lock(mutex_);
    const auto entry = entries_.find({Side::Downstream, 0, deviceGuid});
    return entry == entries_.end() ? std::nullopt : std::optional(entry->second.reason);
}

void WaitingReasons::BeginTransfer(const Transfer& transfer) {
    const KelLock lock(mutex_);
    transfers_[{transfer.side, transfer.fileId, {}}] = transfer;
}

void WaitingReasons::EndTransfer(Side side, std::uint64_t fileId) {
    const KelLock lock(mutex_);
    transfers_.erase({side, fileId, {}});
}

std::optional<WaitingReasons::Transfer> WaitingReasons::FindTransfer(Side side, std::uint64_t fileId) const {
    const KelLock lock(mutex_);
    const auto transfer = transfers_.find({side, fileId, {}});
    return transfer == transfers_.end() ? std::nullopt : std::optional(transfer->second);
}

KelVector<WaitingReasons::Transfer> WaitingReasons::ListTransfers() const {
    KelVector<Transfer> transfers;
    const KelLock lock(mutex_);
    for (const auto& [key, transfer] : transfers_)
        transfers.push_back(transfer);
    return transfers;
}

WaitingReasons::SpaceShortage WaitingReasons::GetSpaceShortage() const {
    SpaceShortage shortage;
    const KelLock lock(mutex_);
    for (const auto& [key, entry] : entries_) {
        if (entry.reason.code != Waiting::DiskFull) continue;
        ++shortage.files;
        shortage.since =
            shortage.since == 0 ? entry.reason.since : std::min(shortage.since, entry.reason.since);
        shortage.needed = std::max(shortage.needed, entry.reason.whole);
    }
    return shortage;
}

WaitingReasons::Counts WaitingReasons::CountFiles(Side side) const {
    Counts counts;
    const KelLock lock(mutex_);
    for (const auto& [key, entry] : entries_)
        if (std::get<0>(key) == side && std::get<1>(key) != 0) ++counts[{entry.step, entry.reason.code}];
    return counts;
}

WaitingReasons::Counts WaitingReasons::CountDevices() const {
    Counts counts;
    const KelLock lock(mutex_);
    for (const auto& [key, entry] : entries_)
        if (std::get<1>(key) == 0) ++counts[{entry.step, entry.reason.code}];
    return counts;
}

std::int64_t WaitingReasons::CountTransfers(Side side) const {
    const KelLock lock(mutex_);
    return std::ranges::count_if(transfers_,
                                 [side](const auto& transfer) { return transfer.second.side == side; });
}

void WaitingReasons::CollectFailures(KelMetricsPage& page) {
    for (std::size_t step = 0; step < kStepNames.size(); ++step)
        for (const Waiting code : kFailures)
            page.Add(kFailed, {{"step", kStepNames[step]}, {"reason", NameOf(code)}},
                     failures[step][static_cast<std::size_t>(code)]);
}

void WaitingReasons::Clear() {
    const KelLock lock(mutex_);
    entries_.clear();
    transfers_.clear();
}

WaitingReasons& Reasons() {
    static WaitingReasons reasons;
    return reasons;
}

}  // namespace filestore

void FileStoreRowDeleted(Side side, std::uint64_t fileId) {
    filestore::Reasons().MovedOn(side, fileId);
}
