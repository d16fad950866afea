#include "kelcore/http/exchange.h"

#include <curl/curl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <exception>
#include <new>
#include <span>
#include <stdexcept>

#include "kel/text.h"
#include "kelcore/http/challenge.h"
#include "kelcore/http/charge.h"
#include "kelcore/http/client.h"

namespace {

constexpr int kPollMilliseconds = 200;  ///< the longest time between two checks for cancellation
constexpr auto kCheckEvery = std::chrono::milliseconds(100);
constexpr long kLargeBuffer = 512L << 10;
constexpr long kLeastBuffer = 1L << 10;

/// Below, a connection is narrow: about 1.3 Mbit/s.
constexpr std::size_t kNarrowPiece = 8 << 10;
constexpr int kNarrowBuffer = 16 << 10;
constexpr int kWideBuffer = 4 << 20;

int NarrowSocket(void*, curl_socket_t socket, curlsocktype) {
    setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &kNarrowBuffer, sizeof kNarrowBuffer);
    return CURL_SOCKOPT_OK;
}

unsigned int ResultOf(CURLcode code, bool begun) {
    switch (code) {
        case CURLE_OK:
            return kHttpCompleted;
        case CURLE_URL_MALFORMAT:
            return kHttpBadRequest;
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CIPHER:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_ISSUER_ERROR:
        case CURLE_SSL_INVALIDCERTSTATUS:
        case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
        case CURLE_SSL_ENGINE_INITFAILED:
            return kHttpSecurity;
        case CURLE_UNSUPPORTED_PROTOCOL:  // an answer without a status line
        case CURLE_WEIRD_SERVER_REPLY:
        case CURLE_BAD_CONTENT_ENCODING:
        case CURLE_TOO_MANY_REDIRECTS:
            return kHttpBadAnswer;
        default:
            return begun ? kHttpCutOff : kHttpUnreachable;
    }
}

}  // namespace

bool HttpExchange::IsNarrow(const HttpManagedTransmission* transmission) {
    return transmission != nullptr && transmission->IsLimited() && transmission->PieceBytes() < kNarrowPiece;
}

HttpExchange::HttpExchange(HttpHandle& handle, const HttpMessage& request, HttpMessage& answer,
                           HttpManagedTransmission* transmission, Limits limits)
    : handle_(handle),
      request_(request),
      transmission_(transmission),
      limits_(std::move(limits)),
      source_(request),
      sink_(request, answer),
      watch_(HttpSpeedWatch::Clock::now(), limits_.speedWindow) {}

HttpExchange::~HttpExchange() {
    curl_easy_setopt(handle_.Easy(), CURLOPT_HTTPHEADER, nullptr);
    curl_easy_setopt(handle_.Easy(), CURLOPT_ERRORBUFFER, nullptr);
    curl_slist_free_all(static_cast<curl_slist*>(headers_));
}

unsigned int HttpExchange::Run() {
    if (!source_.Open()) {
        errorText_ = source_.ErrorText();
        return kHttpLocalFile;
    }
    SetMethod();
    SetHeaders();
    SetCallbacks();
    if (!AwaitTurn()) return stopped_;
    curl_multi_add_handle(handle_.Multi(), handle_.Easy());
    int code = CURLE_OK;
    const bool done = Drive(code);
    curl_multi_remove_handle(handle_.Multi(), handle_.Easy());
    Charge();
    return Conclude(done, code);
}

void HttpExchange::SetMethod() {
    CURL* easy = handle_.Easy();
    curl_easy_setopt(easy, CURLOPT_NOBODY, 0L);
    curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
    const auto size = static_cast<curl_off_t>(source_.Size());
    switch (request_.GetMethod()) {
        case HttpMethod::Get:
            break;
        case HttpMethod::Head:
            curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
            break;
        case HttpMethod::Post:
            curl_easy_setopt(easy, CURLOPT_POST, 1L);
            curl_easy_setopt(easy, CURLOPT_POSTFIELDS, nullptr);
            curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, size);
            break;
        case HttpMethod::Put:
            curl_easy_setopt(easy, CURLOPT_UPLOAD, 1L);
            curl_easy_setopt(easy, CURLOPT_INFILESIZE_LARGE, size);
            break;
    }
}

void HttpExchange::SetHeaders() {
    const bool post = request_.GetMethod() == HttpMethod::Post;
    if (!request_.GetContentType().empty())
        AddHeader("Content-Type: " + request_.GetContentType());
    else if (post)
        AddHeader("Content-Type: application/octet-stream");
    if (const KelString caller = request_.GetHeader("kel-caller"); !caller.empty())
        AddHeader("Kel-Caller: " + caller);
    if (handle_.hasNewerPassword) AddHeader("Kel-Password: both");
    if (request_.GetRangeStart() > 0) {
        AddHeader("Range: bytes=" + std::to_string(request_.GetRangeStart()) + "-");
        if (!request_.GetIfRange().empty()) AddHeader("If-Range: " + request_.GetIfRange());
    }
    if (const KelString range = source_.ContentRange(); !range.empty()) AddHeader("Content-Range: " + range);
    curl_easy_setopt(handle_.Easy(), CURLOPT_HTTPHEADER, static_cast<curl_slist*>(headers_));
}

void HttpExchange::AddHeader(const KelString& line) {
    curl_slist* longer = curl_slist_append(static_cast<curl_slist*>(headers_), line.c_str());
    if (longer == nullptr) throw std::bad_alloc();
    headers_ = longer;
}

void HttpExchange::SetCallbacks() {
    CURL* easy = handle_.Easy();
    // Small, so that paced bytes flow evenly.
    const long buffer =
        IsPaced() ? std::clamp(static_cast<long>(transmission_->PieceBytes()), kLeastBuffer, kLargeBuffer)
                  : kLargeBuffer;
    curl_easy_setopt(easy, CURLOPT_SOCKOPTFUNCTION, handle_.isNarrow ? &NarrowSocket : nullptr);
    curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, buffer);
    curl_easy_setopt(easy, CURLOPT_UPLOAD_BUFFERSIZE, buffer);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &HttpExchange::OnHeader);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, this);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &HttpExchange::OnBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
    curl_easy_setopt(easy, CURLOPT_READFUNCTION, &HttpExchange::OnRead);
    curl_easy_setopt(easy, CURLOPT_READDATA, this);
    curl_easy_setopt(easy, CURLOPT_SEEKFUNCTION, &HttpExchange::OnSeek);
    curl_easy_setopt(easy, CURLOPT_SEEKDATA, this);
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, curlError_.data());
}

/// Runs the transfer to its end; false when this side stopped it before.
bool HttpExchange::Drive(int& code) {
    int running = 0;
    while (true) {
        if (MustStop()) return false;
        if (curl_multi_perform(handle_.Multi(), &running) != CURLM_OK) {
            code = CURLE_OUT_OF_MEMORY;
            return true;
        }
        int left = 0;
        while (const CURLMsg* message = curl_multi_info_read(handle_.Multi(), &left)) {
            if (message->msg != CURLMSG_DONE) continue;
            code = message->data.result;
            return true;
        }
        curl_multi_poll(handle_.Multi(), nullptr, 0, kPollMilliseconds, nullptr);
    }
}

/// True while the peer works on a request that has been sent whole; the time-out limits how long.
bool HttpExchange::IsWaiting() const {
    return limits_.hasTimeout && source_.IsAtEnd() && !answering_;
}

bool HttpExchange::MustStop() {
    const auto now = HttpSpeedWatch::Clock::now();
    if (now < nextCheck_) return false;
    nextCheck_ = now + kCheckEvery;
    if (limits_.cancelled()) return Stop(kHttpCutOff, "cancelled") != 0;
    if (IsWaiting()) watch_.Restart(now);
    if (!watch_.IsTooSlow(now, IsPaced())) return false;
    return Stop(sink_.IsBegun() ? kHttpCutOff : kHttpUnreachable, "the peer has become too slow") != 0;
}

unsigned int HttpExchange::Stop(unsigned int result, const char* text) {
    stopped_ = result;
    errorText_ = text;
    return result;
}

unsigned int HttpExchange::Conclude(bool done, int code) {
    auto curlCode = static_cast<CURLcode>(code);
    // The library reports a connection that closes within the headers as the end of an answer.
    if (curlCode == CURLE_OK && !sink_.HasHeaders()) curlCode = CURLE_GOT_NOTHING;
    wasClosed_ = done &&
                 (curlCode == CURLE_GOT_NOTHING || curlCode == CURLE_RECV_ERROR ||
                  curlCode == CURLE_SEND_ERROR || curlCode == CURLE_UNSUPPORTED_PROTOCOL) &&
                 !sink_.HasHeaders();
    const bool whole = done && curlCode == CURLE_OK && stopped_ == 0;
    const unsigned int sunk = sink_.Finish(whole);
    if (hasUnsafeChallenge_) return kHttpSecurity;
    if (stopped_ != 0) return stopped_;
    if (sunk != 0) {
        errorText_ = sink_.ErrorText();
        return sunk;
    }
    if (sink_.IsEnough()) return kHttpCompleted;
    const unsigned int result = ResultOf(curlCode, sink_.IsBegun());
    if (result != kHttpCompleted)
        errorText_ = curlError_[0] != 0 ? KelString(curlError_.data()) : curl_easy_strerror(curlCode);
    return result;
}

/// An exception must not pass through the library's frames; it stops the exchange instead.
template <class Step>
bool HttpExchange::Guard(Step step) {
    try {
        return step();
    } catch (const std::exception& error) {
        Stop(kHttpUnreachable, error.what());
        return false;
    }
}

std::size_t HttpExchange::OnHeader(char* data, std::size_t size, std::size_t count, void* self) {
    const std::size_t bytes = size * count;
    const bool taken = static_cast<HttpExchange*>(self)->Guard([=] {
        static_cast<HttpExchange*>(self)->TakeHeader(std::string_view(data, bytes));
        return true;
    });
    return taken ? bytes : bytes + 1;
}

void HttpExchange::TakeHeader(std::string_view line) {
    if (line.starts_with("HTTP/")) {
        long status = 0;
        curl_easy_getinfo(handle_.Easy(), CURLINFO_RESPONSE_CODE, &status);
        const auto code = static_cast<unsigned int>(status);
        answering_ = code >= kHttpStatusOk && code != kHttpStatusUnauthorized;
        isChallenge_ = code == kHttpStatusUnauthorized;
        sink_.OnStatus(code);
        return;
    }
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) {
        if (line == "\r\n" || line == "\n") sink_.OnHeadersEnd();
        return;
    }
    KelString name(line.substr(0, colon));
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    const KelString value = Trim(line.substr(colon + 1));
    // The library would answer any challenge. It passes the line on before it does.
    if (isChallenge_ && name == "www-authenticate" && !IsSafeChallenge(value)) {
        hasUnsafeChallenge_ = true;
        throw std::runtime_error("the server asks for credentials in an unsafe way, not with SHA-256");
    }
    sink_.OnHeader(name, value);
}

std::size_t HttpExchange::OnBody(char* data, std::size_t size, std::size_t count, void* self) {
    auto& exchange = *static_cast<HttpExchange*>(self);
    const std::size_t bytes = size * count;
    // The bytes have arrived: they are kept even when the window closes during the pause that they cost.
    const bool taken = exchange.Guard([&exchange, data, bytes] {
        return exchange.sink_.OnBody(std::string_view(data, bytes)) && exchange.Pass(bytes);
    });
    return taken ? bytes : bytes + 1;
}

std::size_t HttpExchange::OnRead(char* buffer, std::size_t size, std::size_t count, void* self) {
    std::size_t got = CURL_READFUNC_ABORT;
    static_cast<HttpExchange*>(self)->Guard([&got, buffer, size, count, self] {
        got = static_cast<HttpExchange*>(self)->Read(buffer, size * count);
        return true;
    });
    return got;
}

std::size_t HttpExchange::Read(char* buffer, std::size_t size) {
    if (IsPaced()) size = std::min(size, transmission_->PieceBytes());
    const std::optional<std::size_t> got = source_.Read(std::span(buffer, size));
    if (!got) {
        Stop(kHttpLocalFile, source_.ErrorText().c_str());
        return CURL_READFUNC_ABORT;
    }
    if (*got > 0 && !Pass(*got)) return CURL_READFUNC_ABORT;
    if (source_.IsAtEnd()) watch_.OnRequestSent(source_.Size(), HttpSpeedWatch::Clock::now());
    return *got;
}

bool HttpExchange::Pass(std::uint64_t bytes) {
    const bool going = transmission_ == nullptr || transmission_->Pass(bytes, limits_.cancelled);
    watch_.OnBytes(bytes);
    if (handle_.isNarrow && !IsNarrow(transmission_)) Widen();
    if (!going) Stop(kHttpCutOff, limits_.cancelled() ? "cancelled" : "the transfer window has closed");
    return going;
}

/// Waits until what passed before is paid; false when this exchange must not begin.
bool HttpExchange::AwaitTurn() {
    if (transmission_ != nullptr && !transmission_->Pass(0, limits_.cancelled)) {
        Stop(kHttpCutOff, limits_.cancelled() ? "cancelled" : "the transfer window has closed");
        return false;
    }
    watch_.Restart(HttpSpeedWatch::Clock::now());
    return true;
}

/// Heads count against the rate as bodies do: they are most of what small files cost. Their size is known at
/// the end, so what follows pays for them; this exchange is complete. The bodies of an exchange that is not
/// paced count in the same way, where it is a part of transfers that are.
void HttpExchange::Charge() {
    HttpBandwidthManager* const other = HttpCharge::Manager();
    if (transmission_ == nullptr && (other == nullptr || !other->BandwidthIsLimited())) return;
    long sent = 0;
    long received = 0;
    curl_easy_getinfo(handle_.Easy(), CURLINFO_REQUEST_SIZE, &sent);
    curl_easy_getinfo(handle_.Easy(), CURLINFO_HEADER_SIZE, &received);
    const auto heads = static_cast<std::uint64_t>(sent) + static_cast<std::uint64_t>(received);
    if (transmission_ != nullptr) return transmission_->Charge(heads);
    curl_off_t bodySent = 0;
    curl_off_t bodyReceived = 0;
    curl_easy_getinfo(handle_.Easy(), CURLINFO_SIZE_UPLOAD_T, &bodySent);
    curl_easy_getinfo(handle_.Easy(), CURLINFO_SIZE_DOWNLOAD_T, &bodyReceived);
    other->rateQueue.Add(heads + static_cast<std::uint64_t>(bodySent + bodyReceived),
                         HttpRateQueue::Clock::now());
}

/// The rate of a transfer on a narrow connection has risen: the socket takes as much as the system allows.
void HttpExchange::Widen() {
    curl_socket_t socket = CURL_SOCKET_BAD;
    if (curl_easy_getinfo(handle_.Easy(), CURLINFO_ACTIVESOCKET, &socket) == CURLE_OK &&
        socket != CURL_SOCKET_BAD)
        setsockopt(socket, SOL_SOCKET, SO_RCVBUF, &kWideBuffer, sizeof kWideBuffer);
    handle_.isNarrow = false;
}

int HttpExchange::OnSeek(void* self, std::int64_t offset, int origin) {
    const bool found = origin == SEEK_SET && offset >= 0 &&
                       static_cast<HttpExchange*>(self)->source_.Seek(static_cast<std::uint64_t>(offset));
    return found ? CURL_SEEKFUNC_OK : CURL_SEEKFUNC_FAIL;
}
