#include "kelcore/http/client.h"

#include <curl/curl.h>

#include <atomic>
#include <exception>
#include <memory>
#include <utility>

#include "kel/text.h"
#include "kelcore/agent.h"
#include "kelcore/http/exchange.h"
#include "kelcore/http/handle_pool.h"
#include "kelcore/http/url.h"

namespace {

constexpr int kDefaultConnectTimeout = 10;  // seconds
constexpr long kMaxConnectionIdle = 55;     // seconds; servers close idle connections after a minute

std::atomic<bool> allCancelled = false;

/// A path that can stand in a request line, and texts that can stand in its headers.
bool IsUsable(const HttpMessage& request) {
    const KelString& path = request.GetResourcePath();
    return path.starts_with('/') && path.find('\0') == KelString::npos &&
           !HasControlCharacter(request.GetIfRange()) && !HasControlCharacter(request.GetContentType());
}

bool IsUsableHost(const KelString& host, std::uint16_t port) {
    UrlInet parsed;
    return port != 0 && UrlParseInet("http://" + host, parsed) && parsed.host == host;
}

/// What makes two exchanges share a handle.
KelString PeerKey(const KelString& base, const KelString& user, const AgentSecuritySslContext& ssl) {
    KelString key = base + '\n' + user + '\n' + KelAgentGetAddress();
    if (ssl) key += '\n' + ssl->caFile + '\n' + ssl->certificateFile + '\n' + ssl->keyFile;
    return key;
}

void SetConnection(CURL* easy, int connectTimeout, int exchangeTimeout) {
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    curl_easy_setopt(easy, CURLOPT_IPRESOLVE, static_cast<long>(CURL_IPRESOLVE_V4));
    // A path names a file. "." and ".." go to the server as they are, which refuses them.
    curl_easy_setopt(easy, CURLOPT_PATH_AS_IS, 1L);
    curl_easy_setopt(easy, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(easy, CURLOPT_MAXAGE_CONN, kMaxConnectionIdle);
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT,
                     static_cast<long>(connectTimeout > 0 ? connectTimeout : kDefaultConnectTimeout));
    curl_easy_setopt(easy, CURLOPT_TIMEOUT, static_cast<long>(exchangeTimeout > 0 ? exchangeTimeout : 0));
    // Several agents may run on one host, and a parent recognises its children by their addresses.
    const KelString& own = KelAgentGetAddress();
    curl_easy_setopt(easy, CURLOPT_INTERFACE, own.empty() ? nullptr : ("host!" + own).c_str());
}

/// The library connects to a socket only when neither address nor kind of addresses are given.
void SetSocketPath(CURL* easy, const KelString& path) {
    curl_easy_setopt(easy, CURLOPT_UNIX_SOCKET_PATH, path.c_str());
    curl_easy_setopt(easy, CURLOPT_INTERFACE, nullptr);
    curl_easy_setopt(easy, CURLOPT_IPRESOLVE, static_cast<long>(CURL_IPRESOLVE_WHATEVER));
}

void SetProxy(CURL* easy, const KelString& proxy) {
    // Proxies of the environment are never asked.
    curl_easy_setopt(easy, CURLOPT_PROXY, proxy.c_str());
    curl_easy_setopt(easy, CURLOPT_NOPROXY, proxy.empty() ? "*" : "");
}

void SetTls(CURL* easy, const AgentSecuritySslSettings& settings) {
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(easy, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    if (!settings.caFile.empty()) curl_easy_setopt(easy, CURLOPT_CAINFO, settings.caFile.c_str());
    if (!settings.certificateFile.empty())
        curl_easy_setopt(easy, CURLOPT_SSLCERT, settings.certificateFile.c_str());
    if (!settings.keyFile.empty()) curl_easy_setopt(easy, CURLOPT_SSLKEY, settings.keyFile.c_str());
}

void SetCredentials(HttpHandle& handle, const KelString& user, const KelString& password, bool secure) {
    CURL* easy = handle.Easy();
    // Basic sends the password itself.
    const long offered =
        secure ? static_cast<long>(CURLAUTH_DIGEST | CURLAUTH_BASIC) : static_cast<long>(CURLAUTH_DIGEST);
    curl_easy_setopt(easy, CURLOPT_HTTPAUTH, handle.authSchemes != 0 ? handle.authSchemes : offered);
    curl_easy_setopt(easy, CURLOPT_USERNAME, user.empty() ? nullptr : user.c_str());
    curl_easy_setopt(easy, CURLOPT_PASSWORD, user.empty() ? nullptr : password.c_str());
}

/// With a single scheme to offer the library sends its credentials at once, with several it asks first.
void RememberScheme(HttpHandle& handle, bool secure) {
    long available = 0;
    curl_easy_getinfo(handle.Easy(), CURLINFO_HTTPAUTH_AVAIL, &available);
    if ((available & static_cast<long>(CURLAUTH_DIGEST)) != 0)
        handle.authSchemes = static_cast<long>(CURLAUTH_DIGEST);
    else if (secure && (available & static_cast<long>(CURLAUTH_BASIC)) != 0)
        handle.authSchemes = static_cast<long>(CURLAUTH_BASIC);
}

IpAddress LocalAddressOf(CURL* easy) {
    const char* text = nullptr;
    if (curl_easy_getinfo(easy, CURLINFO_LOCAL_IP, &text) != CURLE_OK || text == nullptr) return {};
    return IpAddress::Parse(text).value_or(IpAddress());
}

}  // namespace

HttpClient::HttpClient(int connectTimeout, int exchangeTimeout)
    : connectTimeout_(connectTimeout), exchangeTimeout_(exchangeTimeout) {}

void HttpClient::SetServer(const KelString& host, std::uint16_t port) {
    host_ = host;
    port_ = port;
}

void HttpClient::SetAuthentification(const KelString& user, const KelString& password) {
    user_ = user;
    password_ = password;
}

void HttpClient::EnableSsl(AgentSecuritySslContext context) {
    ssl_ = std::move(context);
}

void HttpClient::EnablePac(AgentSecurityPacContext context) {
    pac_ = std::move(context);
}

void HttpClient::EnableAgentSecurity(bool needsTls) {
    if (AgentSecuritySslForceSecCli()) {
        EnableSsl(AgentSecuritySslCliCtxAcquire());
    } else if (needsTls) {
        EnableSsl(std::make_shared<const AgentSecuritySslSettings>());
    }
    if (AgentSecurityPacForceSecCli()) EnablePac(AgentSecurityPacShrCtxAcquire());
}

unsigned int HttpClient::SendAndRecv(const HttpMessage& request, HttpMessage& answer) {
    return Exchange(request, answer, nullptr);
}

unsigned int HttpClient::SendAndRecv(const HttpMessage& request, HttpMessage& answer,
                                     HttpManagedTransmission& transmission) {
    transmission.SetPeer([host = host_] { return IpAddress::Resolve(host); });
    if (!transmission.Start()) {
        errorText_ = "the bandwidth manager allows no transfer now";
        return kHttpRefused;
    }
    return Exchange(request, answer, &transmission);
}

unsigned int HttpClient::Exchange(const HttpMessage& request, HttpMessage& answer,
                                  HttpManagedTransmission* transmission) {
    errorText_.clear();
    unsigned int result = kHttpBadRequest;
    if (allCancelled) {
        result = kHttpCutOff;
        errorText_ = "the agent stops";
    } else if (!IsUsableHost(host_, port_)) {
        errorText_ = "unusable server \"" + host_ + "\" port " + std::to_string(port_);
    } else if (!IsUsable(request)) {
        errorText_ = "unusable request for \"" + request.GetResourcePath() + "\"";
    } else {
        try {
            result = RunOnHandle(request, answer, transmission);
        } catch (const std::exception& error) {
            result = kHttpUnreachable;
            errorText_ = error.what();
        }
    }
    if (result != kHttpCompleted && log_ != nullptr)
        log_->Detail("HTTP client: %S:%d%S: result %u, %S\n", host_, static_cast<int>(port_),
                     request.GetResourcePath(), result, errorText_);
    return result;
}

unsigned int HttpClient::RunOnHandle(const HttpMessage& request, HttpMessage& answer,
                                     HttpManagedTransmission* transmission) {
    const bool secure = ssl_ != nullptr;
    const KelString base = (secure ? "https://" : "http://") + host_ + ":" + std::to_string(port_);
    const KelString url = base + UrlEncodePath(request.GetResourcePath());
    const bool isNarrow = HttpExchange::IsNarrow(transmission);
    const KelString key = PeerKey(base, user_, ssl_) + (isNarrow ? "\nnarrow" : "") + "\n" + socket_;
    std::unique_ptr<HttpHandle> handle = HttpHandlePool::Instance().Acquire(key);
    handle->isNarrow = isNarrow;
    CURL* easy = handle->Easy();
    SetConnection(easy, connectTimeout_, exchangeTimeout_);
    curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    if (!socket_.empty()) SetSocketPath(easy, socket_);
    SetProxy(easy, pac_ ? AgentSecurityPacFindProxy(*pac_, url, host_) : KelString());
    if (secure) SetTls(easy, *ssl_);
    SetCredentials(*handle, user_, password_, secure);
    unsigned int result = kHttpCompleted;
    {
        HttpExchange exchange(*handle, request, answer, transmission,
                              {.cancelled = [this] { return allCancelled || (cancelled_ && cancelled_()); },
                               .speedWindow = speedWindow_,
                               .hasTimeout = exchangeTimeout_ > 0});
        result = exchange.Run();
        errorText_ = exchange.ErrorText();
        if (exchange.HasUnsafeChallenge()) return result;
    }
    RememberScheme(*handle, secure);
    localAddress_ = LocalAddressOf(easy);
    HttpHandlePool::Instance().Release(key, std::move(handle));
    return result;
}

void HttpClientCloseIdleConnections() {
    HttpHandlePool::Instance().CloseIdle();
}

void HttpClientCancelAll(bool cancel) {
    allCancelled = cancel;
}
