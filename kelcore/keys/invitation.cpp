#include "kelcore/keys/invitation.h"

#include <algorithm>
#include <array>

#include "kel/base64.h"
#include "kel/checksum.h"
#include "kel/format.h"
#include "kel/text.h"
#include "kelcore/keys/key_pair.h"
#include "kelcore/keys/openssl_objects.h"

namespace {

constexpr std::string_view kPrefix = "kel1-";
constexpr char kVersion = 1;
constexpr std::size_t kTokenBytes = 87;
constexpr std::size_t kSecretBytes = 32;
constexpr std::size_t kCheckBytes = 4;
constexpr std::size_t kIdDigits = 16;
constexpr std::size_t kProofDigits = 64;

bool IsHex(std::string_view text, std::size_t digits) {
    return text.size() == digits && text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

/// The reverse of HexText; the text has been checked.
KelString BytesOfHex(std::string_view text) {
    const auto value = [](char digit) { return digit <= '9' ? digit - '0' : digit - 'a' + 10; };
    KelString bytes;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2)
        bytes += static_cast<char>(value(text[i]) << 4 | value(text[i + 1]));
    return bytes;
}

KelString CheckOf(std::string_view bytes) {
    return BytesOfHex(TextSha256(bytes).substr(0, 2 * kCheckBytes));
}

KelString BigEndian(std::int64_t number) {
    KelString bytes;
    for (int shift = 56; shift >= 0; shift -= 8)
        bytes += static_cast<char>(static_cast<std::uint64_t>(number) >> shift);
    return bytes;
}

std::int64_t FromBigEndian(std::string_view bytes) {
    std::uint64_t number = 0;
    for (const char byte : bytes)
        number = number << 8 | static_cast<unsigned char>(byte);
    return static_cast<std::int64_t>(number);
}

KelString UpperText(KelString text) {
    std::ranges::transform(text, text.begin(), [](char c) {
        return c >= 'a' && c <= 'f' ? static_cast<char>(c - 'a' + 'A') : c;
    });
    return text;
}

KelString ProofOf(const KelString& secretHash, const KelString& invitation, const KelString& der) {
    return HmacSha256(secretHash, "enrol " + invitation + " " + der);
}

}  // namespace

KelString KelInvitation::ToToken() const {
    KelString bytes(1, kVersion);
    bytes += BytesOfHex(ToLowerText(scheme)) + BigEndian(expires) + BytesOfHex(id) +
             DigestOfFingerprint(authority) + secret;
    bytes += CheckOf(bytes);
    return KelString(kPrefix) + ReplaceAll(ReplaceAll(Base64Encode(bytes), "+", "-"), "/", "_");
}

KelResult<KelInvitation> KelInvitation::FromToken(std::string_view token) {
    const KelError malformed{kKelFailure, "this is no token of an invitation, or not the whole of it"};
    if (!token.starts_with(kPrefix)) return malformed;
    const auto decoded =
        Base64Decode(ReplaceAll(ReplaceAll(token.substr(kPrefix.size()), "-", "+"), "_", "/"));
    if (!decoded || decoded->size() != kTokenBytes || decoded->front() != kVersion) return malformed;
    std::string_view left = *decoded;
    if (CheckOf(left.substr(0, kTokenBytes - kCheckBytes)) != left.substr(kTokenBytes - kCheckBytes))
        return malformed;
    const auto take = [&left](std::size_t count) {
        const std::string_view piece = left.substr(0, count);
        left.remove_prefix(count);
        return piece;
    };
    take(1);
    KelInvitation invitation;
    invitation.scheme = UpperText(HexText(take(2)));
    invitation.expires = FromBigEndian(take(8));
    invitation.id = HexText(take(8));
    invitation.authority = FingerprintOfDigest(take(32));
    invitation.secret = take(kSecretBytes);
    return invitation;
}

KelString KelInvitation::ClockProblem(std::int64_t now) const {
    constexpr std::int64_t kTolerated = 86400;
    if (now >= expires)
        return KelFormat(
            "the invitation has ended on %S, and the clock of this device shows %S: set the clock "
            "if it is wrong, or else make another one on the master ('kel invite')",
            DateText(expires), DateText(now));
    if (now < expires - kLongest - kTolerated)
        return KelFormat(
            "the invitation ends on %S, which is too far ahead for one that exists already, since "
            "the clock of this device shows %S: set it",
            DateText(expires), DateText(now));
    return {};
}

KelEnrolRequest KelEnrolRequest::Make(const KelInvitation& invitation, const KelCertificateRequest& request) {
    return {invitation.id, request, ProofOf(TextSha256(invitation.secret), invitation.id, request.Der())};
}

bool KelEnrolRequest::IsProvedBy(const KelString& secretHash) const {
    return EqualInConstantTime(ProofOf(secretHash, invitation, request.Der()), proof);
}

KelContainer KelEnrolRequest::ToContainer() const {
    KelContainer values = RequestContainer(request);
    values.SetString("Invitation", invitation);
    values.SetString("Proof", proof);
    return values;
}

KelResult<KelEnrolRequest> KelEnrolRequest::FromContainer(const KelContainer& values) {
    const KelString invitation = values.GetString("Invitation");
    const KelString proof = values.GetString("Proof");
    if (!IsHex(invitation, kIdDigits)) return KelError{kKelFailure, "the invitation is malformed"};
    if (!IsHex(proof, kProofDigits)) return KelError{kKelFailure, "the proof is malformed"};
    auto request = RequestFromBase64(values.GetString("Request"));
    if (!request) return request.Error();
    return KelEnrolRequest{invitation, std::move(*request), proof};
}

KelContainer RequestContainer(const KelCertificateRequest& request) {
    KelContainer values;
    values.SetString("Request", Base64Encode(request.Der()));
    return values;
}

KelResult<KelCertificateRequest> RequestFromBase64(const KelString& text) {
    constexpr std::size_t kMaxText = KelCertificateRequest::kMaxDerBytes * 4 / 3 + 4;
    const auto der = text.size() <= kMaxText ? Base64Decode(text) : std::nullopt;
    if (!der) return KelError{kKelFailure, "the request for a certificate is malformed"};
    return KelCertificateRequest::FromDer(*der);
}
