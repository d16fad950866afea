#include "filestore/threads/stored_file.h"

#include "filestore/db/schema.h"
#include "filestore/module/file_store.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kel/path.h"
#include "kel/text.h"

namespace filestore {

void DeleteFileAndFolder(const KelString& path) {
    FileDelete(path);
    KelString folder, name;
    SplitPath(path, folder, name);
    DirDelete(folder, false);
}

void DeleteUnregisteredFile(const KelString& url) {
    // "/FileStore/upstream/type/label/checksum/name"
    const KelVector<KelString> parts = SplitText(url, '/');
    bool isStored =
        parts.size() == 7 && parts[0].empty() && parts[1] == "FileStore" && parts[2] == "upstream";
    for (std::size_t i = 3; isStored && i < parts.size(); ++i)
        isStored = IsSafePathElement(parts[i]);
    if (!isStored) {
        FileStore::debugFileStore.Warning("CallbackThread: %S is not in the upstream store and stays\n", url);
        return;
    }
    DeleteFileAndFolder(FileStore::StorePath(true, parts[3], parts[4], parts[5], parts[6]));
}

}  // namespace filestore
