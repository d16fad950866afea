#include "modules/delivery/orders.h"

#include <algorithm>
#include <ctime>
#include <utility>

#include "kel/checksum.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"
#include "modules/delivery/received_file.h"

namespace {

constexpr char kSuffix[] = ".xml";

}  // namespace

KelContainer DeliveryOrder::ToContainer() const {
    KelContainer values;
    file.Write(values);
    values.SetInt64(kValuePublicationTime, time);
    values.SetBool(kValueBypass, bypass);
    values.SetContainer(kValueFileInfo, info);
    values.SetInt64(kValueFileSize, size);
    values.SetString("Sha256", sha256);
    values.SetContainer(kValueSigned, signature);
    values.SetInt64("Received", received);
    values.SetBool("Requested", isRequested);
    values.SetBool("Ended", isEnded);
    values.SetBool("Withdrawn", isWithdrawn);
    return values;
}

KelResult<DeliveryOrder> ReadDeliveryOrder(const KelString& publication, const KelContainer& values) {
    DeliveryOrder order;
    order.publication = publication;
    order.file = FileKey::Read(values);
    order.time = values.GetInt64(kValuePublicationTime);
    order.bypass = values.GetBool(kValueBypass);
    order.info = values.GetContainer(kValueFileInfo);
    order.size = values.GetInt64(kValueFileSize);
    order.sha256 = values.GetString("Sha256");
    order.signature = values.GetContainer(kValueSigned);
    order.received = values.GetInt64("Received");
    order.isRequested = values.GetBool("Requested");
    order.isEnded = values.GetBool("Ended");
    order.isWithdrawn = values.GetBool("Withdrawn");
    if (const KelStatus checked = CheckFileKey(order.file); !checked) return checked.Error();
    if (order.time > 0) return order;
    return KelError{kKelErrorBadInput, KelFormat("the order of publication %S has no time", publication)};
}

bool Orders::Load(const KelString& folder) {
    const KelLock lock(mutex_);
    folder_ = folder;
    orders_.clear();
    if (!PathCreate(folder + "/Orders") || !PathCreate(folder + "/Latest")) return false;
    DirDeleteTempFiles(folder + "/Orders");
    DirDeleteTempFiles(folder + "/Latest");
    KelContainer mark;
    if (FileExists(MarkPath()) && mark.LoadFromFile(MarkPath()))
        forgotten_ = mark.GetInt64(kValuePublicationTime);
    for (const KelString& name : DirList(folder + "/Orders")) {
        KelContainer values;
        const bool isLoaded = static_cast<bool>(values.LoadFromFile(folder + "/Orders/" + name));
        const auto order = ReadDeliveryOrder(name.substr(0, name.rfind(kSuffix)), values);
        if (isLoaded && order) orders_.push_back(*order);
    }
    return true;
}

DeliveryOrder* Orders::Find(const KelString& publication) {
    const auto known =
        std::find_if(orders_.begin(), orders_.end(),
                     [&publication](const DeliveryOrder& order) { return order.publication == publication; });
    return known == orders_.end() ? nullptr : &*known;
}

bool Orders::Save(const DeliveryOrder& order) const {
    return static_cast<bool>(order.ToContainer().SaveToFile(PathOf(order.publication)));
}

bool Orders::Add(const DeliveryOrder& order) {
    const KelLock lock(mutex_);
    DeliveryOrder* known = Find(order.publication);
    if (!known) known = &orders_.emplace_back(order);
    known->isEnded = known->isWithdrawn = false;
    return Save(*known);
}

KelVector<DeliveryOrder> Orders::List() const {
    const KelLock lock(mutex_);
    return orders_;
}

bool Orders::Has(const KelString& publication) const {
    return std::ranges::any_of(List(),
                               [&](const DeliveryOrder& order) { return order.publication == publication; });
}

bool Orders::SetRequested(const KelString& publication) {
    const KelLock lock(mutex_);
    DeliveryOrder* order = Find(publication);
    if (!order || order->isEnded) return false;
    if (std::exchange(order->isRequested, true) || Save(*order)) return true;
    order->isRequested = false;
    return false;
}

void Orders::SetAsked(const KelString& publication, std::int64_t time) {
    const KelLock lock(mutex_);
    if (DeliveryOrder* order = Find(publication)) order->asked = time;
}

bool Orders::SetEnded(const KelString& publication) {
    const KelLock lock(mutex_);
    DeliveryOrder* order = Find(publication);
    return order && !std::exchange(order->isEnded, true);
}

void Orders::Withdraw(const KelString& publication) {
    const KelLock lock(mutex_);
    DeliveryOrder* order = Find(publication);
    if (!order || order->isEnded) return;
    order->isEnded = order->isWithdrawn = true;
    if (!order->isRequested || !Save(*order)) Remove(publication);
}

KelVector<DeliveryOrder> Orders::StopExpecting(const FileKey& file) {
    const KelLock lock(mutex_);
    KelVector<DeliveryOrder> ended;
    for (DeliveryOrder& order : orders_) {
        if (order.file != file) continue;
        order.isRequested = false;
        if (order.isEnded) ended.push_back(order);
    }
    return ended;
}

KelVector<KelString> Orders::SetAnswered(const KelVector<KelString>& publications) {
    const KelLock lock(mutex_);
    KelVector<KelString> known;
    for (const KelString& publication : publications) {
        const DeliveryOrder* order = Find(publication);
        if (!order) continue;
        known.push_back(publication);
        if (order->isEnded && order->isRequested)
            Save(*order);
        else
            Remove(publication);
    }
    return known;
}

void Orders::Remove(const KelString& publication) {
    const KelLock lock(mutex_);
    std::erase_if(orders_, [this, &publication](const DeliveryOrder& order) KEL_REQUIRES(mutex_) {
        if (order.publication != publication) return false;
        FileDelete(PathOf(order.publication));
        return true;
    });
}

bool Orders::HasPast(const KelString& destination) const {
    const KelLock lock(mutex_);
    return FileExists(PastPathOf(destination));
}

std::optional<PastDelivery> Orders::FindPast(const KelString& destination) const {
    const KelLock lock(mutex_);
    KelContainer values;
    const KelString path = PastPathOf(destination);
    if (!FileExists(path) || !values.LoadFromFile(path)) return std::nullopt;
    return PastDelivery{
        values.GetInt64(kValuePublicationTime),
        ParseDeliveryOutcome(values.GetString("Outcome")).value_or(DeliveryOutcome::Delivered),
        values.GetString("Message")};
}

bool Orders::Remember(const DeliveryJob& job) {
    if (job.destination.empty() || job.file.publicationTime == 0) return true;
    const KelLock lock(mutex_);
    const auto past = FindPast(job.destination);
    if (past && past->publicationTime > job.file.publicationTime) return true;
    KelContainer values;
    values.SetInt64(kValuePublicationTime, job.file.publicationTime);
    values.SetString("Outcome", DeliveryOutcomeName(job.outcome));
    values.SetString("Message", job.message);
    values.SetString("Destination", job.destination);
    values.SetInt64("Time", std::time(nullptr));
    return static_cast<bool>(values.SaveToFile(PastPathOf(job.destination)));
}

void Orders::ForgetPast(std::int64_t before, std::optional<std::size_t> kept) {
    struct Past {
        std::int64_t time = 0, publicationTime = 0;
        KelString path;
    };
    const auto folder = [this] {
        const KelLock lock(mutex_);
        return folder_ + "/Latest/";
    }();
    KelVector<Past> ended;
    for (const KelString& name : DirList(folder)) {
        const KelLock lock(mutex_);
        KelContainer values;
        if (!values.LoadFromFile(folder + name) || values.GetInt64("Time", before) >= before) continue;
        if (FileIsMissing(values.GetString("Destination")))
            ended.push_back({values.GetInt64("Time"), values.GetInt64(kValuePublicationTime), folder + name});
    }
    std::ranges::sort(ended, {}, &Past::time);
    ended.resize(ended.size() - std::min(ended.size(), kept.value_or(0)));
    if (ended.empty()) return;
    const KelLock lock(mutex_);
    if (kept && !Mark(std::ranges::max_element(ended, {}, &Past::publicationTime)->publicationTime)) return;
    for (const Past& past : ended)
        FileDelete(past.path);
}

/// On the disk before anything is forgotten.
bool Orders::Mark(std::int64_t publicationTime) {
    KelContainer mark;
    mark.SetInt64(kValuePublicationTime, std::max(forgotten_, publicationTime));
    if (!mark.SaveToFile(MarkPath())) return false;
    forgotten_ = std::max(forgotten_, publicationTime);
    return true;
}

std::int64_t Orders::EarliestFor(const KelString& destination) const {
    const KelLock lock(mutex_);
    if (const auto past = FindPast(destination)) return past->publicationTime;
    return forgotten_ == 0 ? 0 : forgotten_ + 1;
}

KelString Orders::MarkPath() const {
    return folder_ + "/forgotten.xml";
}

KelString Orders::PathOf(const KelString& publication) const {
    return folder_ + "/Orders/" + publication + kSuffix;
}

KelString Orders::PastPathOf(const KelString& destination) const {
    return folder_ + "/Latest/" + TextMd5(destination) + kSuffix;
}
