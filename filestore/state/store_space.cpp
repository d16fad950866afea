#include "filestore/state/store_space.h"

#include <algorithm>
#include <chrono>

#include "filestore/db/files_selection.h"
#include "filestore/state/file_store.h"
#include "kel/directory.h"

namespace filestore {

namespace {

constexpr unsigned int kPathNotFound = 3;  ///< DiskFree
constexpr unsigned int kBitsOfMegabyte = 20;
constexpr std::chrono::seconds kAge{30};

/// What the store holds, counted from time to time, because that reads an entry of each file.
struct Account {
    std::uint64_t counted = 0;
    std::uint64_t since = 0;  ///< has come since
    std::uint64_t running = 0;
    std::uint64_t quota = 0;  ///< in force when it was counted
    std::chrono::steady_clock::time_point next{};
};

KelMutex mutexAccount;  ///< not held while files are counted
Account account KEL_GUARDED_BY(mutexAccount);

std::uint64_t Megabytes(std::uint32_t number) {
    return std::uint64_t{number} << kBitsOfMegabyte;
}

std::uint64_t Less(std::uint64_t whole, std::uint64_t part) {
    return whole - std::min(whole, part);
}

void CountHeld(std::uint64_t quota) {
    {
        const KelLock lock(mutexAccount);
        if (quota == account.quota && std::chrono::steady_clock::now() < account.next) return;
    }
    const std::uint64_t counted = SumOfSizes(Side::Downstream) + SumOfSizes(Side::Upstream);
    const KelLock lock(mutexAccount);
    account.counted = counted;
    account.since = 0;
    account.quota = quota;
    account.next = std::chrono::steady_clock::now() + kAge;
}

}  // namespace

bool IsSpaceLimited() {
    return FileStore::ulFreeSpaceReserve != 0 || FileStore::ulStoreQuota != 0;
}

unsigned int SpaceFor(const KelString& folder, std::uint64_t& bytes) {
    std::uint64_t free = 0;
    unsigned int error = DiskFree(folder, free);
    if (error == kPathNotFound) error = DiskFree(FileStore::strStorageLocationToUse, free);
    if (error != 0) return error;
    bytes = Less(free, Megabytes(FileStore::ulFreeSpaceReserve));
    const std::uint64_t quota = Megabytes(FileStore::ulStoreQuota);
    if (quota != 0) CountHeld(quota);
    const KelLock lock(mutexAccount);
    if (quota != 0) bytes = std::min(bytes, Less(quota, account.counted + account.since));
    bytes = Less(bytes, account.running);
    return 0;
}

SpaceReservation::SpaceReservation(std::uint64_t bytes) : bytes_(bytes) {
    const KelLock lock(mutexAccount);
    account.running += bytes_;
}

SpaceReservation::~SpaceReservation() {
    const KelLock lock(mutexAccount);
    account.running -= bytes_;
    if (isComplete_) account.since += bytes_;
}

}  // namespace filestore
