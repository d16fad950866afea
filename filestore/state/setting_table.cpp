#include "filestore/state/setting_table.h"

#include <algorithm>
#include <array>
#include <limits>

#include "filestore/state/file_store.h"
#include "kel/ini_file.h"
#include "kel/text.h"
#include "kelcore/call_origin.h"

namespace {

using Read = FileStoreSettingRead;
using Effect = FileStoreSettingEffect;

constexpr std::int64_t kMost = std::numeric_limits<std::int32_t>::max();
/// The most files in one archive: receivers unpack 10000 entries by default, the index included.
constexpr std::int64_t kMostPackedFiles = 9999;

bool IsRange(const KelString& text) {
    return IpRange().Parse(text);
}

void ApplyMulticastRange(const KelString& text) KEL_REQUIRES(FileStore::mutexSettings) {
    FileStore::MulticastIpRange.Parse(text);
}

void ApplyTrustedRange(const KelString& text) KEL_REQUIRES(FileStore::mutexSettings) {
    FileStore::TrustedIpRange.Parse(text);
    TrustAsParents(FileStore::TrustedIpRange);
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
    Row(const char* section, const char* settingName, bool fallback, Member holder)
        : Row(settingName, IniSetting::Flag(section, settingName, fallback), holder) {}
    Row(const char* section, const char* settingName, int fallback, Member holder)
        : Row(settingName, IniSetting::Number(section, settingName, fallback), holder) {}
    Row(const char* section, const char* settingName, const char* fallback, Member holder)
        : Row(settingName, IniSetting::Text(section, settingName, fallback), holder) {}
    Row(const char* settingName, IniSetting iniEntry, Member holder)
        : FileStoreSetting{.name = settingName, .entry = std::move(iniEntry), .member = holder} {}
    Row& Key(const char* iniKey) {
        entry.key = iniKey;
        return *this;
    }
    Row& Between(std::int64_t least, std::int64_t most) {
        entry = entry.Between(least, most);
        return *this;
    }
    Row& SetAtLeast(std::int64_t least) {
        leastToSet = least;
        return *this;
    }
    Row& Addresses() {
        entry = entry.Checked(IsRange, "IPv4 addresses, ranges and networks separated by commas");
        return *this;
    }
    Row& OneOf(KelVector<KelString> words) {
        entry = entry.OneOf(std::move(words));
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
    Row& Local() {
        isLocal = true;
        return *this;
    }
};

std::span<const FileStoreSetting> Table() {
    using F = FileStore;
    static const std::array<FileStoreSetting, 36> table = {{
        Row("FileStore", "Timeout", 300, &F::ulTimeout).Between(300, kMost).Then(Effect::TimeToLive),
        Row("FileStore", "PushTimeout", 300, &F::ulPushTimeout).Between(300, kMost).Then(Effect::TimeToLive),
        Row("FileStore", "PullTimeout", 300, &F::ulPullTimeout).Between(300, kMost).Then(Effect::TimeToLive),
        Row("FileStore", "TimeToLive", 86400, &F::ulTimeToLive).Then(Effect::TimeToLive),
        // 0 stops the workers until the next start: whoever does that has to be on the device itself.
        Row("FileStore", "QueueGap", 30, {}).SetAtLeast(1).ReadAt(Read::WhenUsed),
        Row("FileStore", "CheckAvailableFreeSpaceBeforeDownloading", false,
            &F::fCheckAvailableFreeSpaceBeforeDownloading),
        Row("FileStore", "FreeSpaceReserve", 64, &F::ulFreeSpaceReserve),
        Row("FileStore", "StoreQuota", 0, &F::ulStoreQuota),
        Row("FileStore", "EnableDialupDownloads", true, &F::fEnableDialupDownloads),
        Row("FileStore", "EnableDialupUploads", true, &F::fEnableDialupUploads),
        Row("FileStore", "ThresholdForDownloads", 0, &F::ulThresholdForDownloads),
        Row("FileStore", "ThresholdForUploads", 0, &F::ulThresholdForUploads),
        Row("FileStore", "FrameSize", 1492, &F::ulFrameSize).Between(200, kMost).Then(Effect::FrameSize),
        Row("FileStore", "PackageTTL", 200, &F::ulPackageTTL),
        Row("FileStore", "KeepSentFiles", 86400, &F::ulKeepSentFiles),
        Row("FileStore", "TrustedAddressRange", "", &F::strTrustedAddressRange)
            .Addresses()
            .Apply(ApplyTrustedRange),
        Row("Multicast", "MulticastBlockSize", 1024, &F::ulMulticastBlockSize)
            .Between(1024, 64000)
            .Then(Effect::FrameSize),
        Row("Multicast", "MulticastTransferDelay", 60, &F::ulMulticastTransferDelay).Between(5, kMost),
        Row("Multicast", "MulticastPort", 1500, &F::ulMulticastTransferPort)
            .Key("MulticastTransferPort")
            .Between(1, 65535),
        Row("Multicast", "MulticastAddress", "224.2.0.0-224.2.0.100", &F::strMulticastTransferAddressRange)
            .Key("MulticastTransferAddressRange")
            .Addresses()
            .Apply(ApplyMulticastRange),
        Row("Multicast", "MulticastRetryNumber", 3, &F::ulMulticastRetry).Key("MulticastRetry"),
        Row("Multicast", "MulticastSuccessRate", 50, &F::ulMulticastMinimumSuccessRate)
            .Key("MulticastMinimumSuccessRate")
            .Between(0, 100),
        Row("Multicast", "MulticastMinimumRequests", 2, &F::ulMulticastMinimumRequests),
        Row("Multicast", "MulticastMinimumFileSize", 65536, &F::ulMulticastMinimumFileSize),
        Row("Multicast", "MulticastTTL", 1, &F::iMulticastTTL).Between(0, 255),
        Row("Multicast", "MulticastDifferencialRetry", false, &F::fMulticastDifferencialRetry),
        Row("Multicast", "UnicastRecoveryOnMulticastFailure", true, &F::fUnicastRecoveryOnMulticastFailure),
        Row("PackageSynchronization", "PackageSynchroAtStartup", false, {}).ReadAt(Read::WhenUsed),
        Row("PackageSynchronization", "PackageSynchroGap", 4096, {}).ReadAt(Read::WhenUsed),
        Row("AlternativePackagesRepository", "PackagesRepositoryPath", "", &F::strPackagesRepositoryPath)
            .Then(Effect::Repository)
            .Local(),
        Row("AlternativePackagesRepository", "PackagesRepositoryCopy", true, &F::fPackagesRepositoryCopy),
        Row("FileStore", "KeepCopyPackageMaxSize", 0, &F::uKeepCopyPackageMaxSize),
        Row("FileStore", "RemoveOrphans", false, {}).ReadAt(Read::WhenUsed),
        Row("UploadPolicy", "ConcatFiles", "", {})
            .OneOf({"auto", "manual", "none"})
            .Apply(ApplyPacking)
            .Current(CurrentPacking)
            .ReadAt(Read::AtActivation),
        Row("UploadPolicy", "ExcludedFileType", "", &F::strExcludedFileType).ReadAt(Read::AtActivation),
        Row("UploadPolicy", "MaxFilesToConcat", 50, &F::uMaxFilesToConcat)
            .Between(1, kMostPackedFiles)
            .ReadAt(Read::AtActivation),
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

std::span<const IniSetting> FileStoreIniSettings() {
    static const KelVector<IniSetting> settings = [] {
        KelVector<IniSetting> all = {IniSetting::Flag("FileStore", "PerformVacuum", true),
                                     IniSetting::Text("FileStore", "SqlExecute*"),
                                     IniSetting::Text("Directories", "FileStorage"),
                                     IniSetting::Text("UploadPolicy", "ArchiveType", "ZIP").OneOf({"ZIP"}),
                                     IniSetting::Number("PackageSynchronization", "LastPackageSynchro", 4096)
                                         .Between(0, std::numeric_limits<std::uint32_t>::max())};
        for (const char* section : {"SqlRun", "SqlRunOnce", "SqlUpgrade", "SqlUpgrade2", "SqlUpgrade3"})
            all.push_back(IniSetting::Text(section, "Sql*"));
        for (const FileStoreSetting& setting : Table())
            all.push_back(setting.entry);
        return all;
    }();
    return settings;
}

const IniSetting& FileStoreIniSetting(const KelString& section, const KelString& key) {
    const auto settings = FileStoreIniSettings();
    return *std::find_if(settings.begin(), settings.end(), [&section, &key](const IniSetting& setting) {
        return setting.Covers(section, key);
    });
}

FileStoreSetting::Value FileStoreSetting::FromText(const KelString& text) const {
    switch (entry.type) {
        case IniSetting::Type::Flag:
            return text == "true";
        case IniSetting::Type::Number:
            return static_cast<std::int32_t>(ParseInt64(text).value_or(0));
        case IniSetting::Type::Text:
            break;
    }
    return text;
}

void FileStoreSetting::Store(const Value& value) const {
    KelLock lock(FileStore::mutexSettings);
    std::visit(MemberWriter{value}, member);
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
    return FromText(ReadIniText(ini, entry));
}
