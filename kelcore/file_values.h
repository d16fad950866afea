#pragma once

/// Names of the values with which files are offered, announced, handed over, requested and acknowledged:
/// between devices and between the modules of one device. A value is always read and written under the name
/// that stands here; docs/protocol.md describes them.

// The file key: see FileKey.
inline constexpr const char* kValueFileType = "FileType";
inline constexpr const char* kValueFileLabel = "FileLabel";
inline constexpr const char* kValueFileName = "FileName";
inline constexpr const char* kValueFileChecksum = "FileChecksum";

// What a file is and how it travels: see FileOffer.
inline constexpr const char* kValueFileSize = "FileSize";    // int64, bytes
inline constexpr const char* kValueFileInfo = "FileInfo";    // container
inline constexpr const char* kValueFileUrl = "FileURL";      // where the file is fetched or put, a URL path
inline constexpr const char* kValueUpstream = "Upstream";    // bool
inline constexpr const char* kValuePriority = "Priority";    // int32
inline constexpr const char* kValueBypass = "Bypass";        // bool: moves through closed windows
inline constexpr const char* kValueWakeOnLan = "WakeOnLan";  // bool: targets may be woken
inline constexpr const char* kValueKeepCopy = "KeepCopy";    // int32, bits: 1 master, 2 relay, 4 client
inline constexpr const char* kValueSourceDevice = "SourceDevice";  // device URL
inline constexpr const char* kValueFirstRelay = "FirstRelay";      // device URL
inline constexpr const char* kValueDevicePath = "DevicePath";      // container: the tree of targets
inline constexpr const char* kValueTransportMode = "TransportMode";
inline constexpr const char* kValueDeviceGuid = "DeviceGUID";  // device URL of who asks or acknowledges
inline constexpr const char* kValueParentGuid = "ParentGuid";  // of its present parent, to another device
inline constexpr const char* kValueRepeated = "Repeated";      // bool: may be known, and then stays as it is
inline constexpr const char* kValueContentHeld = "ContentHeld";  // bool: the content is here already
inline constexpr const char* kValueTakesContents =
    "TakesContents";  // bool: the called device has the action FileStoreReceiveContents
inline constexpr const char* kValueContentDamaged =
    "ContentDamaged";  // bool: what the called device serves is of no use
inline constexpr const char* kValueSyncFollows =
    "SyncFollows";  // bool, to consumers: it suffices to have it on the disk with the next event that says so
inline constexpr const char* kValueUnconnected =
    "Unconnected";  // bool: to be kept until there is a connection

// Several files in one call: each a container with the values of one offer, or its answer.
inline constexpr const char* kValueFiles = "Files";      // containers
inline constexpr const char* kValueContent = "Content";  // string: the bytes of the file
inline constexpr const char* kValueResult = "Result";    // int32, of a single offer

// What a publication adds to the FileInfo of its file, or of its order.
inline constexpr const char* kValuePublicationId = "PublicationId";      // string
inline constexpr const char* kValuePublicationTime = "PublicationTime";  // int64, seconds since the epoch
inline constexpr const char* kValueSigned = "Signed";  // container: see kelcore/keys/publication_signature.h

// Types of files that more than one module knows.
inline constexpr const char* kIdentityFileType = "IdentityIdentity";  // a device's report about itself
inline constexpr const char* kReceiptFileType = "DeliveryReceipt";    // what has become of a received file
inline constexpr const char* kOrderFileType = "DeliveryOrder";        // a file is to be delivered again

// Content on this device: one of them at most.
inline constexpr const char* kValueMovePath = "MovePath";  // the content is taken over, the file goes
inline constexpr const char* kValueCopyPath = "CopyPath";  // the content is copied
inline constexpr const char* kValueFilePath = "FilePath";  // the file stays where it is
