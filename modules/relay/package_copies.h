#pragma once

#include "kel/container.h"
#include "kel/result.h"
#include "kel/types.h"

/// The copies of published packages that a relay keeps for its own network, apart from the file store:
/// "<root>/<label>/<name>". A package of the same label and name replaces the one before. Set up once; then
/// from any thread.
class PackageCopies {
  public:
    /// Copies are made in `workFolder`, which is on the same file system; what a killed process left there is
    /// removed. Before the other calls.
    void SetFolders(const KelString& root, const KelString& workFolder);

    /// Copies the file at the absolute path `FilePath` of the arguments of RelayReceiveFile under `FileLabel`
    /// and `FileName`; on the disk when the call succeeds. Returns the copy's path. Error codes: 1 unusable
    /// input, 13 no such file, 18 not written.
    KelResult<KelString> Keep(const KelContainer& arguments) const;

    /// Removes the copy `FileName` under `FileLabel` of the arguments of RelayClearPackage, or without a name
    /// all copies under the label; when there are none, nothing is done. Error codes: 1 unusable input, 18
    /// not removed.
    KelStatus Clear(const KelContainer& arguments) const;

  private:
    KelString root_;
    KelString workFolder_;
};
