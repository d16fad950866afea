#include "kel/hmac.h"

#include <cstddef>
#include <stdexcept>

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/params.h>

struct HmacKey::State {
    ~State() { EVP_MAC_CTX_free(context); }
    EVP_MAC_CTX* context = nullptr;
};

HmacKey::HmacKey(std::string_view key) : state_(std::make_unique<State>()) {
    EVP_MAC* const method = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
    state_->context = EVP_MAC_CTX_new(method);
    EVP_MAC_free(method);  // the context holds on to it
    char digest[] = "SHA256";
    const OSSL_PARAM parameters[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest, sizeof digest - 1),
        OSSL_PARAM_construct_end()};
    if (state_->context == nullptr ||
        EVP_MAC_init(state_->context, reinterpret_cast<const unsigned char*>(key.data()), key.size(),
                     parameters) != 1)
        throw std::runtime_error("OpenSSL cannot compute an authentication code");
}

HmacKey::~HmacKey() = default;
HmacKey::HmacKey(HmacKey&&) noexcept = default;
HmacKey& HmacKey::operator=(HmacKey&&) noexcept = default;

HmacKey::Code HmacKey::Of(std::initializer_list<std::string_view> texts) const {
    // Without a key, the context starts again from the state after the one that it was given.
    bool done = EVP_MAC_init(state_->context, nullptr, 0, nullptr) == 1;
    for (const std::string_view text : texts)
        done = done && EVP_MAC_update(state_->context, reinterpret_cast<const unsigned char*>(text.data()),
                                      text.size()) == 1;
    Code code{};
    std::size_t length = 0;
    if (!done || EVP_MAC_final(state_->context, reinterpret_cast<unsigned char*>(code.data()), &length,
                               code.size()) != 1)
        throw std::runtime_error("OpenSSL cannot compute an authentication code");
    return code;
}
