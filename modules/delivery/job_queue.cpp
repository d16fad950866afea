#include "modules/delivery/job_queue.h"

#include <algorithm>

#include "kel/directory.h"
#include "kel/file.h"
#include "kel/path.h"
#include "kel/text.h"

namespace {

constexpr char kSuffix[] = ".xml";

/// Wide enough that the order of the names is the order of the ids.
KelString PaddedNumber(std::uint64_t number) {
    const KelString digits = KelFormat("%gu", number);
    return KelString(20 - std::min<std::size_t>(20, digits.size()), '0') + digits;
}

}  // namespace

KelString JobQueue::PathOf(std::uint64_t id) const {
    return folder_ + "/" + PaddedNumber(id) + kSuffix;
}

bool JobQueue::Load(const KelString& folder) {
    const KelLock lock(mutex_);
    folder_ = folder;
    jobs_.clear();
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
    const auto file = ReadReceivedFile(container);
    if (!isLoaded || !file || PathOf(*number) != path) {
        log_.Warning("%S holds no job and is removed\n", path);
        FileDelete(path);
        return;
    }
    jobs_.push_back({*number, *file, container.GetString("Destination"), false});
    lastId_ = std::max(lastId_, *number);
}

std::uint64_t JobQueue::Add(const ReceivedFile& file, const KelString& destination) {
    const KelLock lock(mutex_);
    DeliveryJob job{++lastId_, file, destination, false};
    KelContainer container = file.ToContainer();
    container.SetString("Destination", destination);
    if (const KelStatus kept = container.SaveToFile(PathOf(job.id)); !kept) {
        log_.Error("The command for %S would be forgotten if the agent stopped now: %S\n", destination,
                   kept.Error().message);
    }
    DropFor(destination);
    jobs_.push_back(std::move(job));
    return lastId_;
}

void JobQueue::DropFor(const KelString& destination) {
    for (const DeliveryJob& job : jobs_) {
        if (job.destination == destination) FileDelete(PathOf(job.id));
    }
    std::erase_if(jobs_, [&](const DeliveryJob& job) { return job.destination == destination; });
}

void JobQueue::RemoveFor(const KelString& destination) {
    const KelLock lock(mutex_);
    DropFor(destination);
}

void JobQueue::SetCopied(std::uint64_t id) {
    const KelLock lock(mutex_);
    for (DeliveryJob& job : jobs_) {
        if (job.id == id) job.isCopied = true;
    }
}

void JobQueue::Remove(std::uint64_t id) {
    const KelLock lock(mutex_);
    if (std::erase_if(jobs_, [id](const DeliveryJob& job) { return job.id == id; }) > 0)
        FileDelete(PathOf(id));
}

bool JobQueue::Contains(std::uint64_t id) const {
    const KelLock lock(mutex_);
    return std::any_of(jobs_.begin(), jobs_.end(), [id](const DeliveryJob& job) { return job.id == id; });
}

KelVector<DeliveryJob> JobQueue::List() const {
    const KelLock lock(mutex_);
    return jobs_;
}
