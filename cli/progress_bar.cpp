#include "cli/progress_bar.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "cli/table.h"

namespace {
constexpr std::size_t kBarWidth = 30;
}

ProgressBar::ProgressBar(std::int64_t whole) : whole_(whole), shown_(isatty(STDERR_FILENO) == 1) {}

ProgressBar::~ProgressBar() {
    if (shown_) std::fputs("\r\x1b[K", stderr);
}

KelString ProgressBar::Text(std::int64_t done, std::int64_t whole, std::size_t width) {
    const double share =
        whole <= 0 ? 1.0 : std::clamp(static_cast<double>(done) / static_cast<double>(whole), 0.0, 1.0);
    const auto marks = static_cast<std::size_t>(share * static_cast<double>(width));
    return "[" + KelString(marks, '#') + KelString(width - marks, '.') + "] " +
           std::to_string(static_cast<int>(share * 100)) + " %";
}

void ProgressBar::Show(std::int64_t done, const KelString& what) {
    if (!shown_) return;
    std::fprintf(stderr, "\r\x1b[K%s  %s", Text(done, whole_, kBarWidth).c_str(), Printable(what).c_str());
    std::fflush(stderr);
}
