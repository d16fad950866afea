#pragma once

#include <cstdint>
#include <optional>

#include "filestore/db/files_table.h"
#include "filestore/db/targets_table.h"
#include "kel/types.h"

/// Multicast transfers in the downstream database: the columns of their file (table Files), and the table
/// MulticastListenAddress with the devices that listen, by group address, and the state that each has
/// reached. A group has one transfer at a time. Locks and failures as in files_table.h.
namespace filestore {

/// How far the transfer of a file is (column MulticastTransferToBeStarted). The planner goes from None to
/// Planned; the multicast thread goes on to Sending and back to None.
enum class MulticastState : std::uint32_t {
    None = 0,
    Planned = 1,  ///< the devices listen
    Sending = 2,
};

// The states of a listening device (column Status). Between two passes it is "Retry" with the number of the
// next one.
inline constexpr const char* kListenerWaiting = "MulticastWaiting";
inline constexpr const char* kListenerInProgress = "MulticastInProgress";
inline constexpr const char* kListenerSucceeded = "MulticastSucceeded";
inline constexpr const char* kListenerFailed = "MulticastFailed";
inline constexpr const char* kListenerRetry = "Retry";

struct MulticastListener {
    KelString localAddress;  ///< of this device's end of the connection to it
    KelString deviceUrl;     ///< call URL, with credentials
    std::uint64_t targetId = 0;
};

// ---- selections

struct MulticastGroupCount {
    KelString address;
    KelString status;
    std::int32_t devices = 0;  ///< in this status
};
/// One row a group and status, ordered by group.
KelVector<MulticastGroupCount> CountMulticastDevices();

struct MulticastDevice {
    KelString address;    ///< group
    KelString deviceUrl;  ///< call URL, with credentials
    KelString status;
};
/// All devices, ordered by group and status.
KelVector<MulticastDevice> SelectMulticastDevices();

/// The devices of a group that have not succeeded. Nothing when the statement failed.
std::optional<KelVector<MulticastListener>> SelectListeners(const KelString& address);

/// The file of a planned transfer, at most one.
FileRows SelectPlannedMulticast();

/// True when a transfer is planned or in progress, or the statement failed.
bool IsMulticastInUse();

// ---- changes; each false when it was not made

/// Sets where a file is about to be sent.
bool SetMulticastRoute(std::uint64_t fileId, const KelString& address, std::uint32_t port,
                       std::uint32_t blockSize);

/// A transfer for which devices listen.
struct MulticastPlan {
    std::uint64_t fileId = 0;
    KelString address;
    KelVector<MulticastListener> listeners;
    AnnouncementOutcome outcome;  ///< of telling all targets of the file
};
/// Records it in one transaction. A listener that is known in the group is not added once more.
bool RecordMulticastPlan(const MulticastPlan& plan, const AnnouncementTimes& times);

/// The transfer of a file goes on to Sending, and its devices to kListenerInProgress; `url` becomes its URL.
bool BeginMulticast(std::uint64_t fileId, const KelString& address, const KelString& url);

/// Counts one more pass; the number of passes so far. Nothing when that failed.
std::optional<std::uint32_t> CountMulticastPass(std::uint64_t fileId);

bool SetListenerStatus(const KelString& address, std::uint64_t targetId, const KelString& status);

/// The transfer is over: its devices are forgotten, and the file can be planned again.
bool EndMulticast(std::uint64_t fileId, const KelString& address);

/// No device listens any longer.
bool ForgetAllListeners();

/// After a restart of the agent: no transfer is in progress, and the devices that listened are due to be told
/// again.
bool ResetAllMulticast();

}  // namespace filestore
