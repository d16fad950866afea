#include "modules/http_protocol/settings.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "kel/format.h"
#include "kel/text.h"
#include "kelcore/error_codes.h"

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
    {"BwPingFrequency", &ServerSettings::bandwidthPingFrequency, 0, 1 << 30},
    {"BwClientCheckFrequency", &ServerSettings::bandwidthClientCheckFrequency, 0, 1 << 30},
    {"BwPingDuration", &ServerSettings::bandwidthPingDuration, 0, 1 << 30},
};

int ReadNumber(const IniFile& ini, const NumberEntry& entry, int fallback, const KelDebug& log) {
    KelString text;
    if (!ini.GetEntryValue(kSection, entry.key, text, {}) || text.empty()) return fallback;
    const std::optional<std::int64_t> number = ParseInt64(text);
    const std::int64_t used =
        number ? std::clamp<std::int64_t>(*number, entry.lowest, entry.highest) : fallback;
    if (number != used)
        log.Warning("Entry %s of section %s is '%S'; it must be a number from %d to %d, %gd is used.\n",
                    entry.key, kSection, text, entry.lowest, entry.highest, used);
    return static_cast<int>(used);
}

/// 0 when there is no such entry.
KelResult<std::uint16_t> ReadPort(const IniFile& ini, const char* section, const char* key) {
    KelString text;
    ini.GetEntryValue(section, key, text, {});
    const std::optional<std::uint64_t> port = text.empty() ? 0 : ParseUint64(text);
    if (port && std::in_range<std::uint16_t>(*port)) return static_cast<std::uint16_t>(*port);
    return KelError{
        kKelErrorBadInput,
        KelFormat("entry %s of section %s is '%S', no port number (0 to 65535)", key, section, text)};
}

}  // namespace

KelResult<ServerSettings> ReadServerSettings(const IniFile& ini, const KelString& address,
                                             const KelDebug& log) {
    ServerSettings settings;
    const auto port = ReadPort(ini, kSection, "Port");
    const auto sslPort = ReadPort(ini, "Ssl", "Port");
    const auto bandwidthPort = ReadPort(ini, kSection, "BwPort");
    for (const auto* read : {&port, &sslPort, &bandwidthPort}) {
        if (!*read) return read->Error();
    }
    settings.port = *port;
    settings.sslPort = *sslPort;
    settings.bandwidthPort = *bandwidthPort;
    for (const NumberEntry& entry : kNumbers) {
        int& value = settings.*entry.value;
        value = ReadNumber(ini, entry, value, log);
    }
    ini.GetEntryValue(kSection, "Address", settings.address, address);
    KelString writable;
    ini.GetEntryValue("Aliases", "Writable", writable, "FileStore/upstream");
    for (const KelString& name : SplitText(writable, ',')) {
        if (!Trim(name).empty()) settings.writableAliases.push_back(Trim(name));
    }
    ini.GetEntryValue("Ssl", "CertificateFile", settings.certificateFile, "");
    ini.GetEntryValue("Ssl", "KeyFile", settings.keyFile, "");
    return settings;
}

}  // namespace kelhttp
