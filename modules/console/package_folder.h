#pragma once

#include <cstdint>
#include <optional>

#include "kel/result.h"
#include "kel/types.h"
#include "kelcore/file_key.h"

/// A file that was copied for publication.
struct PackageFile {
    KelString checksum;     ///< MD5, lower-case hexadecimal
    KelString sha256;       ///< likewise; only in a tree with keys, where publications are signed
    KelString path;         ///< of the copy
    KelString url;          ///< resource path under which devices fetch it
    std::int64_t size = 0;  ///< bytes
};

/// Published files are kept as "<root>/Packages/<label>/<checksum>/<name>" and served under the alias
/// "QuarnelDatabase". `label` and `name` are safe path elements.
///
/// Copies `source` there. When the call succeeds, the copy is on the disk and has the returned checksum, even
/// if the source changes meanwhile; copying the same content again changes nothing. Any thread, concurrently.
KelResult<PackageFile> CopyToPackages(const KelString& root, const KelString& source, const KelString& label,
                                      const KelString& name);

/// Where such a copy lies; `size` and `sha256` are left open.
PackageFile PlaceInPackages(const KelString& root, const KelString& label, const KelString& checksum,
                            const KelString& name);

/// The SHA-256 digest of a copy that was made before publications were signed. An error when it is not what
/// was published.
KelResult<KelString> Sha256OfPackage(const PackageFile& file);

/// The folder beneath `root` of the copies, and whose copy lies at a path in it: label, checksum and name.
KelString PackagesFolder(const KelString& root);
std::optional<FileKey> PackageAt(const KelString& root, const KelString& path);

/// The folder beneath `root` for files in the making.
KelString IncomingFolder(const KelString& root);

/// Removes the unfinished copies that a killed process left beneath `root`. Only while nothing is copied.
void RemoveUnfinishedCopies(const KelString& root);

inline constexpr char kPackageAlias[] = "QuarnelDatabase";
