#include "kelcore/keys/peer_check.h"

#include <openssl/ssl.h>

#include <ctime>
#include <utility>

#include "kelcore/keys/openssl_objects.h"

KelPeerCheck::KelPeerCheck(std::shared_ptr<const KelKeyRing> ring, KelPeerExpectation expected)
    : ring_(std::move(ring)), expected_(std::move(expected)) {}

KelPeerCheck::KelPeerCheck(KelString authorityFingerprint)
    : authorityFingerprint_(std::move(authorityFingerprint)) {}

bool KelPeerCheck::ApplyTo(ssl_ctx_st* context) {
    // A device that is about to join has no certificate that says anything.
    const bool applied = authorityFingerprint_.empty()
                             ? static_cast<bool>(ring_->ApplyTo(context, KelTlsSide::Client))
                             : SSL_CTX_set_min_proto_version(context, TLS1_3_VERSION) == 1;
    if (!applied) return false;
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_cert_verify_callback(context, &KelPeerCheck::OnCertificate, this);
    return true;
}

/// 1: go on with the handshake. An exception must not pass through the library's frames.
int KelPeerCheck::OnCertificate(x509_store_ctx_st* handshake, void* self) {
    auto& check = *static_cast<KelPeerCheck*>(self);
    try {
        check.peer_ = check.Examine(handshake);
    } catch (const std::exception& error) {
        check.peer_ = {};
        check.peer_.problem = error.what();
    }
    X509_STORE_CTX_set_error(handshake,
                             check.peer_.isVerified ? X509_V_OK : X509_V_ERR_APPLICATION_VERIFICATION);
    return check.peer_.isVerified ? 1 : 0;
}

KelTlsPeer KelPeerCheck::Examine(x509_store_ctx_st* handshake) {
    X509* const certificate = X509_STORE_CTX_get0_cert(handshake);
    const std::int64_t now = std::time(nullptr);
    if (authorityFingerprint_.empty()) return ring_->Examine(certificate, KelTlsSide::Server, expected_, now);
    KelTlsPeer peer;
    peer.problem = "it does not belong to the tree of the invitation";
    STACK_OF(X509)* const chain = X509_STORE_CTX_get0_untrusted(handshake);
    for (int i = 0; i < sk_X509_num(chain); ++i) {
        const KelCertificate authority = KelCertificate::Of(sk_X509_value(chain, i));
        if (authority.Fingerprint() != authorityFingerprint_) continue;
        const auto store = MakeTrustStore(authority);
        if (!store) continue;
        peer = ExamineByAuthority(certificate, store.get(), KelTlsSide::Server, now);
        if (!peer.isVerified || peer.role != KelDeviceRole::Client) return peer;
        peer = {};
        peer.problem = "it is a client, which cannot be a parent";
        return peer;
    }
    return peer;
}
