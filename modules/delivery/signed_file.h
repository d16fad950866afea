#pragma once

#include "kel/container.h"
#include "kel/result.h"
#include "modules/delivery/orders.h"
#include "modules/delivery/received_file.h"

// In a tree with keys, only what the master has signed for this device is delivered. In a plain tree nothing
// is signed, and the functions below change nothing. Any thread.

/// True in a tree with keys.
bool AreFilesSigned();

/// Takes over what the master has signed of a file that has come, by its own FileInfo or an order that waits
/// for it. The error says, for the log and the master, why it is not to be delivered: now, or ever.
KelStatus Authenticate(ReceivedFile& file, const KelContainer& info, const KelVector<DeliveryOrder>& orders);

/// The same for an order, by its FileInfo.
KelStatus Authenticate(DeliveryOrder& order, const KelContainer& info);
