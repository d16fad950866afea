#include "filestore/exchange/offer.h"

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string_view>

#include "filestore/exchange/input_checks.h"
#include "filestore/state/file_store.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kelcore/action_db.h"
#include "kelcore/file_values.h"

namespace filestore {

namespace {

constexpr unsigned int kUrgentPriority = 500;

bool IsUrgentType(std::string_view type) {
    return type == "IdentityIdentity" || type == "OperationalRuleSyncInfo" ||
           type == "OperationalRuleStatus" || type == "PatchConfiguration";
}

KelString MakeUpName() {
    KelContainer answer;
    CallLocal("IdentityGetHostname", answer);
    return KelFormat("%S_%lu_%lu", answer.GetString("HostName"), static_cast<unsigned long>(std::rand()),
                     static_cast<unsigned long>(std::time(nullptr)));
}

bool HoldsPath(const KelContainer& arguments) {
    return arguments.Has(kValueMovePath) || arguments.Has(kValueCopyPath) || arguments.Has(kValueFilePath);
}

bool Refuse(const char* name, const KelString& value) {
    FileStore::debugFileStore.Warning("Refusing an offer whose %s is unusable: '%S'\n", name, value);
    return false;
}

bool CheckTexts(const KelContainer& arguments) {
    for (const char* name : {kValueSourceDevice, kValueFirstRelay, kValueTransportMode, "MulticastAddress"})
        if (!CheckDeviceText(name, arguments.GetString(name))) return false;
    const KelString url = arguments.GetString(kValueFileUrl);
    return url.empty() || IsUrlPath(url) || Refuse(kValueFileUrl, url);
}

bool CheckNumber(const KelContainer& arguments, const char* name, std::int64_t largest) {
    const std::int64_t value = arguments.GetInt64(name);
    return (value >= 0 && value <= largest) || Refuse(name, arguments.GetString(name));
}

bool CheckTargets(const KelContainer& targets) {
    for (std::size_t i = 0; i < targets.GetNameCount(); ++i) {
        const KelString& name = targets.GetName(i);
        if (!CheckDeviceText(kValueDevicePath, name)) return false;
        if (!CheckTargets(targets.GetContainer(name))) return false;
    }
    return true;
}

}  // namespace

Offer ReadOffer(const KelContainer& arguments) {
    Offer offer;
    offer.key = FileKey::Read(arguments);
    if (offer.key.name.empty()) offer.key.name = MakeUpName();
    offer.unconnected = arguments.GetBool(kValueUnconnected);
    offer.upstream = arguments.GetBool(kValueUpstream);
    offer.keepCopy = static_cast<unsigned int>(arguments.GetInt32(kValueKeepCopy));
    offer.bypass = arguments.GetBool(kValueBypass);
    offer.repeated = arguments.GetBool(kValueRepeated);
    offer.wakeOnLan = arguments.GetBool(kValueWakeOnLan) ? 1 : 0;
    const std::int32_t priority = arguments.GetInt32(kValuePriority, 100);
    offer.priority = IsUrgentType(offer.key.type) ? kUrgentPriority
                     : priority < 0               ? 0U
                                                  : static_cast<unsigned int>(priority);
    offer.local = HoldsPath(arguments);
    return offer;
}

bool CheckOffer(const KelContainer& arguments, const Offer& offer) {
    if (!CheckFileKey(offer.key, offer.local)) return false;
    // Receivers keep such names for what is not finished.
    if (offer.key.name.starts_with(kTempFilePrefix)) return Refuse(kValueFileName, offer.key.name);
    return CheckTexts(arguments) && CheckNumber(arguments, kValueFileSize, INT64_MAX) &&
           CheckNumber(arguments, "MulticastPort", 65535) &&
           CheckNumber(arguments, "MulticastBlockSize", 65535) &&
           CheckTargets(arguments.GetContainer(kValueDevicePath)) && CheckLocalPaths(arguments);
}

FileStoreEntry Offer::ToEntry() const {
    FileStoreEntry entry(key);
    entry.KeepCopy = keepCopy;
    entry.Bypass = bypass;
    entry.Repeated = repeated;
    entry.Priority = priority;
    return entry;
}

KelString FileInfoXml(const KelContainer& arguments) {
    return arguments.Has(kValueFileInfo) ? arguments.GetContainer(kValueFileInfo).SaveToXML() : KelString();
}

}  // namespace filestore
