#pragma once

#include <functional>

#include "kel/types.h"
#include "kelcore/http/client.h"
#include "kelcore/http/message.h"
#include "kelcore/http/url.h"

namespace filestore {

/// One file's way to or from another agent over HTTP, for a worker thread: with the agent's TLS and proxy
/// switches, and paced by the window to the parent unless the file may bypass it. One thread at a time.
class HttpTransfer {
  public:
    /// `threadName` begins the log lines; `peerUrl` is a call URL, credentials included. `cancelled` ends the
    /// transfer.
    HttpTransfer(const char* threadName, const KelString& peerUrl, std::function<bool()> cancelled);

    /// Results of HttpClient; kHttpBadRequest when the peer's URL is unusable.
    unsigned int Run(const HttpMessage& request, HttpMessage& answer, bool bypass);

    const KelString& GetErrorText() const { return client_.GetErrorText(); }

  private:
    void SetUpSecurity(const char* threadName);

    UrlInet peer_;
    bool usable_;
    HttpClient client_;
};

/// "AND Bypass = 1" while the window to the parent is closed: only such files may move then. Else empty.
KelString BypassFilter();

}  // namespace filestore
