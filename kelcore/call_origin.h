#pragma once

#include "kel/container.h"

/// True when an action call may be trusted like one of this device: it did not come over the network, or it
/// came from the agent's own address or the loopback address. The HTTP server sets the value that this is
/// read from and replaces any that the caller sent. Any thread.
bool ActionIsFromThisDevice(const KelContainer& arguments);

/// The value of an action's arguments that the HTTP server sets.
inline constexpr const char* kActionRequestInfo = "HttpProtocolRequestInfo";

/// True for a call over the network.
bool ActionIsFromNetwork(const KelContainer& arguments);

/// What the caller over the network says it is, as the name of an operator; empty when it says nothing. It
/// proves nothing.
KelString ActionRequestCaller(const KelContainer& arguments);

/// The address of the device that called over the network in dotted form; empty for a local call.
KelString ActionRequestAddress(const KelContainer& arguments);
