#include "kelcore/keys/openssl_objects.h"

#include <openssl/bn.h>
#include <openssl/err.h>

#include <array>
#include <climits>

#include "kel/checksum.h"
#include "kel/format.h"

BioOwner ReadingBio(std::string_view text) {
    return BioOwner(text.size() <= INT_MAX ? BIO_new_mem_buf(text.data(), static_cast<int>(text.size()))
                                           : nullptr);
}

KelString TextOf(BIO* bio) {
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio, &data);
    return size > 0 ? KelString(data, static_cast<std::size_t>(size)) : KelString();
}

KelError OpenSslError(const char* what) {
    std::array<char, 256> reason{};
    const unsigned long code = ERR_peek_last_error();
    ERR_error_string_n(code, reason.data(), reason.size());
    ERR_clear_error();
    return {kKelFailure, code == 0 ? KelString(what) : KelFormat("%s: %s", what, reason.data())};
}

std::int64_t TimeOf(const ASN1_TIME* time) {
    std::tm parts{};
    return time != nullptr && ASN1_TIME_to_tm(time, &parts) == 1 ? timegm(&parts) : 0;
}

KelString DateText(std::int64_t time) {
    const std::time_t seconds = time;
    std::tm parts{};
    std::array<char, 64> text{};
    gmtime_r(&seconds, &parts);
    std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M UTC", &parts);
    return text.data();
}

KelString SerialText(const ASN1_INTEGER* serial) {
    const OpenSslOwner<BIGNUM, &BN_free> number(ASN1_INTEGER_to_BN(serial, nullptr));
    char* digits = number ? BN_bn2hex(number.get()) : nullptr;
    const KelString text = digits != nullptr ? digits : "";
    OPENSSL_free(digits);
    return text;
}

bool SetRandomSerial(ASN1_INTEGER* serial) {
    KelString bytes = RandomBytes(16);
    bytes[0] = static_cast<char>((static_cast<unsigned char>(bytes[0]) & 0x7F) | 0x40);
    const OpenSslOwner<BIGNUM, &BN_free> number(BN_bin2bn(
        reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()), nullptr));
    return number && BN_to_ASN1_INTEGER(number.get(), serial) != nullptr;
}

bool AddExtension(X509* certificate, X509* issuer, int nid, const KelString& value) {
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    const OpenSslOwner<X509_EXTENSION, &X509_EXTENSION_free> extension(
        X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str()));
    return extension && X509_add_ext(certificate, extension.get(), -1) == 1;
}
