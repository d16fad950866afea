#pragma once

#include "kel/container.h"
#include "kelcore/file_key.h"

/// Orders of the parent to publish a package that this device holds once more. The package is the one that
/// the order's `FileInfo` names (PackageName, PackageChecksum); its file has the name of the order. On any
/// thread, without locks; call local actions. Each returns kKelErrorBadInput, having changed nothing, when
/// the package is not held here or its name is unusable, else kKelOk, also when the store refused the offer
/// (logged).
namespace filestore {

/// Publishes the package to the devices below as a file of type SentPackage: `arguments`, those of the order,
/// become the offer.
unsigned int CopyPublishedPackage(KelContainer& arguments, const FileKey& order);

/// Offers the package upstream as a file of type PackagerZIPPackage; `arguments` stay as they are.
unsigned int PublishPackageToMaster(const KelContainer& arguments, const FileKey& order);

}  // namespace filestore
