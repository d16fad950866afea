// The fields of a certificate of another device, and a list of revoked ones; neither may be trusted.
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string_view>

#include "kel/base64.h"
#include "kelcore/keys/issuer.h"
#include "kelcore/keys/key_ring.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const KelIssuer issuer = *KelIssuer::Make(std::time(nullptr));
    static const auto store = MakeTrustStore(issuer.Certificate());
    const KelString text = Base64Encode({reinterpret_cast<const char*>(data), size});
    const auto certificate =
        KelCertificate::FromPem("-----BEGIN CERTIFICATE-----\n" + text + "\n-----END CERTIFICATE-----\n");
    if (certificate) {
        static_cast<void>(certificate->Identity());
        certificate->Serial();
        certificate->NotAfter();
        if (ExamineByAuthority(certificate->Get(), store.get(), KelTlsSide::Client, 0).isVerified)
            std::abort();
    }
    if (KelRevocationList::FromPem("-----BEGIN X509 CRL-----\n" + text + "\n-----END X509 CRL-----\n",
                                   issuer.Certificate()))
        std::abort();
    return 0;
}
