#include <algorithm>
#include <limits>
#include <regex>
#include <sstream>

#include <gmock/gmock.h>

#include "filestore/file_store_fixture.h"
#include "filestore/state/setting_table.h"
#include "filestore/state/settings.h"

namespace {

struct Settings : StoreTest {
    static KelContainer Get() { return Ask("FileStoreGetValues").GetContainer("Values"); }
    static bool IsTrusted(const char* address) {
        const KelLock lock(FileStore::mutexSettings);
        return FileStore::TrustedIpRange.Contains(*IpAddress::Parse(address));
    }
};

TEST_F(Settings, CommentsOfTheShippedFileNameTheDefaults) {
    SetIni("FileStore", "QueueGap", "30");
    FileStore::ReadSettings();
    const KelContainer defaults = Get();
    EXPECT_EQ(defaults.GetNameCount(), 36U);
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
    EXPECT_GE(count, 35);
    FileStore::ReadSettings();
    FileStoreReadUploadPolicy();
    EXPECT_EQ(Get(), defaults);
}

TEST_F(Settings, ValuesOfTheFileAreClampedAndUsedAsFarAsTheyAreUsable) {
    SetIni("FileStore", "FrameSize", "big");
    SetIni("Multicast", "MulticastMinimumSuccessRate", "150");
    FileStore::ReadSettings();
    EXPECT_EQ(Read(Get(), "FrameSize MulticastSuccessRate"), "1492|100");
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
    ChangeSettings(Make({{"PullTimeout", 6000}, {"TimeToLive", 100}}));
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
    Ask("FileStoreSetValues", Make({{"Values", "Timeout=400"}}), kKelErrorBadInput);
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

TEST_F(Settings, RandomTimeoutSpreadsAroundItsMeanAndDoesNotWrap) {
    KelVector<unsigned int> drawn(20000);
    std::generate(drawn.begin(), drawn.end(), [] { return FileStore::GetRandomTimeout(300); });
    const auto [least, largest] = std::minmax_element(drawn.begin(), drawn.end());
    EXPECT_TRUE(*least >= 151 && *least <= 160) << *least;
    EXPECT_TRUE(*largest >= 442 && *largest <= 451) << *largest;
    constexpr unsigned int kLongest = std::numeric_limits<unsigned int>::max();
    for (int i = 0; i < 50; ++i) {
        const unsigned int timeout = FileStore::GetRandomTimeout(kLongest);
        EXPECT_GT(timeout, kLongest / 2);
        EXPECT_GT(FileStoreDueBefore(timeout), 0) << "what is due at once has the time 0";
    }
}

TEST_F(Settings, ChangesAreClampedWrittenAndInForceAtOnce) {
    ChangeSettings(Make({{"MulticastPort", 1600}, {"QueueGap", 7}, {"FrameSize", 3000}, {"Timeout", "10"}}));
    ChangeSettings(Make({{"EnableDialupUploads", false}, {"NoSuchSetting", "1"}}));
    ChangeSettings(Make({{"TrustedAddressRange", "10.0.0.0/8"}, {"PackagesRepositoryPath", "/srv/p"}}));
    EXPECT_EQ(Read(Get(), "MulticastPort QueueGap Timeout EnableDialupUploads"), "1600|7|300|false");
    EXPECT_EQ(GetIni("Multicast", "MulticastTransferPort") + GetIni("FileStore", "Timeout") +
                  GetIni("FileStore", "EnableDialupUploads"),
              "1600300false");
    EXPECT_EQ(FileStore::bmTrackUsageUp.GetFrameSize(), 3000);
    EXPECT_TRUE(IsTrusted("10.200.0.1"));
    EXPECT_EQ(Read(OnlyCallOf("HttpProtocolAddAlias"), "AliasName AliasPath"),
              "AlternativePackagesRepositoryPath|/srv/p");
    ChangeSettings(Make({{"QueueGap", 0}}));
    EXPECT_EQ(GetIni("FileStore", "QueueGap"), "1");
    SetIni("FileStore", "QueueGap", "0");
    EXPECT_EQ(Get().GetString("QueueGap"), "0") << "workers stop";
    for (const KelString mode : {"auto", "manual", "none"}) {
        ChangeSettings(Make({{"ConcatFiles", mode}}));
        EXPECT_EQ(Get().GetString("ConcatFiles") + GetIni("UploadPolicy", "ConcatFiles"), mode + mode);
    }
}

TEST_F(Settings, OneUnusableValueChangesNothing) {
    const KelContainer before = Get();
    for (const auto& [name, value] :
         Table<const char*, Value>{{"PushTimeout", "soon"},
                                   {"PushTimeout", 5'000'000'000},
                                   {"PackageTTL", -1},
                                   {"EnableDialupUploads", "perhaps"},
                                   {"ConcatFiles", "sometimes"},
                                   {"MulticastAddress", "everywhere"},
                                   {"ExcludedFileType", "a\n[FileStore]\nQueueGap=0"},
                                   {"PackagesRepositoryPath", KelContainer()}}) {
        SCOPED_TRACE(name);
        ChangeSettings(Make({{"FrameSize", 5555}, {name, value}}), kKelErrorBadInput);
    }
    EXPECT_EQ(Get(), before);
    EXPECT_EQ(GetIni("FileStore", "FrameSize"), "");
}

}  // namespace
