#include "modules/http_protocol/sha256.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <array>
#include <memory>
#include <new>

namespace kelhttp {
namespace {

KelString Hex(const unsigned char* bytes, std::size_t count) {
    static constexpr char kDigits[] = "0123456789abcdef";
    KelString text(count * 2, '0');
    for (std::size_t i = 0; i < count; ++i) {
        text[2 * i] = kDigits[bytes[i] >> 4];
        text[2 * i + 1] = kDigits[bytes[i] & 15];
    }
    return text;
}

struct FreeContext {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
struct FreeDigest {
    void operator()(EVP_MD* digest) const { EVP_MD_free(digest); }
};

/// A digest looked up once: the look-up by name costs more than hashing a short text.
EVP_MD_CTX* ThreadContext() {
    static const std::unique_ptr<EVP_MD, FreeDigest> digest(EVP_MD_fetch(nullptr, "SHA256", nullptr));
    thread_local const std::unique_ptr<EVP_MD_CTX, FreeContext> context(EVP_MD_CTX_new());
    if (!digest || !context || EVP_DigestInit_ex2(context.get(), digest.get(), nullptr) != 1)
        throw std::bad_alloc();
    return context.get();
}

}  // namespace

KelString Sha256Hex(std::initializer_list<std::string_view> pieces) {
    EVP_MD_CTX* const context = ThreadContext();
    for (const std::string_view piece : pieces)
        EVP_DigestUpdate(context, piece.data(), piece.size());
    std::array<unsigned char, 32> digest{};
    EVP_DigestFinal_ex(context, digest.data(), nullptr);
    return Hex(digest.data(), digest.size());
}

KelString HmacSha256Hex(std::string_view key, std::string_view text) {
    std::array<unsigned char, 32> code{};
    unsigned int length = 0;
    if (HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
             reinterpret_cast<const unsigned char*>(text.data()), text.size(), code.data(),
             &length) == nullptr)
        throw std::bad_alloc();
    return Hex(code.data(), length);
}

}  // namespace kelhttp
