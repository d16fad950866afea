#include <cstdlib>
#include <ctime>

#include "filestore/module/file_store.h"
#include "filestore/transfer/offer.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kelcore/action_db.h"

namespace {

/// The package that an order names in its `FileInfo`.
struct HeldPackage {
    KelString name;
    KelString path;  ///< of its file in this device's store; empty when it is not held
};

HeldPackage FindPackage(const KelContainer& arguments, const KelString& fileName) {
    const KelContainer& info = arguments.GetContainer("FileInfo");
    HeldPackage package;
    package.name = info.GetString("PackageName");
    const KelString checksum = info.GetString("PackageChecksum");
    if (!filestore::CheckKeyPart("PackageName", package.name, false) ||
        !filestore::CheckKeyPart("PackageChecksum", checksum, true))
        return package;
    const KelString path =
        FileStore::StorePath(false, "OperationalRulePackage", package.name, checksum, fileName);
    if (FileExists(path)) package.path = path;
    return package;
}

/// Offers the package as if a module of this device had handed it in. Whoever sent the order does not count
/// any more: the path comes from this device.
void OfferLocally(KelContainer& offer) {
    offer.Remove("HttpProtocolRequestInfo");
    const unsigned int error =
        ActionDbInvokeContainer(nullptr, "", "FileStoreReceiveFile", offer, 0, -1, -1, nullptr);
    if (error != 0)
        FileStore::debugFileStore.Error("Cannot publish the package '%S' again, error %u\n",
                                        offer.GetString("CopyPath"), error);
}

}  // namespace

int FileStore::ReceivedCopyPublishedAction(KelContainer& arguments, const KelString& /*type*/,
                                           const KelString& /*label*/, const KelString& name,
                                           const KelString& /*checksum*/) {
    const HeldPackage package = FindPackage(arguments, name);
    if (package.path.empty()) return 1;
    arguments.SetString("FileType", "SentPackage");
    arguments.SetString("CopyPath", package.path);
    arguments.SetString("FileChecksum", "");
    arguments.SetBool("Upstream", false);
    arguments.SetString("FileName",
                        KelFormat("%S_%u_%u", package.name, static_cast<unsigned int>(std::rand()),
                                  static_cast<unsigned int>(std::time(nullptr))));
    OfferLocally(arguments);
    return 0;
}

int FileStore::ReceivedPublishToMasterAction(KelContainer& arguments, const KelString& /*type*/,
                                             const KelString& label, const KelString& name,
                                             const KelString& /*checksum*/) {
    const HeldPackage package = FindPackage(arguments, name);
    if (package.path.empty()) return 1;
    KelContainer info = arguments.GetContainer("FileInfo");
    info.SetBool("WasAdministratedRelay", true);
    info.SetString("AdministratedRelayGUID", "");
    KelContainer offer;
    offer.SetString("FileType", "PackagerZIPPackage");
    offer.SetString("FileLabel", label);
    offer.SetBool("Bypass", true);
    offer.SetString("FileChecksum", "");
    offer.SetBool("Upstream", true);
    offer.SetString("FileName", package.name);
    offer.SetContainer("FileInfo", std::move(info));
    offer.SetString("CopyPath", package.path);
    OfferLocally(offer);
    return 0;
}
