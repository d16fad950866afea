#pragma once

#include <optional>

#include "kel/types.h"

/// The table DatabaseInformation of the downstream database: named texts that outlive a restart.
namespace filestore {

inline constexpr const char* kTableDatabaseInformation = "DatabaseInformation";

/// Where the store lies: the field's value is the storage folder in use, ending with "/".
inline constexpr const char* kStorageLocationField = "FileStorageCurrentPath";
/// Present while stored device URLs still name an earlier port of this device.
inline constexpr const char* kPortUpdateField = "HttpPortUpdate";

/// Nothing when there is no such field or the statement failed.
std::optional<KelString> ReadInformation(const KelString& field);
/// Adds or replaces the field; false when that failed.
bool WriteInformation(const KelString& field, const KelString& value);
bool DeleteInformation(const KelString& field);

}  // namespace filestore
