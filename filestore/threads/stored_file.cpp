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
    // No row may have this URL although the file is known: a row that waits to be packed has none, and one
    // that goes up has its parent's. The mutex keeps an offer from coming between the look and the deletion.
    const KelLock lock(FileStore::mutexUpstream);
    if (FileStore::FindFileInDatabase(*FileStore::pDbConnectionUpstream, parts[3], parts[4], parts[6],
                                      parts[5]) != 0) {
        FileStore::debugFileStore.Warning("CallbackThread: File %S came again and stays: it is on its way\n",
                                          url);
        return;
    }
    FileStore::debugFileStore.Warning("CallbackThread: Received unregistered file, deleting %S\n", url);
    DeleteFileAndFolder(FileStore::StorePath(true, parts[3], parts[4], parts[5], parts[6]));
}

}  // namespace filestore
