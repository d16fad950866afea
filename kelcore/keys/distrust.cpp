#include "kelcore/keys/distrust.h"

#include <utility>

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
