#pragma once

#include <optional>

#include "filestore/db/file_key.h"
#include "kel/types.h"

/// The table DatabaseInformation of the two databases: named texts that outlive a restart.
namespace filestore {

inline constexpr const char* kTableDatabaseInformation = "DatabaseInformation";

/// Where the store lies: the field's value is the storage folder in use, ending with "/".
inline constexpr const char* kStorageLocationField = "FileStorageCurrentPath";
/// The HTTP port that this device had when it was activated last.
inline constexpr const char* kPortField = "HttpPort";
/// Present while stored device URLs still name an earlier port of this device.
inline constexpr const char* kPortUpdateField = "HttpPortUpdate";

/// In the upstream database: the parent to which files were sent last, and its upstream database.
inline constexpr const char* kParentStoreField = "ParentStore";
/// In the upstream database: since when (seconds since the epoch) it has waited for the files in the store
/// that it does not know, "0" when it knows them all.
inline constexpr const char* kUnknownFilesField = "UnknownFilesSince";

/// Nothing when there is no such field or the statement failed.
std::optional<KelString> ReadInformation(const KelString& field, Side side = Side::Downstream);
/// Adds or replaces the field; false when that failed.
bool WriteInformation(const KelString& field, const KelString& value, Side side = Side::Downstream);
bool DeleteInformation(const KelString& field);

/// The identifier of a database, made with it: one that was lost gets another. Empty when it cannot be read
/// or written.
KelString DatabaseId(Side side);

}  // namespace filestore
