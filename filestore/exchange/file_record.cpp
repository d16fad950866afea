#include "filestore/exchange/file_record.h"

#include "filestore/state/file_store.h"
#include "kelcore/file_values.h"

namespace filestore {

KelContainer FileInfoOf(const FileStoreEntry& entry) {
    KelContainer info;
    if (const KelStatus loaded = info.LoadFromXML(entry.FileInfo); !loaded)
        FileStore::debugFileStore.Warning("The information of file %S is damaged and left out: %S\n",
                                          entry.FileName, loaded.Error().message);
    return info;
}

bool IsSigned(const KelString& info) {
    if (info.find(kValueSigned) == KelString::npos) return false;  // most are not, and need not be parsed
    KelContainer values;
    return values.LoadFromXML(info) && values.Has(kValueSigned);
}

bool IsPublishedFor(const KelContainer& info, const KelString& guid) {
    const KelContainer publication = info.GetContainer(kValueSigned);
    const std::uint32_t devices = publication.Has("Device") ? publication.Count("Device") : 0;
    for (std::uint32_t i = 0; i < devices; ++i)
        if (publication.GetString("Device", {}, i) == guid) return true;
    return devices == 0;
}

const KelString& SignedOne(const KelString& own, const KelString& ofParent) {
    return IsSigned(ofParent) && !IsSigned(own) ? ofParent : own;
}

FileOffer FileDescriptionOf(const FileStoreEntry& entry) {
    FileOffer description;
    description.key = entry.Key();
    description.sourceDevice = entry.SourceDevice;
    description.firstRelay = entry.FirstRelay;
    description.upstream = entry.Upstream;
    description.priority = static_cast<std::int32_t>(entry.Priority);
    description.info = FileInfoOf(entry);
    return description;
}

FileOffer FileRecordOf(const FileStoreEntry& entry) {
    FileOffer record = FileDescriptionOf(entry);
    record.bypass = entry.Bypass;
    record.keepCopy = static_cast<std::int32_t>(entry.KeepCopy);
    record.size = entry.FileSize;
    if (entry.Repeated) record.repeated = true;
    return record;
}

}  // namespace filestore

bool FileStore::CheckHandlerResult(const KelContainer& results, unsigned int code) {
    for (std::size_t i = 0; i < results.GetNameCount(); ++i)
        if (static_cast<unsigned int>(results.GetInt32(results.GetName(i), -1)) == code) return true;
    return false;
}
