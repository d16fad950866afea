#include "kelcore/http/handle_pool.h"

#include <curl/curl.h>

#include <algorithm>
#include <iterator>
#include <stdexcept>

HttpHandle::HttpHandle() : easy_(curl_easy_init()), multi_(curl_multi_init()) {
    if (easy_ == nullptr || multi_ == nullptr) {
        curl_easy_cleanup(easy_);
        curl_multi_cleanup(multi_);
        throw std::runtime_error("out of memory for an HTTP handle");
    }
    // A handle talks to one peer, so one connection is all that it needs.
    curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, 1L);
}

HttpHandle::~HttpHandle() {
    curl_easy_cleanup(easy_);
    curl_multi_cleanup(multi_);
}

HttpHandlePool& HttpHandlePool::Instance() {
    static HttpHandlePool pool;
    return pool;
}

HttpHandlePool::HttpHandlePool() {
    curl_global_init(CURL_GLOBAL_DEFAULT);
}

std::unique_ptr<HttpHandle> HttpHandlePool::Acquire(const KelString& peer) {
    KelVector<Idle> expired;  // outside the lock: closing a connection takes time
    std::unique_ptr<HttpHandle> found;
    {
        const KelLock lock(mutex_);
        expired = TakeExpired(Clock::now());
        // The one used last is the least likely to have been closed by the peer.
        const auto last = std::find_if(idle_.rbegin(), idle_.rend(),
                                       [&peer](const Idle& idle) { return idle.peer == peer; });
        if (last != idle_.rend()) {
            found = std::move(last->handle);
            idle_.erase(std::next(last).base());
        }
    }
    return found ? std::move(found) : std::make_unique<HttpHandle>();
}

void HttpHandlePool::Release(const KelString& peer, std::unique_ptr<HttpHandle> handle) {
    KelVector<Idle> dropped;  // destroyed after the lock is released
    const KelLock lock(mutex_);
    dropped = TakeExpired(Clock::now());
    // When there are too many, the oldest goes: of this peer, or else of all.
    const auto isSame = [&peer](const Idle& idle) { return idle.peer == peer; };
    const auto count = std::count_if(idle_.begin(), idle_.end(), isSame);
    auto surplus = idle_.end();
    if (static_cast<std::size_t>(count) >= kMaxIdlePerPeer)
        surplus = std::find_if(idle_.begin(), idle_.end(), isSame);
    else if (idle_.size() >= kMaxIdle)
        surplus = idle_.begin();
    if (surplus != idle_.end()) {
        dropped.push_back(std::move(*surplus));
        idle_.erase(surplus);
    }
    idle_.push_back({peer, std::move(handle), Clock::now()});
}

void HttpHandlePool::CloseIdle() {
    KelVector<Idle> closed;  // likewise
    const KelLock lock(mutex_);
    closed.swap(idle_);
}

KelVector<HttpHandlePool::Idle> HttpHandlePool::TakeExpired(Clock::time_point now) {
    const auto firstFresh = std::find_if(
        idle_.begin(), idle_.end(), [now](const Idle& idle) { return now - idle.since <= kMaxIdleTime; });
    KelVector<Idle> expired(std::make_move_iterator(idle_.begin()), std::make_move_iterator(firstFresh));
    idle_.erase(idle_.begin(), firstFresh);
    return expired;
}
