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

KelContainer FileDescriptionOf(const FileStoreEntry& entry) {
    KelContainer description;
    description.SetString(kFileType, entry.FileType);
    description.SetString(kFileLabel, entry.FileLabel);
    description.SetString(kFileName, entry.FileName);
    description.SetString(kFileChecksum, entry.FileChecksum);
    description.SetString(kSourceDevice, entry.SourceDevice);
    description.SetString(kFirstRelay, entry.FirstRelay);
    description.SetBool(kUpstream, entry.Upstream);
    description.SetInt32(kPriority, static_cast<std::int32_t>(entry.Priority));
    description.SetContainer(kFileInfo, FileInfoOf(entry.FileInfo, entry.FileName));
    return description;
}

KelContainer FileRecordOf(const FileStoreEntry& entry) {
    KelContainer record = FileDescriptionOf(entry);
    record.SetBool(kBypass, entry.Bypass);
    record.SetInt32(kKeepCopy, static_cast<std::int32_t>(entry.KeepCopy));
    record.SetInt64(kFileSize, entry.FileSize);
    return record;
}

}  // namespace filestore
