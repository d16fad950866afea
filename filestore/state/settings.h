#pragma once

#include <cstdint>

#include "kel/types.h"

/// Reads the flag PerformVacuum alone: the databases are set up before the other settings are read.
void FileStoreReadVacuumSetting();

/// Reads the section UploadPolicy. Only a relay below the master packs files.
void FileStoreReadUploadPolicy();

/// Applies FrameSize, the bytes that a paced transfer moves at once, to the windows up and down.
void FileStoreApplyFrameSize();

/// Rows whose last try lies before this time are due when they wait `timeout` seconds between two tries. A
/// row with the time 0 always is.
std::int64_t FileStoreDueBefore(std::uint64_t timeout);

/// Reads from the ini file a number or a flag that is needed too rarely to be kept; see FileStoreIniSettings.
std::uint32_t FileStoreReadNumber(const KelString& section, const KelString& key);
bool FileStoreReadFlag(const KelString& section, const KelString& key);

/// Writes one value into the ini file, under mutexSettings; a failure is logged. False then.
bool FileStoreWriteSetting(const KelString& section, const KelString& key, const KelString& value);
