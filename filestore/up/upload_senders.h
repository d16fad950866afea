#pragma once

#include <optional>

#include "kel/container.h"
#include "kel/types.h"

/// Which device has offered each file that is awaited by upload: only that device may send the content. Kept
/// in memory, since this device was started, until the content is here. Any thread.
namespace filestore {

/// The caller with these arguments has offered the file whose content belongs at the URL path `url`.
void NoteUploadSender(const KelString& url, const KelContainer& arguments);

/// The content of the file at `url` is here.
void ForgetUploadSender(const KelString& url);

/// Whether the caller with these arguments has; true for this device itself. Nothing when it is not known
/// which device has.
std::optional<bool> IsUploadSender(const KelString& url, const KelContainer& arguments);

}  // namespace filestore
