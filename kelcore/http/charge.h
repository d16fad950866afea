#pragma once

class HttpBandwidthManager;

/// While it lives, what the exchanges of this thread move that no transmission paces is accounted for in the
/// queue of a bandwidth manager: they do not wait, but the transmissions that follow pay for them. For calls
/// that are part of the transfer of a file. One scope at a time on a thread.
class HttpCharge {
  public:
    /// `manager` may be null: nothing is accounted for.
    explicit HttpCharge(HttpBandwidthManager* manager);
    ~HttpCharge();
    HttpCharge(const HttpCharge&) = delete;
    HttpCharge& operator=(const HttpCharge&) = delete;

    /// The manager of the scope that this thread is in; null for none.
    static HttpBandwidthManager* Manager();
};
