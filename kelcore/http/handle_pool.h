#pragma once

#include <chrono>
#include <memory>

#include "kel/mutex.h"
#include "kel/types.h"
#include "kelcore/keys/peer_check.h"

/// A transfer handle of the HTTP library with the connections it keeps open and what it remembers of the
/// peer's authentication (digest nonce and its count). One exchange at a time.
class HttpHandle {
  public:
    HttpHandle();  ///< throws std::runtime_error when the library cannot make one
    ~HttpHandle();
    HttpHandle(const HttpHandle&) = delete;
    HttpHandle& operator=(const HttpHandle&) = delete;

    // The library's own handles, whose types are void outside its headers.
    void* Easy() const { return easy_; }
    void* Multi() const { return multi_; }

    /// The authentication schemes to offer, in the library's bits; 0 until the peer has named its own.
    long authSchemes = 0;

    /// Its connections are made with small receive buffers, for transfers at low rates.
    bool isNarrow = false;

    /// This device has a newer password of the tree than the one of this handle, and says so.
    bool hasNewerPassword = false;

    /// Checks the peer of its connections in a tree with keys; null otherwise.
    std::unique_ptr<KelPeerCheck> peerCheck;

  private:
    void* easy_ = nullptr;
    void* multi_ = nullptr;
};

/// Keeps idle handles by peer, so that the next exchange finds an open connection and a valid nonce. At most
/// kMaxIdlePerPeer of a peer and kMaxIdle in all are kept; those idle longer than kMaxIdleTime are closed
/// when the pool is next used. Any thread.
class HttpHandlePool {
  public:
    static constexpr std::size_t kMaxIdlePerPeer = 32;
    static constexpr std::size_t kMaxIdle = 256;
    static constexpr std::chrono::seconds kMaxIdleTime{60};

    static HttpHandlePool& Instance();

    /// The handle of `peer` that was used last, or a new one. Throws as HttpHandle does.
    std::unique_ptr<HttpHandle> Acquire(const KelString& peer);
    void Release(const KelString& peer, std::unique_ptr<HttpHandle> handle);
    void CloseIdle();

  private:
    using Clock = std::chrono::steady_clock;
    struct Idle {
        KelString peer;
        std::unique_ptr<HttpHandle> handle;
        Clock::time_point since;
    };

    HttpHandlePool();
    KelVector<Idle> TakeExpired(Clock::time_point now) KEL_REQUIRES(mutex_);

    KelMutex mutex_;                               ///< not held while a connection is closed
    KelVector<Idle> idle_ KEL_GUARDED_BY(mutex_);  ///< the one used last at the end
};
