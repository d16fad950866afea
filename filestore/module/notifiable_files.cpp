#include <algorithm>
#include <ctime>

#include "filestore/db/files_selection.h"
#include "filestore/db/targets_table.h"
#include "filestore/state/file_store.h"
#include "kel/container.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"

using namespace filestore;

namespace {

/// Files in one answer.
constexpr std::int64_t kMostFiles = 10'000;

KelContainer ValuesOf(const NotifiableFile& file) {
    KelContainer values;
    values.SetInt32("FileId", static_cast<std::int32_t>(file.fileId));
    file.key.Write(values);
    values.SetString("FileStatus", file.status);
    values.SetInt64(kValueFileSize, file.size);
    values.SetInt32(kValuePriority, file.priority);
    values.SetInt64("Waiting", file.waiting);
    values.SetInt64("Notified", file.notified);
    values.SetInt64("Failed", file.failed);
    values.SetInt64("OldestTime", file.oldest);
    return values;
}

}  // namespace

unsigned int FileStore::ActionHandler_FileStoreGetNotifiableFiles(KelContainer* arguments) {
    const std::int64_t offset = arguments->GetInt64("Offset", 0);
    const std::int64_t limit = arguments->GetInt64("Limit", kMostFiles);
    arguments->Clear();
    if (offset < 0 || limit < 0) {
        arguments->SetString("Message", "Offset and Limit must not be negative");
        return kKelErrorBadInput;
    }
    const ListRange range{static_cast<std::uint64_t>(offset),
                          static_cast<std::uint32_t>(std::min(limit, kMostFiles))};
    for (const NotifiableFile& file : SelectNotifiableFiles(std::time(nullptr), range))
        arguments->SetContainer("Values", ValuesOf(file), KelContainer::kAbsent);
    return kKelOk;
}
