#pragma once

#include <cstdint>
#include <string_view>

#include "kel/container.h"
#include "kel/result.h"
#include "kelcore/keys/certificate_request.h"

/// What a new device is given, so that it and the tree can recognise each other. Its text, the token, is
/// "kel1-" and, in base64 for URLs (RFC 4648, section 5), 87 bytes: version 1, the scheme of the tree's GUIDs
/// (2 bytes), the end (8 bytes, seconds since the epoch, big endian), the identifier (8), the digest of the
/// authority's key (32), the secret (32), and the first 4 bytes of the SHA-256 digest of all these.
struct KelInvitation {
    KelString scheme;  ///< four upper-case hexadecimal digits, with which every GUID of the tree begins
    std::int64_t expires = 0;
    KelString id;         ///< 16 hexadecimal digits
    KelString authority;  ///< fingerprint of its key
    KelString secret;     ///< 32 bytes

    static constexpr std::int64_t kLongest = std::int64_t{366} * 86400;  ///< seconds until it ends

    /// What is wrong with the clock or the invitation when it is `now`, in seconds since the epoch: that it
    /// has ended, or was made by a clock that is ahead of this one. Empty when they fit.
    KelString ClockProblem(std::int64_t now) const;

    KelString ToToken() const;
    static KelResult<KelInvitation> FromToken(std::string_view token);
};

/// A device's request to be enrolled. The secret stays with the device: the proof is an authentication code
/// (HMAC-SHA-256) of this very request for a certificate, so that a relay that passes it up can do nothing
/// else with it.
struct KelEnrolRequest {
    KelString invitation;  ///< its identifier
    KelCertificateRequest request;
    KelString proof;  ///< 64 hexadecimal digits

    static KelEnrolRequest Make(const KelInvitation& invitation, const KelCertificateRequest& request);
    /// True when the proof was made with the secret of which this is the hash; see KelInvitations.
    bool IsProvedBy(const KelString& secretHash) const;

    /// As strings Invitation, Request (DER in base64) and Proof. Of what a stranger sends, nothing is used
    /// that is not exactly of this form.
    KelContainer ToContainer() const;
    static KelResult<KelEnrolRequest> FromContainer(const KelContainer& values);
};

/// A request for a certificate as actions carry it: the string Request, its DER in base64.
KelContainer RequestContainer(const KelCertificateRequest& request);
KelResult<KelCertificateRequest> RequestFromBase64(const KelString& text);
