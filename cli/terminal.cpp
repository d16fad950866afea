#include "cli/terminal.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
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

volatile std::sig_atomic_t g_ended = 0;

/// Of a terminal that does not say.
constexpr std::size_t kUnknownHeight = 24;

// Escape sequences of terminals (ECMA-48, and the other screen of xterm).
constexpr const char* kOwnScreen = "\x1b[?1049h\x1b[?25l";
constexpr const char* kFormerScreen = "\x1b[?25h\x1b[?1049l";
constexpr const char* kHome = "\x1b[H";
constexpr const char* kRestOfLine = "\x1b[K";
constexpr const char* kRestOfScreen = "\x1b[J";

struct sigaction OnSignal(int signal, void (*handler)(int)) {
    struct sigaction action {
    }, former{};
    action.sa_handler = handler;
    sigaction(signal, &action, &former);
    return former;
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

LiveScreen::LiveScreen() : isTerminal_(isatty(STDOUT_FILENO) == 1) {
    readsKeys_ = isTerminal_ && tcgetattr(STDIN_FILENO, &keys_) == 0;
    g_ended = 0;
    onInterrupt_ = OnSignal(SIGINT, [](int) { g_ended = 1; });
    onTerminate_ = OnSignal(SIGTERM, [](int) { g_ended = 1; });
    if (readsKeys_) {
        termios keys = keys_;
        keys.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        keys.c_cc[VSUSP] = _POSIX_VDISABLE;  // a stopped program would leave its screen behind
        tcsetattr(STDIN_FILENO, TCSANOW, &keys);
    }
    if (isTerminal_) std::fputs(kOwnScreen, stdout);
}

LiveScreen::~LiveScreen() {
    if (isTerminal_) {
        std::fputs(kFormerScreen, stdout);
        std::fflush(stdout);
    }
    if (readsKeys_) tcsetattr(STDIN_FILENO, TCSAFLUSH, &keys_);
    sigaction(SIGINT, &onInterrupt_, nullptr);
    sigaction(SIGTERM, &onTerminate_, nullptr);
}

void LiveScreen::Show(const KelString& text) const {
    KelString shown = text;
    if (isTerminal_) {
        shown = kHome;
        const std::size_t width = TerminalWidth();
        const std::size_t height = TerminalHeight();
        std::size_t left = height > 0 ? height : kUnknownHeight;
        for (const KelString& line : SplitText(text, '\n')) {
            if (left <= 1) break;  // the last line of the screen stays empty: a newline there would scroll
            --left;
            shown += (width > 0 ? Shortened(line, width) : line) + kRestOfLine + "\n";
        }
        shown += kRestOfScreen;
    }
    std::fputs(shown.c_str(), stdout);
    std::fflush(stdout);
}

bool LiveScreen::Wait(std::chrono::milliseconds time) const {
    const auto end = std::chrono::steady_clock::now() + time;
    while (g_ended == 0) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (left.count() <= 0) return true;
        pollfd input{STDIN_FILENO, POLLIN, 0};
        const nfds_t inputs = readsKeys_ ? 1 : 0;
        if (poll(&input, inputs, static_cast<int>(left.count())) <= 0) continue;
        char key = 0;
        if (read(STDIN_FILENO, &key, 1) <= 0 || key == 'q' || key == 'Q') return false;
    }
    return false;
}
