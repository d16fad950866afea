#pragma once

#include "kel/container.h"
#include "kel/types.h"

/// Which device has offered each file that is awaited by upload: only that device may send the content. Kept
/// in memory: after a restart of this device, the senders offer their files again. Any thread.
namespace filestore {

/// The caller with these arguments has offered the file whose content belongs at the URL path `url`.
void NoteUploadSender(const KelString& url, const KelContainer& arguments);

/// True when the caller with these arguments has, and for this device itself.
bool IsUploadSender(const KelString& url, const KelContainer& arguments);

}  // namespace filestore
