#pragma once

#include <termios.h>

#include <chrono>
#include <csignal>
#include <cstddef>
#include <string_view>

#include "kel/types.h"

// How texts fit a terminal. Texts are UTF-8 without control characters; what is ill-formed in one counts as a
// character a byte.

/// The columns of the terminal that stdout is, or of what COLUMNS says about it; 0 when it is none: then
/// nothing is to be shortened.
std::size_t TerminalWidth();

/// The lines of that terminal; 0 when stdout is none.
std::size_t TerminalHeight();

/// The columns that a text takes up: wide East Asian characters and most pictures take two, combining ones
/// none.
std::size_t DisplayWidth(std::string_view text);

/// `text`, or its beginning and "…" when it takes more than `columns`, which are at least 1.
KelString Shortened(const KelString& text, std::size_t columns);

/// A view that is drawn again and again: on a terminal in place, on a screen of its own that the former one
/// comes back from; elsewhere as lines below each other. While it exists, SIGINT and SIGTERM end the view
/// instead of the program. One at a time.
class LiveScreen {
  public:
    LiveScreen();
    ~LiveScreen();
    LiveScreen(const LiveScreen&) = delete;
    LiveScreen& operator=(const LiveScreen&) = delete;

    /// Draws `text`, lines that each end in a newline, as many as there is room for.
    void Show(const KelString& text) const;

    /// Waits so long; false at once when the user ends the view: by q, or by a signal.
    bool Wait(std::chrono::milliseconds time) const;

  private:
    bool isTerminal_;
    bool readsKeys_ = false;
    termios keys_{};  ///< as they were
    struct sigaction onInterrupt_ {};
    struct sigaction onTerminate_ {};
};
