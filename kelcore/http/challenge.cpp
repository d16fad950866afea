#include "kelcore/http/challenge.h"

#include <algorithm>

#include "kel/text.h"

namespace {

constexpr std::string_view kScheme = "Digest";
constexpr std::string_view kBlanks = " \t";

void Skip(std::string_view& text, std::string_view characters) {
    text.remove_prefix(std::min(text.find_first_not_of(characters), text.size()));
}

/// Takes a quoted text, without its quotes, or a token; false when neither is there.
bool TakeValue(std::string_view& text, std::string_view& value) {
    if (!text.starts_with('"')) {
        value = text.substr(0, text.find_first_of(" \t,\""));
        text.remove_prefix(value.size());
        return !value.empty();
    }
    std::size_t end = 1;
    while (end < text.size() && text[end] != '"')
        end += text[end] == '\\' ? 2 : 1;
    if (end >= text.size()) return false;
    value = text.substr(1, end - 1);
    text.remove_prefix(end + 1);
    return true;
}

}  // namespace

bool IsSafeChallenge(std::string_view challenge) {
    Skip(challenge, kBlanks);
    if (!IsEqualTo(challenge.substr(0, kScheme.size()), kScheme, false)) return true;
    challenge.remove_prefix(kScheme.size());
    bool isNamed = false;
    for (Skip(challenge, " \t,"); !challenge.empty(); Skip(challenge, kBlanks)) {
        const std::string_view name = challenge.substr(0, challenge.find_first_of("= \t,\""));
        challenge.remove_prefix(name.size());
        std::string_view value;
        if (name.empty() || !challenge.starts_with('=')) return false;
        challenge.remove_prefix(1);
        if (!TakeValue(challenge, value)) return false;
        Skip(challenge, kBlanks);
        if (!challenge.empty() && challenge.front() != ',') return false;
        Skip(challenge, " \t,");
        if (!IsEqualTo(name, "algorithm", false)) continue;
        if (!IsEqualTo(value, "SHA-256", false)) return false;
        isNamed = true;
    }
    return isNamed;
}
