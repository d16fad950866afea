#pragma once

#include <cstdint>

#include "kel/result.h"
#include "kelcore/keys/authority.h"
#include "kelcore/keys/invitation.h"

/// The invitations of a tree, on its master: in a folder, one file for each, a container with SecretHash,
/// Created, Expires (seconds since the epoch), Uses, UsesLeft and Role. Of the secret only the hash is kept,
/// with which proofs are checked. One thread at a time.
class KelInvitations {
  public:
    static constexpr int kMaxUses = 100'000;

    /// `authority` is open, and outlives this.
    KelInvitations(const KelAuthority& authority, KelString folder)
        : authority_(authority), folder_(std::move(folder)) {}

    /// What an invitation is good for.
    struct Offer {
        int uses = 1;
        std::int64_t expires = 0;
        KelDeviceRole role = KelDeviceRole::Client;  ///< Relay: for clients too
    };

    /// A new invitation to a tree whose GUIDs have the scheme of `guid`.
    KelResult<KelInvitation> Make(const KelString& guid, const Offer& offer, std::int64_t now) const;

    /// Enrols the device of a request: counts a use on the disk, then issues the certificate. A device that
    /// asks again with the same key, because the answer was lost, costs no other use. The error says to the
    /// device why it is refused.
    KelResult<KelCertificate> Enrol(const KelEnrolRequest& request, std::int64_t now) const;

    /// Removes what has ended.
    void DropEnded(std::int64_t now) const;

  private:
    KelString PathOf(const KelString& id) const { return folder_ + "/" + id + ".xml"; }

    const KelAuthority& authority_;
    KelString folder_;
};
