#pragma once

#include "filestore/exchange/offer.h"
#include "kel/container.h"

/// Receivers of offers that travel upstream. On the caller's thread, concurrently; each takes mutexUpstream
/// and reads or copies content without it. The offer has passed CheckOffer.
///
/// A file is known by its key and the device it comes from: identical files of two devices have a row each.
///
/// Results: kKelOk; kKelErrorBadInput when the offer cannot be stored, with the reason in the log. Of a
/// remote offer: kKelErrorBadInput without a size, kKelErrorNotAvailable when database or disk do not take it
/// now, kKelErrorGuidScheme when its source device belongs to another tree.
namespace filestore {

/// An offer of this device: brings the content into the upstream store (an external file stays where it is),
/// records it to be handed to the consumers, and wakes the handler thread. A file that is known already keeps
/// its row, and one that has been delivered is handed over again. Fills in an empty checksum; clears
/// `arguments`.
unsigned int ReceiveUpstreamLocal(KelContainer& arguments, Offer& offer);

/// An offer of a child: records the file as expected by PUT, anew when it was received before and has gone
/// on. On success `arguments` holds only FileURL, the URL path to which the child puts the content.
unsigned int ReceiveUpstreamRemote(KelContainer& arguments, Offer& offer);

/// Reads the row that an offer of a child makes, as expected by PUT; a result as of ReceiveUpstreamRemote
/// when that is refused.
unsigned int ReadUpstreamRemote(const KelContainer& arguments, const Offer& offer, FileStoreEntry& entry);

}  // namespace filestore
