#include "filestore/module/setting_table.h"

#include <algorithm>
#include <array>
#include <type_traits>

#include "filestore/module/file_store.h"
#include "kel/ini_file.h"
#include "kel/text.h"

namespace {

using Read = FileStoreSettingRead;
using Effect = FileStoreSettingEffect;

// Numbers of the ini file are signed and held unsigned: a negative one passes a lower bound as a very large
// number.
template <std::uint32_t Minimum>
std::int32_t AtLeast(std::int32_t value) {
    return static_cast<std::int32_t>(std::max(static_cast<std::uint32_t>(value), Minimum));
}

template <std::uint32_t Minimum, std::uint32_t Maximum>
std::int32_t Between(std::int32_t value) {
    return static_cast<std::int32_t>(std::clamp(static_cast<std::uint32_t>(value), Minimum, Maximum));
}

std::int32_t NotNegative(std::int32_t value) {
    return std::max(value, 0);
}

bool IsRange(const KelString& text) {
    return IpRange().Parse(text);
}

void ApplyMulticastRange(const KelString& text) {
    FileStore::MulticastIpRange.Parse(text);
}

void ApplyTrustedRange(const KelString& text) {
    FileStore::TrustedIpRange.Parse(text);
}

/// "auto" and "manual" pack, anything else does not.
void ApplyPacking(const KelString& text) {
    const bool automatic = IsEqualTo(text, "auto", false);
    FileStore::fConcatFiles = automatic || IsEqualTo(text, "manual", false);
    FileStore::fAutoConcat = automatic;
}

KelString CurrentPacking() {
    if (!FileStore::fConcatFiles) return "none";
    return FileStore::fAutoConcat ? "auto" : "manual";
}

const auto& Table() {
    using F = FileStore;
    static const std::array table = {
        FileStoreSetting{.name = "Timeout",
                         .section = "FileStore",
                         .key = "Timeout",
                         .fallback = 300,
                         .member = &F::ulTimeout,
                         .clamp = AtLeast<300>,
                         .effect = Effect::TimeToLive},
        FileStoreSetting{.name = "PushTimeout",
                         .section = "FileStore",
                         .key = "PushTimeout",
                         .fallback = 300,
                         .member = &F::ulPushTimeout,
                         .clamp = AtLeast<300>,
                         .effect = Effect::TimeToLive},
        FileStoreSetting{.name = "PullTimeout",
                         .section = "FileStore",
                         .key = "PullTimeout",
                         .fallback = 300,
                         .member = &F::ulPullTimeout,
                         .clamp = AtLeast<300>,
                         .effect = Effect::TimeToLive},
        FileStoreSetting{.name = "TimeToLive",
                         .section = "FileStore",
                         .key = "TimeToLive",
                         .fallback = 86400,
                         .member = &F::ulTimeToLive,
                         .effect = Effect::TimeToLive},
        FileStoreSetting{.name = "QueueGap",
                         .section = "FileStore",
                         .key = "QueueGap",
                         .fallback = 30,
                         .member = {},
                         .read = Read::WhenUsed},
        FileStoreSetting{.name = "CheckAvailableFreeSpaceBeforeDownloading",
                         .section = "FileStore",
                         .key = "CheckAvailableFreeSpaceBeforeDownloading",
                         .fallback = false,
                         .member = &F::fCheckAvailableFreeSpaceBeforeDownloading},
        FileStoreSetting{.name = "EnableDialupDownloads",
                         .section = "FileStore",
                         .key = "EnableDialupDownloads",
                         .fallback = true,
                         .member = &F::fEnableDialupDownloads},
        FileStoreSetting{.name = "EnableDialupUploads",
                         .section = "FileStore",
                         .key = "EnableDialupUploads",
                         .fallback = true,
                         .member = &F::fEnableDialupUploads},
        FileStoreSetting{.name = "ThresholdForDownloads",
                         .section = "FileStore",
                         .key = "ThresholdForDownloads",
                         .fallback = 0,
                         .member = &F::ulThresholdForDownloads,
                         .clamp = NotNegative},
        FileStoreSetting{.name = "ThresholdForUploads",
                         .section = "FileStore",
                         .key = "ThresholdForUploads",
                         .fallback = 0,
                         .member = &F::ulThresholdForUploads,
                         .clamp = NotNegative},
        FileStoreSetting{.name = "FrameSize",
                         .section = "FileStore",
                         .key = "FrameSize",
                         .fallback = 1492,
                         .member = &F::ulFrameSize,
                         .clamp = AtLeast<200>,
                         .effect = Effect::FrameSize},
        FileStoreSetting{.name = "PackageTTL",
                         .section = "FileStore",
                         .key = "PackageTTL",
                         .fallback = 200,
                         .member = &F::ulPackageTTL},
        FileStoreSetting{.name = "TrustedAddressRange",
                         .section = "FileStore",
                         .key = "TrustedAddressRange",
                         .fallback = "",
                         .member = &F::strTrustedAddressRange,
                         .check = IsRange,
                         .apply = ApplyTrustedRange},
        FileStoreSetting{.name = "MulticastBlockSize",
                         .section = "Multicast",
                         .key = "MulticastBlockSize",
                         .fallback = 1024,
                         .member = &F::ulMulticastBlockSize,
                         .clamp = Between<1024, 64000>},
        FileStoreSetting{.name = "MulticastTransferDelay",
                         .section = "Multicast",
                         .key = "MulticastTransferDelay",
                         .fallback = 60,
                         .member = &F::ulMulticastTransferDelay,
                         .clamp = AtLeast<5>},
        FileStoreSetting{.name = "MulticastPort",
                         .section = "Multicast",
                         .key = "MulticastTransferPort",
                         .fallback = 1500,
                         .member = &F::ulMulticastTransferPort},
        FileStoreSetting{.name = "MulticastAddress",
                         .section = "Multicast",
                         .key = "MulticastTransferAddressRange",
                         .fallback = "224.2.0.0-224.2.0.100",
                         .member = &F::strMulticastTransferAddressRange,
                         .check = IsRange,
                         .apply = ApplyMulticastRange},
        FileStoreSetting{.name = "MulticastRetryNumber",
                         .section = "Multicast",
                         .key = "MulticastRetry",
                         .fallback = 3,
                         .member = &F::ulMulticastRetry},
        FileStoreSetting{.name = "MulticastSuccessRate",
                         .section = "Multicast",
                         .key = "MulticastMinimumSuccessRate",
                         .fallback = 50,
                         .member = &F::ulMulticastMinimumSuccessRate,
                         .clamp = Between<0, 100>},
        FileStoreSetting{.name = "MulticastMinimumRequests",
                         .section = "Multicast",
                         .key = "MulticastMinimumRequests",
                         .fallback = 2,
                         .member = &F::ulMulticastMinimumRequests},
        FileStoreSetting{.name = "MulticastMinimumFileSize",
                         .section = "Multicast",
                         .key = "MulticastMinimumFileSize",
                         .fallback = 65536,
                         .member = &F::ulMulticastMinimumFileSize},
        FileStoreSetting{.name = "MulticastTTL",
                         .section = "Multicast",
                         .key = "MulticastTTL",
                         .fallback = 1,
                         .member = &F::iMulticastTTL},
        FileStoreSetting{.name = "MulticastDifferencialRetry",
                         .section = "Multicast",
                         .key = "MulticastDifferencialRetry",
                         .fallback = false,
                         .member = &F::fMulticastDifferencialRetry},
        FileStoreSetting{.name = "UnicastRecoveryOnMulticastFailure",
                         .section = "Multicast",
                         .key = "UnicastRecoveryOnMulticastFailure",
                         .fallback = true,
                         .member = &F::fUnicastRecoveryOnMulticastFailure},
        FileStoreSetting{.name = "PackageSynchroAtStartup",
                         .section = "PackageSynchronization",
                         .key = "PackageSynchroAtStartup",
                         .fallback = false,
                         .member = {},
                         .read = Read::WhenUsed},
        FileStoreSetting{.name = "PackageSynchroGap",
                         .section = "PackageSynchronization",
                         .key = "PackageSynchroGap",
                         .fallback = 4096,
                         .member = {},
                         .read = Read::WhenUsed},
        FileStoreSetting{.name = "PackagesRepositoryPath",
                         .section = "AlternativePackagesRepository",
                         .key = "PackagesRepositoryPath",
                         .fallback = "",
                         .member = &F::strPackagesRepositoryPath,
                         .effect = Effect::Repository},
        FileStoreSetting{.name = "PackagesRepositoryCopy",
                         .section = "AlternativePackagesRepository",
                         .key = "PackagesRepositoryCopy",
                         .fallback = true,
                         .member = &F::fPackagesRepositoryCopy},
        FileStoreSetting{.name = "KeepCopyPackageMaxSize",
                         .section = "FileStore",
                         .key = "KeepCopyPackageMaxSize",
                         .fallback = 0,
                         .member = &F::uKeepCopyPackageMaxSize},
        FileStoreSetting{.name = "ConcatFiles",
                         .section = "UploadPolicy",
                         .key = "ConcatFiles",
                         .fallback = "",
                         .member = {},
                         .apply = ApplyPacking,
                         .current = CurrentPacking,
                         .read = Read::AtActivation},
        FileStoreSetting{.name = "ExcludedFileType",
                         .section = "UploadPolicy",
                         .key = "ExcludedFileType",
                         .fallback = "",
                         .member = &F::strExcludedFileType,
                         .read = Read::AtActivation},
        FileStoreSetting{.name = "MaxFilesToConcat",
                         .section = "UploadPolicy",
                         .key = "MaxFilesToConcat",
                         .fallback = 50,
                         .member = &F::uMaxFilesToConcat,
                         .read = Read::AtActivation},
    };
    return table;
}

/// Puts a value into a member of the matching kind.
struct MemberWriter {
    const FileStoreSetting::Value& value;

    void operator()(std::monostate) const {}
    void operator()(FileStoreSetting::Flag* member) const { *member = std::get<bool>(value); }
    void operator()(FileStoreSetting::Number* member) const {
        *member = static_cast<std::uint32_t>(std::get<std::int32_t>(value));
    }
    void operator()(FileStoreSetting::SignedNumber* member) const { *member = std::get<std::int32_t>(value); }
    void operator()(KelString* member) const { *member = std::get<KelString>(value); }
};

struct MemberReader {
    FileStoreSetting::Value operator()(std::monostate) const { return false; }
    FileStoreSetting::Value operator()(const FileStoreSetting::Flag* member) const { return member->load(); }
    FileStoreSetting::Value operator()(const FileStoreSetting::Number* member) const {
        return static_cast<std::int32_t>(member->load());
    }
    FileStoreSetting::Value operator()(const FileStoreSetting::SignedNumber* member) const {
        return member->load();
    }
    FileStoreSetting::Value operator()(const KelString* member) const { return *member; }
};

}  // namespace

std::span<const FileStoreSetting> FileStoreSettings() {
    return Table();
}

FileStoreSetting::Value FileStoreSetting::Clamped(const Value& value) const {
    const auto* number = std::get_if<std::int32_t>(&value);
    return number != nullptr && clamp != nullptr ? Value(clamp(*number)) : value;
}

void FileStoreSetting::Store(const Value& value) const {
    KelLock lock(FileStore::mutexSettings);
    std::visit(MemberWriter{Clamped(value)}, member);
    if (apply != nullptr) apply(std::get<KelString>(value));
}

FileStoreSetting::Value FileStoreSetting::Current() const {
    if (current != nullptr) return current();
    if (std::holds_alternative<std::monostate>(member)) return Read();
    KelLock lock(FileStore::mutexSettings);
    return std::visit(MemberReader{}, member);
}

FileStoreSetting::Value FileStoreSetting::Read() const {
    IniFile ini;
    ini.Open(FileStore::strModuleIniFile);
    KelString text;
    ini.GetEntryValue(section, key, text, "");
    return std::visit(
        [&]<class Type>(const Type& defaultValue) -> Value {
            Type value;
            ini.GetEntryValue(section, key, value, defaultValue);
            if constexpr (!std::is_same_v<Type, KelString>) {
                // A text that cannot be read as the type gives whatever fallback is asked for.
                Type other;
                ini.GetEntryValue(section, key, other, static_cast<Type>(!defaultValue));
                if (other != value && !text.empty())
                    FileStore::debugFileStore.Warning(
                        "%s in section %s cannot be '%S'; the default is used\n", key, section, text);
            }
            return value;
        },
        fallback);
}
