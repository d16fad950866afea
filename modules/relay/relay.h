#pragma once

#include "kel/container.h"
#include "kelcore/module.h"
#include "modules/relay/parent_link.h"
#include "modules/relay/relay_settings.h"

/// The relay module: the role of this device and its parent. Action:
///
/// - RelayGetValues -> Values{IsEnabled (bool, true on a relay and on the master), Role, ParentName,
///   ParentIPAddress, ParentGuid, ParentPort (int32), ParentSync (bool)}
class Relay : public KelModule {
  public:
    Relay();
    ~Relay() override;

  protected:
    void Register(const char* handle) override;
    bool Initialise() override;
    void Activate() override;
    void Cleanup() override;

  private:
    unsigned int GetValues(KelContainer* arguments) const;

    RelaySettings settings_;  ///< written at initialisation only
    ParentLink parentLink_;
};
