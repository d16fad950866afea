#include <algorithm>
#include <regex>
#include <sstream>

#include <gmock/gmock.h>

#include "filestore/file_store_fixture.h"
#include "filestore/state/setting_table.h"
#include "filestore/state/settings.h"
#include "kelcore/error_codes.h"

namespace {

struct Settings : FileStoreTest {
    Settings() { Initialise(); }

    static unsigned int Set(const KelContainer& values) {
        KelContainer arguments = Make({{"Values", values}});
        return Call("FileStoreSetValues", arguments);
    }
    static KelContainer Get() { return Ask("FileStoreGetValues").GetContainer("Values"); }
    static bool IsInRange(const IpRange& range, const char* address) {
        return range.Contains(*IpAddress::Parse(address));
    }
    static bool IsTrusted(const char* address) {
        const KelLock lock(FileStore::mutexSettings);
        return IsInRange(FileStore::TrustedIpRange, address);
    }
    static bool IsMulticast(const char* address) {
        const KelLock lock(FileStore::mutexSettings);
        return IsInRange(FileStore::MulticastIpRange, address);
    }
};

TEST_F(Settings, CommentsOfTheShippedFileNameTheDefaults) {
    SetIni("FileStore", "QueueGap", "30");
    FileStore::ReadSettings();
    const KelContainer defaults = Get();
    EXPECT_EQ(defaults.GetNameCount(), 32U);
    EXPECT_TRUE(IsMulticast("224.2.0.100"));
    EXPECT_FALSE(IsMulticast("224.2.0.101"));

    KelString section;
    int count = 0;
    std::istringstream shipped(TempFolder::Read(KEL_SOURCE_DIR "/filestore/FileStore.ini"));
    for (KelString line; std::getline(shipped, line);) {
        std::smatch parts;
        if (std::regex_match(line, parts, std::regex("\\[(.*)\\].*"))) section = parts[1];
        if (!std::regex_match(line, parts, std::regex(";([A-Za-z]+)=(.*)"))) continue;
        SetIni(section, parts[1], parts[2]);
        ++count;
    }
    EXPECT_GE(count, 32);
    FileStore::ReadSettings();
    FileStoreReadUploadPolicy();
    EXPECT_EQ(Get(), defaults);
}

TEST_F(Settings, ValuesOfTheFileAreClampedAndUsedAsFarAsTheyAreUsable) {
    for (const auto& [section, key, text, name, expected] :
         Table<const char*, const char*, const char*, const char*, int>{
             {"FileStore", "Timeout", "10", "Timeout", 300},
             {"FileStore", "PullTimeout", "-1", "PullTimeout", 300},
             {"FileStore", "TimeToLive", "99999999999", "TimeToLive", 86400},
             {"FileStore", "ThresholdForUploads", "-5", "ThresholdForUploads", 0},
             {"FileStore", "FrameSize", "0", "FrameSize", 200},
             {"FileStore", "FrameSize", "big", "FrameSize", 1492},
             {"Multicast", "MulticastBlockSize", "100000", "MulticastBlockSize", 64000},
             {"Multicast", "MulticastBlockSize", "10", "MulticastBlockSize", 1024},
             {"Multicast", "MulticastTransferDelay", "4", "MulticastTransferDelay", 5},
             {"Multicast", "MulticastMinimumSuccessRate", "150", "MulticastSuccessRate", 100}}) {
        SetIni(section, key, text);
        FileStore::ReadSettings();
        EXPECT_EQ(Get().GetInt32(name), expected) << key << "=" << text;
    }
    SetIni("FileStore", "TrustedAddressRange", "10.0.0.1-10.0.0.9, nonsense");
    FileStore::ReadSettings();
    EXPECT_FALSE(IsTrusted("10.0.0.9"));
}

TEST_F(Settings, TimeToLiveOutlastsEveryTimeout) {
    SetIni("FileStore", "TimeToLive", "100");
    for (const char* key : {"Timeout", "PushTimeout", "PullTimeout"}) {
        SetIni("FileStore", key, "5000");
        FileStore::ReadSettings();
        EXPECT_EQ(FileStore::ulTimeToLive, 5000U) << key;
        SetIni("FileStore", key, "300");
    }
    EXPECT_EQ(Set(Make({{"PullTimeout", 6000}, {"TimeToLive", 100}})), kKelOk);
    EXPECT_EQ(FileStore::ulTimeToLive, 6000U);
}

TEST_F(Settings, CallersAreToldWhatWasAdjustedRefusedOrNotKnown) {
    for (const auto& [name, value, note] : Table<const char*, const char*, const char*>{
             {"Timeout", "20", "Timeout in section FileStore is 20; it is raised to 300"},
             {"TimeToLive", "20", "raised to 300, the largest of the time-outs"},
             {"Timeot", "400", "There is no setting Timeot; did you mean Timeout?"},
             {"MulticastTTL", "7", ""}}) {
        KelContainer answer = Make({{"Values", Make({{name, value}})}});
        EXPECT_EQ(Call("FileStoreSetValues", answer), kKelOk);
        EXPECT_THAT(answer.GetString("Notes"), testing::HasSubstr(note));
        EXPECT_EQ(answer.IsEmpty(), KelString(note).empty());
    }
    KelContainer refused = Make({{"Values", Make({{"ConcatFiles", "sometimes"}})}});
    EXPECT_EQ(Call("FileStoreSetValues", refused), kKelErrorBadInput);
    EXPECT_THAT(refused.GetString("Message"), testing::HasSubstr("it takes auto, manual or none"));
}

TEST_F(Settings, EveryEntryOfTheShippedFileIsListedAndTheDefaultsAreInBounds) {
    IniFile ini;
    ASSERT_TRUE(ini.Open(KEL_SOURCE_DIR "/filestore/FileStore.ini"));
    EXPECT_TRUE(FindIniFaults(ini, FileStoreIniSettings()).empty());
    for (const IniSetting& setting : FileStoreIniSettings())
        EXPECT_EQ(JudgeIniValue(setting, setting.fallback).problem.empty(),
                  !setting.fallback.empty() || setting.choices.empty())
            << setting.key;
}

TEST_F(Settings, RandomTimeoutSpreadsAroundItsMean) {
    KelVector<unsigned int> drawn(20000);
    std::generate(drawn.begin(), drawn.end(), [] { return FileStore::GetRandomTimeout(300); });
    const auto [least, largest] = std::minmax_element(drawn.begin(), drawn.end());
    EXPECT_TRUE(*least >= 151 && *least <= 160) << *least;
    EXPECT_TRUE(*largest >= 442 && *largest <= 451) << *largest;
}

TEST_F(Settings, ChangesAreClampedWrittenAndInForceAtOnce) {
    const KelContainer numbers = Make({{"MulticastPort", 1600}, {"QueueGap", 7}, {"FrameSize", 3000}});
    EXPECT_EQ(Set(With(numbers, {{"Timeout", "10"}, {"EnableDialupUploads", false}})), kKelOk);
    EXPECT_EQ(Set(Make({{"TrustedAddressRange", "10.0.0.0/8"},
                        {"MulticastAddress", "224.9.0.1"},
                        {"PackagesRepositoryPath", "/srv/p"},
                        {"NoSuchSetting", "1"}})),
              kKelOk);
    EXPECT_EQ(GetIni("Multicast", "MulticastTransferPort"), "1600");
    EXPECT_EQ(FileStore::ulMulticastTransferPort, 1600U);
    EXPECT_EQ(Read(Get(), "QueueGap Timeout EnableDialupUploads"), "7|300|false");
    EXPECT_EQ(GetIni("FileStore", "Timeout"), "300");
    EXPECT_EQ(FileStore::bmTrackUsageUp.GetFrameSize(), 3000);
    EXPECT_EQ(GetIni("FileStore", "EnableDialupUploads"), "false");
    EXPECT_TRUE(IsTrusted("10.200.0.1"));
    EXPECT_TRUE(IsMulticast("224.9.0.1"));
    EXPECT_EQ(Read(OnlyCallOf("HttpProtocolAddAlias"), "AliasName AliasPath"),
              "AlternativePackagesRepositoryPath|/srv/p");

    for (const char* mode : {"auto", "manual", "none"}) {
        EXPECT_EQ(Set(Make({{"ConcatFiles", mode}})), kKelOk);
        EXPECT_EQ(FileStore::fConcatFiles, mode != KelString("none"));
        EXPECT_EQ(FileStore::fAutoConcat, mode == KelString("auto"));
        EXPECT_EQ(Get().GetString("ConcatFiles"), mode);
        EXPECT_EQ(GetIni("UploadPolicy", "ConcatFiles"), mode);
    }
}

TEST_F(Settings, OneUnusableValueChangesNothing) {
    const KelContainer before = Get();
    const std::pair<const char*, Value> unusable[] = {{"PushTimeout", "soon"},
                                                      {"PushTimeout", 5'000'000'000},
                                                      {"PackageTTL", -1},
                                                      {"EnableDialupUploads", "perhaps"},
                                                      {"QueueGap", "banana"},
                                                      {"ConcatFiles", "sometimes"},
                                                      {"MulticastAddress", "everywhere"},
                                                      {"ExcludedFileType", "a\n[FileStore]\nQueueGap=0"},
                                                      {"PackagesRepositoryPath", KelContainer()}};
    for (const auto& [name, value] : unusable)
        EXPECT_EQ(Set(Make({{"FrameSize", 5555}, {name, value}})), kKelErrorBadInput) << name;
    EXPECT_EQ(Get(), before);
    EXPECT_EQ(GetIni("FileStore", "FrameSize"), "");
}

}  // namespace
