#include "modules/http_protocol/keyed_tls.h"

#include <stdexcept>

#include "kelcore/keys/key_ring.h"

namespace kelhttp {
namespace {

int AcceptForNow(X509_STORE_CTX* handshake, void*) {
    X509_STORE_CTX_set_error(handshake, X509_V_OK);
    return 1;
}

std::shared_ptr<boost::asio::ssl::context> MakeContext(const KelKeyRing& keys) {
    auto context = std::make_shared<boost::asio::ssl::context>(boost::asio::ssl::context::tls_server);
    SSL_CTX* const raw = context->native_handle();
    if (const KelStatus applied = keys.ApplyTo(raw, KelTlsSide::Server); !applied)
        throw std::runtime_error(applied.Error().message);
    SSL_CTX_set_verify(raw, SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_cert_verify_callback(raw, &AcceptForNow, nullptr);
    // A device that comes again resumes one session, and gets the next ticket then.
    SSL_CTX_set_num_tickets(raw, 1);
    // Without a name for this service, OpenSSL refuses to resume sessions of clients with certificates.
    static constexpr unsigned char kName[] = "kel";
    SSL_CTX_set_session_id_context(raw, kName, sizeof kName);
    return context;
}

}  // namespace

std::pair<AgentSecurityKeys, std::shared_ptr<boost::asio::ssl::context>> KeyedTls::Current() {
    AgentSecurityKeys latest = AgentSecurityGetKeys();
    if (!latest) throw std::runtime_error("this device has no keys any more");
    const KelLock lock(mutex_);
    if (latest != keys_) {
        context_ = MakeContext(*latest);
        keys_ = std::move(latest);
    }
    return {keys_, context_};
}

}  // namespace kelhttp
