#include "filestore/db/file_status.h"
#include "filestore/db/file_store_entry.h"
#include "filestore/module/file_store.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/agent.h"
#include "kelcore/error_codes.h"
#include "kelcore/http/url.h"

using namespace filestore;

namespace {

/// The size of an available file of the own store; false when there is none.
bool FindOwnFileSize(const KelString& type, const KelString& label, const KelString& name,
                     const KelString& checksum, long long& size) {
    FileStoreEntry entry;
    {
        KelLock lock(FileStore::mutexDownstream);
        const unsigned long fileId =
            FileStore::FindFileInDatabase(*FileStore::pDbConnectionDownstream, type, label, name, checksum);
        if (fileId == 0 || !entry.LoadFromDatabase(fileId, false)) return false;
    }
    if (entry.FileStatus != kStatusAvailable && entry.FileStatus != kStatusUnicastAvailable) return false;
    const std::int64_t onDisk = FileGetSize64(entry.FilePath);
    if (onDisk < 0) return false;
    size = onDisk;
    return true;
}

}  // namespace

void FileStore::GetRelayUrl(KelString& url, KelString& parentGuid) {
    url.clear();
    KelContainer container;
    if (ActionDbInvokeContainer(nullptr, "", "RelayGetValues", container, 0, -1, -1, nullptr) != kKelOk) {
        debugFileStore.Error("Could not read relay info\n");
        return;
    }
    const KelContainer& values = container.GetContainer("Values");
    const KelString name = values.GetString("ParentName");
    const KelString address = values.GetString("ParentIPAddress", name);
    parentGuid = values.GetString("ParentGuid");
    if (!values.GetBool("ParentSync") || (name.empty() && address.empty())) {
        debugFileStore.Warning("Current parent is undefined or out of sync\n");
        return;
    }
    const auto port = static_cast<std::uint32_t>(values.GetInt32("ParentPort", -1));
    url = UrlForAgent(KelAgentGetName(), KelAgentGetHttpPassword(),
                      KelFormat("%S:%u", name.empty() ? address : name, port));
}

void FileStore::GetDeviceUrl(const KelString& deviceUrl, KelString& url, KelString& guid) {
    const StringTokeniser pieces(deviceUrl, '/');
    guid = pieces.GetToken(1);
    url = UrlForAgent(KelAgentGetName(), KelAgentGetHttpPassword(), pieces.GetToken(0));
}

unsigned int FileStore::RequestFileSize(const KelString& fileType, const KelString& fileLabel,
                                        const KelString& fileName, const KelString& checksum,
                                        long long& size) {
    size = 0;
    if (FindOwnFileSize(fileType, fileLabel, fileName, checksum, size)) return kKelOk;

    KelContainer container;
    container.SetString("FileType", fileType);
    container.SetString("FileLabel", fileLabel);
    container.SetString("FileName", fileName);
    container.SetString("FileChecksum", checksum);
    KelString parent;
    KelString parentGuid;
    GetRelayUrl(parent, parentGuid);
    // Without a parent the call would come back to this device and ask again.
    const unsigned int error = parent.empty()
                                   ? kKelErrorUnreachable
                                   : ActionDbInvokeContainer(nullptr, parent, "FileStoreRequestFileSize",
                                                             container, 0, -1, -1, nullptr);
    if (error != kKelOk) {
        debugFileStore.Error(
            "unable to retrieve file size for type '%S', label '%S', name '%S', checksum '%S'\n", fileType,
            fileLabel, fileName, checksum);
        return error;
    }
    size = container.GetInt64("FileSize");
    return kKelOk;
}
