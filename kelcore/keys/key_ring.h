#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "kel/result.h"
#include "kelcore/keys/certificate.h"
#include "kelcore/keys/revocation_list.h"

struct ssl_ctx_st;
struct x509_store_st;

/// Who is at the other end of a TLS connection, as far as its certificate proves it.
struct KelTlsPeer {
    bool isVerified = false;  ///< the rest holds; otherwise only `problem`, or nothing without a certificate
    KelString guid;
    KelDeviceRole role = KelDeviceRole::Client;
    KelString fingerprint;  ///< of its key
    KelString serial;       ///< of its certificate
    KelString problem;      ///< why its certificate proves nothing, for a person
};

/// Who has to be there. What is empty may be anything.
struct KelPeerExpectation {
    KelString guid;
    KelString fingerprint;
    bool isParent = false;  ///< it must be a relay or a master
};

/// The parent that this device has once found, so that no other relay can take its place.
struct KelParentPin {
    KelVector<KelString> places;  ///< "host:port", as it is called; in lower case
    KelString guid;               ///< empty: not known yet
    KelString fingerprint;
    KelString serial;  ///< of the certificate that it presented last; once revoked, another key may follow
    bool operator==(const KelParentPin&) const = default;
};

/// Which side of a connection presented a certificate.
enum class KelTlsSide : unsigned char { Server, Client };

/// What a device proves itself with in a tree with keys, and checks other devices by. Never changes: a new
/// certificate, list or parent makes another ring. Any thread.
class KelKeyRing {
  public:
    struct Parts {
        KelKeyPair key;
        KelDeviceIdentity device;
        std::optional<KelCertificate> certificate;  ///< none until the device has been enrolled,
        std::optional<KelCertificate> authority;    ///< nor this
        KelRevocationList revoked;
        KelString groupKey;  ///< shared by the devices of the tree; empty until then
        KelParentPin parent;
    };

    /// An error when the parts do not belong together.
    static KelResult<std::shared_ptr<const KelKeyRing>> Make(Parts parts);

    const Parts& Get() const { return parts_; }
    bool IsEnrolled() const { return parts_.certificate.has_value(); }
    std::uint64_t Id() const { return id_; }  ///< differs from that of every other ring of the process

    /// Examines the certificate that the peer presented, of which TLS has proved that the peer has its key.
    /// `now`: seconds since the epoch. A peer with the key of this device is this device.
    KelTlsPeer Examine(x509_st* certificate, KelTlsSide presentedBy, const KelPeerExpectation& expected,
                       std::int64_t now) const;

    /// Examines the certificate that came with the signature of a publication: empty when the authority has
    /// issued it for that and it was not revoked, else what is wrong with it.
    KelString SignerProblem(x509_st* certificate, std::int64_t now) const;

    /// True while a peer that was verified by an earlier ring, or earlier, is to be trusted.
    bool IsStillTrusted(const KelTlsPeer& peer) const;

    /// Who has to be at this address: for the parent what its pin says.
    KelPeerExpectation ExpectedAt(const KelString& host, std::uint16_t port) const;

    /// Has connections of this context speak TLS 1.3 and present the own certificate. A client names the
    /// authority that it knows; a server adds the certificate of the authority for clients that name none,
    /// which are about to join the tree.
    KelStatus ApplyTo(ssl_ctx_st* context, KelTlsSide side) const;

  private:
    explicit KelKeyRing(Parts parts);

    const Parts parts_;
    const std::uint64_t id_;
    KelString ownFingerprint_;
    std::optional<KelCertificate> placeholder_;
    std::shared_ptr<x509_store_st> store_;  ///< null without an authority
};

/// Examines a certificate by an authority alone. `own`: the certificate of this device, if it has one; shows
/// which clock is wrong.
KelTlsPeer ExamineByAuthority(x509_st* certificate, x509_store_st* store, KelTlsSide presentedBy,
                              std::int64_t now, const KelCertificate* own = nullptr);

/// A store that trusts this authority; null when memory runs out.
std::shared_ptr<x509_store_st> MakeTrustStore(const KelCertificate& authority);
