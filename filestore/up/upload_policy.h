#pragma once

#include <optional>

#include "filestore/db/files_selection.h"

/// What may be sent to the parent now, by the settings of the section UploadPolicy, a manual upload and the
/// transfer window. From any thread.
namespace filestore {

/// True when upstream files are gathered into archives: by the policy or for a manual upload.
bool IsPacking();

/// The selection that one pass makes of the upstream files: in the packed pass archives only, in the normal
/// pass all or, under the manual policy, the excluded types only. Nothing, with the reason in the log, when
/// the policy or the link lets no file pass. `lookingFor` completes the log line "PushThread: Looking for ".
std::optional<UploadFilter> UploadFilterNow(bool packedPass, const char* lookingFor);

/// Has the push thread send a file of this type, which is now to be uploaded. Where files are gathered into
/// archives, its own interval decides when, but for what somebody waits for: archives themselves, reports of
/// devices and receipts.
void WakeToSend(const KelString& type);

/// False, with the reason in the log, when the link allows no uploads now.
bool IsUploadAllowed();

}  // namespace filestore
