#include "kelcore/keys/distrust.h"

#include <cstdlib>
#include <ctime>
#include <utility>

#include "kel/format.h"
#include "kel/text.h"
#include "kelcore/agent.h"

KelString CertificateProblemLine(const KelString& problem) {
    KelString line = problem.substr(0, kMaxCertificateProblem);
    for (char& c : line)
        if (c < ' ' || c > '~') c = ' ';
    return line;
}

void KelDistrust::Note(const KelString& place, KelString reason, const KelString& line) {
    log_.Failed(KelDebugLevel::Warning, place, line);
    const KelLock lock(mutex_);
    if (problems_.size() >= kMostPlaces) problems_.clear();
    problems_[ToLowerText(place)] = std::move(reason);
}

void KelDistrust::Clear(const KelString& place) {
    log_.Succeeded(place, place + " is trusted again");
    Forget(place);
}

void KelDistrust::Forget(const KelString& place) {
    const KelLock lock(mutex_);
    problems_.erase(ToLowerText(place));
}

KelString KelDistrust::ProblemAt(const KelString& place) const {
    const KelLock lock(mutex_);
    const auto found = problems_.find(ToLowerText(place));
    return found == problems_.end() ? KelString() : found->second;
}

KelDistrust& Distrust() {
    static KelDistrust distrust(CoreLog());
    return distrust;
}

std::optional<std::int64_t> TimeOfHttpDate(const KelString& date) {
    std::tm parts{};
    if (strptime(date.c_str(), "%a, %d %b %Y %H:%M:%S GMT", &parts) == nullptr) return {};
    return timegm(&parts);
}

KelString ClockDifferenceText(std::int64_t ahead) {
    constexpr std::int64_t kHour = 3600;
    constexpr std::int64_t kDay = 86400;
    const std::int64_t off = std::abs(ahead);
    const char* const side = ahead > 0 ? "ahead of" : "behind";
    if (off >= 2 * kDay) return KelFormat("%gd days %s", off / kDay, side);
    if (off >= 2 * kHour) return KelFormat("%gd hours %s", off / kHour, side);
    return KelFormat("%gd s %s", off, side);
}
