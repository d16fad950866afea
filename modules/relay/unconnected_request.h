#pragma once

#include <utility>

#include "kel/container.h"
#include "kel/result.h"
#include "kel/types.h"

/// A request that the file store kept while the device was disconnected: the file "<folder>/<name>", a
/// container with FileType, FileLabel, FileName, FileChecksum, FileSize, SourceDevice and the content itself,
/// FileInfo, or FilePath, the name of a file next to it, "<folder>/<name>.xml". The file store writes the
/// content first.
struct UnconnectedRequest {
    KelString path;         ///< of the request
    KelString contentPath;  ///< empty when the content is in the request
    KelContainer values;    ///< as read
};

/// Reads and checks a request; the error for an unusable one says what is wrong.
KelResult<UnconnectedRequest> ReadUnconnectedRequest(const KelString& path);

/// The arguments of FileStoreReceiveUnconnectedFile. A SourceDevice that is not a device URL (host:port/GUID)
/// is replaced by `ownDeviceUrl`.
KelContainer ReplayArguments(const UnconnectedRequest& request, const KelString& ownDeviceUrl);

/// Moves kept requests with their content from the folder `kept` to the folder `claimed`. In `kept`, the file
/// store may replace a content and then its request by newer ones under the same names at any moment; in
/// `claimed`, a request can be handed over and removed undisturbed. Names stay the same. What an interrupted
/// run leaves in `claimed` is moved back by GiveBack. One thread at a time.
class UnconnectedClaim {
  public:
    UnconnectedClaim(KelString kept, KelString claimed)
        : kept_(std::move(kept)), claimed_(std::move(claimed)) {}

    /// Moves a request that was read in `kept` and reads it again in `claimed`. An error when it cannot be
    /// moved, or when a newer request replaced part of it meanwhile; the caller then calls GiveBack.
    KelResult<UnconnectedRequest> Take(const UnconnectedRequest& request) const;

    /// Moves everything in `claimed` back; a file whose name is in use by a newer one is removed.
    void GiveBack() const;

  private:
    KelString kept_;
    KelString claimed_;
};
