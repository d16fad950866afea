#pragma once

#include "kel/container.h"
#include "kel/ip_address.h"
#include "kelcore/action_description.h"

/// The value of an action's arguments that holds the origin of a call from outside. Only the server sets it.
inline constexpr const char* kActionRequestInfo = "HttpProtocolRequestInfo";

/// What a connection shows of its other end, which has valid credentials.
struct KelPeer {
    enum class Proof : unsigned char {
        Password,  ///< the tree's; only its address tells it from other members
        Key,       ///< a certificate of the tree, which names the device; its address proves nothing
        Socket,    ///< the agent's own socket: the agent's user or root
    };
    Proof proof = Proof::Password;
    IpAddress address = {};     ///< except with Socket
    KelString deviceGuid = {};  ///< with Key
};

/// Who calls an action. The default is this device itself.
struct KelCallOrigin {
    KelCallers callers = KelCallers::Local;  ///< all that the caller is
    KelString address = {};                  ///< dotted; empty: on this device
    KelString deviceGuid = {};               ///< where a key proves it
    KelString operatorName = {};             ///< what the caller says it is, for the audit; proves nothing
    KelString master = {};  ///< "host:port": the parent passes the call on for an operator there
};

/// Who a peer is to this device. The parent is, with a key, the device with the GUID of the parent in force,
/// otherwise what calls from its address or a trusted one. Asks the relay module, and the name server for
/// calls that only the parent may make (`wanted`): hold no lock. Any thread.
KelCallOrigin JudgePeer(const KelPeer& peer, KelCallers wanted);

/// Members of the tree that call from these addresses count as the parent, unless a key says who they are.
/// Any thread.
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
