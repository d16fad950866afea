#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "kel/types.h"

/// Compares two texts; with `caseSensitive` false the ASCII letters compare equal whatever their case.
bool IsEqualTo(std::string_view left, std::string_view right, bool caseSensitive);

/// `text` with its ASCII letters in lower case.
KelString ToLowerText(std::string_view text);

/// `text` without leading and trailing blanks, tabs, carriage returns and line feeds.
KelString Trim(std::string_view text);

/// `text` with every occurrence of `from` (not empty) replaced by `to`.
KelString ReplaceAll(std::string_view text, std::string_view from, std::string_view to);

/// `text` with every apostrophe doubled, as SQL string literals need it.
KelString DoubleQuotes(std::string_view text);

/// The whole of `text` as a decimal number; nothing when it is empty, has other characters or does not fit.
std::optional<std::int64_t> ParseInt64(std::string_view text);
std::optional<std::uint64_t> ParseUint64(std::string_view text);

/// Bytes as lower-case hexadecimal text, two digits a byte.
KelString HexText(std::string_view bytes);

/// Splits `text` at every `separator`; empty pieces count, so "/a" gives "" and "a", and "" gives one empty
/// piece.
KelVector<KelString> SplitText(std::string_view text, char separator);

/// True when `text` holds a byte below 0x20 or 0x7F.
bool HasControlCharacter(std::string_view text);

/// Offset of the first byte of `text` that is not part of well-formed UTF-8 (RFC 3629), npos when all is.
std::size_t FindIllFormedUtf8(std::string_view text);
inline bool IsValidUtf8(std::string_view text) {
    return FindIllFormedUtf8(text) == std::string_view::npos;
}

/// Walks the pieces of a text between separator characters, empty pieces included: a leading separator yields
/// an empty first token. For use on one thread.
class StringTokeniser {
  public:
    StringTokeniser(const KelString& text, char separator);

    /// Moves the next token into `token`; false when there is none left.
    bool GetNextToken(KelString& token);

    /// The token at `index` (0 first) or an empty text when there are fewer.
    KelString GetToken(std::size_t index) const;

    std::size_t GetTokenCount() const { return tokens_.size(); }

  private:
    KelVector<KelString> tokens_;
    std::size_t next_ = 0;
};
