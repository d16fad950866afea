#include "kel/format.h"

#include <charconv>
#include <cstring>

namespace kelformat {
namespace {

template <class Number>
void AppendNumber(KelString& text, Number number, int base = 10) {
    char digits[24];
    const auto end = std::to_chars(digits, digits + sizeof digits, number, base).ptr;
    text.append(digits, end);
}

void AppendQuoted(KelString& text, const KelString& value) {
    for (const char c : value) {
        if (c == '\'') text += '\'';
        text += c;
    }
}

void Append(KelString& text, Kind kind, const Argument& argument) {
    switch (kind) {
        case Kind::CString:
            text += argument.Text();
            break;
        case Kind::String:
            text += argument.String();
            break;
        case Kind::QuotedString:
            AppendQuoted(text, argument.String());
            break;
        case Kind::Signed:
            AppendNumber(text, static_cast<std::int64_t>(argument.Number()));
            break;
        case Kind::Unsigned:
            AppendNumber(text, argument.Number());
            break;
        case Kind::Hex:
            AppendNumber(text, argument.Number(), 16);
            break;
        case Kind::Literal:
            break;
    }
}

}  // namespace

KelString Run(const char* format, std::span<const Argument> arguments) {
    KelString text;
    text.reserve(std::strlen(format) + 32 * arguments.size());
    std::size_t next = 0;
    for (;;) {
        const char* percent = std::strchr(format, '%');
        if (percent == nullptr) {
            text += format;
            return text;
        }
        text.append(format, percent);
        format = percent + 1;
        if (*format == '%') {
            text += '%';
            ++format;
            continue;
        }
        const Specifier specifier = SpecifierAt(format);
        // Checked format strings have an argument for each specifier; the second test only bounds the index.
        if (specifier.length == 0 || next == arguments.size()) {
            text += '%';
            continue;
        }
        Append(text, specifier.kind, arguments[next++]);
        format += specifier.length;
    }
}

}  // namespace kelformat
