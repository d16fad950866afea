#include "modules/http_protocol/http_protocol.h"

#include <algorithm>
#include <functional>
#include <stdexcept>

#include "kelcore/action_db.h"
#include "kelcore/agent.h"
#include "kelcore/call_origin.h"
#include "kelcore/error_codes.h"
#include "kelcore/security.h"
#include "modules/http_protocol/multicast_actions.h"
#include "modules/http_protocol/server.h"

using kelhttp::MulticastReceiver;
using kelhttp::Server;

HttpProtocol::HttpProtocol() : KelModule("HttpProtocol", "HTTP protocol module") {}

HttpProtocol::~HttpProtocol() = default;

void HttpProtocol::Register(const char* handle) {
    const auto add = [handle](const char* signature, std::function<unsigned int(KelContainer&)> action) {
        ActionDbRegisterAction(
            signature, [action = std::move(action)](KelContainer* container) { return action(*container); },
            handle);
    };
    add("HttpProtocolAddAlias (string AliasName, string AliasPath)",
        [this](KelContainer& container) { return AddAlias(container); });
    add("HttpProtocolDeleteAlias (string AliasName, bool CompletelyRemove)",
        [this](KelContainer& container) { return DeleteAlias(container); });
    add("HttpProtocolGetParams ()", [this](KelContainer& container) { return GetParams(container); });
    add("HttpProtocolGetThreadCount (bool FirstTime)",
        [this](KelContainer& container) { return GetThreadCount(container); });
    RegisterMulticast(handle);
}

void HttpProtocol::RegisterMulticast(const char* handle) {
    const auto add = [this, handle](const char* signature,
                                    std::function<unsigned int(MulticastReceiver&, KelContainer&)> action) {
        const auto call = [this, action = std::move(action)](KelContainer* container) -> unsigned int {
            MulticastReceiver* const receiver = CurrentReceiver();
            return receiver != nullptr ? action(*receiver, *container) : unsigned{kKelErrorNotAvailable};
        };
        ActionDbRegisterAction(signature, call, handle);
    };
    add("HttpProtocolMulticastStartListen (string MulticastAddress, int32 MulticastPort, int32 "
        "MulticastBlockSize, int64 FileSize)",
        [this](MulticastReceiver& receiver, KelContainer& container) {
            return kelhttp::StartMulticastListening(receiver, Log(), container);
        });
    add("HttpProtocolMulticastStopListen (string MulticastAddress)",
        [this](MulticastReceiver& receiver, KelContainer& container) {
            return kelhttp::StopMulticastListening(receiver, Log(), container);
        });
    add("HttpProtocolMulticastIsCompleted (string MulticastAddress, int32 MulticastPort, bool "
        "MulticastDifferencialRetry)",
        kelhttp::ReportMulticast);
}

bool HttpProtocol::Initialise() {
    IniFile ini;
    if (!ini.Open(IniPath())) return false;
    kelhttp::ServerSettings settings = kelhttp::ReadServerSettings(ini, KelAgentGetAddress());
    settings.userName = KelAgentGetName();
    settings.password = KelAgentGetHttpPassword();
    if (settings.password.empty()) {
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
    if (AgentSecuritySslForceSecCli() && settings.sslPort == 0)
        Log().Warning(
            "SslForce is set, but there is no CertificateFile in section Ssl: devices with SslForce "
            "cannot call this device.\n");
    if (settings.bandwidthPort != 0) settings.bandwidthPort = server->BandwidthPort();
    auto receiver = std::make_unique<MulticastReceiver>(
        kelhttp::MulticastSettings{KelAgentGetAddress(), settings.password, settings.multicastTimeout,
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
    Log().Print("Listening on %S:%u.\n", settings_.address, static_cast<unsigned int>(settings_.port));
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

unsigned int HttpProtocol::AddAlias(KelContainer& container) {
    const KelString name = container.GetString("AliasName");
    const KelString path = container.GetString("AliasPath");
    const bool isAllowed = ActionIsFromThisDevice(container);
    container.Clear();
    if (isAllowed && path.empty() && !name.empty()) {  // withdraws the alias
        aliases_.Delete(name, false);
        return kKelOk;
    }
    if (isAllowed && aliases_.Add(name, path)) return kKelOk;
    Log().Warning(
        "Alias '%S' for '%S' refused: a name of plain elements and a folder are needed, from a caller on "
        "this device.\n",
        name, path);
    return kKelErrorBadInput;
}

unsigned int HttpProtocol::DeleteAlias(KelContainer& container) {
    const KelString name = container.GetString("AliasName");
    const bool below = container.GetBool("CompletelyRemove");
    const bool isAllowed = ActionIsFromThisDevice(container);
    container.Clear();
    if (name.empty() || !isAllowed) return kKelErrorBadInput;
    aliases_.Delete(name, below);
    return kKelOk;
}

/// Where SslForce is set, other devices speak TLS only, so that the plain port is of no use to them.
int HttpProtocol::PortForDevices() const {
    return AgentSecuritySslForceSecCli() && settings_.sslPort != 0 ? settings_.sslPort : settings_.port;
}

unsigned int HttpProtocol::GetParams(KelContainer& container) const {
    KelContainer values;
    {
        const KelLock lock(mutex_);
        values.SetInt32("Port", PortForDevices());
        values.SetBool("Ssl", PortForDevices() != settings_.port);
        values.SetString("Address", settings_.address);
    }
    container.Clear();
    container.SetContainer("Values", std::move(values));
    return kKelOk;
}

unsigned int HttpProtocol::GetThreadCount(KelContainer& container) const {
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
