#pragma once

#include "kel/container.h"
#include "kelcore/file_key.h"

/// Orders of the parent to publish a package that this device holds once more. The package is the one that
/// the order's `FileInfo` names (PackageName, PackageChecksum); its file has the name of the order. On any
/// thread, without locks; call local actions.
namespace filestore {

enum class PackageOrder : unsigned char {
    NotHeld,  ///< the package is not here or its name is unusable; nothing was changed
    Failed,   ///< the store refused the offer, which the log explains: the parent repeats the order
    CarriedOut,
};

/// Publishes the package to the devices below as a file of type SentPackage: `arguments`, those of the order,
/// become the offer.
PackageOrder CopyPublishedPackage(KelContainer& arguments, const FileKey& order);

/// Offers the package upstream as a file of type PackagerZIPPackage; `arguments` stay as they are.
PackageOrder PublishPackageToMaster(const KelContainer& arguments, const FileKey& order);

}  // namespace filestore
