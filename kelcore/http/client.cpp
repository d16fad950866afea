#include "kelcore/http/client.h"

#include <curl/curl.h>

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <memory>
#include <utility>

#include "kel/format.h"
#include "kel/text.h"
#include "kelcore/agent.h"
#include "kelcore/clock_difference.h"
#include "kelcore/device_name.h"
#include "kelcore/http/exchange.h"
#include "kelcore/http/handle_pool.h"
#include "kelcore/http/url.h"
#include "kelcore/keys/distrust.h"
#include "kelcore/keys/peer_check.h"
#include "kelcore/keys/transition.h"
#include "kelcore/tree_passwords.h"

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

/// What a device says about the certificate that it has refused, with its clock where that is another one's.
KelString RefusalText(const HttpMessage& answer) {
    const KelString problem = CertificateProblemLine(answer.GetHeader(kCertificateProblem));
    if (answer.GetStatus() != kHttpStatusUnauthorized || problem.empty()) return {};
    const auto theirs = TimeOfHttpDate(answer.GetHeader("date"));
    const std::int64_t ahead = theirs ? *theirs - std::time(nullptr) : 0;
    const KelString clock = std::abs(ahead) <= kClocksDiffer
                                ? KelString()
                                : "; its clock is " + ClockDifferenceText(ahead) + " the one here";
    return KelFormat("it does not accept the certificate of this device and says \"%S\"%S", problem, clock);
}

CURLcode ApplyPeerCheck(CURL*, void* context, void* check) {
    const bool applied = static_cast<KelPeerCheck*>(check)->ApplyTo(static_cast<ssl_ctx_st*>(context));
    return applied ? CURLE_OK : CURLE_SSL_CERTPROBLEM;
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

void HttpClient::EnableKeys(AgentSecurityKeys keys) {
    keys_ = std::move(keys);
}

void HttpClient::ExpectDevice(std::string_view guid) {
    if (IsGuid(guid)) expectedGuid_ = guid;
}

void HttpClient::EnableAgentSecurity(bool needsTls) {
    keys_ = AgentSecurityGetKeys();
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
    refusal_.clear();
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
            result = TryWays(request, answer, transmission);
        } catch (const std::exception& error) {
            result = kHttpUnreachable;
            errorText_ = error.what();
        }
    }
    result_ = result;
    if (result != kHttpCompleted && log_ != nullptr)
        log_->Detail("HTTP client: %S:%d%S: result %u, %S\n", host_, static_cast<int>(port_),
                     request.GetResourcePath(), result, errorText_);
    return result;
}

KelPeerExpectation HttpClient::Expected() const {
    KelPeerExpectation expected = keys_->ExpectedAt(host_, port_);
    if (!expectedGuid_.empty()) expected.guid = expectedGuid_;
    return expected;
}

/// In a tree on its way to keys, the parent has them before its children; of others it is found out.
bool HttpClient::IsCalledWithKeys() const {
    const KelTransition& transition = Transition();
    if (!socket_.empty() || !transition.CallsWithPassword() || !expectedAuthority_.empty() ||
        !TreePasswords().Has(password_))
        return true;
    return keys_->IsEnrolled() && (Expected().isParent || transition.HasKeys(expectedGuid_) ||
                                   transition.HasKeys(KelFormat("%S:%u", host_, unsigned{port_})));
}

/// A member without keys is called with the password. A device that takes none any more closes the connection
/// at once, and is called with the keys.
unsigned int HttpClient::TryWays(const HttpMessage& request, HttpMessage& answer,
                                 HttpManagedTransmission* transmission) {
    if (!keys_ || IsCalledWithKeys()) return TryPasswords(request, answer, transmission);
    const AgentSecurityKeys keys = std::exchange(keys_, nullptr);
    unsigned int result = TryPasswords(request, answer, transmission);
    keys_ = keys;
    if (result == kHttpCompleted || !wasClosed_ || !keys->IsEnrolled()) return result;
    result = TryPasswords(request, answer, transmission);
    if (result == kHttpCompleted) Transition().NoteKeys(KelFormat("%S:%u", host_, unsigned{port_}));
    return result;
}

/// While the password of the tree is being changed, a server may know only one of the two.
unsigned int HttpClient::TryPasswords(const HttpMessage& request, HttpMessage& answer,
                                      HttpManagedTransmission* transmission) {
    KelTreePasswords& tree = TreePasswords();
    if (!socket_.empty() || keys_ || !tree.Has(password_))
        return RunOnHandle(request, answer, transmission, password_);
    const KelString place = KelFormat("%S:%u", host_, unsigned{port_});
    unsigned int result = kHttpCompleted;
    bool isFirst = true;
    for (const KelString& password : tree.OrderFor(place)) {
        result = RunOnHandle(request, answer, transmission, password);
        if (result != kHttpCompleted) break;
        if (answer.GetStatus() != kHttpStatusUnauthorized) {
            tree.NoteTaken(place, password, isFirst && !answer.GetHeader("kel-password").empty());
            break;
        }
        isFirst = false;
    }
    return result;
}

/// What makes two exchanges share a handle, and with it a connection: whoever is there has been checked for
/// the one as it would be for the other.
KelString HttpClient::PeerKey(const KelString& base, const KelString& password) const {
    KelString key = base + '\n' + user_ + '\n' + password + '\n' + KelAgentGetAddress();
    if (keys_) {
        const KelPeerExpectation expected = Expected();
        key += '\n' + std::to_string(keys_->Id()) + '\n' + expected.guid + '\n' + expected.fingerprint +
               '\n' + expectedAuthority_;
    } else if (ssl_) {
        key += '\n' + ssl_->caFile + '\n' + ssl_->certificateFile + '\n' + ssl_->keyFile;
    }
    return key;
}

/// TLS in a tree with keys: the server is examined in the handshake, so that a stranger at the address
/// receives nothing.
void HttpClient::SetKeys(HttpHandle& handle) {
    CURL* easy = handle.Easy();
    if (!handle.peerCheck)
        handle.peerCheck = expectedAuthority_.empty() ? std::make_unique<KelPeerCheck>(keys_, Expected())
                                                      : std::make_unique<KelPeerCheck>(expectedAuthority_);
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, 1L);
    // Devices are known by their GUIDs, wherever they are.
    curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_setopt(easy, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_3));
    curl_easy_setopt(easy, CURLOPT_CAINFO, nullptr);
    curl_easy_setopt(easy, CURLOPT_CAPATH, nullptr);
    curl_easy_setopt(easy, CURLOPT_SSL_CTX_FUNCTION, &ApplyPeerCheck);
    curl_easy_setopt(easy, CURLOPT_SSL_CTX_DATA, handle.peerCheck.get());
}

/// Keeps who has answered, and logs whoever must not, or refuses this device.
void HttpClient::TakePeer(const HttpHandle& handle, unsigned int result, const HttpMessage& answer) {
    peer_ = handle.peerCheck->Peer();
    const KelString place = KelFormat("%S:%u", host_, unsigned{port_});
    if (result == kHttpCompleted) {
        refusal_ = RefusalText(answer);
        if (refusal_.empty()) return Distrust().Clear(place);
        return Distrust().Note(place, refusal_, place + ": " + refusal_);
    }
    if (result != kHttpSecurity || peer_.problem.empty()) return Distrust().Forget(place);
    errorText_ = "it is not trusted: " + peer_.problem;
    Distrust().Note(place, errorText_,
                    KelFormat("What answers at %S is not trusted: %S", place, peer_.problem));
}

unsigned int HttpClient::RunOnHandle(const HttpMessage& request, HttpMessage& answer,
                                     HttpManagedTransmission* transmission, const KelString& password) {
    const bool secure = ssl_ != nullptr || keys_ != nullptr;
    const KelString base = (secure ? "https://" : "http://") + host_ + ":" + std::to_string(port_);
    const KelString url = base + UrlEncodePath(request.GetResourcePath());
    const bool isNarrow = HttpExchange::IsNarrow(transmission);
    const KelString key = PeerKey(base, password) + (isNarrow ? "\nnarrow" : "") + "\n" + socket_;
    std::unique_ptr<HttpHandle> handle = HttpHandlePool::Instance().Acquire(key);
    handle->isNarrow = isNarrow;
    handle->hasNewerPassword = !keys_ && TreePasswords().IsFormer(password);
    CURL* easy = handle->Easy();
    SetConnection(easy, connectTimeout_, exchangeTimeout_);
    curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    if (!socket_.empty()) SetSocketPath(easy, socket_);
    SetProxy(easy, pac_ ? AgentSecurityPacFindProxy(*pac_, url, host_) : KelString());
    if (keys_)
        SetKeys(*handle);
    else if (secure)
        SetTls(easy, *ssl_);
    if (!keys_) SetCredentials(*handle, user_, password, secure);
    unsigned int result = kHttpCompleted;
    {
        HttpExchange exchange(*handle, request, answer, transmission,
                              {.cancelled = [this] { return allCancelled || (cancelled_ && cancelled_()); },
                               .speedWindow = speedWindow_,
                               .hasTimeout = exchangeTimeout_ > 0});
        result = exchange.Run();
        errorText_ = exchange.ErrorText();
        wasClosed_ = exchange.WasClosed();
        if (exchange.HasUnsafeChallenge()) return result;
    }
    if (keys_)
        TakePeer(*handle, result, answer);
    else
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
