#pragma once

#include "kel/types.h"

// This device's own values, as its neighbouring modules know them. FileStore::GetOurDeviceGUID and the checks
// of GUIDs are declared in state/file_store.h.
namespace filestore {

/// This device's GUID, and its device URL "host:port/GUID"; empty while unknown. Call local actions.
KelString OurGuid();
KelString OurDeviceUrl();

/// Reads PreferIPAddresses from the identity module into FileStore::fPreferIPAddresses; unchanged when that
/// fails.
void RefreshAddressPreference();

/// The agent's HTTP port from the HTTP module, always asked anew; -1 when unknown.
std::int32_t AskHttpPort();

/// This device's IP address from the agent, asked anew; empty when that fails.
KelString AskIpAddress();

/// True when a GUID holds letters, digits and hyphens only and has a sensible length: it is then safe in
/// paths, statements and patterns.
bool IsUsableGuid(const KelString& guid);

/// Adopts a GUID that another module has reported. False when it is the known one. Takes mutexGUID.
bool AdoptGuid(const KelString& guid);

}  // namespace filestore
