#include "modules/http_protocol/settings.h"

#include "kel/file.h"
#include "kel/format.h"
#include "kel/ip_address.h"
#include "kel/text.h"

namespace kelhttp {
namespace {

constexpr const char* kSection = "HttpProtocol";

struct NumberEntry {
    const char* key;
    int ServerSettings::*value;  ///< its initial value is the default
    int lowest;
    int highest;
    IniSetting Setting() const {
        return IniSetting::Number(kSection, key, ServerSettings().*value).Between(lowest, highest);
    }
};

constexpr NumberEntry kNumbers[] = {
    {"Workers", &ServerSettings::workers, 1, 256},
    {"WorkerQueue", &ServerSettings::workerQueue, 0, 100000},
    {"FileWorkers", &ServerSettings::fileWorkers, 1, 64},
    {"IoThreads", &ServerSettings::ioThreads, 1, 64},
    {"HeaderTimeout", &ServerSettings::headerTimeout, 1, 3600},
    {"IdleTimeout", &ServerSettings::idleTimeout, 1, 86400},
    {"SendTimeout", &ServerSettings::sendTimeout, 1, 86400},
    {"MinBodyRate", &ServerSettings::minBodyRate, 0, 1 << 30},
    {"MinUploadRate", &ServerSettings::minUploadRate, 0, 1 << 30},
    {"MinUploadRateTime", &ServerSettings::minUploadRateTime, 1, 86400},
    {"MinBodyRateTime", &ServerSettings::minBodyRateTime, 1, 3600},
    {"MaxHeaderBytes", &ServerSettings::maxHeaderBytes, 1024, 1 << 20},
    {"MaxActionBytes", &ServerSettings::maxActionBytes, 1024, 1 << 30},
    {"MaxJsonBytes", &ServerSettings::maxJsonBytes, 1024, 1 << 30},
    {"MaxConnections", &ServerSettings::maxConnections, 1, 1 << 20},
    {"MaxConnectionsPerAddress", &ServerSettings::maxConnectionsPerAddress, 1, 1 << 20},
    {"MaxUnauthenticated", &ServerSettings::maxUnauthenticated, 1, 1 << 20},
    {"MaxUnauthenticatedPerAddress", &ServerSettings::maxUnauthenticatedPerAddress, 1, 1 << 20},
    {"NonceLifetime", &ServerSettings::nonceLifetime, 1, 86400},
    {"MulticastTimeout", &ServerSettings::multicastTimeout, 1, 86400},
    {"MulticastMaxGroups", &ServerSettings::multicastMaxGroups, 1, 1000},
    {"BwPingFrequency", &ServerSettings::bandwidthPingFrequency, 0, 1 << 30},
    {"BwClientCheckFrequency", &ServerSettings::bandwidthClientCheckFrequency, 0, 1 << 30},
    {"BwPingDuration", &ServerSettings::bandwidthPingDuration, 0, 1 << 30},
};

bool IsIpAddress(const KelString& text) {
    return text.empty() || IpAddress::Parse(text);
}

// With a default in its place, a wrong port or address would go unnoticed on this device, but no other device
// could reach it.
IniSetting Port(const char* section, const char* key) {
    return IniSetting::Number(section, key, 0).Between(0, 65535).Vital();
}

const IniSetting kPort = Port(kSection, "Port");
const IniSetting kSslPort = Port("Ssl", "Port");
const IniSetting kBandwidthPort = Port(kSection, "BwPort");
const IniSetting kMetricsPort = Port(kSection, "MetricsPort");
const IniSetting kMetricsAddress =
    IniSetting::Text(kSection, "MetricsAddress", "127.0.0.1").Checked(IsIpAddress, "an IPv4 address").Vital();
const IniSetting kAddress =
    IniSetting::Text(kSection, "Address").Checked(IsIpAddress, "an IPv4 address").Vital();
const IniSetting kWritable = IniSetting::Text("Aliases", "Writable", "FileStore/upstream");
const IniSetting kCertificateFile = IniSetting::Text("Ssl", "CertificateFile");
const IniSetting kKeyFile = IniSetting::Text("Ssl", "KeyFile");

}  // namespace

std::span<const IniSetting> ServerIniSettings() {
    static const KelVector<IniSetting> settings = [] {
        KelVector<IniSetting> all = {kPort,    kSslPort,  kBandwidthPort,   kMetricsPort, kMetricsAddress,
                                     kAddress, kWritable, kCertificateFile, kKeyFile};
        for (const NumberEntry& entry : kNumbers)
            all.push_back(entry.Setting());
        return all;
    }();
    return settings;
}

void CheckServerIni(const IniFile& ini, KelVector<IniFault>& faults) {
    const KelString key = ReadIniText(ini, kKeyFile);
    if (!key.empty() && FileIsOpenToOthers(key, kOpenKey))
        faults.push_back(
            {IniFault::Weight::Vital,
             KelFormat("the private key %S may be opened by others; chmod 600 it, and make a new "
                       "one if somebody may have read it",
                       key)});
}

ServerSettings ReadServerSettings(const IniFile& ini, const KelString& address) {
    const auto port = [&ini](const IniSetting& setting) {
        return static_cast<std::uint16_t>(ReadIniNumber(ini, setting));
    };
    ServerSettings settings;
    settings.port = port(kPort);
    settings.sslPort = port(kSslPort);
    settings.bandwidthPort = port(kBandwidthPort);
    settings.metricsPort = port(kMetricsPort);
    settings.metricsAddress = ReadIniText(ini, kMetricsAddress);
    for (const NumberEntry& entry : kNumbers)
        settings.*entry.value = static_cast<int>(ReadIniNumber(ini, entry.Setting()));
    ini.GetEntryValue(kSection, kAddress.key, settings.address, address);
    for (const KelString& name : SplitText(ReadIniText(ini, kWritable), ','))
        if (!Trim(name).empty()) settings.writableAliases.push_back(Trim(name));
    settings.certificateFile = ReadIniText(ini, kCertificateFile);
    settings.keyFile = ReadIniText(ini, kKeyFile);
    return settings;
}

}  // namespace kelhttp
