// A stranger's request to be enrolled: its request for a certificate, the action's values, and a token.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "kel/base64.h"
#include "kelcore/keys/invitation.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const KelString input(reinterpret_cast<const char*>(data), size);
    static_cast<void>(KelInvitation::FromToken(input));
    static_cast<void>(KelInvitation::FromToken("kel1-" + Base64Encode(input)));
    static_cast<void>(KelCertificateRequest::FromDer(input));
    KelContainer values;
    if (!values.LoadFromXML(input, 100)) values.SetString("Request", Base64Encode(input));
    const auto request = KelEnrolRequest::FromContainer(values);
    if (request && request->IsProvedBy("the hash of a secret that the input does not hold")) std::abort();
    return 0;
}
