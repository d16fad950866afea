#include "filestore/db/file_status.h"
#include "filestore/db/schema.h"
#include "filestore/module/file_store.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/action_db.h"

using namespace filestore;

namespace {

/// `deviceUrl` ("host:port/…") with its port replaced; unchanged when it has no such form.
KelString WithPort(const KelString& deviceUrl, const KelString& port) {
    const std::size_t colon = deviceUrl.find(':');
    const std::size_t slash = deviceUrl.find('/');
    if (colon == KelString::npos || slash == KelString::npos || slash < colon) return deviceUrl;
    return deviceUrl.substr(0, colon + 1) + port + deviceUrl.substr(slash);
}

/// The same in a stored target tree: its names are path names of devices, on every level.
KelContainer WithPort(const KelContainer& tree, const KelString& port) {
    KelContainer result;
    for (std::size_t i = 0; i < tree.GetNameCount(); ++i) {
        const KelString& name = tree.GetName(i);
        for (std::uint32_t index = 0; index < tree.Count(name); ++index)
            if (tree.IsContainer(name, index))
                result.SetContainer(WithPort(name, port), WithPort(tree.GetContainer(name, index), port),
                                    index);
    }
    return result;
}

/// A stored device path: the XML of a target tree, or a plain path whose elements may be device URLs.
KelString DevicePathWithPort(const KelString& devicePath, const KelString& port) {
    KelContainer tree;
    if (devicePath.empty()) return devicePath;
    if (devicePath.starts_with('<'))
        return tree.LoadFromXML(devicePath) ? WithPort(tree, port).SaveToXML() : devicePath;
    KelString result;
    for (const KelString& element : SplitText(devicePath, '/')) {
        const std::size_t colon = element.find(':');
        result += "/" + (colon == KelString::npos ? element : element.substr(0, colon + 1) + port);
    }
    return result.substr(1);
}

KelString CurrentPort() {
    KelContainer container;
    ActionDbInvokeContainer(nullptr, "", "HttpProtocolGetParams", container, 0, -1, -1, nullptr);
    return KelFormat("%u", static_cast<std::uint32_t>(container.GetContainer("Values").GetInt32("Port", -1)));
}

void UpdateSourceDevices(DBConnection& connection, const KelString& port) {
    const auto files = connection.Query(KelFormat("SELECT FileID, SourceDevice FROM %s ", kTableFiles));
    for (std::size_t row = 0; files && row < files->GetRowCount(); ++row) {
        const KelString& device = files->GetString(row, kSourceDevice);
        const KelString changed = WithPort(device, port);
        if (changed != device)
            connection.Query(KelFormat("UPDATE %s SET SourceDevice='%Q' WHERE FileID=%ld", kTableFiles,
                                       changed, files->GetInt64(row, kFileId)));
    }
}

void UpdateTargets(DBConnection& connection, const KelString& port) {
    const auto targets =
        connection.Query(KelFormat("SELECT TargetID, DeviceGUID, DevicePath FROM %s ", kTableTargets));
    for (std::size_t row = 0; targets && row < targets->GetRowCount(); ++row) {
        const KelString device = WithPort(targets->GetString(row, kDeviceGuid), port);
        const KelString path = DevicePathWithPort(targets->GetString(row, kDevicePath), port);
        if (device != targets->GetString(row, kDeviceGuid) || path != targets->GetString(row, kDevicePath))
            connection.Query(KelFormat("UPDATE %s SET DeviceGUID='%Q', DevicePath='%Q' WHERE TargetID=%ld",
                                       kTableTargets, device, path, targets->GetInt64(row, kTargetId)));
    }
}

/// Puts the row of a package or script whose file is not what it should be back to missing.
void DropCorruptedFile(DBConnection& connection, const DBResult& files, std::size_t row) {
    const KelString& path = files.GetString(row, kFilePath);
    if (FileExists(path)) {
        if (files.GetInt64(row, kExternalFile) == 1) {
            FileStore::debugFileStore.Warning("File '%S' is held by the Master and is corrupted.\n", path);
        } else if (CompletePath(path).starts_with(FileStore::strStorageLocationToUse)) {
            FileStore::debugFileStore.Warning("File '%S' is corrupted and will be removed.\n", path);
            FileDelete(path);
        } else {
            FileStore::debugFileStore.Warning(
                "File '%S' is corrupted and lies outside the store; it is left\n", path);
        }
    }
    connection.Query(KelFormat("UPDATE %s SET %s='%s' WHERE FileID=%ld", kTableFiles, kFileStatus,
                               kStatusMissing, files.GetInt64(row, kFileId)));
}

}  // namespace

void FileStore::UpdateHttpPort() {
    KelLock lock(mutexDownstream);
    DBConnection& connection = *pDbConnectionDownstream;
    const auto marker = connection.Query(
        KelFormat("SELECT FieldValue FROM %s WHERE FieldName='HttpPortUpdate'", kTableDatabaseInformation));
    if (!marker || marker->GetRowCount() == 0) return;

    const KelString port = CurrentPort();
    DBTransaction transaction(connection);
    UpdateSourceDevices(connection, port);
    UpdateTargets(connection, port);
    connection.Query(KelFormat("DELETE FROM %s WHERE FieldName='HttpPortUpdate'", kTableDatabaseInformation));
    transaction.Commit();
}

void FileStore::UpdateScriptAndPackageStatus(unsigned long fileId) {
    KelString statement = KelFormat(
        "SELECT %s, %s, %s, %s FROM %s WHERE (%s = '%s' OR %s = '%s') AND (%s = '%s' OR %s = '%s')", kFileId,
        kFilePath, kFileSize, kExternalFile, kTableFiles, kFileType, "OperationalRulePackage", kFileType,
        "OperationalRuleScript", kFileStatus, kStatusAvailable, kFileStatus, kStatusNotRelaysChild);
    if (fileId != 0) statement += KelFormat(" AND %s = %lu", kFileId, fileId);

    KelLock lock(mutexDownstream);
    const auto files = pDbConnectionDownstream->Query(statement);
    for (std::size_t row = 0; files && row < files->GetRowCount(); ++row)
        if (FileGetSize64(files->GetString(row, kFilePath)) != files->GetInt64(row, kFileSize))
            DropCorruptedFile(*pDbConnectionDownstream, *files, row);
}
