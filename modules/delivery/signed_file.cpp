#include "modules/delivery/signed_file.h"

#include <algorithm>
#include <ctime>

#include "kel/file.h"
#include "kel/format.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"
#include "kelcore/keys/key_ring.h"
#include "kelcore/keys/publication_signature.h"
#include "kelcore/security.h"

namespace {

KelError Refused(const KelString& why) {
    return {kKelErrorBadInput,
            KelFormat("Refused, since the master has not published it for this device: %S; check the devices "
                      "above, which have brought it",
                      why)};
}

KelResult<KelPublication> SignedForThisDevice(const FileKey& key, const KelContainer& info) {
    const AgentSecurityKeys keys = AgentSecurityGetKeys();
    if (!keys) return Refused("this is a plain tree now");
    auto publication = VerifiedPublication(key, info, *keys, std::time(nullptr));
    if (!publication) return Refused(publication.Error().message);
    if (!publication->IsFor(keys->Get().device.guid)) return Refused("it was signed for other devices");
    return publication;
}

}  // namespace

bool AreFilesSigned() {
    return AgentSecurityGetKeys() != nullptr;
}

KelStatus Authenticate(ReceivedFile& file, const KelContainer& info, const KelVector<DeliveryOrder>& orders) {
    if (!AreFilesSigned()) return {};
    const auto own = SignedForThisDevice(file.key, info);
    if (!own && orders.empty()) return own.Error();
    // It may have come for the orders alone: what it says without a signature counts for nothing.
    file.publications.clear();
    file.publicationTime = 0;
    if (own) {
        file.publications = {own->id};
        file.publicationTime = own->time;
        file.size = own->size;
        file.sha256 = own->sha256;
    }
    const auto latest = std::ranges::max_element(orders, {}, &DeliveryOrder::time);
    if (latest != orders.end() && latest->time > file.publicationTime) {
        file.size = latest->size;
        file.sha256 = latest->sha256;
    }
    // Before all of it is read. A file that cannot be examined is found missing when it is copied.
    const std::int64_t size = FileGetSize64(file.sourcePath);
    if (size < 0 || size == file.size) return {};
    return Refused(KelFormat("it has %gd bytes in place of %gd", size, file.size));
}

KelStatus Authenticate(DeliveryOrder& order, const KelContainer& info) {
    if (!AreFilesSigned()) return {};
    const auto publication = SignedForThisDevice(order.file, info);
    if (!publication) return publication.Error();
    if (publication->id != order.publication) return Refused("it was signed for another publication");
    order.size = publication->size;
    order.sha256 = publication->sha256;
    order.signature = info.GetContainer(kValueSigned);
    return {};
}
