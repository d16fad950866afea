#include "filestore/transfer/offer.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string_view>

#include "filestore/module/file_store.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/call_origin.h"

namespace filestore {

namespace {

constexpr std::array<const char*, 3> kPathNames = {"MovePath", "CopyPath", "FilePath"};
constexpr unsigned int kUrgentPriority = 500;

bool IsUrgentType(std::string_view type) {
    return type == "IdentityIdentity" || type == "OperationalRuleSyncInfo" ||
           type == "OperationalRuleStatus" || type == "PatchConfiguration";
}

KelString MakeUpName() {
    KelContainer answer;
    ActionDbInvokeContainer(nullptr, "", "IdentityGetHostname", answer, 0, -1, -1, nullptr);
    return KelFormat("%S_%lu_%lu", answer.GetString("HostName"), static_cast<unsigned long>(std::rand()),
                     static_cast<unsigned long>(std::time(nullptr)));
}

bool HoldsPath(const KelContainer& arguments) {
    for (const char* name : kPathNames)
        if (arguments.Has(name)) return true;
    return false;
}

bool Refuse(const char* name, const KelString& value) {
    FileStore::debugFileStore.Warning("Refusing an offer whose %s is unusable: '%S'\n", name, value);
    return false;
}

bool IsFitForSql(std::string_view text) {
    return text.find('\'') == std::string_view::npos && !HasControlCharacter(text);
}

bool CheckTexts(const KelContainer& arguments) {
    for (const char* name : {"SourceDevice", "FirstRelay", "TransportMode", "MulticastAddress"})
        if (!IsFitForSql(arguments.GetString(name))) return Refuse(name, arguments.GetString(name));
    const KelString url = arguments.GetString("FileURL");
    if (!url.empty() && (url.front() != '/' || HasControlCharacter(url))) return Refuse("FileURL", url);
    return true;
}

bool CheckNumber(const KelContainer& arguments, const char* name, std::int64_t largest) {
    const std::int64_t value = arguments.GetInt64(name);
    return (value >= 0 && value <= largest) || Refuse(name, arguments.GetString(name));
}

bool CheckTargets(const KelContainer& targets) {
    for (std::size_t i = 0; i < targets.GetNameCount(); ++i) {
        const KelString& name = targets.GetName(i);
        if (!IsFitForSql(name)) return Refuse("DevicePath", name);
        if (!CheckTargets(targets.GetContainer(name))) return false;
    }
    return true;
}

}  // namespace

Offer ReadOffer(const KelContainer& arguments) {
    Offer offer;
    offer.type = arguments.GetString("FileType");
    offer.label = arguments.GetString("FileLabel");
    offer.name = arguments.GetString("FileName");
    offer.checksum = arguments.GetString("FileChecksum");
    offer.unconnected = arguments.GetBool("Unconnected");
    if (offer.name.empty()) offer.name = MakeUpName();
    offer.upstream = arguments.GetBool("Upstream");
    offer.keepCopy = static_cast<unsigned int>(arguments.GetInt32("KeepCopy"));
    offer.bypass = arguments.GetBool("Bypass");
    offer.wakeOnLan = arguments.GetBool("WakeOnLan") ? 1 : 0;
    const std::int32_t priority = arguments.GetInt32("Priority", 100);
    offer.priority = IsUrgentType(offer.type) ? kUrgentPriority
                     : priority < 0           ? 0U
                                              : static_cast<unsigned int>(priority);
    offer.local = HoldsPath(arguments);
    return offer;
}

bool CheckKeyPart(const char* name, const KelString& part, bool inSql) {
    if (!IsSafePathElement(part)) return Refuse(name, part);
    return !inSql || IsFitForSql(part) || Refuse(name, part);
}

bool CheckOffer(const KelContainer& arguments, const Offer& offer) {
    if (!CheckKeyPart("FileType", offer.type, true) || !CheckKeyPart("FileLabel", offer.label, false) ||
        !CheckKeyPart("FileName", offer.name, false))
        return false;
    // Receivers keep such names for what is not finished.
    if (offer.name.starts_with(kTempFilePrefix)) return Refuse("FileName", offer.name);
    const bool toBeComputed = offer.checksum.empty() && offer.local;
    if (!toBeComputed && !CheckKeyPart("FileChecksum", offer.checksum, true)) return false;
    return CheckTexts(arguments) && CheckNumber(arguments, "FileSize", INT64_MAX) &&
           CheckNumber(arguments, "MulticastPort", 65535) &&
           CheckNumber(arguments, "MulticastBlockSize", 65535) &&
           CheckTargets(arguments.GetContainer("DevicePath")) && CheckLocalPaths(arguments);
}

bool CheckLocalPaths(const KelContainer& arguments) {
    if (!HoldsPath(arguments) || ActionIsFromThisDevice(arguments)) return true;
    FileStore::debugFileStore.Warning("Refusing an offer from '%S' that names a path of this device\n",
                                      ActionRequestAddress(arguments));
    return false;
}

bool IsPlainGuid(const KelString& guid) {
    return !guid.empty() && std::all_of(guid.begin(), guid.end(), [](unsigned char c) {
        return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '-';
    });
}

bool CheckDeviceText(const char* name, const KelString& text) {
    return IsFitForSql(text) || Refuse(name, text);
}

FileStoreEntry OfferedEntry(const KelString& type, const KelString& label, const KelString& name,
                            const KelString& checksum, unsigned int keepCopy, bool bypass,
                            unsigned int priority) {
    FileStoreEntry entry;
    entry.FileType = type;
    entry.FileLabel = label;
    entry.FileName = name;
    entry.FileChecksum = checksum;
    entry.KeepCopy = keepCopy;
    entry.Bypass = bypass;
    entry.Priority = priority;
    return entry;
}

KelString FileInfoXml(const KelContainer& arguments) {
    return arguments.Has("FileInfo") ? arguments.GetContainer("FileInfo").SaveToXML() : KelString();
}

}  // namespace filestore
