#pragma once

#include "kel/types.h"

namespace filestore {

/// Takes over a file that the HTTP module has received by multicast, verified and written to `localPath`.
/// `url` is its URL path, or the end of it. A file that a download waits for becomes available; one that is
/// just being received from a neighbour goes on its way, to the consumers or to the parent. A file that
/// belongs to no row is removed. On the thread of the HTTP module; takes mutexDownstream for the change.
void ReceiveMulticastFile(const KelString& url, const KelString& localPath);

}  // namespace filestore
