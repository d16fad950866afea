#pragma once

#include "kel/types.h"

/// Reads the flag PerformVacuum, which the database setup needs before all other settings are read.
void FileStoreReadVacuumSetting();

/// Reads the section UploadPolicy. Only a relay below the master packs files.
void FileStoreReadUploadPolicy();

/// Has transfers under a window move as many bytes at once as the settings say.
void FileStoreApplyFrameSize();

/// Reads an integer or a flag that is needed only now and then from the ini file.
int FileStoreReadInteger(const KelString& section, const KelString& key, int fallback);
bool FileStoreReadFlag(const KelString& section, const KelString& key, bool fallback);

/// Writes one value into the ini file, under mutexSettings; a failure is logged. False then.
bool FileStoreWriteSetting(const KelString& section, const KelString& key, const KelString& value);
