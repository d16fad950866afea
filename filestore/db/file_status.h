#pragma once

/// The statuses of a file (column FileStatus). Every worker thread selects the rows in the statuses that it
/// serves and moves them on; a status change also sets LastStatusChangeTime.
namespace filestore {

inline constexpr const char* kStatusMissing = "_AGTMOD_FILESTORESTATUS_MISSING_";  ///< known, but not here
inline constexpr const char* kStatusToBeRequested =
    "_AGTMOD_FILESTORESTATUS_TOBEREQUESTED_";  ///< to be asked for at the parent
inline constexpr const char* kStatusDownloading =
    "_AGTMOD_FILESTORESTATUS_DOWNLOADING_";  ///< announced, to be or being downloaded
inline constexpr const char* kStatusMulticastListening =
    "_AGTMOD_FILESTORESTATUS_MULTICASTLISTENING_";  ///< awaited by multicast
inline constexpr const char* kStatusReceiving =
    "_AGTMOD_FILESTORESTATUS_RECEIVING_";  ///< being received from a neighbour
inline constexpr const char* kStatusAvailable =
    "_AGTMOD_FILESTORESTATUS_AVAILABLE_";  ///< complete and verified
inline constexpr const char* kStatusUnicastAvailable =
    "_AGTMOD_FILESTORESTATUS_UNICAST_AVAILABLE_";  ///< available, for unicast only
inline constexpr const char* kStatusNotRelaysChild =
    "_AGTMOD_FILESTORESTATUS_NOTRELAYSCHILD_";  ///< available, targets are no children of ours
inline constexpr const char* kStatusToBeHandled =
    "_AGTMOD_FILESTORESTATUS_TOBEHANDLED_";  ///< to be handed to local modules
inline constexpr const char* kStatusToBeUploaded =
    "_AGTMOD_FILESTORESTATUS_TOBEUPLOADED_";  ///< to be sent to the parent
inline constexpr const char* kStatusToBePacked =
    "_AGTMOD_FILESTORESTATUS_TOBEPACKED_";  ///< to be put into an archive
inline constexpr const char* kStatusPackedFile =
    "_AGTMOD_FILESTORESTATUS_PACKEDFILE_";  ///< travelled in an archive
inline constexpr const char* kStatusUploading =
    "_AGTMOD_FILESTORESTATUS_UPLOADING_";  ///< accepted by the parent, being uploaded
inline constexpr const char* kStatusObsolete =
    "_AGTMOD_FILESTORESTATUS_OBSOLETE_";  ///< superseded, not served

/// The type of an archive of packed files.
inline constexpr const char* kPackedFilesType = "FileStorePackedFiles";

/// The type of the packages that operational rules install.
inline constexpr const char* kRulePackageType = "OperationalRulePackage";
/// The type of a small file that says of another one that this device is no child of its sender.
inline constexpr const char* kRuleFileType = "OperationalRuleAdministratedRelay";

// Transport modes (column TransportMode).
inline constexpr const char* kTransportLocal = "Local";
inline constexpr const char* kTransportUnicast = "Unicast";
inline constexpr const char* kTransportMulticast = "Multicast";
inline constexpr const char* kTransportUnicastRecovery = "UnicastRecovery";
inline constexpr const char* kTransportUnknown = "Unknown";

}  // namespace filestore
