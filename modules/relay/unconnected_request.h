#pragma once

#include "kel/container.h"
#include "kel/result.h"
#include "kel/types.h"

/// A request that the file store kept while the device was not connected: the file "<folder>/<name>", a
/// container with FileType, FileLabel, FileName, FileChecksum, FileSize, SourceDevice and the content itself,
/// FileInfo, or FilePath, the name of a file beside it, "<folder>/<name>.xml". The file store writes the
/// content first.
struct UnconnectedRequest {
    KelString path;         ///< of the request
    KelString contentPath;  ///< empty when the content is in the request
    KelContainer values;    ///< as read
};

/// Reads and checks a request; what is wrong with an unusable one is an error.
KelResult<UnconnectedRequest> ReadUnconnectedRequest(const KelString& path);

/// The arguments of FileStoreReceiveUnconnectedFile. A SourceDevice that is no device URL (host:port/GUID) is
/// replaced by `ownDeviceUrl`.
KelContainer ReplayArguments(const UnconnectedRequest& request, const KelString& ownDeviceUrl);
