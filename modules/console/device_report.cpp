#include "modules/console/device_report.h"

#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/device_name.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"

namespace {

constexpr std::int64_t kMaxFileBytes = 1 << 20;
constexpr std::size_t kMostVersionBytes = 64;

KelError Unusable(const char* valueName, const KelString& value) {
    return KelError{kKelErrorBadInput, KelFormat("its %s \"%S\" is unusable", valueName, value)};
}

KelStatus CheckSource(const KelString& guid, const KelString& sourceDevice) {
    if (!IsGuid(guid)) return Unusable("GUID", guid);
    const KelString sender = sourceDevice.substr(sourceDevice.find('/') + 1);  // whole when there is no "/"
    if (sender.empty() || sender == guid) return {};
    return KelError{kKelErrorBadInput,
                    KelFormat("it is about device %S but comes from %S", guid, sourceDevice)};
}

/// The parts of a report repeat each other; contradictions would put the device in the wrong place of the
/// tree.
KelStatus CheckPlace(const KelContainer& content, const Device& device) {
    if (device.role != "master" && device.role != "relay" && device.role != "client") {
        return Unusable("Role", device.role);
    }
    const bool isParentUsable = device.role == "master"
                                    ? device.parentGuid.empty()
                                    : IsGuid(device.parentGuid) && device.parentGuid != device.guid;
    if (!isParentUsable) return Unusable("ParentGuid", device.parentGuid);
    const KelString deviceUrl = content.GetString("DeviceUrl");
    if (deviceUrl != device.address + "/" + device.guid) return Unusable("DeviceUrl", deviceUrl);
    const KelString port = device.address.substr(device.address.find(':') + 1);
    if (content.GetString("Port") != port) return Unusable("Port", content.GetString("Port"));
    return {};
}

KelStatus CheckTime(std::int64_t time) {
    if (time > 0) return {};
    return Unusable("Time", KelFormat("%gd", time));
}

KelStatus CheckKey(const FileKey& file) {
    for (const auto& [name, value] : {std::pair(kValueFileType, &file.type),
                                      {kValueFileLabel, &file.label},
                                      {kValueFileName, &file.name},
                                      {kValueFileChecksum, &file.checksum}}) {
        if (!IsSafePathElement(*value)) return Unusable(name, *value);
    }
    return {};
}

/// A receipt's message is shown to people and may hold the output of any program.
KelString CleanMessage(KelString message) {
    if (message.size() > kMaxReceiptMessageBytes) message.resize(kMaxReceiptMessageBytes);
    message.resize(std::min(message.size(), FindIllFormedUtf8(message)));
    for (char& c : message) {
        if (HasControlCharacter(std::string_view(&c, 1))) c = ' ';
    }
    return message;
}

}  // namespace

KelResult<IdentityReport> ReadIdentityReport(const KelContainer& content, const KelString& sourceDevice) {
    IdentityReport report;
    const KelString guid = content.GetString("GUID");
    if (const KelStatus checked = CheckSource(guid, sourceDevice); !checked) return checked.Error();
    Device& device = report.device;
    if (const KelStatus parsed = ParsePathName(content.GetString("PathName"), device); !parsed)
        return parsed.Error();
    if (device.guid != guid) return Unusable("PathName", device.pathName);
    device.name = content.GetString("HostName");
    if (!IsDeviceName(device.name)) return Unusable("HostName", device.name);
    device.role = content.GetString("Role");
    device.parentGuid = content.GetString("ParentGuid");
    if (const KelStatus checked = CheckPlace(content, device); !checked) return checked.Error();
    report.storeId = content.GetString("StoreId");
    if (!report.storeId.empty() && !IsSafePathElement(report.storeId))
        return Unusable("StoreId", report.storeId);
    device.version = CleanMessage(content.GetString("Version"));
    if (device.version.size() > kMostVersionBytes) return Unusable("Version", device.version);
    report.time = content.GetInt64("Time");
    if (const KelStatus checked = CheckTime(report.time); !checked) return checked.Error();
    return report;
}

KelResult<DeliveryReceipt> ReadDeliveryReceipt(const KelContainer& content, const KelString& sourceDevice) {
    DeliveryReceipt receipt;
    receipt.guid = content.GetString("GUID");
    if (const KelStatus checked = CheckSource(receipt.guid, sourceDevice); !checked) return checked.Error();
    receipt.file = FileKey::Read(content);
    if (const KelStatus checked = CheckKey(receipt.file); !checked) return checked.Error();
    const std::uint32_t count = content.Has(kValuePublicationId) ? content.Count(kValuePublicationId) : 0;
    for (std::uint32_t i = 0; i < count; ++i)
        receipt.publications.push_back(content.GetString(kValuePublicationId, {}, i));
    receipt.status = content.GetString("Status");
    if (receipt.status != "delivered" && receipt.status != "failed")
        return Unusable("Status", receipt.status);
    receipt.message = CleanMessage(content.GetString("Message"));
    receipt.time = content.GetInt64("Time");
    if (const KelStatus checked = CheckTime(receipt.time); !checked) return checked.Error();
    receipt.isRefused = content.GetBool("Refused");
    return receipt;
}

KelResult<KelContainer> ReadReportFile(const KelString& path) {
    const std::int64_t size = FileGetSize64(path);
    if (size > kMaxFileBytes) return KelError{kKelErrorBadInput, KelFormat("it has %gd bytes", size)};
    const auto text = FileReadText(path, kMaxFileBytes);
    if (!text)
        return KelError{text.Error().code == kKelPathNotFound ? kKelErrorBadInput : kKelErrorNotAvailable,
                        text.Error().message};
    KelContainer content;
    if (const KelStatus loaded = content.LoadFromXML(*text); !loaded) return loaded.Error();
    return content;
}
