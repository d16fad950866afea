#pragma once

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
