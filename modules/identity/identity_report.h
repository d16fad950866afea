#pragma once

#include <cstdint>

#include "kel/container.h"
#include "kel/debug.h"
#include "kel/types.h"
#include "modules/identity/device_values.h"

/// Hands this device's identity file to the file store, which sends it up the tree to the master: once after
/// the start, whenever a value in it has changed, and daily, so that the master knows that the device is
/// alive.
///
/// The file is a container: GUID, HostName, Role, IPAddress, MACAddress, NetworkMask, ParentGuid, DeviceUrl
/// (host:port/GUID), PathName (host:port/GUID/MAC/IP/mask), ConsoleId,
/// StoreId (of the downstream database) (strings), Port (int32),
/// PreferIPAddresses (bool), Time (int64, when it was made, seconds since the epoch). Nothing is sent while
/// the parent is out of sync or our GUID does not have its scheme yet, because the GUID will change then; a
/// master sends at once.
///
/// One thread at a time.
class IdentityReport {
  public:
    /// Waiting: another module is not ready; to be tried again soon. Failed: logged; to be tried again later.
    enum class Outcome : unsigned char { UpToDate, Waiting, Failed };

    explicit IdentityReport(const KelDebug& log) : log_(log) {}

    /// The folder for files that are not handed over yet. What an earlier run left there is removed.
    void SetFolder(const KelString& folder);

    /// Sends the identity file if one is due at the time `now` (seconds since the epoch). Calls local
    /// actions: no lock may be held.
    Outcome SendWhenDue(const KelString& guid, const DeviceValues& values, const KelString& consoleId,
                        std::int64_t now);

  private:
    Outcome Send(KelContainer identity, std::int64_t now);
    Outcome Fail(const KelString& problem);

    const KelDebug& log_;
    KelString folder_;
    KelContainer sent_;          ///< what was sent last, without the time
    std::int64_t sentTime_ = 0;  ///< seconds since the epoch
    KelString problem_;          ///< last one logged
};
