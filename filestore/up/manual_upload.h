#pragma once

/// An upload that the administrator demands with FileStorePerformManualUpload: while it runs, everything that
/// waits is packed and sent, whatever the upload policy says.
///
/// The action sets FileStore::fManualUploadRequested; the push thread, on which these functions run, keeps
/// the rest: fProcessManualUpload while the upload runs, uLimit with the number of files that waited when it
/// began, uCurrent with the number of those packed since. Both numbers are 0 at other times.
namespace filestore {

/// Begins the upload if one was requested; one that runs starts counting anew. False when the database cannot
/// count the files: there is no point in looking for them now.
bool StartRequestedManualUpload();

/// Logs how far a running upload has come.
void LogManualUpload();

/// Counts files that have been packed.
void CountManualUpload(unsigned int files);

/// Ends a running upload that has packed what it can.
void FinishManualUpload();

}  // namespace filestore
