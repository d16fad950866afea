#pragma once

#include "kel/container.h"
#include "kel/debug.h"
#include "modules/http_protocol/multicast_receiver.h"

// The actions for the reception of files by multicast. They take the arguments from the container and leave
// their results in it. Results: 0; kKelErrorBadInput for values that cannot be used and for callers that may
// not call; kKelErrorNotAvailable with the string Message. Any thread.

namespace kelhttp {

/// HttpProtocolMulticastStartListen (string MulticastAddress, int32 MulticastPort, int32 MulticastBlockSize,
/// int64 FileSize) from the parent: starts a reception again whose content was wrong. From this device, with
/// string FileURL, LocalPath and FileChecksum (MD5): waits for that file.
unsigned int StartMulticastListening(MulticastReceiver& receiver, const KelDebug& log,
                                     KelContainer& container);

/// HttpProtocolMulticastStopListen (string MulticastAddress), from this device or the parent.
unsigned int StopMulticastListening(MulticastReceiver& receiver, const KelDebug& log,
                                    KelContainer& container);

/// HttpProtocolMulticastIsCompleted (string MulticastAddress, int32 MulticastPort, bool
/// MulticastDifferencialRetry) -> IsCompleted, RestartNeeded, CommunicationFailed (bool), and the missing
/// blocks as MulticastReceiver::Report describes. CommunicationFailed: nothing is expected from that group,
/// the reception has failed, or not one datagram of the transfer has arrived.
unsigned int ReportMulticast(MulticastReceiver& receiver, KelContainer& container);

}  // namespace kelhttp
