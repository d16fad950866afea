#include "filestore/db/database.h"

#include "filestore/module/file_store.h"

FileStoreDatabase FileStoreGetDatabase(bool upstream) {
    if (upstream)
        return {*FileStore::pDbConnectionUpstream, FileStore::mutexUpstream,
                FileStore::dbSequenceManagerUpstream, "upstream"};
    return {*FileStore::pDbConnectionDownstream, FileStore::mutexDownstream,
            FileStore::dbSequenceManagerDownstream, "downstream"};
}
