#include "modules/http_protocol/multicast_actions.h"

#include <netinet/in.h>
#include <algorithm>

#include "kel/text.h"
#include "kelcore/call_origin.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"

namespace kelhttp {
namespace {

constexpr const char* kAddress = "MulticastAddress";
constexpr const char* kPort = "MulticastPort";
constexpr const char* kBlockSize = "MulticastBlockSize";
constexpr std::int32_t kMinBlockSize = 1024;
constexpr std::int32_t kMaxBlockSize = 64000;
constexpr std::size_t kMd5Digits = 32;
/// How long a sender's question may wait for the verification of a file; below the time in which it expects
/// an answer.
constexpr std::chrono::seconds kReportPatience(30);

bool IsGroupAddress(const KelString& text) {
    const auto address = IpAddress::Parse(text);
    return address && IN_MULTICAST(address->Value()) && address->ToText() == text;
}

/// Reads what both kinds of a start carry; false when a value cannot be used.
bool ReadTransfer(const KelContainer& arguments, MulticastOrder& order) {
    const std::int32_t port = arguments.GetInt32(kPort);
    const std::int32_t blockSize = arguments.GetInt32(kBlockSize);
    const std::int64_t size = arguments.GetInt64(kValueFileSize, -1);
    order.transfer.group = arguments.GetString(kAddress);
    order.transfer.port = static_cast<std::uint16_t>(port);
    order.transfer.fileSize = static_cast<std::uint64_t>(size);
    order.blockSize = static_cast<std::uint32_t>(blockSize);
    return IsGroupAddress(order.transfer.group) && port > 0 && port <= 65535 && blockSize >= kMinBlockSize &&
           blockSize <= kMaxBlockSize && size >= 0;
}

bool ReadFile(const KelContainer& arguments, MulticastOrder& order) {
    const KelString url = arguments.GetString(kValueFileUrl);
    order.transfer.urlPath = url.starts_with('/') ? url : "/" + url;
    order.localPath = arguments.GetString("LocalPath");
    order.checksum = ToLowerText(arguments.GetString(kValueFileChecksum));
    return !url.empty() && !HasControlCharacter(url) && !order.localPath.empty() &&
           order.checksum.size() == kMd5Digits &&
           order.checksum.find_first_not_of("0123456789abcdef") == KelString::npos;
}

unsigned int Refuse(KelContainer& container, unsigned int result, const KelString& message) {
    container.Clear();
    container.SetString("Message", message);
    return result;
}

}  // namespace

unsigned int StartMulticastListening(MulticastReceiver& receiver, const KelDebug& log,
                                     KelContainer& container) {
    MulticastOrder order;
    KelString message = "a value cannot be used";
    unsigned int result = kKelErrorBadInput;
    if (ReadTransfer(container, order)) {
        if (!ActionIsFromThisDevice(container))
            result = receiver.Restart({order.transfer.group, order.transfer.port}, order.blockSize,
                                      order.transfer.fileSize, message);
        else if (ReadFile(container, order))
            result = receiver.Start(order, message);
    }
    if (result != kKelOk) {
        log.Warning("No reception from the multicast group '%S' for '%S' (call from '%S'): %S.\n",
                    container.GetString(kAddress), container.GetString("LocalPath"),
                    ActionRequestAddress(container), message);
        return Refuse(container, result, message);
    }
    container.Clear();
    return kKelOk;
}

unsigned int StopMulticastListening(MulticastReceiver& receiver, const KelDebug& /*log*/,
                                    KelContainer& container) {
    const KelString group = container.GetString(kAddress);
    container.Clear();
    receiver.End(group);
    return kKelOk;
}

unsigned int ReportMulticast(MulticastReceiver& receiver, const KelDebug& /*log*/, KelContainer& container) {
    const MulticastReceiver::Group group{container.GetString(kAddress),
                                         static_cast<std::uint16_t>(container.GetInt32(kPort))};
    const bool differential = container.GetBool("MulticastDifferencialRetry");
    container.Clear();
    receiver.Report(group, differential, kReportPatience, container);
    return kKelOk;
}

}  // namespace kelhttp
