#pragma once

#include "kel/container.h"
#include "kel/debug.h"
#include "modules/http_protocol/multicast_receiver.h"

// The actions for the reception of files by multicast; HttpProtocol registers them. They take the arguments
// from the container and leave their results in it; a refusal comes with the string Message. Any thread.

namespace kelhttp {

/// From this device: waits for a file. From the parent: starts a reception again whose content was wrong.
unsigned int StartMulticastListening(MulticastReceiver& receiver, const KelDebug& log,
                                     KelContainer& container);

unsigned int StopMulticastListening(MulticastReceiver& receiver, const KelDebug& log,
                                    KelContainer& container);

/// See MulticastReceiver::Report.
unsigned int ReportMulticast(MulticastReceiver& receiver, const KelDebug& log, KelContainer& container);

}  // namespace kelhttp
