#include "filestore/packages/package_orders.h"

#include <cstdlib>
#include <ctime>

#include "filestore/db/file_key.h"
#include "filestore/db/file_status.h"
#include "filestore/exchange/input_checks.h"
#include "filestore/state/file_store.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_offer.h"
#include "kelcore/file_values.h"

namespace filestore {

namespace {

/// The package that an order names in its `FileInfo`.
struct HeldPackage {
    KelString name;
    KelString path;  ///< of its file in this device's store; empty when it is not held
};

HeldPackage FindPackage(const KelContainer& arguments, const KelString& fileName) {
    const KelContainer& info = arguments.GetContainer(kValueFileInfo);
    HeldPackage package;
    package.name = info.GetString("PackageName");
    const KelString checksum = info.GetString("PackageChecksum");
    if (!CheckKeyPart("PackageName", package.name, false) || !CheckKeyPart("PackageChecksum", checksum, true))
        return package;
    const KelString path =
        FileStore::StorePath(Side::Downstream, {kRulePackageType, package.name, fileName, checksum});
    if (FileExists(path)) package.path = path;
    return package;
}

/// Offers the package as a module of this device does. The order's origin is removed: with it, the offer
/// would be refused, as no other device may name a path of this one.
void OfferLocally(KelContainer& offer) {
    offer.Remove("HttpProtocolRequestInfo");
    const unsigned int error = CallLocal("FileStoreReceiveFile", offer);
    if (error != kKelOk)
        FileStore::debugFileStore.Error("Cannot publish the package '%S' again, error %u\n",
                                        offer.GetString(kValueCopyPath), error);
}

}  // namespace

unsigned int CopyPublishedPackage(KelContainer& arguments, const FileKey& order) {
    const HeldPackage package = FindPackage(arguments, order.name);
    if (package.path.empty()) return kKelErrorBadInput;
    arguments.SetString(kValueFileType, "SentPackage");
    arguments.SetString(kValueCopyPath, package.path);
    arguments.SetString(kValueFileChecksum, "");
    arguments.SetBool(kValueUpstream, false);
    // The same package may be published any number of times: each needs a name of its own.
    arguments.SetString(kValueFileName,
                        KelFormat("%S_%u_%u", package.name, static_cast<unsigned int>(std::rand()),
                                  static_cast<unsigned int>(std::time(nullptr))));
    OfferLocally(arguments);
    return kKelOk;
}

unsigned int PublishPackageToMaster(const KelContainer& arguments, const FileKey& order) {
    const HeldPackage package = FindPackage(arguments, order.name);
    if (package.path.empty()) return kKelErrorBadInput;
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
    OfferLocally(call);
    return kKelOk;
}

}  // namespace filestore
