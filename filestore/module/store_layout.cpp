#include "filestore/module/file_store.h"
#include "kel/format.h"

namespace {

const char* SideFolder(bool upstream) {
    return upstream ? "upstream" : "downstream";
}

}  // namespace

KelString FileStore::StoreFolder(bool upstream, const KelString& type, const KelString& label,
                                 const KelString& checksum) {
    return KelFormat("%S%s/%S/%S/%S", strStorageLocationToUse, SideFolder(upstream), type, label, checksum);
}

KelString FileStore::StorePath(bool upstream, const KelString& type, const KelString& label,
                               const KelString& checksum, const KelString& name) {
    return KelFormat("%S%s/%S/%S/%S/%S", strStorageLocationToUse, SideFolder(upstream), type, label, checksum,
                     name);
}

KelString FileStore::StoreUrl(bool upstream, const KelString& type, const KelString& label,
                              const KelString& checksum, const KelString& name) {
    return KelFormat("/%s/%s/%S/%S/%S/%S", "FileStore", SideFolder(upstream), type, label, checksum, name);
}
