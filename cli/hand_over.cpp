#include "cli/hand_over.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "cli/output.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"

namespace {

constexpr std::size_t kBarWidth = 30;

std::int64_t TotalBytes(const KelVector<SourceFile>& files) {
    std::int64_t total = 0;
    for (const SourceFile& file : files)
        total += std::max<std::int64_t>(FileGetSize64(file.path), 0);
    return total;
}

}  // namespace

KelStatus CheckKeyPart(const char* what, const KelString& part) {
    if (IsSafePathElement(part)) return {};
    return KelError{kKelErrorBadInput, KelFormat("'%S' cannot be a %s: it must be a name of 1 to 255 bytes "
                                                 "without '/', '\\' or control characters",
                                                 part, what)};
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

int HandOverFiles(const Remote& remote, const KelVector<SourceFile>& files, const HandOver& handOver,
                  KelContainer& taken) {
    ProgressBar bar(TotalBytes(files));
    std::int64_t done = 0;
    for (const SourceFile& file : files) {
        bar.Show(done, file.path);
        KelContainer call = handOver.arguments(file);
        if (const unsigned int result = remote.Call(handOver.action, call, kHandOverSeconds);
            result != kKelOk) {
            std::fprintf(stderr, "kel: %s was not %s\n", Printable(file.path).c_str(), handOver.done);
            return ExitCodeOf(result);
        }
        KelContainer item = handOver.item(file, std::move(call));
        done += item.GetInt64(kValueFileSize);
        taken.SetContainer("Values", std::move(item), KelContainer::kAbsent);
    }
    return kExitDone;
}
