#pragma once

#include "kel/types.h"
#include "modules/relay/relay_settings.h"

/// What a device that is the parent, or is to become it, says of itself.
struct ParentAnswer {
    KelString problem;           ///< why it cannot be used, or not now; empty when it can
    bool isLoop = false;         ///< it can never be the parent: it is this device, or lies below it
    KelString guid;              ///< empty when it did not answer
    KelString consoleId;         ///< of the console that its tree reports to; may be empty
    KelString ownAddress;        ///< the address that it has by its own account
    KelString version;           ///< of its program; empty when it does not say
    std::int64_t timeAhead = 0;  ///< seconds by which its clock is ahead of ours
    KelVector<KelString> above;  ///< GUIDs of the devices above it, the nearest first
};

/// Calls the device at `place`. With `mustBeSettled` it is of no use before it has found its own place in the
/// tree. Blocks on the network for up to half a minute: hold no lock.
ParentAnswer AskParent(const ParentPlace& place, bool mustBeSettled);
