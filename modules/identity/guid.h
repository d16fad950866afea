#pragma once

#include "kel/debug.h"
#include "kel/result.h"
#include "kel/types.h"

// A device's GUID: "8-4-4-4-12" upper-case hexadecimal digits. Its first four digits are the scheme, common
// to all devices of a tree. All functions may be called from any thread.

/// `guid` with the scheme of `model`; both are GUIDs.
KelString WithSchemeOf(const KelString& guid, const KelString& model);

/// Writes a GUID to the file `path`, whose folder exists; it is on the disk when the call succeeds.
KelStatus KeepGuid(const KelString& path, const KelString& guid);

/// The GUID in the file `path`; without a file a new one is made and written. A file that holds something
/// else is renamed to "<path>.damaged" with an error in the log, and a new GUID is made. A file that cannot
/// be read or written is an error: otherwise the device would get another identity at every start.
KelResult<KelString> LoadOrMakeGuid(const KelString& path, const KelDebug& log);
