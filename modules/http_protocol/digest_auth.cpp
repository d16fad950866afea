#include "modules/http_protocol/digest_auth.h"

#include <algorithm>
#include <charconv>
#include <ctime>
#include <optional>

#include "kel/base64.h"
#include "kel/checksum.h"
#include "kel/format.h"
#include "kel/text.h"
#include "modules/http_protocol/digest_fields.h"

namespace kelhttp {
namespace {

constexpr std::string_view kRealm = "kel";
constexpr std::size_t kStampDigits = 24;  ///< 16 for the time in milliseconds, 8 for a counter
constexpr std::size_t kCodeDigits = 32;

std::optional<std::uint64_t> ParseHex(std::string_view text) {
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, 16);
    if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

KelString HexDigits(std::uint64_t value, std::size_t digits) {
    KelString text(digits, '0');
    for (std::size_t i = digits; i > 0; --i, value >>= 4)
        text[i - 1] = "0123456789abcdef"[value & 15];
    return text;
}

std::uint64_t Milliseconds(DigestAuth::Clock::time_point time) {
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::milliseconds>(time.time_since_epoch()).count());
}

bool TakeScheme(std::string_view& text, std::string_view scheme) {
    if (text.size() <= scheme.size() || !IsEqualTo(text.substr(0, scheme.size()), scheme, false) ||
        text[scheme.size()] != ' ')
        return false;
    text.remove_prefix(scheme.size() + 1);
    return true;
}

}  // namespace

DigestAuth::DigestAuth(const KelString& user, KelTreePasswords& passwords, int lifetime)
    : user_(user), passwords_(passwords), key_(RandomBytes(32)), lifetime_(lifetime) {}

DigestAuth::Secrets DigestAuth::SecretsOf(const KelString& password) const {
    return {JoinedSha256({user_, ":", password}), JoinedSha256({user_, ":", kRealm, ":", password})};
}

std::shared_ptr<const KelVector<DigestAuth::Secrets>> DigestAuth::CurrentSecrets() const {
    const KelLock lock(mutex_);
    // Taken before the passwords: when these change meanwhile, the next request sees another number.
    const std::uint64_t id = passwords_.Id();
    if (!secrets_ || secretsId_ != id) {
        const KelPasswordPair pair = passwords_.Get();
        KelVector<Secrets> secrets = {SecretsOf(pair.current)};
        if (!pair.former.empty()) secrets.push_back(SecretsOf(pair.former));
        secrets_ = std::make_shared<const KelVector<Secrets>>(std::move(secrets));
        secretsId_ = id;
    }
    return secrets_;
}

void DigestAuth::NoteCaller(const Request& request, Memory& memory, bool hadFormer) const {
    memory.hadFormer = hadFormer;
    passwords_.NoteCaller(request.peer, hadFormer && !request.hasBoth, std::time(nullptr));
}

DigestAuth::Verdict DigestAuth::Check(const Request& request, Memory& memory, Clock::time_point now) const {
    std::string_view text = request.authorization;
    if (TakeScheme(text, "Digest")) {
        Request rest = request;
        rest.authorization = text;
        return CheckDigest(rest, memory, now);
    }
    if (request.encrypted && TakeScheme(text, "Basic") && CheckBasic(text, request, memory))
        return Verdict::Granted;
    return Verdict::Refused;
}

bool DigestAuth::CheckBasic(std::string_view encoded, const Request& request, Memory& memory) const {
    const std::optional<KelString> decoded = Base64Decode(Trim(encoded));
    if (!decoded) return false;
    const auto secrets = CurrentSecrets();
    const auto found = std::ranges::find_if(*secrets, [digest = TextSha256(*decoded)](const Secrets& of) {
        return EqualInConstantTime(digest, of.basic);
    });
    if (found == secrets->end()) return false;
    NoteCaller(request, memory, found != secrets->begin());
    return true;
}

DigestAuth::Verdict DigestAuth::CheckDigest(const Request& request, Memory& memory,
                                            Clock::time_point now) const {
    DigestFields fields;
    if (!ParseDigestFields(request.authorization, fields)) return Verdict::Refused;
    if (!IsEqualTo(fields.algorithm, "SHA-256", false) || fields.qop != "auth" || fields.realm != kRealm)
        return Verdict::Refused;
    const std::optional<std::uint64_t> count = fields.nc.size() == 8 ? ParseHex(fields.nc) : std::nullopt;
    if (!count || fields.cnonce.empty() || fields.uri != request.target) return Verdict::Refused;

    const KelString what = JoinedSha256({request.method, ":", fields.uri});
    const auto secrets = CurrentSecrets();
    const auto fits = [&](const Secrets& of) {
        const KelString expected =
            JoinedSha256({of.digest, ":", fields.nonce, ":", fields.nc, ":", fields.cnonce, ":auth:", what});
        return EqualInConstantTime(fields.response, expected);
    };
    const auto found = std::ranges::find_if(*secrets, fits);
    const bool userKnown = EqualInConstantTime(fields.username, user_);
    if (found == secrets->end() || !userKnown) return Verdict::Refused;

    switch (ExamineNonce(fields.nonce, request.peer, memory, now)) {
        case NonceState::Foreign:
        case NonceState::Old:
            return Verdict::Stale;
        case NonceState::Fresh:
            break;
    }
    if (memory.nonce == fields.nonce && *count <= memory.lastCount) return Verdict::Stale;
    if (memory.nonce != fields.nonce) memory.nonce = fields.nonce;
    memory.lastCount = *count;
    NoteCaller(request, memory, found != secrets->begin());
    return Verdict::Granted;
}

KelString DigestAuth::NonceCode(std::string_view stamp, IpAddress peer) const {
    return HmacSha256(key_, KelString(stamp) + HexDigits(peer.Value(), 8)).substr(0, kCodeDigits);
}

KelString DigestAuth::MakeNonce(IpAddress peer, Clock::time_point now) const {
    const KelString stamp = HexDigits(Milliseconds(now), 16) + HexDigits(++made_, 8);
    return stamp + NonceCode(stamp, peer);
}

DigestAuth::NonceState DigestAuth::ExamineNonce(std::string_view nonce, IpAddress peer, const Memory& memory,
                                                Clock::time_point now) const {
    if (nonce.size() != kStampDigits + kCodeDigits) return NonceState::Foreign;
    const std::optional<std::uint64_t> made = ParseHex(nonce.substr(0, 16));
    if (!made) return NonceState::Foreign;
    if (memory.nonce != nonce &&
        !EqualInConstantTime(nonce.substr(kStampDigits), NonceCode(nonce.substr(0, kStampDigits), peer)))
        return NonceState::Foreign;
    const std::uint64_t present = Milliseconds(now);
    const auto limit = static_cast<std::uint64_t>(lifetime_.count()) * 1000;
    return *made <= present && present - *made <= limit ? NonceState::Fresh : NonceState::Old;
}

KelString DigestAuth::Challenge(IpAddress peer, bool encrypted, bool stale, Clock::time_point now) const {
    const KelString nonce = MakeNonce(peer, now);
    KelString text = KelFormat(
        "WWW-Authenticate: Digest realm=\"kel\", qop=\"auth\", algorithm=SHA-256, nonce=\"%S\"%s\r\n", nonce,
        stale ? ", stale=true" : "");
    if (encrypted) text += "WWW-Authenticate: Basic realm=\"kel\"\r\n";
    return text;
}

}  // namespace kelhttp
