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

/// What is known of the room for a transfer before the account is consulted.
struct Room {
    std::uint64_t onDisk = 0;
    std::uint64_t quota = 0;
    std::uint64_t listening = 0;  ///< by multicast: the datagrams come whatever else is taken in

    unsigned int Measure(const KelString& folder) {
        unsigned int error = DiskFree(folder, onDisk);
        if (error == kPathNotFound) error = DiskFree(FileStore::strStorageLocationToUse, onDisk);
        if (error != 0) return error;
        onDisk = Less(onDisk, Megabytes(FileStore::ulFreeSpaceReserve));
        quota = Megabytes(FileStore::ulStoreQuota);
        if (quota != 0) CountHeld(quota);
        listening = SumOfListening();
        return 0;
    }
    std::uint64_t Left() const KEL_REQUIRES(mutexAccount) {
        const std::uint64_t held = account.counted + account.since;
        const std::uint64_t bytes = quota == 0 ? onDisk : std::min(onDisk, Less(quota, held));
        return Less(bytes, account.running + listening);
    }
};

}  // namespace

bool IsSpaceLimited() {
    return FileStore::ulFreeSpaceReserve != 0 || FileStore::ulStoreQuota != 0;
}

unsigned int SpaceFor(const KelString& folder, std::uint64_t& bytes) {
    Room room;
    if (const unsigned int error = room.Measure(folder); error != 0) return error;
    const KelLock lock(mutexAccount);
    bytes = room.Left();
    return 0;
}

SpaceReservation::SpaceReservation(std::uint64_t bytes) : bytes_(bytes) {
    const KelLock lock(mutexAccount);
    account.running += bytes_;
}

bool SpaceReservation::Take(const KelString& folder, std::uint64_t bytes, std::uint64_t& left) {
    Room room;
    const bool isKnown = IsSpaceLimited() && room.Measure(folder) == 0;
    const KelLock lock(mutexAccount);
    if (isKnown && (left = room.Left()) < bytes) return false;
    account.running += bytes;
    bytes_ += bytes;
    return true;
}

SpaceReservation::~SpaceReservation() {
    const KelLock lock(mutexAccount);
    account.running -= bytes_;
    if (isComplete_) account.since += bytes_;
}

}  // namespace filestore
