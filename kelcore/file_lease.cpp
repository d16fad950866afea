#include "kelcore/file_lease.h"

#include <condition_variable>
#include <mutex>
#include <unordered_map>
#include <utility>

namespace {

/// The files in use: the number of leases, or kClaimed.
struct Table {
    std::mutex mutex;  ///< a leaf
    std::condition_variable released;
    std::unordered_map<KelString, int> files;
};

constexpr int kClaimed = -1;

/// Never destroyed: leases may be released by threads that end late.
Table& Files() {
    static Table& table = *new Table;
    return table;
}

bool IsClaimed(const Table& table, const KelString& name) {
    const auto file = table.files.find(name);
    return file != table.files.end() && file->second == kClaimed;
}

}  // namespace

KelFileLease::KelFileLease(KelString name) : name_(std::move(name)) {
    if (name_.empty()) return;
    Table& table = Files();
    std::unique_lock lock(table.mutex);
    table.released.wait(lock, [&] { return !IsClaimed(table, name_); });
    ++table.files[name_];
}

KelFileLease KelFileLease::Try(KelString name) {
    KelFileLease lease;
    Table& table = Files();
    const std::lock_guard lock(table.mutex);
    if (name.empty() || IsClaimed(table, name)) return lease;
    ++table.files[name];
    lease.name_ = std::move(name);
    return lease;
}

KelFileLease& KelFileLease::operator=(KelFileLease&& other) noexcept {
    if (this != &other) {
        Release();
        name_ = std::exchange(other.name_, {});
    }
    return *this;
}

void KelFileLease::Release() {
    if (name_.empty()) return;
    Table& table = Files();
    const std::lock_guard lock(table.mutex);
    const auto file = table.files.find(name_);
    if (--file->second == 0) table.files.erase(file);
    name_.clear();
}

KelVector<KelString> KelFileLease::Names(const KelString& prefix) {
    Table& table = Files();
    const std::lock_guard lock(table.mutex);
    KelVector<KelString> names;
    for (const auto& [name, leases] : table.files)
        if (leases != kClaimed && name.starts_with(prefix)) names.push_back(name);
    return names;
}

KelFileClaim::KelFileClaim(KelString name) {
    Table& table = Files();
    const std::lock_guard lock(table.mutex);
    if (table.files.try_emplace(name, kClaimed).second) name_ = std::move(name);
}

KelFileClaim::~KelFileClaim() {
    if (name_.empty()) return;
    Table& table = Files();
    const std::lock_guard lock(table.mutex);
    table.files.erase(name_);
    table.released.notify_all();
}
