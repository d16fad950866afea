#include "modules/http_protocol/server.h"

#include <sys/resource.h>
#include <algorithm>
#include <boost/asio/ssl/context.hpp>
#include <exception>
#include <vector>

#include "kel/format.h"
#include "kelcore/error_codes.h"
#include "kelcore/keys/transition.h"
#include "modules/http_protocol/connection.h"
#include "modules/http_protocol/either_channel.h"
#include "modules/http_protocol/io_loop.h"
#include "modules/http_protocol/keyed_tls.h"
#include "modules/http_protocol/listener.h"
#include "modules/http_protocol/local_listener.h"
#include "modules/http_protocol/plain_channel.h"
#include "modules/http_protocol/probe_sink.h"
#include "modules/http_protocol/server_context.h"
#include "modules/http_protocol/tls_channel.h"

namespace kelhttp {
namespace {

constexpr std::chrono::milliseconds kPatience{1500};

/// Descriptors that the rest of the agent needs.
constexpr rlim_t kOtherFiles = 300;
constexpr rlim_t kFewestConnections = 100;

/// Raises the limit of open files and limits the connections to what it allows: without descriptors, not even
/// this device's own could be accepted. A connection that is sent a file has two.
ServerSettings WithinOpenFileLimit(ServerSettings settings) {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return settings;
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    ::getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur == RLIM_INFINITY) return settings;
    const rlim_t free = limit.rlim_cur - std::min(limit.rlim_cur, kOtherFiles);
    const rlim_t most = std::max(free / 2, kFewestConnections);
    settings.maxConnections = static_cast<int>(std::min(most, static_cast<rlim_t>(settings.maxConnections)));
    return settings;
}

boost::asio::ip::tcp::socket MakeSocket(IoLoop& loop, UniqueFd& fd) {
    return {loop.Context(), boost::asio::ip::tcp::v4(), fd.Release()};
}

boost::asio::generic::stream_protocol::socket MakeLocalSocket(IoLoop& loop, UniqueFd& fd) {
    return {loop.Context(), boost::asio::generic::stream_protocol(AF_UNIX, 0), fd.Release()};
}

}  // namespace

struct Server::State {
    State(ServerSettings settings, AliasTable& aliases, const KelDebug& log)
        : loops(static_cast<std::size_t>(settings.ioThreads)),
          context(WithinOpenFileLimit(std::move(settings)), aliases, log) {}

    enum class Kind : unsigned char { Plain, Tls, Keys, Probe, Metrics, Local };

    std::shared_ptr<Listener> MakeListener(Kind kind) {
        return std::make_shared<Listener>(
            loops.front(), context.log,
            [this, kind](UniqueFd socket, IpAddress peer) { Take(kind, std::move(socket), peer); });
    }

    /// Hands an accepted connection to the next loop.
    void Take(Kind kind, UniqueFd socket, IpAddress peer) {
        const PeerTable::Place place = context.peers.Admit(peer);
        if (!place) {
            context.failures.Failed(KelDebugLevel::Warning, "places",
                                    KelFormat("Connection from %S refused: there are too many connections "
                                              "with valid credentials; raise MaxConnections",
                                              peer.ToText()));
            return;
        }
        IoLoop& loop = loops[next++ % loops.size()];
        const auto held = std::make_shared<UniqueFd>(std::move(socket));
        loop.Post([this, kind, held, place, &loop] {
            try {
                StartConnection(kind, loop, *held, place);
            } catch (const std::exception& failure) {
                context.log.Warning("Connection from %S dropped: %s.\n", place->Peer().ToText(),
                                    failure.what());
            }
        });
    }

    void StartConnection(Kind kind, IoLoop& loop, UniqueFd& fd, const PeerTable::Place& place) {
        std::shared_ptr<LoopMember> member;
        if (kind == Kind::Probe) {
            const auto sink = std::make_shared<ProbeSink>(loop, MakeSocket(loop, fd), place);
            sink->Start();
            member = sink;
        } else {
            const auto connection =
                std::make_shared<Connection>(context, loop, MakeChannel(kind, loop, fd), place);
            connection->Start();
            member = connection;
        }
        const auto close = [weak = std::weak_ptr(member), &loop] {
            loop.Post([weak] {
                if (const auto evicted = weak.lock()) evicted->Abort();
            });
        };
        if (!context.peers.SetClose(place, close)) member->Abort();
    }

    std::unique_ptr<Channel> MakeChannel(Kind kind, IoLoop& loop, UniqueFd& fd) {
        if (kind == Kind::Tls)
            return std::make_unique<TlsChannel>(MakeSocket(loop, fd), *tls->native_handle(), nullptr);
        if (kind == Kind::Local)
            return std::make_unique<PlainChannel>(MakeLocalSocket(loop, fd), KelPeer::Proof::Socket);
        if (kind == Kind::Metrics)
            return std::make_unique<PlainChannel>(MakeSocket(loop, fd), KelPeer::Proof::MetricsPort);
        if (kind == Kind::Plain)
            return std::make_unique<PlainChannel>(MakeSocket(loop, fd), KelPeer::Proof::Password);
        const auto [keys, tlsContext] = keyedTls.Current();
        if (Transition().AcceptsPassword())
            return std::make_unique<EitherChannel>(MakeSocket(loop, fd), tlsContext, keys);
        return std::make_unique<TlsChannel>(MakeSocket(loop, fd), *tlsContext->native_handle(), keys);
    }

    KelStatus OpenTls() {
        namespace ssl = boost::asio::ssl;
        const ServerSettings& settings = context.settings;
        tls = std::make_unique<ssl::context>(ssl::context::tls_server);
        boost::system::error_code error;
        tls->use_certificate_chain_file(settings.certificateFile, error);
        if (!error) tls->use_private_key_file(settings.keyFile, ssl::context::pem, error);
        if (error)
            return KelError{kKelErrorBadInput,
                            KelFormat("cannot use certificate %S with key %S: %S", settings.certificateFile,
                                      settings.keyFile, error.message())};
        ::SSL_CTX_set_min_proto_version(tls->native_handle(), TLS1_2_VERSION);
        sslListener = MakeListener(Kind::Tls);
        return sslListener->Bind(settings.address, settings.sslPort);
    }

    KelStatus OpenMetrics() {
        const ServerSettings& settings = context.settings;
        if (settings.metricsPort == 0) return {};
        metricsListener = MakeListener(Kind::Metrics);
        return metricsListener->Bind(settings.metricsAddress, settings.metricsPort);
    }

    KelStatus OpenLocal() {
        if (context.settings.socketFolder.empty()) return {};
        localListener = std::make_shared<LocalListener>(loops.front(), context.log, [this](UniqueFd socket) {
            Take(Kind::Local, std::move(socket), IpAddress());
        });
        return localListener->Listen(context.settings.socketFolder);
    }

    // Connections are destroyed with their loops and use the context and the TLS settings until then; workers
    // use the loops until they have ended. The destructor of Server keeps that order.
    std::vector<IoLoop> loops;
    ServerContext context;
    std::unique_ptr<boost::asio::ssl::context> tls;
    KeyedTls keyedTls;
    std::shared_ptr<Listener> listener, sslListener, probeListener, metricsListener;
    std::shared_ptr<LocalListener> localListener;
    std::size_t next = 0;  ///< used on the first loop only
};

Server::Server(ServerSettings settings, AliasTable& aliases, const KelDebug& log)
    : state_(std::make_unique<State>(std::move(settings), aliases, log)) {}

Server::~Server() {
    Stop();
}

KelStatus Server::Open() {
    const ServerSettings& settings = state_->context.settings;
    const bool hasKeys = AgentSecurityGetKeys() != nullptr;
    state_->listener = state_->MakeListener(hasKeys ? State::Kind::Keys : State::Kind::Plain);
    if (KelStatus bound = state_->listener->Bind(settings.address, settings.port); !bound) return bound;
    if (!settings.certificateFile.empty() && !hasKeys) {
        if (KelStatus opened = state_->OpenTls(); !opened) return opened;
    }
    if (KelStatus opened = state_->OpenMetrics(); !opened) return opened;
    if (settings.bandwidthPort == 0) return {};
    state_->probeListener = state_->MakeListener(State::Kind::Probe);
    return state_->probeListener->Bind(settings.address, static_cast<std::uint16_t>(settings.bandwidthPort));
}

KelStatus Server::Run() {
    const auto listeners = {state_->listener, state_->sslListener, state_->probeListener,
                            state_->metricsListener};
    for (const auto& listener : listeners) {
        if (!listener) continue;
        if (KelStatus listening = listener->Listen(); !listening) return listening;
    }
    if (KelStatus listening = state_->OpenLocal(); !listening) return listening;
    for (const auto& listener : listeners) {
        if (listener) state_->loops.front().Post([&started = *listener] { started.Start(); });
    }
    if (state_->localListener)
        state_->loops.front().Post([&started = *state_->localListener] { started.Start(); });
    for (IoLoop& loop : state_->loops)
        loop.Start();
    return {};
}

void Server::Stop() {
    for (IoLoop& loop : state_->loops)
        loop.Stop();
    // All are asked to stop before the first is waited for, so that they share the time.
    for (WorkerPool* pool : {&state_->context.files, &state_->context.actions})
        pool->Stop(std::chrono::milliseconds(0));
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    for (WorkerPool* pool : {&state_->context.files, &state_->context.actions}) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (!pool->Stop(std::max(left, std::chrono::milliseconds(0))))
            state_->context.log.Warning("Actions or uploads still run while the server stops.\n");
    }
}

std::uint16_t Server::Port() const {
    return state_->listener ? state_->listener->Port() : std::uint16_t{0};
}

std::uint16_t Server::SslPort() const {
    return state_->sslListener ? state_->sslListener->Port() : std::uint16_t{0};
}

std::uint16_t Server::BandwidthPort() const {
    return state_->probeListener ? state_->probeListener->Port() : std::uint16_t{0};
}

std::size_t Server::CountWorkingPeers() const {
    return state_->context.peers.CountWorkingPeers();
}

void Server::CollectMetrics(KelMetricsPage& page) const {
    state_->context.peers.Collect(page);
    state_->context.responses.Collect(page);
}

std::size_t Server::CountConnections() const {
    return state_->context.peers.CountConnections();
}

}  // namespace kelhttp
