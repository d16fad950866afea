#include "modules/http_protocol/guess_limit.h"

#include <algorithm>

namespace kelhttp {

bool GuessLimit::IsExceeded(IpAddress peer, Clock::time_point now) const {
    const KelLock lock(mutex_);
    const auto found = forgiven_.find(peer.Value());
    return found != forgiven_.end() && found->second - now > (kFailures - 1) * kPause;
}

void GuessLimit::NoteFailure(IpAddress peer, Clock::time_point now) {
    const KelLock lock(mutex_);
    if (forgiven_.size() >= kMaxAddresses && !forgiven_.contains(peer.Value())) {
        std::erase_if(forgiven_, [now](const auto& entry) { return entry.second <= now; });
        // So many addresses at once make the limit of each of them worthless anyway.
        if (forgiven_.size() >= kMaxAddresses) forgiven_.clear();
    }
    Clock::time_point& time = forgiven_[peer.Value()];
    // Failures beyond the limit change nothing: the address recovers as soon as they end.
    time = std::min(std::max(time, now) + kPause, now + kFailures * kPause);
}

std::size_t GuessLimit::CountAddresses() const {
    const KelLock lock(mutex_);
    return forgiven_.size();
}

}  // namespace kelhttp
