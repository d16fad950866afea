// What a relay brings as signed by the master: the first 64 bytes are the signature, the rest its
// certificate. Without the master's key nothing may be accepted.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string_view>

#include "kel/base64.h"
#include "kelcore/file_values.h"
#include "kelcore/keys/issuer.h"
#include "kelcore/keys/key_ring.h"
#include "kelcore/keys/publication_signature.h"

namespace {

constexpr std::size_t kSignatureBytes = 64;

std::shared_ptr<const KelKeyRing> MakeRing() {
    const std::int64_t now = std::time(nullptr);
    const KelIssuer issuer = *KelIssuer::Make(now);
    const KelDeviceIdentity device{"ABCD0000-0000-0000-0000-000000000001", KelDeviceRole::Client};
    const KelKeyPair key = *KelKeyPair::Make();
    return *KelKeyRing::Make(
        {key, device, *issuer.Issue(key.Get(), device, now), issuer.Certificate(), {}, "00", {}});
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const auto ring = MakeRing();
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    KelContainer signedValues;
    signedValues.SetInt64("Size", static_cast<std::int64_t>(size));
    signedValues.SetString("Sha256", KelString(64, 'a'));
    signedValues.SetString("Signature", Base64Encode(input.substr(0, kSignatureBytes)));
    signedValues.SetString("Certificate", Base64Encode(input.substr(std::min(size, kSignatureBytes))));
    KelContainer info;
    info.SetString(kValuePublicationId, "0123456789abcdef");
    info.SetInt64(kValuePublicationTime, 1);
    info.SetContainer("Signed", std::move(signedValues));
    if (VerifiedPublication({"type", "label", "name", KelString(32, 'b')}, info, *ring, std::time(nullptr)))
        std::abort();
    return 0;
}
