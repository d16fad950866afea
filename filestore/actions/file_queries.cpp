#include <algorithm>
#include <array>

#include "filestore/db/database.h"
#include "filestore/db/file_status.h"
#include "filestore/db/schema.h"
#include "filestore/module/file_store.h"
#include "kel/format.h"
#include "kel/text.h"
#include "kelcore/error_codes.h"

using namespace filestore;

namespace {

constexpr std::array kSortColumns = {kFileId,
                                     kFileType,
                                     kFileLabel,
                                     kFileName,
                                     kFileChecksum,
                                     kFileSize,
                                     kFilePath,
                                     kFileUrl,
                                     kFileStatus,
                                     kUpstream,
                                     kKeepCopy,
                                     kExternalFile,
                                     kBypass,
                                     kAcknowledged,
                                     kPriority,
                                     kTransferredBytes,
                                     kCreateTime,
                                     kLastStatusChangeTime,
                                     kSourceDevice,
                                     kFirstRelay,
                                     kFileInfo,
                                     kMulticastTransferToBeStarted,
                                     kMulticastAddress,
                                     kMulticastPort,
                                     kMulticastBlockSize,
                                     kMulticastRetryNumber,
                                     kTransportMode,
                                     kLastRequestTime};

bool IsSortColumn(const KelString& name) {
    return std::any_of(kSortColumns.begin(), kSortColumns.end(),
                       [&](const char* column) { return IsEqualTo(name, column, false); });
}

/// Sets the order clause for what the caller asked for. Attribute and order become part of the statement:
/// false, with a warning, unless they are names that belong there.
bool MakeOrderClause(const KelContainer& arguments, KelString& clause) {
    const KelString attribute = arguments.GetString("SortAttr");
    const KelString order = arguments.GetString("SortOrder", "ASC");
    if (!IsEqualTo(order, "ASC", false) && !IsEqualTo(order, "DESC", false)) {
        FileStore::debugFileStore.Warning("Files cannot be sorted in the order '%S'; use ASC or DESC\n",
                                          order);
        return false;
    }
    // The progress text is made after the query.
    if (attribute.empty() || attribute == "TransferredData") {
        clause = KelFormat("ORDER BY %s, %s, %s", kFileType, kFileLabel, kFileName);
        return true;
    }
    if (!IsSortColumn(attribute)) {
        FileStore::debugFileStore.Warning("Files cannot be sorted by '%S'; use a column of Files\n",
                                          attribute);
        return false;
    }
    clause = KelFormat("ORDER BY %S  %S", attribute, order);
    return true;
}

DBConnection& ChosenConnection(const KelContainer& arguments) {
    return FileStoreGetDatabase(arguments.GetBool("ListUpstream", false)).connection;
}

void CopyText(const DBResult& result, std::size_t row, KelContainer& file,
              std::initializer_list<const char*> columns) {
    for (const char* column : columns)
        file.SetString(column, result.GetString(row, column));
}

void CopyInt32(const DBResult& result, std::size_t row, KelContainer& file,
               std::initializer_list<const char*> columns) {
    for (const char* column : columns)
        file.SetInt32(column, static_cast<std::int32_t>(result.GetInt64(row, column)));
}

void CopyFlag(const DBResult& result, std::size_t row, KelContainer& file,
              std::initializer_list<const char*> columns) {
    for (const char* column : columns)
        file.SetBool(column, result.GetBool(row, column));
}

void SetProgress(const DBResult& result, std::size_t row, KelContainer& file) {
    file.SetString("TransferredData", FileStore::getFileTransferPercent(result.GetString(row, kFileStatus),
                                                                        result.GetString(row, kFilePath),
                                                                        result.GetInt64(row, kFileSize)));
}

}  // namespace

unsigned int FileStore::ActionHandler_FileStoreListFiles(KelContainer* arguments) {
    KelString order;
    if (!MakeOrderClause(*arguments, order)) return kKelErrorBadInput;
    const auto result =
        ChosenConnection(*arguments)
            .Query(KelFormat("SELECT %s, %s, %s, %s, %s, %s, %s, %s FROM %s WHERE %s!='%s' %S", kFileId,
                             kFileType, kFileLabel, kFileName, kFileChecksum, kFileStatus, kFileSize,
                             kFilePath, kTableFiles, kFileStatus, kStatusObsolete, order));
    arguments->Remove("Values");
    for (std::size_t row = 0; result && row < result->GetRowCount(); ++row) {
        KelContainer file;
        CopyInt32(*result, row, file, {kFileId});
        CopyText(*result, row, file, {kFileType, kFileLabel, kFileName, kFileChecksum, kFileStatus});
        SetProgress(*result, row, file);
        arguments->SetContainer("Values", std::move(file), static_cast<std::uint32_t>(row));
    }
    return kKelOk;
}

unsigned int FileStore::ActionHandler_FileStoreGetFileInfo(KelContainer* arguments) {
    const auto fileId = static_cast<std::uint32_t>(arguments->GetInt32("FileId", -1));
    const auto result = ChosenConnection(*arguments)
                            .Query(KelFormat("SELECT * FROM %s WHERE %s = %u", kTableFiles, kFileId, fileId));
    arguments->Remove("Values");
    if (!result || result->GetRowCount() == 0) return kKelOk;
    KelContainer file;
    CopyInt32(*result, 0, file, {kFileId});
    CopyText(*result, 0, file, {kFileType, kFileLabel, kFileName, kFileChecksum});
    file.SetInt64(kFileSize, result->GetInt64(0, kFileSize));
    CopyText(*result, 0, file, {kFileStatus});
    CopyFlag(*result, 0, file, {kUpstream});
    CopyInt32(*result, 0, file, {kKeepCopy});
    CopyFlag(*result, 0, file, {kBypass, kAcknowledged});
    CopyInt32(*result, 0, file, {kPriority, kCreateTime});
    CopyText(*result, 0, file, {kSourceDevice, kFirstRelay});
    CopyInt32(*result, 0, file, {kTransferredBytes});
    SetProgress(*result, 0, file);
    arguments->SetContainer("Values", std::move(file));
    return kKelOk;
}

unsigned int FileStore::ActionHandler_FileStoreGetDeviceUrl(KelContainer* arguments) {
    KelString deviceUrl;
    GetOurDeviceGUID(deviceUrl, true);
    arguments->SetString("DeviceUrl", deviceUrl);
    return kKelOk;
}

unsigned int FileStore::ActionHandler_FileStoreGetFileInformation(KelContainer* arguments) {
    const auto result = pDbConnectionDownstream->Query(
        KelFormat("SELECT FileType, FileInfo FROM %s WHERE FileLabel = '%Q' AND FileChecksum = '%Q'",
                  kTableFiles, arguments->GetString("FileLabel"), arguments->GetString("FileChecksum")));
    if (!result || result->GetRowCount() == 0) return kKelOk;
    KelContainer info;
    if (const KelStatus status = info.LoadFromXML(result->GetString(0, kFileInfo)); !status)
        debugFileStore.Warning("The stored information of file %S is unusable: %S\n",
                               arguments->GetString("FileLabel"), status.Error().message);
    arguments->SetString("FileType", result->GetString(0, kFileType));
    arguments->SetContainer("FileInfo", std::move(info));
    return kKelOk;
}
