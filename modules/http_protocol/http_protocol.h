#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>

#include "kel/container.h"
#include "kelcore/module.h"
#include "modules/http_protocol/alias_table.h"
#include "modules/http_protocol/settings.h"

namespace kelhttp {
class Server;
}

/// The agent's HTTP server: calls of actions, files under aliases, uploads.
///
/// Actions (inputs -> outputs; results 0, or kKelErrorBadInput for a missing or unusable input):
/// - HttpProtocolAddAlias (string AliasName, string AliasPath): publishes a folder; replaces an alias of that
///   name; an empty path removes it. For callers on this device only, like the next.
/// - HttpProtocolDeleteAlias (string AliasName, bool CompletelyRemove): with CompletelyRemove also every
///   alias below "AliasName/". An absent alias is no error.
/// - HttpProtocolGetParams () -> Values{Port(int32), Address(string)}
/// - HttpProtocolGetThreadCount (bool FirstTime) -> ThreadCount(int32): clients with lasting requests in
///   progress, at least 1; with FirstTime also BwPort, BwPingFrequency, BwClientCheckFrequency,
///   BwPingDuration (int32)
///
/// Event: HttpProtocolCallbackPut{URL, MulticastAddress, LocalPath}, after an upload is in place.
///
/// The port is bound by Initialise and served from Activate on, which fails when another program has taken it
/// meanwhile. All actions answer from Initialise on, and still after Cleanup.
class HttpProtocol final : public KelModule {
  public:
    HttpProtocol();
    ~HttpProtocol() override;

    /// Ports of the running server, 0 when there is none.
    std::uint16_t Port() const;
    std::uint16_t SslPort() const;

  protected:
    void Register(const char* handle) override;
    bool Initialise() override;
    bool Activate() override;
    void Cleanup() override;
    std::optional<KelString> ServerAddress() const override;

  private:
    unsigned int AddAlias(KelContainer& container);
    unsigned int DeleteAlias(KelContainer& container);
    unsigned int GetParams(KelContainer& container) const;
    unsigned int GetThreadCount(KelContainer& container) const;

    kelhttp::AliasTable aliases_;
    mutable std::mutex mutex_;  ///< guards settings_ and server_ between the agent's thread and actions
    kelhttp::ServerSettings settings_;
    std::unique_ptr<kelhttp::Server> server_;  ///< kept when stopped: its actions may still run
};
