#pragma once

#include <chrono>

#include "kel/types.h"

/// Signs of life of the devices that this one works with. What waits for a device is due at once when it is
/// heard from again; the retry intervals hold for devices that stay silent. Any thread, but no lock may be
/// held: rows are changed and actions are called.
namespace filestore {

/// A call of the parent ended with `error` (kelcore/error_codes.h). When that means that the parent could not
/// be reached, the relay module looks for it at once and then often; its event RelayCallbackParentInSync
/// makes due what waits for the parent.
void ReportParentError(unsigned int error);

/// The same for the result of a transfer from or to the parent (kelcore/http/client.h).
void ReportTransferResult(unsigned int result);

/// A call of the device with this device URL ("host:port/GUID") has arrived: its targets whose announcement
/// failed are due.
void NoteSignOfLife(const KelString& deviceUrl);

/// The device with this device URL or path name has another parent: what waits for it here ends, because it
/// comes from there.
void EndTargetsOf(const KelString& device);

/// True when the waiting for a device, named by its path name or device URL, was ended after `time`: that a
/// call which began before has failed says nothing any more.
bool HasEndedWaitingSince(const KelString& deviceName, std::chrono::steady_clock::time_point time);

}  // namespace filestore
