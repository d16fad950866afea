#include "filestore/state/setting_table.h"

#include <algorithm>
#include <array>
#include <type_traits>

#include "filestore/state/file_store.h"
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

void ApplyMulticastRange(const KelString& text) KEL_REQUIRES(FileStore::mutexSettings) {
    FileStore::MulticastIpRange.Parse(text);
}

void ApplyTrustedRange(const KelString& text) KEL_REQUIRES(FileStore::mutexSettings) {
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

/// One row of the table below, made by naming what differs from the common case.
struct Row : FileStoreSetting {
    Row(const char* iniSection, const char* settingName, Value defaultValue, Member holder)
        : FileStoreSetting{.name = settingName,
                           .section = iniSection,
                           .key = settingName,
                           .fallback = std::move(defaultValue),
                           .member = holder} {}
    Row& Key(const char* iniKey) {
        key = iniKey;
        return *this;
    }
    Row& Clamp(std::int32_t (*function)(std::int32_t)) {
        clamp = function;
        return *this;
    }
    Row& Check(bool (*function)(const KelString&)) {
        check = function;
        return *this;
    }
    Row& Apply(void (*function)(const KelString&)) {
        apply = function;
        return *this;
    }
    Row& Current(KelString (*function)()) {
        current = function;
        return *this;
    }
    Row& Then(Effect followUp) {
        effect = followUp;
        return *this;
    }
    Row& ReadAt(FileStoreSettingRead time) {
        read = time;
        return *this;
    }
};

std::span<const FileStoreSetting> Table() {
    using F = FileStore;
    static const std::array<FileStoreSetting, 32> table = {{
        Row("FileStore", "Timeout", 300, &F::ulTimeout).Clamp(AtLeast<300>).Then(Effect::TimeToLive),
        Row("FileStore", "PushTimeout", 300, &F::ulPushTimeout).Clamp(AtLeast<300>).Then(Effect::TimeToLive),
        Row("FileStore", "PullTimeout", 300, &F::ulPullTimeout).Clamp(AtLeast<300>).Then(Effect::TimeToLive),
        Row("FileStore", "TimeToLive", 86400, &F::ulTimeToLive).Then(Effect::TimeToLive),
        Row("FileStore", "QueueGap", 30, {}).ReadAt(Read::WhenUsed),
        Row("FileStore", "CheckAvailableFreeSpaceBeforeDownloading", false,
            &F::fCheckAvailableFreeSpaceBeforeDownloading),
        Row("FileStore", "EnableDialupDownloads", true, &F::fEnableDialupDownloads),
        Row("FileStore", "EnableDialupUploads", true, &F::fEnableDialupUploads),
        Row("FileStore", "ThresholdForDownloads", 0, &F::ulThresholdForDownloads).Clamp(NotNegative),
        Row("FileStore", "ThresholdForUploads", 0, &F::ulThresholdForUploads).Clamp(NotNegative),
        Row("FileStore", "FrameSize", 1492, &F::ulFrameSize).Clamp(AtLeast<200>).Then(Effect::FrameSize),
        Row("FileStore", "PackageTTL", 200, &F::ulPackageTTL),
        Row("FileStore", "TrustedAddressRange", "", &F::strTrustedAddressRange)
            .Check(IsRange)
            .Apply(ApplyTrustedRange),
        Row("Multicast", "MulticastBlockSize", 1024, &F::ulMulticastBlockSize).Clamp(Between<1024, 64000>),
        Row("Multicast", "MulticastTransferDelay", 60, &F::ulMulticastTransferDelay).Clamp(AtLeast<5>),
        Row("Multicast", "MulticastPort", 1500, &F::ulMulticastTransferPort).Key("MulticastTransferPort"),
        Row("Multicast", "MulticastAddress", "224.2.0.0-224.2.0.100", &F::strMulticastTransferAddressRange)
            .Key("MulticastTransferAddressRange")
            .Check(IsRange)
            .Apply(ApplyMulticastRange),
        Row("Multicast", "MulticastRetryNumber", 3, &F::ulMulticastRetry).Key("MulticastRetry"),
        Row("Multicast", "MulticastSuccessRate", 50, &F::ulMulticastMinimumSuccessRate)
            .Key("MulticastMinimumSuccessRate")
            .Clamp(Between<0, 100>),
        Row("Multicast", "MulticastMinimumRequests", 2, &F::ulMulticastMinimumRequests),
        Row("Multicast", "MulticastMinimumFileSize", 65536, &F::ulMulticastMinimumFileSize),
        Row("Multicast", "MulticastTTL", 1, &F::iMulticastTTL),
        Row("Multicast", "MulticastDifferencialRetry", false, &F::fMulticastDifferencialRetry),
        Row("Multicast", "UnicastRecoveryOnMulticastFailure", true, &F::fUnicastRecoveryOnMulticastFailure),
        Row("PackageSynchronization", "PackageSynchroAtStartup", false, {}).ReadAt(Read::WhenUsed),
        Row("PackageSynchronization", "PackageSynchroGap", 4096, {}).ReadAt(Read::WhenUsed),
        Row("AlternativePackagesRepository", "PackagesRepositoryPath", "", &F::strPackagesRepositoryPath)
            .Then(Effect::Repository),
        Row("AlternativePackagesRepository", "PackagesRepositoryCopy", true, &F::fPackagesRepositoryCopy),
        Row("FileStore", "KeepCopyPackageMaxSize", 0, &F::uKeepCopyPackageMaxSize),
        Row("UploadPolicy", "ConcatFiles", "", {})
            .Apply(ApplyPacking)
            .Current(CurrentPacking)
            .ReadAt(Read::AtActivation),
        Row("UploadPolicy", "ExcludedFileType", "", &F::strExcludedFileType).ReadAt(Read::AtActivation),
        Row("UploadPolicy", "MaxFilesToConcat", 50, &F::uMaxFilesToConcat).ReadAt(Read::AtActivation),
    }};
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
