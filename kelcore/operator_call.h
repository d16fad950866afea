#pragma once

#include <cstdint>

#include "kel/container.h"
#include "kel/result.h"
#include "kel/types.h"

/// A call that the operator of the tree makes at the master, on its way down to the device that runs it. Each
/// device passes it to the next one as a call of kActionCallDevice.
struct OperatorCall {
    /// Bounds of `seconds`, which every device on the way needs some of.
    static constexpr std::int32_t kMostSeconds = 600;
    static constexpr std::int32_t kDefaultSeconds = 60;

    struct Stop {
        KelString pathName;  ///< host:port/GUID/MAC/IP/mask
        KelString name;      ///< for messages
    };

    KelVector<Stop> way;  ///< still to go: the next device first; the last one runs the action
    KelString action;
    KelContainer arguments;
    KelString operatorName;                  ///< what the command line says, which proves nothing
    KelString master;                        ///< where the master is, "host:port"
    std::int32_t seconds = kDefaultSeconds;  ///< within which the answer is wanted

    /// From the arguments of kActionCallDevice; an error that names what is missing or unusable.
    static KelResult<OperatorCall> Read(const KelContainer& arguments);
    KelContainer ToContainer() const;
};

/// The action of the relay module that takes an OperatorCall; the first device of its way is the one that is
/// called. It gives Result (int64) and Answer (container), those of the operator's action.
inline constexpr const char* kActionCallDevice = "RelayCallDevice";

/// Passes the call to the first device of its way and gives what that answers. An error says which device
/// does not answer or refuses, for a person. Only a few calls are passed on at once; more are refused, so
/// that workers of the server are left. Blocks on the network for up to `call.seconds`: hold no lock. Any
/// thread.
KelResult<KelContainer> PassOn(const OperatorCall& call);

/// Runs the action of a call that has reached its last device: only one that the tree's operator may call.
/// `address`: that of the device that has passed it on. Gives Result and Answer; an answer of more than 16
/// MiB is refused. Any thread.
KelContainer RunOperatorCall(const OperatorCall& call, const KelString& address);
