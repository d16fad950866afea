#include "kelcore/keys/revocation_list.h"

#include <openssl/pem.h>

#include <algorithm>

#include "kelcore/keys/openssl_objects.h"

KelResult<KelRevocationList> KelRevocationList::FromPem(std::string_view pem,
                                                        const KelCertificate& authority) {
    if (pem.size() > kMaxPemBytes)
        return KelError{kKelFailure, "The list of revoked certificates is too long"};
    const BioOwner bio = ReadingBio(pem);
    const OpenSslOwner<X509_CRL, &X509_CRL_free> list(
        bio ? PEM_read_bio_X509_CRL(bio.get(), nullptr, nullptr, nullptr) : nullptr);
    if (!list) return OpenSslError("This is no list of revoked certificates");
    if (X509_CRL_verify(list.get(), X509_get0_pubkey(authority.Get())) != 1)
        return OpenSslError("The authority of the tree has not signed the list of revoked certificates");
    const OpenSslOwner<ASN1_INTEGER, &ASN1_INTEGER_free> number(
        static_cast<ASN1_INTEGER*>(X509_CRL_get_ext_d2i(list.get(), NID_crl_number, nullptr, nullptr)));
    KelRevocationList result;
    if (!number || ASN1_INTEGER_get_int64(&result.number_, number.get()) != 1)
        return OpenSslError("The list of revoked certificates has no number");
    STACK_OF(X509_REVOKED)* const entries = X509_CRL_get_REVOKED(list.get());
    for (int i = 0; i < sk_X509_REVOKED_num(entries); ++i)
        result.serials_.push_back(
            SerialText(X509_REVOKED_get0_serialNumber(sk_X509_REVOKED_value(entries, i))));
    std::ranges::sort(result.serials_);
    result.pem_ = pem;
    return result;
}

bool KelRevocationList::Has(const KelString& serial) const {
    return std::ranges::binary_search(serials_, serial);
}
