#include "modules/delivery/job_queue.h"

#include <algorithm>
#include <utility>

#include "kel/directory.h"
#include "kel/file.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/file_values.h"

namespace {

constexpr char kSuffix[] = ".xml";

/// Wide enough that the order of the names is the order of the ids.
KelString PaddedNumber(std::uint64_t number) {
    const KelString digits = KelFormat("%gu", number);
    return KelString(20 - std::min<std::size_t>(20, digits.size()), '0') + digits;
}

std::optional<DeliveryJob> ReadJob(const KelContainer& container) {
    const auto file = ReadReceivedFile(container);
    const auto outcome =
        ParseDeliveryOutcome(container.GetString("Outcome", DeliveryOutcomeName(DeliveryOutcome::Open)));
    if (!file || !outcome) return std::nullopt;
    DeliveryJob job;
    job.file = *file;
    job.file.size = container.GetInt64("SignedSize", -1);
    job.file.sha256 = container.GetString("Sha256");
    job.destination = container.GetString("Destination");
    job.size = container.GetInt64(kValueFileSize);
    job.time = container.GetInt64("Time");
    job.outcome = *outcome;
    job.message = container.GetString("Message");
    return job;
}

/// Adds the publications of an older job that a new one for the same content replaces.
void TakeOver(const ReceivedFile& older, ReceivedFile& file) {
    if (older.key != file.key) return;
    for (const KelString& publication : older.publications)
        if (std::find(file.publications.begin(), file.publications.end(), publication) ==
            file.publications.end())
            file.publications.push_back(publication);
    file.publicationTime = std::max(file.publicationTime, older.publicationTime);
}

}  // namespace

const char* DeliveryOutcomeName(DeliveryOutcome outcome) {
    switch (outcome) {
        case DeliveryOutcome::Delivered:
            return "delivered";
        case DeliveryOutcome::Failed:
            return "failed";
        case DeliveryOutcome::Open:
            break;
    }
    return "open";
}

std::optional<DeliveryOutcome> ParseDeliveryOutcome(const KelString& text) {
    for (const auto outcome : {DeliveryOutcome::Open, DeliveryOutcome::Delivered, DeliveryOutcome::Failed}) {
        if (text == DeliveryOutcomeName(outcome)) return outcome;
    }
    return std::nullopt;
}

KelString JobQueue::PathOf(std::uint64_t id) const {
    return folder_ + "/" + PaddedNumber(id) + kSuffix;
}

bool JobQueue::Load(const KelString& folder) {
    const KelLock lock(mutex_);
    folder_ = folder;
    jobs_.clear();
    open_.clear();
    if (!PathCreate(folder)) return false;
    for (const KelString& fileName : DirList(folder))
        LoadJob(fileName);
    return true;
}

void JobQueue::LoadJob(const KelString& fileName) {
    const KelString path = folder_ + "/" + fileName;
    const auto number = ParseUint64(fileName.substr(0, fileName.find('.')));
    KelContainer container;
    const bool isLoaded = number && container.LoadFromFile(path);
    auto job = isLoaded ? ReadJob(container) : std::nullopt;
    if (!job || PathOf(*number) != path) {
        log_.Warning("%S holds no job and is removed\n", path);
        FileDelete(path);
        return;
    }
    job->id = *number;
    job->isKept = true;
    TakeIfHeld(*job);
    // Names are read in the order of the ids: of two open jobs for a destination, which a crash can leave,
    // the newer one stays.
    if (job->outcome == DeliveryOutcome::Open) {
        DropOpenJobFor(job->file, job->destination);
        open_[job->destination] = job->id;
    }
    lastId_ = std::max(lastId_, *number);
    jobs_[*number] = std::move(*job);
}

bool JobQueue::Keep(const DeliveryJob& job) {
    KelContainer container = job.file.ToContainer();
    container.SetString("Destination", job.destination);
    container.SetInt64(kValueFileSize, job.size);
    container.SetInt64("SignedSize", job.file.size);
    container.SetString("Sha256", job.file.sha256);
    container.SetInt64("Time", job.time);
    container.SetString("Outcome", DeliveryOutcomeName(job.outcome));
    container.SetString("Message", job.message);
    const KelStatus kept = container.SaveToFile(PathOf(job.id));
    if (!kept && !std::exchange(keepFails_, true))
        log_.Error("The work for %S cannot be written down; tried again once a minute: %S\n", job.destination,
                   kept.Error().message);
    if (kept && std::exchange(keepFails_, false)) log_.Print("Work can be written down again\n");
    return static_cast<bool>(kept);
}

void JobQueue::KeepNew(DeliveryJob& job) {
    job.isKept = Keep(job);
    TakeIfHeld(job);
}

/// The file store removes what is taken.
void JobQueue::TakeIfHeld(DeliveryJob& job) {
    const bool needsSource = job.outcome == DeliveryOutcome::Open && !job.isCopied;
    if (!job.isKept || job.isTaken || needsSource) return;
    job.isTaken = true;
    taken_.push_back(job.file.key);
}

bool JobQueue::KeepAll() {
    const KelLock lock(mutex_);
    for (auto& [id, job] : jobs_) {
        if (job.isKept || job.outcome != DeliveryOutcome::Open) continue;
        KeepNew(job);
        if (!job.isKept) return false;  // most likely the others would fail too
    }
    return true;
}

KelVector<FileKey> JobQueue::DrainTaken() {
    const KelLock lock(mutex_);
    return std::exchange(taken_, {});
}

void JobQueue::AddTaken(const ReceivedFile& file, const KelString& destination) {
    const KelLock lock(mutex_);
    if (!open_.contains(destination)) taken_.push_back(file.key);
}

bool JobQueue::Knows(const FileKey& key) const {
    const KelLock lock(mutex_);
    return std::find(taken_.begin(), taken_.end(), key) != taken_.end() ||
           std::any_of(jobs_.begin(), jobs_.end(),
                       [&key](const auto& entry) { return entry.second.file.key == key; });
}

bool JobQueue::NeedsSource(const FileKey& key) const {
    const KelLock lock(mutex_);
    return std::any_of(jobs_.begin(), jobs_.end(), [&key](const auto& entry) {
        const DeliveryJob& job = entry.second;
        return job.file.key == key && job.outcome == DeliveryOutcome::Open && !job.isCopied;
    });
}

std::uint64_t JobQueue::Add(const ReceivedFile& file, const KelString& destination, std::int64_t size,
                            std::int64_t time) {
    const KelLock lock(mutex_);
    DeliveryJob job;
    job.id = ++lastId_;
    job.file = file;
    job.destination = destination;
    job.size = size;
    job.time = time;
    if (const auto open = open_.find(destination); open != open_.end())
        TakeOver(jobs_.at(open->second).file, job.file);
    KeepNew(job);
    DropOpenJobFor(file, destination);
    open_[destination] = job.id;
    jobs_[job.id] = std::move(job);
    return lastId_;
}

void JobQueue::AddConcluded(const ReceivedFile& file, DeliveryOutcome outcome, const KelString& message,
                            std::int64_t time, const std::optional<FileKey>& refused) {
    const KelLock lock(mutex_);
    DeliveryJob job;
    job.id = ++lastId_;
    job.file = file;
    job.time = time;
    job.refused = refused;
    job.outcome = outcome;
    job.message = message;
    jobs_[job.id] = std::move(job);
}

bool JobQueue::Names(const KelString& publication) const {
    const KelLock lock(mutex_);
    return std::any_of(jobs_.begin(), jobs_.end(), [&publication](const auto& entry) {
        const KelVector<KelString>& named = entry.second.file.publications;
        return std::find(named.begin(), named.end(), publication) != named.end();
    });
}

std::int64_t JobQueue::LatestPublication(const KelString& destination) const {
    const KelLock lock(mutex_);
    std::int64_t latest = 0;
    for (const auto& [id, job] : jobs_)
        if (job.destination == destination) latest = std::max(latest, job.file.publicationTime);
    return latest;
}

void JobQueue::EndOtherJobFor(const ReceivedFile& file, const KelString& destination) {
    const KelLock lock(mutex_);
    const auto open = open_.find(destination);
    if (open == open_.end()) return;
    DeliveryJob& job = jobs_.at(open->second);
    if (job.file.key.checksum == file.key.checksum) return;
    Close(job, DeliveryOutcome::Failed, "Another content replaced it before it was processed");
    Keep(job);
    TakeIfHeld(job);
}

/// Ends the open job of a destination to make way for a new one.
void JobQueue::DropOpenJobFor(const ReceivedFile& file, const KelString& destination) {
    EndOtherJobFor(file, destination);
    if (const auto open = open_.find(destination); open != open_.end()) Erase(std::uint64_t{open->second});
}

void JobQueue::Close(DeliveryJob& job, DeliveryOutcome outcome, const KelString& message) {
    job.outcome = outcome;
    job.message = message;
    const auto open = open_.find(job.destination);
    if (open != open_.end() && open->second == job.id) open_.erase(open);
}

void JobQueue::SetCopied(std::uint64_t id) {
    const KelLock lock(mutex_);
    const auto job = jobs_.find(id);
    if (job == jobs_.end()) return;
    job->second.isCopied = true;
    TakeIfHeld(job->second);
}

void JobQueue::SetOutcome(std::uint64_t id, DeliveryOutcome outcome, const KelString& message, bool keep) {
    const KelLock lock(mutex_);
    const auto job = jobs_.find(id);
    if (job == jobs_.end() || job->second.outcome != DeliveryOutcome::Open) return;
    Close(job->second, outcome, message);
    if (keep) Keep(job->second);
    TakeIfHeld(job->second);
}

void JobQueue::SetRefused(std::uint64_t id, const KelString& message) {
    const KelLock lock(mutex_);
    SetOutcome(id, DeliveryOutcome::Failed, message, true);
    if (const auto job = jobs_.find(id); job != jobs_.end()) job->second.refused = job->second.file.key;
}

void JobQueue::Remove(std::uint64_t id) {
    const KelLock lock(mutex_);
    if (const auto job = jobs_.find(id); job != jobs_.end() && !job->second.isTaken)
        taken_.push_back(job->second.file.key);
    Erase(id);
}

void JobQueue::Erase(std::uint64_t id) {
    const auto job = jobs_.find(id);
    if (job == jobs_.end()) return;
    Close(job->second, DeliveryOutcome::Delivered, {});  // only to free its destination
    jobs_.erase(job);
    FileDelete(PathOf(id));
}

bool JobQueue::IsOpen(std::uint64_t id) const {
    const KelLock lock(mutex_);
    const auto job = jobs_.find(id);
    return job != jobs_.end() && job->second.outcome == DeliveryOutcome::Open;
}

KelVector<DeliveryJob> JobQueue::ListOpen() const {
    return List(true);
}

KelVector<DeliveryJob> JobQueue::ListConcluded() const {
    return List(false);
}

KelVector<DeliveryJob> JobQueue::List(bool open) const {
    const KelLock lock(mutex_);
    KelVector<DeliveryJob> list;
    for (const auto& [id, job] : jobs_) {
        if ((job.outcome == DeliveryOutcome::Open) == open) list.push_back(job);
    }
    return list;
}
