#include "filestore/state/device.h"

#include <algorithm>

#include "filestore/state/file_store.h"
#include "kel/container.h"
#include "kel/format.h"
#include "kel/text.h"
#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/net/socket.h"

using namespace filestore;

namespace {

constexpr std::size_t kSchemeDigits = 4;
constexpr std::size_t kMaxGuidLength = 64;

/// The results of a local action that takes no arguments; empty when it failed.
KelContainer Ask(const char* action) {
    KelContainer results;
    if (CallLocal(action, results) != kKelOk) results.Clear();
    return results;
}

void FetchGuid() {
    const KelString guid = Ask("IdentityGetGUID").GetString("GUID");
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
    const KelString address = AskIpAddress();
    KelLock lock(FileStore::mutexGUID);
    if (FileStore::strOurIPAddress.empty()) FileStore::strOurIPAddress = address;
    return FileStore::strOurIPAddress;
}

/// A port that could not be learnt (-1) is not kept, so that the next call asks again.
std::uint32_t OurHttpPort() {
    if (FileStore::ulOurHttpPort != 0) return FileStore::ulOurHttpPort;
    const std::int32_t port = AskHttpPort();
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

}  // namespace

namespace filestore {

KelString OurGuid() {
    KelString guid;
    FileStore::GetOurDeviceGUID(guid, false);
    return guid;
}

KelString OurDeviceUrl() {
    KelString deviceUrl;
    FileStore::GetOurDeviceGUID(deviceUrl, true);
    return deviceUrl;
}

void RefreshAddressPreference() {
    const KelContainer identity = Ask("IdentityGetValues");
    if (identity.IsContainer("Values"))
        FileStore::fPreferIPAddresses = identity.GetContainer("Values").GetBool("PreferIPAddresses");
}

std::int32_t AskHttpPort() {
    const KelContainer answer = Ask("HttpProtocolGetParams");
    return answer.GetContainer("Values").GetInt32("Port", -1);
}

KelString AskIpAddress() {
    return Ask("AgentGetIPAddress").GetString("IPAddress");
}

bool IsUsableGuid(const KelString& guid) {
    return !guid.empty() && guid.size() <= kMaxGuidLength &&
           std::all_of(guid.begin(), guid.end(), [](char c) {
               return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '-';
           });
}

bool AdoptGuid(const KelString& guid) {
    const KelLock lock(FileStore::mutexGUID);
    if (guid == FileStore::strOurGUID) return false;
    FileStore::strOurGUID = guid;
    return true;
}

}  // namespace filestore

void FileStore::GetOurDeviceGUID(KelString& result, bool asUrl) {
    if (result.empty() && KnownGuid().empty()) FetchGuid();
    result = KnownGuid();
    if (!asUrl || result.empty()) return;

    const KelString hostName = OurHostName();
    const KelString address = OurIpAddress();
    const std::uint32_t port = OurHttpPort();
    RefreshAddressPreference();
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
    Ask("IdentityValidateGUIDScheme");
}
