#pragma once

#include "kel/container.h"
#include "kel/ip_address.h"
#include "kelcore/action_description.h"
#include "kelcore/keys/certificate.h"

/// The value of an action's arguments that holds the origin of a call from outside. Only the server sets it.
inline constexpr const char* kActionRequestInfo = "HttpProtocolRequestInfo";

/// What a connection shows of its other end.
struct KelPeer {
    enum class Proof : unsigned char {
        None,         ///< nothing, in a tree with keys
        Password,     ///< that of a plain tree; only its address tells it from other members
        Certificate,  ///< of the tree, which names the device; its address proves nothing
        Socket,       ///< the agent's own socket: the agent's user or root
        MetricsPort,  ///< nothing but that it reaches this port
    };
    Proof proof = Proof::None;
    IpAddress address = {};  ///< except with Socket
    // With Certificate:
    KelString deviceGuid = {};
    KelDeviceRole deviceRole = KelDeviceRole::Client;
};

/// Who calls an action. The default is this device itself.
struct KelCallOrigin {
    KelCallers callers = KelCallers::Local;  ///< all that the caller is
    KelString address = {};                  ///< dotted; empty: on this device
    KelString deviceGuid = {};               ///< where a certificate proves it
    bool mayPassOn = true;                   ///< what other devices send: no certificate says it is a client
    KelString operatorName = {};             ///< what the caller says it is, for the audit; proves nothing
    KelString master = {};  ///< "host:port": the parent passes the call on for an operator there
};

/// Who a peer is to this device. In a tree with keys, the parent is the device with the GUID of the parent
/// that this device has found; in a plain tree, what calls from the address of the parent in force or from a
/// trusted one. For a plain tree, asks the relay module, and the name server for calls that only the parent
/// may make (`wanted`): hold no lock. Any thread.
KelCallOrigin JudgePeer(const KelPeer& peer, KelCallers wanted);

/// Members of a plain tree that call from these addresses count as the parent. Any thread.
void TrustAsParents(IpRange addresses);

/// The origin of a call, for its handler.
KelCallOrigin CallOriginOf(const KelContainer& arguments);
void SetCallOrigin(const KelCallOrigin& origin, KelContainer& arguments);

// What handlers ask most. A call without an origin is one of this device's modules.

/// True for a call from outside of this process: through the server.
bool ActionIsFromOutside(const KelContainer& arguments);

/// True for this device's modules and its operator, who may name its files.
bool ActionIsFromThisDevice(const KelContainer& arguments);

bool ActionIsFromParent(const KelContainer& arguments);

/// The address of the device that called, in dotted form; empty for a call of this device.
KelString ActionRequestAddress(const KelContainer& arguments);
