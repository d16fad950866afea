#include "filestore/transfer/file_record.h"

#include "filestore/db/schema.h"
#include "filestore/module/file_store.h"

namespace filestore {

KelContainer FileInfoOf(const KelString& xml, const KelString& fileName) {
    KelContainer info;
    if (const KelStatus loaded = info.LoadFromXML(xml); !loaded)
        FileStore::debugFileStore.Warning("The information of file %S is damaged and left out: %S\n",
                                          fileName, loaded.Error().message);
    return info;
}

KelString ContentPath(const FileStoreEntry& entry, bool upstream) {
    return entry.ExternalFile ? entry.FilePath
                              : FileStore::StorePath(upstream, entry.FileType, entry.FileLabel,
                                                     entry.FileChecksum, entry.FileName);
}

KelContainer FileRecordOf(const FileStoreEntry& entry) {
    KelContainer record;
    record.SetString(kFileType, entry.FileType);
    record.SetString(kFileLabel, entry.FileLabel);
    record.SetString(kFileName, entry.FileName);
    record.SetString(kFileChecksum, entry.FileChecksum);
    record.SetString(kSourceDevice, entry.SourceDevice);
    record.SetString(kFirstRelay, entry.FirstRelay);
    record.SetBool(kUpstream, entry.Upstream);
    record.SetBool(kBypass, entry.Bypass);
    record.SetInt32(kKeepCopy, static_cast<std::int32_t>(entry.KeepCopy));
    record.SetInt64(kFileSize, entry.FileSize);
    record.SetInt32(kPriority, static_cast<std::int32_t>(entry.Priority));
    record.SetContainer(kFileInfo, FileInfoOf(entry.FileInfo, entry.FileName));
    return record;
}

}  // namespace filestore
