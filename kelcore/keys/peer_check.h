#pragma once

#include <memory>

#include "kelcore/keys/key_ring.h"

/// Checks the server of outgoing connections in the TLS handshake, before anything is sent to it. One thread
/// at a time; outlives the contexts that it was applied to.
class KelPeerCheck {
  public:
    /// By a ring.
    KelPeerCheck(std::shared_ptr<const KelKeyRing> ring, KelPeerExpectation expected);

    /// By the fingerprint of the authority that an invitation names: the server has to present the
    /// certificate of that authority with its own. Nothing is presented to it.
    explicit KelPeerCheck(KelString authorityFingerprint);

    /// False when OpenSSL does not take the own certificate.
    bool ApplyTo(ssl_ctx_st* context);

    /// The server of the last handshake.
    const KelTlsPeer& Peer() const { return peer_; }

  private:
    static int OnCertificate(struct x509_store_ctx_st* handshake, void* self);
    KelTlsPeer Examine(struct x509_store_ctx_st* handshake);

    std::shared_ptr<const KelKeyRing> ring_;
    KelPeerExpectation expected_;
    KelString authorityFingerprint_;
    KelTlsPeer peer_;
};
