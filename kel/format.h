#pragma once

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
#include <type_traits>

#include "kel/types.h"

/// The framework's printf-style formatter.
///
/// | specifier      | argument                                     |
/// |----------------|----------------------------------------------|
/// | %s             | const char*                                  |
/// | %S             | KelString                                    |
/// | %Q             | KelString, every apostrophe doubled          |
/// | %d             | signed integer of at most 32 bits, or bool   |
/// | %u, %x         | unsigned integer of at most 32 bits, or bool |
/// | %ld, %gd       | signed integer of at most 64 bits            |
/// | %lu, %gu       | unsigned integer of at most 64 bits          |
///
/// "%%" is one percent sign; a '%' before anything else stands for itself. Format strings are checked against
/// their arguments when the program is compiled.
namespace kelformat {

enum class Kind : unsigned char { Literal, CString, String, QuotedString, Signed, Unsigned, Hex };

/// What a specifier accepts: a kind and, for numbers, the widest argument in bytes.
struct Specifier {
    Kind kind = Kind::Literal;
    std::size_t width = 0;
    std::size_t length = 0;  ///< characters of the specifier after the percent sign; 0: the sign is literal
};

constexpr Specifier SpecifierAt(const char* afterPercent) {
    switch (afterPercent[0]) {
        case 's':
            return {Kind::CString, 0, 1};
        case 'S':
            return {Kind::String, 0, 1};
        case 'Q':
            return {Kind::QuotedString, 0, 1};
        case 'd':
            return {Kind::Signed, 4, 1};
        case 'u':
            return {Kind::Unsigned, 4, 1};
        case 'x':
            return {Kind::Hex, 4, 1};
        case 'l':
        case 'g':
            if (afterPercent[1] == 'd') return {Kind::Signed, 8, 2};
            if (afterPercent[1] == 'u') return {Kind::Unsigned, 8, 2};
            return {};
        default:
            return {};
    }
}

template <class Argument>
constexpr bool Accepts(Specifier specifier) {
    using Bare = std::remove_cvref_t<Argument>;
    switch (specifier.kind) {
        case Kind::CString:
            return std::is_convertible_v<Argument, const char*>;
        case Kind::String:
        case Kind::QuotedString:
            return std::is_same_v<Bare, KelString>;
        case Kind::Signed:
            return std::is_same_v<Bare, bool> ||
                   (std::is_integral_v<Bare> && std::is_signed_v<Bare> && sizeof(Bare) <= specifier.width);
        case Kind::Unsigned:
        case Kind::Hex:
            return std::is_same_v<Bare, bool> ||
                   (std::is_integral_v<Bare> && std::is_unsigned_v<Bare> && sizeof(Bare) <= specifier.width);
        case Kind::Literal:
            return false;
    }
    return false;
}

/// Never defined: naming it in a constant expression stops the build with its name in the message.
void FormatStringDoesNotMatchItsArguments();

/// A format string proven to fit `Arguments`.
template <class... Arguments>
class Checked {
  public:
    template <std::size_t Length>
    consteval Checked(const char (&text)[Length]) : text_(text) {  // NOLINT(google-explicit-constructor)
        constexpr std::size_t kCount = sizeof...(Arguments);
        using Test = bool (*)(Specifier);
        const std::array<Test, kCount + 1> tests = {&Accepts<Arguments>..., nullptr};
        std::size_t used = 0;
        for (std::size_t i = 0; text[i] != '\0'; ++i) {
            if (text[i] != '%') continue;
            if (text[i + 1] == '%') {
                ++i;
                continue;
            }
            const Specifier specifier = SpecifierAt(text + i + 1);
            if (specifier.length == 0) continue;
            if (used == kCount || !tests[used](specifier)) FormatStringDoesNotMatchItsArguments();
            ++used;
            i += specifier.length;
        }
        if (used != kCount) FormatStringDoesNotMatchItsArguments();
    }

    constexpr const char* Text() const { return text_; }

  private:
    const char* text_;
};

/// One argument, its type erased after the check.
class Argument {
  public:
    Argument(const char* text) : text_(text) {}          // NOLINT(google-explicit-constructor)
    Argument(const KelString& text) : string_(&text) {}  // NOLINT(google-explicit-constructor)
    template <std::integral Number>
    Argument(Number number)  // NOLINT(google-explicit-constructor)
        : number_(static_cast<std::uint64_t>(static_cast<std::int64_t>(number))) {}

    const char* Text() const { return text_ != nullptr ? text_ : ""; }
    const KelString& String() const { return *string_; }
    std::uint64_t Number() const { return number_; }

  private:
    const char* text_ = nullptr;
    const KelString* string_ = nullptr;
    std::uint64_t number_ = 0;
};

KelString Run(const char* format, std::span<const Argument> arguments);

}  // namespace kelformat

template <class... Arguments>
using KelFormatString = kelformat::Checked<std::type_identity_t<Arguments>...>;

/// The text of `format` with its arguments filled in.
template <class... Arguments>
KelString KelFormat(KelFormatString<Arguments...> format, const Arguments&... arguments) {
    const std::array<kelformat::Argument, sizeof...(Arguments) + 1> list = {kelformat::Argument(arguments)...,
                                                                            kelformat::Argument(0)};
    return kelformat::Run(format.Text(), std::span(list).first(sizeof...(Arguments)));
}
