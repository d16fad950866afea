#pragma once

#include "kel/container.h"
#include "kel/types.h"

// Which device a call comes from, where the class of the caller does not decide. A device acts for itself and
// for the devices below it. May ask the name server: hold no lock. Any thread.
namespace filestore {

/// True when a call with these arguments can come from the device with this device URL or path name; without
/// a name, it is this device itself. A call of this device speaks for any, and one of the operator of the
/// tree for this device only. Otherwise a certificate proves the GUID, and in a plain tree the call has to
/// come from the device's address.
bool IsCallOf(const KelContainer& arguments, const KelString& device);

/// The same with the refusal of the call, which is logged.
bool CheckIsCallOf(const KelContainer& arguments, const KelString& device);

/// The same for a device that is known here by `names`, device URLs or path names with one GUID: it may have
/// had several addresses. True without any, as there is nothing of it then that the call could change.
bool IsCallOfOne(const KelContainer& arguments, const KelVector<KelString>& names);

}  // namespace filestore
