#pragma once

#include "filestore/exchange/offer.h"
#include "kel/container.h"

/// Receivers of offers that go down. Each reads from `arguments` what its kind of offer holds besides
/// `offer`, and clears them. The offer has passed CheckOffer. Result 0, or kKelErrorBadInput when the file is
/// not recorded, which the log explains. On any thread, without locks: both take mutexDownstream and call
/// local actions.
namespace filestore {

/// An announcement of the parent (receive_announcement.cpp): the file is recorded with its targets and
/// downloaded by the pull thread. A known file that is not here is downloaded from the new URL; one that is
/// here stays as it is.
unsigned int ReceiveDownstreamRemote(KelContainer& arguments, Offer& offer);

/// A file that lies on this device (receive_local.cpp): its content is brought into the store or referred to
/// where it is, and the file is announced to its targets by the notify thread. An empty checksum in `offer`
/// receives the one of the content. Copies and hashes the content, which may take minutes. A repeated offer
/// of an available file changes nothing and is answered with ContentHeld: its targets are to request the
/// file.
unsigned int ReceiveDownstreamLocal(KelContainer& arguments, Offer& offer);

/// Puts back the rows of failed local offers that the database refused to change when they failed. On the
/// pull thread, at every step.
void UndoFailedOffers();

}  // namespace filestore
