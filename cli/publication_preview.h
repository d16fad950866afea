#pragma once

#include "cli/file_selection.h"
#include "cli/options.h"
#include "cli/remote.h"

/// Prints what publishing these files would do: the targets with the relays on their way, and the links with
/// the bytes on them. An exit code.
int PrintPreview(const Remote& remote, const PublishOptions& options, const KelVector<SourceFile>& files,
                 bool json);
