#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>

#include "kel/debug.h"
#include "kel/ip_address.h"
#include "kel/types.h"
#include "kelcore/http/managed_transmission.h"
#include "kelcore/http/message.h"
#include "kelcore/http/speed_watch.h"
#include "kelcore/keys/key_ring.h"
#include "kelcore/security.h"

/// Results of an exchange.
inline constexpr unsigned int kHttpCompleted = 0;    ///< an answer came, whatever its status
inline constexpr unsigned int kHttpUnreachable = 2;  ///< no connection, or no answer in time
inline constexpr unsigned int kHttpRefused = 3;      ///< the bandwidth manager allows no transfer now
inline constexpr unsigned int kHttpLocalFile = 4;    ///< the local body file cannot be read or written
inline constexpr unsigned int kHttpBadRequest = 5;   ///< an unusable server, path or body
inline constexpr unsigned int kHttpBadAnswer = 6;    ///< the answer breaks HTTP or exceeds what was announced
inline constexpr unsigned int kHttpSecurity =
    7;  ///< TLS or proxy configuration could not be set up, or the peer was not trusted
inline constexpr unsigned int kHttpDiskFull = 8;  ///< no space for the local body file
inline constexpr unsigned int kHttpCutOff =
    11;  ///< cut off after it began: connection lost, window closed, cancelled

class HttpHandle;

/// An HTTP/1.1 client (RFC 9112) with digest authentication (RFC 7616, SHA-256); basic is answered over TLS
/// only. Connections are kept and reused per peer and credentials by all clients of the process. Outgoing
/// connections are bound to the agent's own address. http and https only, no redirects; connects within 10 s;
/// an exchange without its own pacing is given up below 1000 B/s for 30 s, but one with a time-out waits for
/// an answer to begin as long as that allows. One thread at a time per object; objects on many threads run
/// concurrently.
class HttpClient {
  public:
    /// Time-outs in seconds: to connect, and for the whole exchange; -1: the defaults (10; none).
    explicit HttpClient(int connectTimeout = -1, int exchangeTimeout = -1);

    void SetDebugContext(KelDebug& log) { log_ = &log; }
    void SetServer(const KelString& host, std::uint16_t port);
    /// Connects to the Unix socket at `path` instead (about 100 bytes at most).
    void SetSocket(const KelString& path) { socket_ = path; }
    /// A password of the tree stands for all that are in force: which of them the server takes is found out.
    void SetAuthentification(const KelString& user, const KelString& password);
    void EnableSsl(AgentSecuritySslContext context);
    void EnablePac(AgentSecurityPacContext context);
    /// Uses TLS with the certificates of a tree with keys: credentials are not sent, since the certificate
    /// stands for them. Takes the place of the settings of EnableSsl.
    void EnableKeys(AgentSecurityKeys keys);
    /// The device that has to answer, by its GUID; anything else is ignored. Only where keys are in use.
    void ExpectDevice(std::string_view guid);
    /// Has a server accepted that presents the authority with this fingerprint with its own certificate, for
    /// a device that is about to join the tree. Needs EnableKeys.
    void ExpectAuthority(const KelString& fingerprint) { expectedAuthority_ = fingerprint; }
    /// Enables keys, TLS and the PAC script as the agent's configuration demands (kelcore/security.h). With
    /// `needsTls` TLS is enabled in any case, with the system's authorities when the agent has no settings.
    void EnableAgentSecurity(bool needsTls = false);

    /// How long an exchange may be too slow, instead of 30 s.
    void SetSpeedWindow(std::chrono::milliseconds window) { speedWindow_ = window; }

    /// Asked several times a second while an exchange runs; true stops it with kHttpCutOff.
    void SetCancelCheck(std::function<bool()> cancelled) { cancelled_ = std::move(cancelled); }

    /// Sends `request` and receives into `answer` (an HttpFileMessage with a body file receives to it); a
    /// request that is an HttpFileMessage with a body file sends that. Returns one of the results above.
    unsigned int SendAndRecv(const HttpMessage& request, HttpMessage& answer);
    /// The same, paced by `transmission`, which is started here when it is not running.
    unsigned int SendAndRecv(const HttpMessage& request, HttpMessage& answer,
                             HttpManagedTransmission& transmission);

    /// This device's end of the connection that carried the last exchange.
    IpAddress GetLocalAddress() const { return localAddress_; }
    /// The device that answered, where keys are in use: as its certificate says that was presented when the
    /// connection was made.
    const KelTlsPeer& GetPeer() const { return peer_; }

    /// The result of the last exchange.
    unsigned int GetResult() const { return result_; }

    /// What went wrong in the last exchange, for the log; empty when it completed.
    const KelString& GetErrorText() const { return errorText_; }

    /// Where keys are in use: why the device that answered the last exchange does not accept the certificate
    /// of this one, as far as it says so; otherwise empty.
    const KelString& GetRefusal() const { return refusal_; }

    /// True when the last exchange ended with the connection and without an HTTP answer, as with a server
    /// that takes TLS only.
    bool WasClosed() const { return wasClosed_; }

  private:
    unsigned int Exchange(const HttpMessage& request, HttpMessage& answer,
                          HttpManagedTransmission* transmission);
    KelPeerExpectation Expected() const;
    KelString PeerKey(const KelString& base, const KelString& password) const;
    unsigned int TryWays(const HttpMessage& request, HttpMessage& answer,
                         HttpManagedTransmission* transmission);
    bool IsCalledWithKeys() const;
    unsigned int TryPasswords(const HttpMessage& request, HttpMessage& answer,
                              HttpManagedTransmission* transmission);
    void SetKeys(HttpHandle& handle);
    void TakePeer(const HttpHandle& handle, unsigned int result, const HttpMessage& answer);
    unsigned int RunOnHandle(const HttpMessage& request, HttpMessage& answer,
                             HttpManagedTransmission* transmission, const KelString& password);

    KelDebug* log_ = nullptr;
    int connectTimeout_;
    int exchangeTimeout_;
    std::chrono::milliseconds speedWindow_ = HttpSpeedWatch::kWindow;
    KelString host_;
    std::uint16_t port_ = 0;
    KelString socket_;
    KelString user_;
    KelString password_;
    AgentSecuritySslContext ssl_;
    AgentSecurityPacContext pac_;
    AgentSecurityKeys keys_;
    KelString expectedGuid_;
    KelString expectedAuthority_;
    KelTlsPeer peer_;
    std::function<bool()> cancelled_;
    IpAddress localAddress_;
    bool wasClosed_ = false;  ///< the last exchange, without an answer
    unsigned int result_ = kHttpCompleted;
    KelString errorText_;
    KelString refusal_;
};

/// Closes every kept connection that is not in use. For the end of the process and for tests.
void HttpClientCloseIdleConnections();

/// Makes every exchange in progress end with kHttpCutOff and every new one fail until called with false: the
/// agent stops.
void HttpClientCancelAll(bool cancel);
