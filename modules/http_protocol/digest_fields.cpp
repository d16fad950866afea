#include "modules/http_protocol/digest_fields.h"

#include "kel/text.h"

namespace kelhttp {
namespace {

KelString* FieldNamed(std::string_view name, DigestFields& fields) {
    struct Entry {
        std::string_view name;
        KelString DigestFields::*field;
    };
    static constexpr Entry kEntries[] = {
        {"username", &DigestFields::username},
        {"realm", &DigestFields::realm},
        {"nonce", &DigestFields::nonce},
        {"uri", &DigestFields::uri},
        {"response", &DigestFields::response},
        {"algorithm", &DigestFields::algorithm},
        {"cnonce", &DigestFields::cnonce},
        {"qop", &DigestFields::qop},
        {"nc", &DigestFields::nc},
    };
    for (const Entry& entry : kEntries) {
        if (name.size() == entry.name.size() && IsEqualTo(name, entry.name, false))
            return &(fields.*entry.field);
    }
    return nullptr;
}

bool TakeQuoted(std::string_view& text, KelString& value) {
    text.remove_prefix(1);
    for (;;) {
        const std::size_t plain = text.find_first_of("\"\\");
        if (plain == std::string_view::npos) return false;
        value.append(text.substr(0, plain));
        const bool isEscape = text[plain] == '\\';
        text.remove_prefix(plain + 1);
        if (!isEscape) return true;
        if (text.empty()) return false;
        value += text.front();
        text.remove_prefix(1);
    }
}

void SkipBlanks(std::string_view& text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
        text.remove_prefix(1);
}

bool TakeValue(std::string_view& text, KelString& value) {
    SkipBlanks(text);
    if (!text.empty() && text.front() == '"') return TakeQuoted(text, value);
    const std::size_t end = std::min(text.find_first_of(", \t"), text.size());
    value = text.substr(0, end);
    text.remove_prefix(end);
    return !value.empty();
}

}  // namespace

bool ParseDigestFields(std::string_view text, DigestFields& fields) {
    for (SkipBlanks(text); !text.empty(); SkipBlanks(text)) {
        if (text.front() == ',') {
            text.remove_prefix(1);
            continue;
        }
        const std::size_t equals = text.find('=');
        if (equals == std::string_view::npos) return false;
        std::string_view name = text.substr(0, equals);
        while (!name.empty() && name.back() == ' ')
            name.remove_suffix(1);
        text.remove_prefix(equals + 1);
        KelString value;
        if (!TakeValue(text, value)) return false;
        SkipBlanks(text);
        if (!text.empty() && text.front() != ',') return false;
        KelString* const field = FieldNamed(name, fields);
        if (field == nullptr) continue;
        if (!field->empty()) return false;
        *field = std::move(value);
    }
    return true;
}

}  // namespace kelhttp
