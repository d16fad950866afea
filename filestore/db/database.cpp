#include "filestore/db/database.h"

namespace filestore {

bool Change(Side side, const KelString& statement) {
    const FileStoreDatabase database = FileStoreGetDatabase(side);
    const KelLock lock(database.mutex);
    return database.connection.Query(statement) != nullptr;
}

KelString QuotedList(const KelVector<KelString>& texts) {
    KelString list;
    for (const KelString& text : texts)
        list += KelFormat("%s'%Q'", list.empty() ? "" : ", ", text);
    return list;
}

}  // namespace filestore
