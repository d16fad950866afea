#pragma once

/// Names of the tables and columns of the module's databases, as the statements use them. The tables
/// themselves are made by the SQL sections of FileStore.ini.
namespace filestore {

inline constexpr const char* kTableFiles = "Files";
inline constexpr const char* kTableTargets = "Targets";
inline constexpr const char* kViewFiles = "FilesView";
inline constexpr const char* kTableDatabaseInformation = "DatabaseInformation";
inline constexpr const char* kTableMulticastListenAddress = "MulticastListenAddress";
inline constexpr const char* kTableCallbackThread = "CallbackThread";

// Files
inline constexpr const char* kFileId = "FileId";
inline constexpr const char* kFileType = "FileType";
inline constexpr const char* kFileLabel = "FileLabel";
inline constexpr const char* kFileName = "FileName";
inline constexpr const char* kFileChecksum = "FileChecksum";
inline constexpr const char* kFileSize = "FileSize";
inline constexpr const char* kFilePath = "FilePath";
inline constexpr const char* kFileUrl = "FileURL";
inline constexpr const char* kFileStatus = "FileStatus";
inline constexpr const char* kUpstream = "Upstream";
inline constexpr const char* kKeepCopy = "KeepCopy";
inline constexpr const char* kExternalFile = "ExternalFile";
inline constexpr const char* kBypass = "Bypass";
inline constexpr const char* kAcknowledged = "Acknowledged";
inline constexpr const char* kPriority = "Priority";
inline constexpr const char* kTransferredBytes = "TransferredBytes";
inline constexpr const char* kCreateTime = "CreateTime";
inline constexpr const char* kLastStatusChangeTime = "LastStatusChangeTime";
inline constexpr const char* kSourceDevice = "SourceDevice";
inline constexpr const char* kFirstRelay = "FirstRelay";
inline constexpr const char* kFileInfo = "FileInfo";
inline constexpr const char* kMulticastTransferToBeStarted = "MulticastTransferToBeStarted";
inline constexpr const char* kMulticastAddress = "MulticastAddress";
inline constexpr const char* kMulticastPort = "MulticastPort";
inline constexpr const char* kMulticastBlockSize = "MulticastBlockSize";
inline constexpr const char* kMulticastRetryNumber = "MulticastRetryNumber";
inline constexpr const char* kTransportMode = "TransportMode";
inline constexpr const char* kLastRequestTime = "LastRequestTime";

// Targets
inline constexpr const char* kTargetId = "TargetId";
inline constexpr const char* kDeviceGuid = "DeviceGUID";
inline constexpr const char* kDevicePath = "DevicePath";
inline constexpr const char* kTargetCreateTime = "TargetCreateTime";
inline constexpr const char* kLastNotifyTime = "LastNotifyTime";
inline constexpr const char* kWakeUpDevice = "WakeUpDevice";

}  // namespace filestore
