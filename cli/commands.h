#pragma once

#include "cli/options.h"
#include "kel/result.h"

// The commands of the command line, each in a file of its own. They print their results to stdout and what
// went wrong to stderr, and return an exit code of cli/options.h.

int RunInit(const CommonOptions& common, const InitOptions& options);
int RunStatus(const CommonOptions& common, const StatusOptions& options);
int RunDevices(const CommonOptions& common, const DevicesOptions& options);
int RunPublish(const CommonOptions& common, const PublishOptions& options);
int RunPublications(const CommonOptions& common, const PublicationsOptions& options);
int RunSend(const CommonOptions& common, const SendOptions& options);
int RunCollected(const CommonOptions& common, const CollectedOptions& options);
int RunRequest(const CommonOptions& common, const RequestOptions& options);
int RunUpload(const CommonOptions& common, const UploadOptions& options);
int RunFiles(const CommonOptions& common, const FilesOptions& options);
int RunFile(const CommonOptions& common, const FileOptions& options);
int RunSettings(const CommonOptions& common, const SettingsOptions& options);
int RunWindows(const CommonOptions& common, const WindowsOptions& options);
int RunInbox(const CommonOptions& common, const InboxOptions& options);
int RunCall(const CommonOptions& common, const CallOptions& options);

/// Prints the error's text; kExitFailed.
int Complain(const KelError& error);
