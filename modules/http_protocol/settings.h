#pragma once

#include <cstdint>
#include <span>

#include "kel/ini_file.h"
#include "kel/types.h"
#include "kelcore/ini_settings.h"

namespace kelhttp {

/// The settings of the ini file. Times in seconds, sizes in bytes. The defaults apply without an ini file.
struct ServerSettings {
    KelString address;       ///< dotted IPv4 address to listen on, empty: every address
    std::uint16_t port = 0;  ///< 0: any free port
    int workers = 8;
    int workerQueue = 4096;  ///< action calls that may wait for a worker
    int fileWorkers = 4;
    int ioThreads = 2;
    int headerTimeout = 20;
    int idleTimeout = 75;
    int sendTimeout = 120;        ///< a connection whose peer reads nothing for so long is closed
    int minBodyRate = 1000;       ///< of the body of an action call, bytes per second
    int minBodyRateTime = 10;     ///< seconds over which the rate of a body is measured
    int minUploadRate = 50;       ///< bytes per second; less than any transfer window is worth
    int minUploadRateTime = 300;  ///< seconds over which the rate of an upload is measured
    int maxHeaderBytes = 32 << 10;
    int maxActionBytes = 32 << 20;
    int maxJsonBytes = 1 << 20;  ///< JSON is what scripts send, never agents
    int maxConnections = 12000;
    int maxConnectionsPerAddress = 4000;
    int maxUnauthenticated = 2000;  ///< of addresses with valid credentials lately, and of others, each
    int maxUnauthenticatedPerAddress = 200;
    int nonceLifetime = 300;

    KelVector<KelString> writableAliases;

    KelString certificateFile;  ///< PEM chain; empty: no TLS listener
    KelString keyFile;
    std::uint16_t sslPort = 0;

    KelString metricsAddress;       ///< of the port that serves the metrics and nothing else
    std::uint16_t metricsPort = 0;  ///< 0: none

    int bandwidthPort = 0;  ///< 0: no probe port
    int bandwidthPingFrequency = 0;
    int bandwidthClientCheckFrequency = 0;
    int bandwidthPingDuration = 0;

    int multicastTimeout = 600;  ///< a multicast reception that hears nothing for so long ends
    int multicastMaxGroups = 16;

    KelString socketFolder;  ///< of the agent's own socket; empty: none

    KelString userName;  ///< credentials of every request
};

/// The entries of the ini file.
std::span<const IniSetting> ServerIniSettings();

/// Appends what is wrong with the files that it names.
void CheckServerIni(const IniFile& ini, KelVector<IniFault>& faults);

/// Reads the settings from `ini`, which has no vital fault. `address` is the default of the address.
ServerSettings ReadServerSettings(const IniFile& ini, const KelString& address);

}  // namespace kelhttp
