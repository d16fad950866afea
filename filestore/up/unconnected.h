#pragma once

#include "filestore/exchange/offer.h"
#include "kel/container.h"

// Files of a device without a connection to its tree. A local offer with the value Unconnected is kept in the
// module's folder "unconnected"; the relay module replays it with FileStoreReceiveUnconnectedFile once the
// parent answers, and then removes it.
namespace filestore {

/// Keeps the offer as a request file: "unconnected/identity/NAME" for the type IdentityIdentity,
/// "unconnected/inventory/NAME" for others. The content is stored beside it as "NAME.xml" when the offer
/// names it by FilePath, otherwise (MovePath, CopyPath) in the request's FileInfo. Adopts the GUID that the
/// offer brings. `arguments` then holds the request; an empty checksum is filled in. kKelOk, or
/// kKelErrorBadInput with the reason in the log. On the caller's thread; takes mutexGUID.
unsigned int KeepUnconnected(KelContainer& arguments, Offer& offer);

/// Serves FileStoreReceiveUnconnectedFile: brings the content of a kept request into the upstream store and
/// records it as received, to be handed over on the master and sent to the parent elsewhere. Results as of
/// ReceiveUpstreamRemote, or kKelErrorMissingContent when the request holds neither FileInfo nor FilePath.
unsigned int ReceiveUnconnected(KelContainer& arguments);

}  // namespace filestore
