#include "modules/http_protocol/settings.h"

#include <algorithm>

#include "kel/text.h"

namespace kelhttp {
namespace {

constexpr const char* kSection = "HttpProtocol";

struct NumberEntry {
    const char* key;
    int ServerSettings::*value;
    int lowest;
    int highest;
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
    {"MinBodyRateTime", &ServerSettings::minBodyRateTime, 1, 3600},
    {"MaxHeaderBytes", &ServerSettings::maxHeaderBytes, 1024, 1 << 20},
    {"MaxActionBytes", &ServerSettings::maxActionBytes, 1024, 1 << 30},
    {"MaxConnections", &ServerSettings::maxConnections, 1, 1 << 20},
    {"MaxConnectionsPerAddress", &ServerSettings::maxConnectionsPerAddress, 1, 1 << 20},
    {"NonceLifetime", &ServerSettings::nonceLifetime, 1, 86400},
    {"BwPort", &ServerSettings::bandwidthPort, 0, 65535},
    {"BwPingFrequency", &ServerSettings::bandwidthPingFrequency, 0, 1 << 30},
    {"BwClientCheckFrequency", &ServerSettings::bandwidthClientCheckFrequency, 0, 1 << 30},
    {"BwPingDuration", &ServerSettings::bandwidthPingDuration, 0, 1 << 30},
};

int ReadNumber(const IniFile& ini, const KelString& section, const char* key, int fallback, int lowest,
               int highest, const KelDebug& log) {
    int value = fallback;
    ini.GetEntryValue(section, key, value, fallback);
    const int clamped = std::clamp(value, lowest, highest);
    if (clamped != value)
        log.Warning("Entry %s of section %S is %d; it must lie between %d and %d, %d is used.\n", key,
                    section, value, lowest, highest, clamped);
    return clamped;
}

}  // namespace

ServerSettings ReadServerSettings(const IniFile& ini, const KelString& address, const KelDebug& log) {
    ServerSettings settings;
    for (const NumberEntry& entry : kNumbers) {
        int& value = settings.*entry.value;
        value = ReadNumber(ini, kSection, entry.key, value, entry.lowest, entry.highest, log);
    }
    settings.port = static_cast<std::uint16_t>(ReadNumber(ini, kSection, "Port", 0, 0, 65535, log));
    ini.GetEntryValue(kSection, "Address", settings.address, address);
    KelString writable;
    ini.GetEntryValue("Aliases", "Writable", writable, "FileStore/upstream");
    for (const KelString& name : SplitText(writable, ',')) {
        if (!Trim(name).empty()) settings.writableAliases.push_back(Trim(name));
    }
    ini.GetEntryValue("Ssl", "CertificateFile", settings.certificateFile, "");
    ini.GetEntryValue("Ssl", "KeyFile", settings.keyFile, "");
    settings.sslPort = static_cast<std::uint16_t>(ReadNumber(ini, "Ssl", "Port", 0, 0, 65535, log));
    return settings;
}

}  // namespace kelhttp
