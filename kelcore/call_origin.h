#pragma once

#include "kel/container.h"

/// True when an action call may be trusted like one of this device: it did not come over the network, or it
/// came from the agent's own address or the loopback address and was not passed on from the master. The HTTP
/// server sets the value that this is read from and replaces any that the caller sent. Any thread.
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

/// The address ("host:port") of the master whose operator makes a call that the parent has passed on; empty
/// for any other call.
KelString ActionRequestMaster(const KelContainer& arguments);

/// What a call carries that the device at `address` has passed on for an operator at the master.
void SetPassedOrigin(const KelString& operatorName, const KelString& address, const KelString& master,
                     KelContainer& arguments);
