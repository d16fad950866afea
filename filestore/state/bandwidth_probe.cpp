#include <array>
#include <chrono>
#include <cstdio>

#include "filestore/state/bandwidth_manager.h"
#include "filestore/state/device.h"
#include "filestore/state/file_store.h"
#include "filestore/state/parent.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/net/socket.h"

namespace {

constexpr std::size_t kProbeBytes = 1400;
constexpr unsigned int kConnectSeconds = 20;
constexpr unsigned long kDefaultClientCheck = 500;  ///< seconds, as are the frequencies that the peer gives
constexpr unsigned long kMicrosecondsPerSecond = 1000000;

/// Sends for `duration` milliseconds; the bytes that went out in whole pieces.
std::uint64_t SendFor(NetworkSocket& socket, unsigned int duration) {
    using Clock = std::chrono::steady_clock;
    std::array<std::byte, kProbeBytes> piece;
    piece.fill(std::byte{98});
    const auto end = Clock::now() + std::chrono::milliseconds(duration);
    std::uint64_t total = 0;
    while (Clock::now() < end) {
        const long sent = socket.Send(piece);
        if (sent < 0) break;
        if (sent == static_cast<long>(kProbeBytes)) total += kProbeBytes;
    }
    return total;
}

}  // namespace

unsigned long FileStoreBandwidthManager::BandwidthEstimationTCP(IpAddress const& address, unsigned int port,
                                                                unsigned int duration) {
    const std::uint32_t host = NetworkSocket::GetHostAddress(address.ToText());
    if (host == 0) {
        std::puts("Error ulHostAddr = 0");
        return 0;
    }
    if (duration == 0 || port == 0 || port > 65535) return 0;
    const auto socket =
        SocketFactory::ConnectTcp(IpAddress(host), static_cast<std::uint16_t>(port), kConnectSeconds);
    if (socket == nullptr) {
        std::puts("Error Connect");
        return 0;
    }
    const std::uint64_t bitsPerSecond = SendFor(*socket, duration) * 8000 / duration;
    FileStore::debugFileStore.Print("Bandwidth available: %gu bps\n", bitsPerSecond);
    return bitsPerSecond / 8;
}

bool FileStoreBandwidthManager::GetClientCount(bool firstTime, unsigned int& clientCount,
                                               unsigned int& bwPort, unsigned long& clientCheckFrequency,
                                               unsigned long& pingFrequency, unsigned int& pingDuration) {
    filestore::Parent parent;
    if (!filestore::ReadParent(parent)) clientCount = 0;
    filestore::RefreshAddressPreference();
    if (!parent.IsKnown()) clientCount = 0;
    if (!parent.IsKnown() && parent.name.empty()) return false;
    KelContainer call;
    call.SetBool("FirstTime", firstTime);
    if (CallDevice(parent.CallUrl(), "HttpProtocolGetThreadCount", call) != kKelOk) return false;
    clientCount = static_cast<unsigned int>(call.GetInt32("ThreadCount"));
    if (!firstTime) return true;
    bwPort = static_cast<unsigned int>(call.GetInt32("BwPort"));
    pingFrequency = static_cast<unsigned long>(call.GetInt32("BwPingFrequency"));
    clientCheckFrequency = static_cast<unsigned long>(call.GetInt32("BwClientCheckFrequency"));
    pingDuration = static_cast<unsigned int>(call.GetInt32("BwPingDuration"));
    if (clientCheckFrequency == 0) clientCheckFrequency = kDefaultClientCheck;
    clientCheckFrequency *= kMicrosecondsPerSecond;
    pingFrequency *= kMicrosecondsPerSecond;
    return true;
}
