#include "filestore/db/handed_over_table.h"
#include "filestore/exchange/file_record.h"
#include "filestore/state/file_store.h"
#include "filestore/state/store_layout.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"

using namespace filestore;

namespace {

unsigned int Forget(const KelContainer& arguments) {
    const FileStoreDatabase database = FileStoreGetDatabase(Side::Downstream);
    const KelLock lock(database.mutex);
    DBTransaction transaction(database.connection);
    if (!transaction.IsOpen()) return kKelErrorInternal;
    for (std::uint32_t i = 0; i < arguments.Count("Taken"); ++i)
        if (!ForgetHandedOver(FileKey::Read(arguments.GetContainer("Taken", i)))) return kKelErrorInternal;
    return transaction.Commit() ? kKelOk : kKelErrorInternal;
}

}  // namespace

unsigned int FileStore::ActionHandler_FileStoreGetUntakenFiles(KelContainer* arguments) {
    if (arguments->Has("Taken")) return Forget(*arguments);
    arguments->Remove("Values");
    std::uint32_t index = 0;
    for (const FileStoreEntry& file : SelectHandedOver()) {
        KelContainer values;
        file.Key().Write(values);
        values.SetString(kValueFilePath, ContentPath(file, Side::Downstream));
        values.SetContainer(kValueFileInfo, FileInfoOf(file));
        arguments->SetContainer("Values", std::move(values), index++);
    }
    return kKelOk;
}
