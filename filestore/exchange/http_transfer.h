#pragma once

#include <functional>

#include "filestore/db/files_selection.h"
#include "kel/types.h"
#include "kelcore/http/charge.h"
#include "kelcore/http/client.h"
#include "kelcore/http/message.h"
#include "kelcore/http/url.h"

namespace filestore {

/// Moves one file to or from another agent over HTTP, for a worker thread: with the agent's TLS and proxy
/// settings, and paced by the window to the parent unless the file bypasses windows. One thread at a time.
class HttpTransfer {
  public:
    /// `threadName` begins the log lines; `peerUrl` is a call URL, credentials included. `cancelled` ends the
    /// transfer.
    HttpTransfer(const char* threadName, const KelString& peerUrl, std::function<bool()> cancelled);

    /// Results of HttpClient; kHttpBadRequest when the peer's URL is unusable.
    unsigned int Run(const HttpMessage& request, HttpMessage& answer, bool bypass);

    /// True when the transfer that ended with `result` did so because the window is closed: it can go on as
    /// soon as that opens.
    static bool IsHeldByWindow(unsigned int result, bool bypass);

    /// Why the exchange was not completed; empty when there was an answer, whatever its status.
    const KelString& GetErrorText() const { return usable_ ? client_.GetErrorText() : unusable_; }

  private:
    UrlInet peer_;
    bool usable_;
    KelString unusable_ = "the address of the other device cannot be used";
    HttpClient client_;
};

/// What an HttpCharge takes while the calls are made that belong to the transfer of a file: the window,
/// unless the file bypasses that.
HttpBandwidthManager* ChargedFor(bool bypass);

/// Which files may move to and from the parent now: only bypass files while its window is closed.
Passing PassingNow();

}  // namespace filestore
