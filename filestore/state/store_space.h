#pragma once

#include <cstdint>

#include "kel/types.h"

/// How much the store may still take: the disk keeps FreeSpaceReserve for the databases, and StoreQuota
/// limits the store as a whole. Nothing is removed to make room. Any thread, without locks.
namespace filestore {

/// True when a setting limits the store.
bool IsSpaceLimited();

/// Bytes that a transfer into `folder`, or where it will be made, may still write: what the disk has free
/// beyond the reserve, at most what is left of the quota, less what running transfers have reserved and what
/// is to come by multicast. 0, or the error of DiskFree.
unsigned int SpaceFor(const KelString& folder, std::uint64_t& bytes);

/// Reserves space for a transfer for as long as it lives.
class SpaceReservation {
  public:
    SpaceReservation() = default;  ///< of nothing yet
    explicit SpaceReservation(std::uint64_t bytes);
    ~SpaceReservation();
    SpaceReservation(const SpaceReservation&) = delete;
    SpaceReservation& operator=(const SpaceReservation&) = delete;

    /// Reserves so much in `folder`, or more. False, and nothing is reserved, when a setting limits the store
    /// and it may take only `left` bytes.
    bool Take(const KelString& folder, std::uint64_t bytes, std::uint64_t& left);

    /// The transfer has brought the file: it counts as held from now on.
    void Complete() { isComplete_ = true; }

  private:
    std::uint64_t bytes_ = 0;
    bool isComplete_ = false;
};

}  // namespace filestore
