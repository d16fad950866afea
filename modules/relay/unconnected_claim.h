#pragma once

#include <utility>

#include "kel/result.h"
#include "kel/types.h"
#include "modules/relay/unconnected_request.h"

/// Moves kept requests with their content out of the folder `kept`, in which the file store may at any moment
/// rename a newer content and then its request into the same names, into the folder `claimed` of this module,
/// where they are handed over and removed undisturbed. Names stay the same. Whatever a stop leaves in
/// `claimed`, giving it back makes it again what the file store kept, unless a newer file has the name. One
/// thread at a time.
class UnconnectedClaim {
  public:
    UnconnectedClaim(KelString kept, KelString claimed)
        : kept_(std::move(kept)), claimed_(std::move(claimed)) {}

    /// Moves a request that was read in `kept` and reads it again in `claimed`. An error when it cannot be
    /// moved, or when a newer request came in between; then all is to be given back.
    KelResult<UnconnectedRequest> Take(const UnconnectedRequest& request) const;

    /// Moves everything in `claimed` back; what a newer file has replaced is removed.
    void GiveBack() const;

  private:
    KelString kept_;
    KelString claimed_;
};
