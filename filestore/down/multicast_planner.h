#pragma once

#include <chrono>
#include <cstdint>

#include "filestore/db/multicast_table.h"
#include "filestore/db/targets_table.h"
#include "filestore/state/waiting_reasons.h"
#include "kel/thread.h"
#include "kel/types.h"

namespace filestore {

/// Decides which files go out by multicast, while its window is open, and prepares their transfers: reserves
/// a group address, has all due targets of the file listen, and plans the file for the multicast thread. A
/// file that cannot be sent now is postponed by ten seconds with all its targets, which makes way for the
/// next one.
///
/// Used by the notify thread only.
class MulticastPlanner {
  public:
    /// `thread`: the notify thread, whose cancellation ends Prepare.
    explicit MulticastPlanner(const KelThread& thread) : thread_(thread) {}

    /// After which time a postponed file is looked at again.
    static constexpr std::chrono::seconds kPostponed{10};

    /// True when files may be sent to groups now.
    static bool IsWindowOpen();

    /// True for a file that is large enough to be sent to a group.
    static bool IsLarge(const FileStoreEntry& file);

    enum class Way : unsigned char {
        Unicast,    ///< its targets are announced one by one
        Postponed,  ///< it waits, and its targets are no longer due
        Multicast,  ///< Choose: Prepare is to be called; Prepare: it is planned
        Failed,     ///< nothing could be recorded, or the thread is being cancelled
    };

    /// Which way the file of a due target goes. Short: no call to another device.
    Way Choose(const FileTarget& candidate);

    /// Has the targets of the file listen that Choose gave Multicast for. Postponed when too few of them do.
    Way Prepare(const FileStoreEntry& file);

    /// How long the devices have to get ready before the multicast thread is woken; shorter in tests.
    inline static std::uint64_t waitMilliseconds = 3000;

  private:
    struct Invitation;

    static bool CheckMulticastPrerequisiteConditions(std::uint64_t fileId);
    static bool CheckMulticastStartingConditions(std::size_t reached);
    static bool CheckMulticastTransferDelay(std::uint64_t fileId);

    bool LacksTargets(const FileStoreEntry& file) const;
    Way GoByUnicast(const FileStoreEntry& file);
    Way Postpone(const FileStoreEntry& file, WaitingReason reason);
    bool Reserve(const FileStoreEntry& file);
    void Release();
    KelVector<Invitation> Invite(const FileStoreEntry& file, AnnouncementOutcome& outcome) const;
    void Call(Invitation& invitation) const;
    void Collect(const KelVector<Invitation>& invitations, MulticastPlan& plan) const;
    Way GiveUp(const FileStoreEntry& file, const MulticastPlan& plan);
    Way Record(const FileStoreEntry& file, const MulticastPlan& plan);

    const KelThread& thread_;
    KelString address_;  ///< reserved for the file that is being prepared
    /// How often in a row too few devices listened, by FileId: a file with too few targets must not wait for
    /// more of them without end.
    KelHash<std::uint64_t, std::uint32_t> fruitless_;
};

}  // namespace filestore
