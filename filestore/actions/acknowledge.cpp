#include "filestore/db/schema.h"
#include "filestore/module/file_store.h"
#include "filestore/transfer/offer.h"
#include "kel/format.h"
#include "kel/text.h"

unsigned int FileStore::ActionHandler_FileStoreAcknowledgeFile(KelContainer* arguments) {
    const KelString type = arguments->GetString("FileType");
    const KelString label = arguments->GetString("FileLabel");
    const KelString name = arguments->GetString("FileName");
    const KelString checksum = arguments->GetString("FileChecksum");
    const KelString device = arguments->GetString("DeviceGUID");
    arguments->Clear();
    const KelString guid = StringTokeniser(device, '/').GetToken(1);
    // It becomes part of a pattern: anything else could remove the targets of other devices.
    if (!filestore::IsPlainGuid(guid)) {
        debugFileStore.Warning("Refusing an acknowledgement from '%S': it has no usable GUID\n", device);
        return 1;
    }
    if (!filestore::CheckKeyPart("FileType", type, true) ||
        !filestore::CheckKeyPart("FileLabel", label, false) ||
        !filestore::CheckKeyPart("FileName", name, false) ||
        !filestore::CheckKeyPart("FileChecksum", checksum, true))
        return 1;
    debugFileStore.Print("Received acknowledge from %S for %S/%S/%S\n", device, type, label, name);

    const KelLock lock(mutexDownstream);
    const unsigned long fileId = FindFileInDatabase(*pDbConnectionDownstream, type, label, name, checksum);
    if (fileId != 0)
        pDbConnectionDownstream->Query(KelFormat("DELETE FROM %s WHERE %s = %lu AND %s LIKE '%/%S%'",
                                                 filestore::kTableTargets, filestore::kFileId, fileId,
                                                 filestore::kDeviceGuid, guid));
    return 0;
}
