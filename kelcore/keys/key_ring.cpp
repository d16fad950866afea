#include "kelcore/keys/key_ring.h"

#include <openssl/ssl.h>

#include <algorithm>
#include <atomic>
#include <utility>

#include "kel/format.h"
#include "kel/text.h"
#include "kelcore/clock_difference.h"
#include "kelcore/keys/issuer.h"
#include "kelcore/keys/openssl_objects.h"

namespace {

/// The server chooses the first one that the client has. AES with 128 bits is as strong as the keys, which
/// are on the curve P-256, and takes fewer rounds than with 256.
constexpr const char* kCipherSuites =
    "TLS_AES_128_GCM_SHA256:TLS_CHACHA20_POLY1305_SHA256:TLS_AES_256_GCM_SHA384";

std::uint64_t NextId() {
    static std::atomic<std::uint64_t> last = 0;
    return ++last;
}

/// Which clock is wrong, as far as the certificate of this device shows it: that was issued to it.
KelString ClockText(const KelCertificate* own, std::int64_t now) {
    if (own != nullptr && now < own->NotBefore())
        return KelFormat(
            "set the clock of this device, which is at least %S the start of its own certificate",
            ClockDifferenceText(now - own->NotBefore()));
    if (own != nullptr && now > own->NotAfter())
        return "set the clock of this device, which is probably ahead, since its own certificate has ended, "
               "too";
    return "set the clock of the device on which it is wrong";
}

KelString ProblemText(int error, const KelCertificate& certificate, const KelCertificate* own,
                      std::int64_t now) {
    switch (error) {
        case X509_V_ERR_CERT_NOT_YET_VALID:
            return KelFormat("its certificate is valid from %S on, but it is %S here: %S",
                             DateText(certificate.NotBefore()), DateText(now), ClockText(own, now));
        case X509_V_ERR_CERT_HAS_EXPIRED:
            return KelFormat(
                "its certificate was valid until %S, and it is %S here: %S, or else join the "
                "device with the certificate again ('kel keys join')",
                DateText(certificate.NotAfter()), DateText(now), ClockText(own, now));
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
        case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
        case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
        case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
            return "it has no certificate of this tree's authority";
        default:
            return KelFormat("its certificate is not valid: %s", X509_verify_cert_error_string(error));
    }
}

/// What keeps the authority's signature from vouching for a certificate at this time; empty when it does.
/// `own`: the certificate of this device, if there is one.
KelString ChainProblem(x509_st* certificate, x509_store_st* store, int purpose, const KelCertificate* own,
                       std::int64_t now) {
    const X509StoreContextOwner context(X509_STORE_CTX_new());
    if (!context || X509_STORE_CTX_init(context.get(), store, certificate, nullptr) != 1)
        return OpenSslError("its certificate cannot be examined").message;
    X509_VERIFY_PARAM* const rules = X509_STORE_CTX_get0_param(context.get());
    X509_VERIFY_PARAM_set_time(rules, now);
    X509_VERIFY_PARAM_set_flags(rules, X509_V_FLAG_X509_STRICT);
    X509_VERIFY_PARAM_set_purpose(rules, purpose);
    if (X509_verify_cert(context.get()) == 1) return {};
    const int error = X509_STORE_CTX_get_error(context.get());
    X509* const faulty = X509_STORE_CTX_get_current_cert(context.get());
    return ProblemText(error, KelCertificate::Of(faulty != nullptr ? faulty : certificate), own, now);
}

KelTlsPeer Distrusted(KelString problem) {
    KelTlsPeer peer;
    peer.problem = std::move(problem);
    return peer;
}

/// What an expectation is not met in; empty when it is met.
KelString Mismatch(const KelTlsPeer& peer, const KelPeerExpectation& expected) {
    if (!expected.guid.empty() && peer.guid != expected.guid)
        return KelFormat("it is the device %S, not %S", peer.guid, expected.guid);
    if (!expected.fingerprint.empty() && peer.fingerprint != expected.fingerprint)
        return KelFormat(
            "its key is not the one with which it was known as the parent; if the parent was set up again, "
            "as "
            "%S, run 'kel keys forget-parent' here",
            peer.guid);
    if (expected.isParent && peer.role == KelDeviceRole::Client)
        return "it is a client, which cannot be a parent";
    return {};
}

/// Leaves out the certificate of the authority where the client knows it.
int ShortenChain(SSL* connection, void*) {
    const X509_NAME* const authority = X509_get_issuer_name(SSL_get_certificate(connection));
    const STACK_OF(X509_NAME)* const known = SSL_get0_peer_CA_list(connection);
    for (int i = 0; i < sk_X509_NAME_num(known); ++i)
        if (X509_NAME_cmp(sk_X509_NAME_value(known, i), authority) == 0)
            return static_cast<int>(SSL_clear_chain_certs(connection));
    return 1;
}

bool ApplyAuthority(SSL_CTX* context, X509* authority, KelTlsSide side) {
    if (side == KelTlsSide::Client) return SSL_CTX_add1_to_CA_list(context, authority) == 1;
    SSL_CTX_set_cert_cb(context, &ShortenChain, nullptr);
    return SSL_CTX_add1_chain_cert(context, authority) == 1;
}

}  // namespace

std::shared_ptr<x509_store_st> MakeTrustStore(const KelCertificate& authority) {
    std::shared_ptr<X509_STORE> store(X509_STORE_new(), &X509_STORE_free);
    return store && X509_STORE_add_cert(store.get(), authority.Get()) == 1 ? store : nullptr;
}

KelTlsPeer ExamineByAuthority(x509_st* certificate, x509_store_st* store, KelTlsSide presentedBy,
                              std::int64_t now, const KelCertificate* own) {
    const KelCertificate presented = KelCertificate::Of(certificate);
    const int purpose = presentedBy == KelTlsSide::Server ? X509_PURPOSE_SSL_SERVER : X509_PURPOSE_SSL_CLIENT;
    if (KelString problem = ChainProblem(certificate, store, purpose, own, now); !problem.empty())
        return Distrusted(std::move(problem));
    const auto identity = presented.Identity();
    if (!identity) return Distrusted("its certificate is not that of a device: " + identity.Error().message);
    return {true, identity->guid, identity->role, presented.Fingerprint(), presented.Serial(), {}};
}

KelKeyRing::KelKeyRing(Parts parts) : parts_(std::move(parts)), id_(NextId()) {}

KelResult<std::shared_ptr<const KelKeyRing>> KelKeyRing::Make(Parts parts) {
    const std::shared_ptr<KelKeyRing> ring(new KelKeyRing(std::move(parts)));
    const Parts& own = ring->parts_;
    ring->ownFingerprint_ = KeyFingerprint(own.key.Get());
    if (own.certificate.has_value() != own.authority.has_value())
        return KelError{kKelFailure, "of the certificates of device and authority, one is missing"};
    if (!own.certificate) {
        auto placeholder = MakePlaceholder(own.key, own.device.guid);
        if (!placeholder) return placeholder.Error();
        ring->placeholder_ = std::move(*placeholder);
        return std::shared_ptr<const KelKeyRing>(ring);
    }
    if (own.certificate->Fingerprint() != ring->ownFingerprint_)
        return KelError{kKelFailure, "the certificate of this device is for another key"};
    const auto identity = own.certificate->Identity();
    if (!identity) return identity.Error();
    if (*identity != own.device)
        return KelError{kKelFailure, KelFormat("the certificate of this device is that of the %s %S",
                                               KelDeviceRoleName(identity->role), identity->guid)};
    ring->store_ = MakeTrustStore(*own.authority);
    if (!ring->store_) return OpenSslError("The certificate of the authority cannot be used");
    return std::shared_ptr<const KelKeyRing>(ring);
}

KelTlsPeer KelKeyRing::Examine(x509_st* certificate, KelTlsSide presentedBy,
                               const KelPeerExpectation& expected, std::int64_t now) const {
    KelTlsPeer peer;
    if (KeyFingerprint(certificate) == ownFingerprint_)
        peer = {true, parts_.device.guid, parts_.device.role, ownFingerprint_, {}, {}};
    else if (!store_)
        return Distrusted("this device has not been enrolled yet, and cannot tell who belongs to its tree");
    else
        peer = ExamineByAuthority(certificate, store_.get(), presentedBy, now, &*parts_.certificate);
    if (!peer.isVerified) return peer;
    if (!IsStillTrusted(peer)) return Distrusted(KelFormat("the certificate of %S was revoked", peer.guid));
    if (KelString mismatch = Mismatch(peer, expected); !mismatch.empty())
        return Distrusted(std::move(mismatch));
    return peer;
}

KelString KelKeyRing::SignerProblem(x509_st* certificate, std::int64_t now) const {
    if (!store_) return "this device has not been enrolled yet, and cannot tell who belongs to its tree";
    if (KelString problem =
            ChainProblem(certificate, store_.get(), X509_PURPOSE_ANY, &*parts_.certificate, now);
        !problem.empty())
        return problem;
    if (X509_get_extended_key_usage(certificate) != XKU_CODE_SIGN ||
        !IsSigningKey(X509_get0_pubkey(certificate)))
        return "its certificate is not for signing publications";
    return parts_.revoked.Has(KelCertificate::Of(certificate).Serial()) ? "its certificate was revoked" : "";
}

bool KelKeyRing::IsStillTrusted(const KelTlsPeer& peer) const {
    return peer.isVerified && !parts_.revoked.Has(peer.serial);
}

KelPeerExpectation KelKeyRing::ExpectedAt(const KelString& host, std::uint16_t port) const {
    const KelString place = ToLowerText(KelFormat("%S:%u", host, unsigned{port}));
    if (std::ranges::find(parts_.parent.places, place) == parts_.parent.places.end()) return {};
    return {parts_.parent.guid, parts_.parent.fingerprint, true};
}

KelStatus KelKeyRing::ApplyTo(ssl_ctx_st* context, KelTlsSide side) const {
    X509* const certificate = placeholder_ ? placeholder_->Get() : parts_.certificate->Get();
    // Without the mode, a certificate without a chain is examined for each connection.
    SSL_CTX_set_mode(context, SSL_MODE_NO_AUTO_CHAIN);
    SSL_CTX_set_options(context, SSL_OP_CIPHER_SERVER_PREFERENCE);
    const bool applied = SSL_CTX_set_min_proto_version(context, TLS1_3_VERSION) == 1 &&
                         SSL_CTX_set_ciphersuites(context, kCipherSuites) == 1 &&
                         SSL_CTX_use_certificate(context, certificate) == 1 &&
                         SSL_CTX_use_PrivateKey(context, parts_.key.Get()) == 1 &&
                         (!parts_.authority || ApplyAuthority(context, parts_.authority->Get(), side));
    if (!applied) return OpenSslError("The certificate of this device cannot be used");
    return {};
}
