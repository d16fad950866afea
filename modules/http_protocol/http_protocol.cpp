#include "modules/http_protocol/http_protocol.h"

#include <algorithm>
#include <stdexcept>

#include "kelcore/action_db.h"
#include "kelcore/agent.h"
#include "kelcore/error_codes.h"
#include "kelcore/metrics/metrics.h"
#include "kelcore/security.h"
#include "modules/http_protocol/multicast_actions.h"
#include "modules/http_protocol/server.h"

using kelhttp::MulticastReceiver;
using kelhttp::Server;

HttpProtocol::HttpProtocol() : KelModule("HttpProtocol", "HTTP protocol module") {}

HttpProtocol::~HttpProtocol() = default;

void HttpProtocol::Register(const char* handle) {
    ActionDbRegisterActions<HttpProtocol>(
        *this, handle,
        {{&HttpProtocol::AddAlias,
          {.signature = "HttpProtocolAddAlias",
           .purpose =
               "Publishes a folder under an alias, in place of one of that name; an empty path removes "
               "it.",
           .inputs = "string AliasName, string AliasPath",
           .results = "1 unusable",
           .callers = KelCallers::Local}},
         {&HttpProtocol::DeleteAlias,
          {.signature = "HttpProtocolDeleteAlias",
           .purpose = "Removes an alias, if there is one.",
           .inputs = "string AliasName, bool CompletelyRemove? (also every alias below \"AliasName/\")",
           .results = "1 no name",
           .callers = KelCallers::Local}},
         {&HttpProtocol::GetParams,
          {.signature = "HttpProtocolGetParams",
           .purpose = "Says where this device serves calls of other devices.",
           .outputs = "container Values {int32 Port, bool Ssl (with TLS), string Address}",
           .callers = KelCallers::Operator}},
         {&HttpProtocol::GetThreadCount,
          {.signature = "HttpProtocolGetThreadCount",
           .purpose = "Counts the clients with long requests in progress, at least 1.",
           .inputs = "bool FirstTime?",
           .outputs =
               "int32 ThreadCount, int32 BwPort? (these with FirstTime), int32 BwPingFrequency?, int32 "
               "BwClientCheckFrequency?, int32 BwPingDuration?",
           .callers = KelCallers::Child}}});
    RegisterMulticast(handle);
    KelMetricsRegister(handle, [this](KelMetricsPage& page) {
        if (const Server* const server = CurrentServer()) server->CollectMetrics(page);
    });
}

void HttpProtocol::RegisterMulticast(const char* handle) {
    using Action = unsigned int (*)(MulticastReceiver&, const KelDebug&, KelContainer&);
    const auto call = [](Action action) {
        return [action](HttpProtocol& module, KelContainer* container) {
            MulticastReceiver* const receiver = module.CurrentReceiver();
            return receiver != nullptr ? action(*receiver, module.Log(), *container)
                                       : unsigned{kKelErrorNotAvailable};
        };
    };
    ActionDbRegisterActions<HttpProtocol>(
        *this, handle,
        {{call(kelhttp::StartMulticastListening),
          {.signature =
               "HttpProtocolMulticastStartListen (string MulticastAddress, int32 MulticastPort, int32 "
               "MulticastBlockSize, int64 FileSize)",
           .purpose =
               "Waits for a file by multicast; from the parent, starts a reception again whose content "
               "was wrong.",
           .inputs = "string MulticastAddress, int32 MulticastPort, int32 MulticastBlockSize, int64 FileSize "
                     "(bytes), string FileURL? (these from this device), string LocalPath?, string "
                     "FileChecksum? (MD5)",
           .results = "1 unusable; 17 no room, space or group",
           .callers = KelCallers::Parent}},
         {call(kelhttp::StopMulticastListening),
          {.signature = "HttpProtocolMulticastStopListen",
           .purpose = "Ends the receptions of a group.",
           .inputs = "string MulticastAddress",
           .callers = KelCallers::Parent}},
         {call(kelhttp::ReportMulticast),
          {.signature = "HttpProtocolMulticastIsCompleted",
           .purpose = "Says what of a multicast transfer has arrived.",
           .inputs = "string MulticastAddress, int32 MulticastPort, bool MulticastDifferencialRetry?",
           .outputs =
               "bool IsCompleted, bool RestartNeeded, bool CommunicationFailed (nothing is expected, "
               "the reception has failed, or nothing has arrived), string *? (named by numbers from 0: "
               "a missing block or a range of them)",
           .callers = KelCallers::Parent}}});
}

bool HttpProtocol::Initialise() {
    IniFile ini;
    if (!ini.Open(IniPath())) return false;
    kelhttp::ServerSettings settings = kelhttp::ReadServerSettings(ini, KelAgentGetAddress());
    settings.userName = KelAgentGetName();
    settings.socketFolder = KelAgentGetRunDir();
    if (KelAgentGetHttpPassword().empty()) {
        Log().Error("The agent has no HTTP password; set HttpPassword in Agent.ini.\n");
        return false;
    }
    aliases_.SetWritable(settings.writableAliases);
    auto server = std::make_unique<Server>(settings, aliases_, Log());
    if (const KelStatus opened = server->Open(); !opened) {
        Log().Error("The HTTP server %S.\n", opened.Error().message);
        return false;
    }
    settings.port = server->Port();
    settings.sslPort = server->SslPort();
    if (AgentSecurityGetKeys() && !settings.certificateFile.empty())
        Log().Warning(
            "Section Ssl is not used in a tree with keys: the port of section HttpProtocol has TLS.\n");
    else if (AgentSecuritySslForceSecCli() && settings.sslPort == 0)
        Log().Warning(
            "SslForce is set, but there is no CertificateFile in section Ssl: devices with SslForce "
            "cannot call this device.\n");
    if (settings.bandwidthPort != 0) settings.bandwidthPort = server->BandwidthPort();
    auto receiver = std::make_unique<MulticastReceiver>(
        kelhttp::MulticastSettings{KelAgentGetAddress(), settings.multicastTimeout,
                                   settings.multicastMaxGroups},
        aliases_, Log());
    const KelLock lock(mutex_);
    settings_ = std::move(settings);
    server_ = std::move(server);
    receiver_ = std::move(receiver);
    return true;
}

Server* HttpProtocol::CurrentServer() const {
    const KelLock lock(mutex_);
    return server_.get();
}

MulticastReceiver* HttpProtocol::CurrentReceiver() const {
    const KelLock lock(mutex_);
    return receiver_.get();
}

bool HttpProtocol::Activate() {
    Server* const server = CurrentServer();
    if (server == nullptr) return true;
    if (const KelStatus running = server->Run(); !running)
        throw std::runtime_error("the HTTP server " + running.Error().message);
    const KelLock lock(mutex_);
    Log().Print("Listening on %S:%u%s.\n", settings_.address, static_cast<unsigned int>(settings_.port),
                AgentSecurityGetKeys() ? " with TLS and the keys of the tree" : "");
    if (settings_.sslPort != 0)
        Log().Print("Listening on %S:%u with TLS.\n", settings_.address,
                    static_cast<unsigned int>(settings_.sslPort));
    return true;
}

std::optional<KelString> HttpProtocol::ServerAddress() const {
    const KelLock lock(mutex_);
    return server_ ? KelFormat("%S:%u", settings_.address, unsigned{settings_.port}) : KelString();
}

void HttpProtocol::Cleanup() {
    if (MulticastReceiver* const receiver = CurrentReceiver())
        receiver->Stop();  // first: actions may wait for it
    if (Server* const server = CurrentServer()) server->Stop();
}

std::uint16_t HttpProtocol::Port() const {
    const Server* const server = CurrentServer();
    return server != nullptr ? server->Port() : std::uint16_t{0};
}

std::uint16_t HttpProtocol::SslPort() const {
    const Server* const server = CurrentServer();
    return server != nullptr ? server->SslPort() : std::uint16_t{0};
}

unsigned int HttpProtocol::AddAlias(KelContainer* arguments) {
    KelContainer& container = *arguments;
    const KelString name = container.GetString("AliasName");
    const KelString path = container.GetString("AliasPath");
    container.Clear();
    if (path.empty() && !name.empty()) {  // withdraws the alias
        aliases_.Delete(name, false);
        return kKelOk;
    }
    if (aliases_.Add(name, path)) return kKelOk;
    Log().Warning("Alias '%S' for '%S' refused: a name of plain elements and a folder are needed.\n", name,
                  path);
    return kKelErrorBadInput;
}

unsigned int HttpProtocol::DeleteAlias(KelContainer* arguments) {
    KelContainer& container = *arguments;
    const KelString name = container.GetString("AliasName");
    const bool below = container.GetBool("CompletelyRemove");
    container.Clear();
    if (name.empty()) return kKelErrorBadInput;
    aliases_.Delete(name, below);
    return kKelOk;
}

/// Where SslForce is set, other devices speak TLS only, so that the plain port is of no use to them.
int HttpProtocol::PortForDevices() const {
    return AgentSecuritySslForceSecCli() && settings_.sslPort != 0 ? settings_.sslPort : settings_.port;
}

unsigned int HttpProtocol::GetParams(KelContainer* arguments) const {
    KelContainer& container = *arguments;
    KelContainer values;
    {
        const KelLock lock(mutex_);
        values.SetInt32("Port", PortForDevices());
        values.SetBool("Ssl", AgentSecurityGetKeys() != nullptr || PortForDevices() != settings_.port);
        values.SetString("Address", settings_.address);
    }
    container.Clear();
    container.SetContainer("Values", std::move(values));
    return kKelOk;
}

unsigned int HttpProtocol::GetThreadCount(KelContainer* arguments) const {
    KelContainer& container = *arguments;
    const bool firstTime = container.GetBool("FirstTime");
    container.Clear();
    const KelLock lock(mutex_);
    const std::size_t clients = server_ ? server_->CountWorkingPeers() : 0;
    container.SetInt32("ThreadCount", static_cast<std::int32_t>(std::max<std::size_t>(clients, 1)));
    if (!firstTime) return kKelOk;
    container.SetInt32("BwPort", settings_.bandwidthPort);
    container.SetInt32("BwPingFrequency", settings_.bandwidthPingFrequency);
    container.SetInt32("BwClientCheckFrequency", settings_.bandwidthClientCheckFrequency);
    container.SetInt32("BwPingDuration", settings_.bandwidthPingDuration);
    return kKelOk;
}
