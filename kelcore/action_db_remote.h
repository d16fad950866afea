#pragma once

#include "kel/container.h"
#include "kel/ip_address.h"
#include "kel/types.h"

/// The part of ActionDbInvokeContainer that calls another device; parameters and results as there. `source`
/// goes along in the header Kel-Caller. The container changes only when the action ran.
unsigned int ActionDbInvokeRemote(const KelString& source, const KelString& deviceUrl,
                                  const KelString& actionName, KelContainer& container, int connectTimeout,
                                  int callTimeout, IpAddress* localAddress);

/// The same for the agent whose own socket is in the folder `socketFolder` of this device, without
/// credentials.
unsigned int ActionDbInvokeOnSocket(const KelString& source, const KelString& socketFolder,
                                    const KelString& actionName, KelContainer& container, int callTimeout);

class HttpClient;

/// The same through a client that is set up for the device. `callee`: action and device, for the log.
unsigned int ActionDbCallThrough(HttpClient& client, const KelString& source, const KelString& actionName,
                                 const KelString& callee, KelContainer& container);
