#include "filestore/packages/package_orders.h"

#include <cstdlib>
#include <ctime>

#include "filestore/db/file_key.h"
#include "filestore/db/file_status.h"
#include "filestore/db/files_table.h"
#include "filestore/exchange/input_checks.h"
#include "filestore/state/file_store.h"
#include "filestore/state/removal.h"
#include "filestore/state/store_layout.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kelcore/action_db.h"
#include "kelcore/call_origin.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_offer.h"
#include "kelcore/file_values.h"

namespace filestore {

namespace {

/// The package that an order names in its `FileInfo`.
struct HeldPackage {
    KelString name;
    KelString path;  ///< of its content on this device; empty when it is not held
    KelFileLease inUse;
};

HeldPackage FindPackage(const KelContainer& arguments, const KelString& fileName) {
    const KelContainer& info = arguments.GetContainer(kValueFileInfo);
    HeldPackage package;
    package.name = info.GetString("PackageName");
    const KelString checksum = info.GetString("PackageChecksum");
    if (!CheckKeyPart("PackageName", package.name, false) || !CheckKeyPart("PackageChecksum", checksum, true))
        return package;
    FileStoreEntry row({kRulePackageType, package.name, fileName, checksum});
    const auto fileId = FindExactFile(Side::Downstream, row.Key());
    if (fileId && *fileId != 0) row.LoadFromDatabase(*fileId, Side::Downstream);
    const KelString path = ContentPath(row, Side::Downstream);
    package.inUse = KelFileLease(path);
    if (FileExists(path)) package.path = path;
    return package;
}

/// Offers the package as a module of this device does. The order's origin is removed: with it, the offer
/// would be refused, as no other device may name a path of this one.
PackageOrder OfferLocally(KelContainer& offer) {
    offer.Remove(kActionRequestInfo);
    const KelString path = offer.GetString(kValueCopyPath);
    const unsigned int error = CallLocal("FileStoreReceiveFile", offer);
    if (error == kKelOk) return PackageOrder::CarriedOut;
    FileStore::debugFileStore.Error("Cannot publish the package '%S' again, error %u\n", path, error);
    return PackageOrder::Failed;
}

}  // namespace

PackageOrder CopyPublishedPackage(KelContainer& arguments, const FileKey& order) {
    const HeldPackage package = FindPackage(arguments, order.name);
    if (package.path.empty()) return PackageOrder::NotHeld;
    arguments.SetString(kValueFileType, "SentPackage");
    arguments.SetString(kValueCopyPath, package.path);
    arguments.SetString(kValueFileChecksum, "");
    arguments.SetBool(kValueUpstream, false);
    // The same package may be published any number of times: each needs a name of its own.
    arguments.SetString(kValueFileName,
                        KelFormat("%S_%u_%u", package.name, static_cast<unsigned int>(std::rand()),
                                  static_cast<unsigned int>(std::time(nullptr))));
    return OfferLocally(arguments);
}

PackageOrder PublishPackageToMaster(const KelContainer& arguments, const FileKey& order) {
    const HeldPackage package = FindPackage(arguments, order.name);
    if (package.path.empty()) return PackageOrder::NotHeld;
    KelContainer info = arguments.GetContainer(kValueFileInfo);
    info.SetBool("WasAdministratedRelay", true);
    info.SetString("AdministratedRelayGUID", "");
    FileOffer offer;
    offer.key = {"PackagerZIPPackage", order.label, package.name, {}};
    offer.bypass = true;
    offer.upstream = true;
    offer.info = std::move(info);
    offer.copyPath = package.path;
    KelContainer call = offer.ToContainer();
    return OfferLocally(call);
}

}  // namespace filestore
