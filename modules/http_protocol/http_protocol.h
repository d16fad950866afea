#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "kel/container.h"
#include "kel/mutex.h"
#include "kelcore/module.h"
#include "modules/http_protocol/alias_table.h"
#include "modules/http_protocol/settings.h"

namespace kelhttp {
class MulticastReceiver;
class Server;
}  // namespace kelhttp

/// The agent's HTTP server: calls of actions, files under aliases, uploads. Its actions are listed in
/// Register.
///
/// Event: HttpProtocolCallbackPut{URL, MulticastAddress, LocalPath}, after an upload is in place, or a file
/// that came by multicast (then with its group in MulticastAddress). Before an upload begins and before it is
/// in place, HttpProtocolCallbackPutBegin and HttpProtocolCallbackPutCheck ask whether it is wanted; see
/// PutUpload and KelTransferAnswer. In a tree with keys, HttpProtocolCallbackGet{URL} asks whether the
/// calling device may fetch a file; its parent and the master may fetch all.
///
/// Initialise binds the port; Activate begins to serve it and fails when another program listens on it by
/// then. All actions answer from Initialise on, and still after Cleanup.
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
    std::span<const IniSetting> IniSettings() const override { return kelhttp::ServerIniSettings(); }
    void CheckIni(const IniFile& ini, KelVector<IniFault>& faults) const override {
        kelhttp::CheckServerIni(ini, faults);
    }

  private:
    unsigned int AddAlias(KelContainer* arguments);
    unsigned int DeleteAlias(KelContainer* arguments);
    unsigned int GetParams(KelContainer* arguments) const;
    int PortForDevices() const KEL_REQUIRES(mutex_);
    unsigned int GetThreadCount(KelContainer* arguments) const;

    /// Null before Initialise has succeeded; afterwards valid until the destructor.
    kelhttp::Server* CurrentServer() const;
    /// The same.
    kelhttp::MulticastReceiver* CurrentReceiver() const;
    void RegisterMulticast(const char* handle);

    kelhttp::AliasTable aliases_;
    mutable KelMutex mutex_;
    kelhttp::ServerSettings settings_ KEL_GUARDED_BY(mutex_);
    /// Kept when stopped: actions may still run, for which the server's destructor waits.
    std::unique_ptr<kelhttp::MulticastReceiver> receiver_ KEL_GUARDED_BY(mutex_);
    std::unique_ptr<kelhttp::Server> server_ KEL_GUARDED_BY(mutex_);
};
