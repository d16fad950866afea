#pragma once

#include <optional>

#include "kel/types.h"

namespace filestore {

/// True when upstream files are gathered into archives: by the policy or for a manual upload.
bool IsPacking();

/// The condition " AND …" that the upload policy puts on a selection of upstream files: in the packed pass
/// archives only, in the normal pass all or, under the manual policy, the excluded types only. Nothing when
/// the policy lets no file pass. Logs what is being looked for; `lookingFor` completes "PushThread: Looking
/// for ".
std::optional<KelString> UploadPolicyFilter(bool packedPass, const char* lookingFor);

/// False, with the reason in the log, when the link allows no uploads now.
bool IsUploadAllowed();

/// The most rows that one pass takes.
unsigned int UploadBatchSize();

/// The type of an archive of packed files.
inline constexpr const char* kPackedFilesType = "FileStorePackedFiles";

/// The entry of an archive that says what it holds.
inline constexpr const char* kPackingIndexEntry = "Temp/PackedFilesInfo.xml";

}  // namespace filestore
