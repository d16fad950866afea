#include "modules/relay/relay.h"

#include "kel/ini_file.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"

Relay::Relay() : KelModule("Relay", "Relay module"), parentLink_(Log()) {}

Relay::~Relay() {
    parentLink_.Cancel(0, true);
}

void Relay::Register(const char* handle) {
    ActionDbRegisterAction(
        "RelayGetValues ()", [this](KelContainer* arguments) { return GetValues(arguments); }, handle);
}

bool Relay::Initialise() {
    IniFile ini;
    if (!ini.Open(IniPath())) {
        Log().Error("%S cannot be read or is malformed\n", IniPath());
        return false;
    }
    const auto settings = ReadRelaySettings(ini);
    if (!settings) {
        Log().Error("%S\n", settings.Error().message);
        return false;
    }
    settings_ = *settings;
    parentLink_.Configure(settings_);
    return true;
}

void Relay::Activate() {
    if (settings_.role == RelayRole::Master) return;
    if (settings_.parentName.empty()) {
        Log().Warning("This device has no parent; set ParentName and ParentPort in %S\n", IniPath());
        return;
    }
    parentLink_.Start();
}

void Relay::Cleanup() {
    parentLink_.Cancel(0, true);
}

unsigned int Relay::GetValues(KelContainer* arguments) const {
    const ParentState parent = parentLink_.GetState();
    KelContainer values;
    values.SetBool("IsEnabled", settings_.role != RelayRole::Client);
    values.SetString("Role", RelayRoleName(settings_.role));
    values.SetString("ParentName", settings_.parentName);
    values.SetString("ParentIPAddress", parent.ipAddress);
    values.SetString("ParentGuid", parent.guid);
    values.SetInt32("ParentPort", settings_.parentPort);
    values.SetBool("ParentSync", parent.inSync);
    arguments->Clear();
    arguments->SetContainer("Values", std::move(values));
    return kKelOk;
}
