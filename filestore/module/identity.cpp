#include <algorithm>

#include "filestore/db/schema.h"
#include "filestore/module/file_store.h"
#include "kel/format.h"
#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/call_origin.h"
#include "kelcore/error_codes.h"
#include "kelcore/net/socket.h"

using namespace filestore;

namespace {

constexpr std::size_t kSchemeDigits = 4;
constexpr std::size_t kMaxGuidLength = 64;

/// Calls a local action that takes no arguments; its results, empty when it failed.
KelContainer CallLocal(const char* action) {
    KelContainer container;
    if (ActionDbInvokeContainer(nullptr, "", action, container, 0, -1, -1, nullptr) != kKelOk)
        container.Clear();
    return container;
}

/// Letters, digits and hyphens: safe in statements and paths.
bool IsUsableGuid(const KelString& guid) {
    return !guid.empty() && guid.size() <= kMaxGuidLength &&
           std::all_of(guid.begin(), guid.end(), [](char c) {
               return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '-';
           });
}

void FetchGuid() {
    const KelString guid = CallLocal("IdentityGetGUID").GetString("GUID");
    if (guid.empty()) return;
    if (!IsUsableGuid(guid)) {
        FileStore::debugFileStore.Warning("The identity module gave an unusable GUID: '%S'\n", guid);
        return;
    }
    KelLock lock(FileStore::mutexGUID);
    if (!FileStore::strOurGUID.empty()) return;  // an event brought one meanwhile, newer than this answer
    FileStore::strOurGUID = guid;
    FileStore::debugFileStore.Detail("Our GUID is %S\n", guid);
}

KelString KnownGuid() {
    KelLock lock(FileStore::mutexGUID);
    return FileStore::strOurGUID;
}

/// The name server may be slow: it is not waited for under the lock.
KelString OurHostName() {
    {
        KelLock lock(FileStore::mutexGUID);
        if (!FileStore::strOurHostName.empty()) return FileStore::strOurHostName;
    }
    KelString name = GetLocalHostName();
    const KelString domain = GetLocalDomainName();
    if (!domain.empty()) name += "." + domain;
    KelLock lock(FileStore::mutexGUID);
    if (FileStore::strOurHostName.empty()) FileStore::strOurHostName = name;
    return FileStore::strOurHostName;
}

KelString OurIpAddress() {
    {
        KelLock lock(FileStore::mutexGUID);
        if (!FileStore::strOurIPAddress.empty()) return FileStore::strOurIPAddress;
    }
    const KelString address = CallLocal("AgentGetIPAddress").GetString("IPAddress");
    KelLock lock(FileStore::mutexGUID);
    if (FileStore::strOurIPAddress.empty()) FileStore::strOurIPAddress = address;
    return FileStore::strOurIPAddress;
}

/// A port that could not be asked for (-1) is not kept, so that the next call asks again.
std::uint32_t OurHttpPort() {
    if (FileStore::ulOurHttpPort != 0) return FileStore::ulOurHttpPort;
    const KelContainer answer = CallLocal("HttpProtocolGetParams");
    const std::int32_t port = answer.GetContainer("Values").GetInt32("Port", -1);
    if (port > 0) FileStore::ulOurHttpPort = static_cast<std::uint32_t>(port);
    return static_cast<std::uint32_t>(port);
}

/// The first digits of a GUID as a hexadecimal number, -1 when they are none.
int GuidScheme(const KelString& guid) {
    if (guid.size() < kSchemeDigits) return -1;
    int scheme = 0;
    for (const char c : guid.substr(0, kSchemeDigits)) {
        const int digit = c >= '0' && c <= '9'   ? c - '0'
                          : c >= 'A' && c <= 'F' ? c - 'A' + 10
                          : c >= 'a' && c <= 'f' ? c - 'a' + 10
                                                 : -1;
        if (digit < 0) return -1;
        scheme = scheme * 16 + digit;
    }
    return scheme;
}

KelString OurGuid() {
    KelString guid;
    FileStore::GetOurDeviceGUID(guid, false);
    return guid;
}

}  // namespace

void FileStore::GetOurDeviceGUID(KelString& result, bool asUrl) {
    if (result.empty() && KnownGuid().empty()) FetchGuid();
    result = KnownGuid();
    if (!asUrl || result.empty()) return;

    const KelString hostName = OurHostName();
    const KelString address = OurIpAddress();
    const std::uint32_t port = OurHttpPort();
    const KelContainer identity = CallLocal("IdentityGetValues");
    if (identity.IsContainer("Values"))
        fPreferIPAddresses = identity.GetContainer("Values").GetBool("PreferIPAddresses");
    result = KelFormat("%S:%u/%S", fPreferIPAddresses ? address : hostName, port, result);
}

bool FileStore::CheckDeviceGuid(const KelString& path) {
    const KelString ours = OurGuid();
    return !ours.empty() && IsEqualTo(StringTokeniser(path, '/').GetToken(1), ours, false);
}

bool FileStore::CheckDevicePath(const KelContainer& targets) {
    if (targets.GetNameCount() > 0 && CheckDeviceGuid(targets.GetName(0))) return true;
    debugFileStore.Detail("Top level GUID in path is not us\n");
    return false;
}

bool FileStore::CheckGuidScheme(const KelString& path) {
    if (path.size() <= 3) return false;
    const int scheme = GuidScheme(StringTokeniser(path, '/').GetToken(1));
    return scheme >= 0 && scheme == GuidScheme(OurGuid());
}

void FileStore::UpdateGuidScheme() {
    {
        KelLock lock(mutexGUID);
        strOurGUID.clear();
    }
    CallLocal("IdentityValidateGUIDScheme");
}

bool FileStore::CheckHandlerResult(const KelContainer& results, unsigned int code) {
    for (std::size_t i = 0; i < results.GetNameCount(); ++i)
        if (static_cast<unsigned int>(results.GetInt32(results.GetName(i), -1)) == code) return true;
    return false;
}

unsigned int FileStore::ActionHandler_FileStoreGUIDCallback(KelContainer* arguments) {
    const KelString guid = arguments->GetString("GUID");
    if (!ActionIsFromThisDevice(*arguments) || !IsUsableGuid(guid)) {
        debugFileStore.Warning("Refused to take over the GUID '%S'\n", guid);
        return kKelErrorBadInput;
    }
    {
        KelLock lock(mutexGUID);
        if (guid == strOurGUID) {
            debugFileStore.Detail("GUID has not really changed\n");
            return kKelOk;
        }
        strOurGUID = guid;
    }
    debugFileStore.Print("Received new GUID %S\n", guid);
    KelString deviceUrl;
    GetOurDeviceGUID(deviceUrl, true);
    KelLock lock(mutexUpstream);
    pDbConnectionUpstream->Query(KelFormat("UPDATE %s SET %s = '%Q' WHERE %s = ''", kTableFiles,
                                           kSourceDevice, deviceUrl, kSourceDevice));
    return kKelOk;
}

unsigned int FileStore::ActionHandler_FileStoreIPCallback(KelContainer* arguments) {
    const KelString address = arguments->GetString("NewIPAddress");
    if (!ActionIsFromThisDevice(*arguments) || !IpAddress::Parse(address)) {
        debugFileStore.Warning("Refused to take over the IP address '%S'\n", address);
        return kKelErrorBadInput;
    }
    KelLock lock(mutexGUID);
    strOurIPAddress = address;
    return kKelOk;
}
