#pragma once

#include "cli/options.h"
#include "kel/result.h"
#include "kel/types.h"

class KelKeyFolder;

// A plain tree gets keys, device by device.

/// True when the root folder (absolute) is that of a device without keys.
bool IsPlainRoot(const KelString& root);

/// Gives the device of a plain tree keys, which it has in use from its next start on; members without keys
/// stay accepted. The master makes the authority, others keep their invitation. What an interrupted call has
/// left is completed by another one.
KelStatus GiveKeys(const KelString& root, const KelString& token);

/// Has members without keys refused; an exit code.
int EndPassword(const CommonOptions& common, bool force);

/// Makes the authority of a tree in the master's folder of keys, or completes one, and has it give the master
/// its certificate.
KelStatus MakeAuthority(const KelKeyFolder& keys);
