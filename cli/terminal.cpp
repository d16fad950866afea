#include "cli/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>

#include "kel/text.h"

namespace {

constexpr std::size_t kMostColumns = 10'000;

struct Range {
    char32_t first, last;
};

/// Characters without a width of their own, and those of two columns (Unicode's East Asian Width W and F, in
/// whole blocks).
constexpr auto kCombining = std::to_array<Range>({{0x300, 0x36F},
                                                  {0x483, 0x489},
                                                  {0x591, 0x5BD},
                                                  {0x610, 0x61A},
                                                  {0x64B, 0x65F},
                                                  {0xE31, 0xE31},
                                                  {0xE34, 0xE3A},
                                                  {0xE47, 0xE4E},
                                                  {0x1AB0, 0x1AFF},
                                                  {0x200B, 0x200F},
                                                  {0x20D0, 0x20FF},
                                                  {0x302A, 0x302D},
                                                  {0xFE00, 0xFE0F},
                                                  {0xFE20, 0xFE2F}});
constexpr auto kWide = std::to_array<Range>({{0x1100, 0x115F},
                                             {0x2E80, 0x303E},
                                             {0x3041, 0xA4CF},
                                             {0xA960, 0xA97F},
                                             {0xAC00, 0xD7A3},
                                             {0xF900, 0xFAFF},
                                             {0xFE30, 0xFE6F},
                                             {0xFF00, 0xFF60},
                                             {0xFFE0, 0xFFE6},
                                             {0x1F300, 0x1F64F},
                                             {0x1F680, 0x1F6FF},
                                             {0x1F900, 0x1F9FF},
                                             {0x20000, 0x3FFFD}});

bool IsIn(const auto& ranges, char32_t character) {
    return std::ranges::any_of(
        ranges, [character](Range range) { return character >= range.first && character <= range.last; });
}

std::size_t WidthOf(char32_t character) {
    if (IsIn(kCombining, character)) return 0;
    return IsIn(kWide, character) ? 2 : 1;
}

/// Takes the first character off a text that is not empty.
char32_t TakeCharacter(std::string_view& text) {
    const auto first = static_cast<unsigned char>(text.front());
    const std::size_t length = first < 0xC2 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : first < 0xF5 ? 4 : 1;
    char32_t character = length == 1 ? first : first & (0x7FU >> length);
    for (std::size_t i = 1; i < length; ++i) {
        if (i >= text.size() || (static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) {
            text.remove_prefix(1);
            return first;
        }
        character = character << 6 | (static_cast<unsigned char>(text[i]) & 0x3F);
    }
    text.remove_prefix(length);
    return character;
}

/// What an environment variable says when it is a usable number, else what the terminal says.
std::size_t SizeOfTerminal(const char* variable, unsigned short winsize::*member) {
    if (isatty(STDOUT_FILENO) == 0) return 0;
    const char* const text = std::getenv(variable);
    const auto number = text != nullptr ? ParseUint64(text) : std::nullopt;
    if (number && *number > 0 && *number <= kMostColumns) return *number;
    winsize size{};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ? size.*member : 0;
}

}  // namespace

std::size_t TerminalWidth() {
    return SizeOfTerminal("COLUMNS", &winsize::ws_col);
}

std::size_t TerminalHeight() {
    return SizeOfTerminal("LINES", &winsize::ws_row);
}

std::size_t DisplayWidth(std::string_view text) {
    std::size_t width = 0;
    while (!text.empty())
        width += WidthOf(TakeCharacter(text));
    return width;
}

KelString Shortened(const KelString& text, std::size_t columns) {
    std::string_view rest = text;
    std::size_t width = 0;
    std::size_t kept = 0;  // bytes of the text that fit with the mark behind them
    while (!rest.empty()) {
        const std::size_t before = text.size() - rest.size();
        const std::size_t next = WidthOf(TakeCharacter(rest));
        // A combining character belongs to the one before it.
        if (next > 0 && width < columns) kept = before;
        width += next;
        if (width > columns) return text.substr(0, kept) + "…";
    }
    return text;
}
