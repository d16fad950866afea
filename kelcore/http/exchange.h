#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string_view>

#include "kel/types.h"
#include "kelcore/http/answer_sink.h"
#include "kelcore/http/handle_pool.h"
#include "kelcore/http/managed_transmission.h"
#include "kelcore/http/message.h"
#include "kelcore/http/request_source.h"
#include "kelcore/http/speed_watch.h"

/// Runs one exchange on a handle whose peer (URL, credentials, TLS, proxy) is set already. Used once, on one
/// thread; results are those of HttpClient.
class HttpExchange {
  public:
    /// What stops an exchange before it is complete.
    struct Limits {
        std::function<bool()> cancelled;        ///< asked several times a second
        std::chrono::milliseconds speedWindow;  ///< of HttpSpeedWatch
        bool hasTimeout = false;                ///< the handle has a time-out for the whole exchange
    };

    /// `transmission` may be null; a running one otherwise.
    HttpExchange(HttpHandle& handle, const HttpMessage& request, HttpMessage& answer,
                 HttpManagedTransmission* transmission, Limits limits);
    ~HttpExchange();
    HttpExchange(const HttpExchange&) = delete;
    HttpExchange& operator=(const HttpExchange&) = delete;

    /// True while so low a rate is in force that the system must not receive much ahead of what is taken: the
    /// peer would send it at once, and then hear nothing for minutes.
    static bool IsNarrow(const HttpManagedTransmission* transmission);

    unsigned int Run();
    const KelString& ErrorText() const { return errorText_; }
    /// The peer has closed the connection without an answer.
    bool WasClosed() const { return wasClosed_; }
    /// The peer has challenged in a way that is not answered. The handle remembers the challenge: drop it.
    bool HasUnsafeChallenge() const { return hasUnsafeChallenge_; }

  private:
    static std::size_t OnHeader(char* data, std::size_t size, std::size_t count, void* self);
    static std::size_t OnBody(char* data, std::size_t size, std::size_t count, void* self);
    static std::size_t OnRead(char* buffer, std::size_t size, std::size_t count, void* self);
    static int OnSeek(void* self, std::int64_t offset, int origin);

    template <class Step>
    bool Guard(Step step);
    void SetMethod();
    void SetHeaders();
    void SetCallbacks();
    void AddHeader(const KelString& line);
    void TakeHeader(std::string_view line);
    std::size_t Read(char* buffer, std::size_t size);
    bool Pass(std::uint64_t bytes);
    bool IsPaced() const { return transmission_ != nullptr && transmission_->IsLimited(); }
    bool IsWaiting() const;
    bool AwaitTurn();
    void Charge();
    void Widen();
    bool Drive(int& code);
    bool MustStop();
    unsigned int Conclude(bool done, int code);
    unsigned int Stop(unsigned int result, const char* text);

    HttpHandle& handle_;
    const HttpMessage& request_;
    HttpManagedTransmission* transmission_;
    Limits limits_;
    HttpRequestSource source_;
    HttpAnswerSink sink_;
    HttpSpeedWatch watch_;
    HttpSpeedWatch::Clock::time_point nextCheck_;
    bool isChallenge_ = false;  ///< the answer that comes has status 401
    bool hasUnsafeChallenge_ = false;
    bool wasClosed_ = false;
    bool answering_ = false;   ///< an answer has begun that no further request follows
    void* headers_ = nullptr;  ///< the library's list of request headers
    std::array<char, 256> curlError_{};
    unsigned int stopped_ = 0;  ///< why this side ended the exchange, a result; 0: it did not
    KelString errorText_;
};
