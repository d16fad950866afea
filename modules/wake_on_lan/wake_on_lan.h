#pragma once

#include <functional>
#include <optional>

#include "kel/container.h"
#include "kel/periodic_thread.h"
#include "kelcore/module.h"
#include "kelcore/net/network_interface.h"
#include "modules/wake_on_lan/subnet.h"
#include "modules/wake_on_lan/wake_schedule.h"
#include "modules/wake_on_lan/wake_up_request.h"

/// The Wake-on-LAN module: wakes sleeping devices by magic packets. Its actions are listed in Register.
///
/// With a way, the request is passed on to its first device. Otherwise the packet is sent to the broadcast
/// address of the subnet of an own interface that contains the device. When no interface does, agents in the
/// device's subnet are asked to send, unless WakeOnLanOnlyOwnSubnet says no. No packet leaves for any other
/// address, nor passes a router.
/// Every result but 0 comes with a text Message.
class WakeOnLan : public KelModule {
  public:
    using Interfaces = std::function<KelVector<NetworkInterface>()>;

    /// `interfaces` lists those of this device.
    explicit WakeOnLan(Interfaces interfaces = ListNetworkInterfaces);
    ~WakeOnLan() override;

  protected:
    void Register(const char* handle) override;
    bool Initialise() override;
    bool Activate() override { return repeats_.Start(); }
    void Cleanup() override { repeats_.Cancel(0, true); }
    std::span<const IniSetting> IniSettings() const override;

  private:
    unsigned int AddSubnet(KelContainer* arguments);
    unsigned int WakeUp(KelContainer* arguments);
    KelResult<KelContainer> Route(const WakeUpRequest& request);
    KelResult<KelContainer> SendRequested(const WakeUpRequest& request, const NetworkInterface& own);
    KelResult<KelContainer> PassOn(const WakeUpRequest& request, const KelString& device);
    KelResult<KelContainer> AskAgents(const WakeUpRequest& request);
    std::optional<NetworkInterface> InterfaceToward(IpAddress host) const;
    KelStatus Send(const MacAddress& card, const NetworkInterface& own);
    void SendRepeats();

    const Interfaces interfaces_;
    std::uint16_t port_ = 0;  ///< written at initialisation only
    SubnetAgents agents_;
    WakeSchedule schedule_;
    KelPeriodicThread repeats_;
};
