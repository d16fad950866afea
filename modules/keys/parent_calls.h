#pragma once

#include <cstdint>

#include "kel/container.h"
#include "kelcore/keys/key_ring.h"
#include "kelcore/security.h"

/// Where the parent is, as the relay module has it.
struct ParentPlaces {
    KelString name;
    std::uint16_t port = 0;  ///< 0: there is no parent
    KelVector<KelString>
        written;  ///< "host:port" by name and by address, in lower case; as KelParentPin has it
};

ParentPlaces FindParent();

/// Who is asked, and what came of it.
struct ParentCall {
    AgentSecurityKeys keys;
    KelString authority;   ///< not empty: whoever presents the authority with this fingerprint is the parent
    KelTlsPeer peer = {};  ///< who answered
    KelString problem = {};  ///< why nothing came, for a person
};

/// Calls an action of the parent; results as ActionDbInvokeContainer. Blocks on the network for up to half a
/// minute.
unsigned int CallParent(const ParentPlaces& parent, const KelString& action, KelContainer& container,
                        ParentCall& call);
