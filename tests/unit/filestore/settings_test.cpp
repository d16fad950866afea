#include <algorithm>
#include <regex>
#include <sstream>

#include "filestore/file_store_fixture.h"
#include "filestore/state/settings.h"
#include "kelcore/error_codes.h"

namespace {

struct Settings : StoreTest {
    static unsigned int Set(const KelContainer& values) {
        return Call("FileStoreSetValues", Make({{"Values", values}}));
    }
    static KelContainer Get() { return Ask("FileStoreGetValues").GetContainer("Values"); }
    static bool IsIn(const IpRange& range, const char* address) {
        const KelLock lock(FileStore::mutexSettings);
        return range.Contains(*IpAddress::Parse(address));
    }
    const IpRange &trusted_ = FileStore::TrustedIpRange, &multicast_ = FileStore::MulticastIpRange;
};

TEST_F(Settings, CommentsOfTheShippedFileNameTheDefaults) {
    SetIni("FileStore", "QueueGap", "30");
    FileStore::ReadSettings();
    const KelContainer defaults = Get();
    EXPECT_EQ(defaults.GetNameCount(), 32U);
    EXPECT_TRUE(IsIn(multicast_, "224.2.0.100"));
    EXPECT_FALSE(IsIn(multicast_, "224.2.0.101"));

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
             {"FileStore", "PullTimeout", "-1", "PullTimeout", -1},
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
    EXPECT_TRUE(IsIn(trusted_, "10.0.0.9"));
    EXPECT_FALSE(IsIn(trusted_, "10.0.0.10"));
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

TEST_F(Settings, RandomTimeoutSpreadsAroundItsMean) {
    KelVector<unsigned int> drawn(20000);
    std::generate(drawn.begin(), drawn.end(), [] { return FileStore::GetRandomTimeout(300); });
    const auto [least, largest] = std::minmax_element(drawn.begin(), drawn.end());
    EXPECT_TRUE(*least >= 151 && *least <= 160) << *least;
    EXPECT_TRUE(*largest >= 442 && *largest <= 451) << *largest;
}

TEST_F(Settings, ChangesAreClampedWrittenAndInForceAtOnce) {
    const KelContainer numbers = Make({{"MulticastPort", 1600}, {"QueueGap", 7}, {"FrameSize", 3000}});
    const KelContainer ranges =
        With(numbers, {{"TrustedAddressRange", "10.0.0.0/8"}, {"MulticastAddress", "224.9.0.1"}});
    EXPECT_EQ(Set(With(ranges, {{"Timeout", "10"},
                                {"EnableDialupUploads", false},
                                {"PackagesRepositoryPath", "/srv/p"},
                                {"NoSuchSetting", "1"}})),
              kKelOk);
    EXPECT_EQ(Read(Get(), "MulticastPort QueueGap Timeout EnableDialupUploads"), "1600|7|300|false");
    EXPECT_EQ(GetIni("Multicast", "MulticastTransferPort"), "1600");
    EXPECT_EQ(GetIni("FileStore", "Timeout"), "300");
    EXPECT_EQ(GetIni("FileStore", "EnableDialupUploads"), "false");
    EXPECT_EQ(FileStore::bmTrackUsageUp.GetFrameSize(), 3000);
    EXPECT_TRUE(IsIn(trusted_, "10.200.0.1"));
    EXPECT_TRUE(IsIn(multicast_, "224.9.0.1"));
    EXPECT_EQ(Read(OnlyCallOf("HttpProtocolAddAlias"), "AliasName AliasPath"),
              "AlternativePackagesRepositoryPath|/srv/p");

    for (const char* mode : {"auto", "manual", "none"}) {
        EXPECT_EQ(Set(Make({{"ConcatFiles", mode}})), kKelOk);
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
                                                      {"MulticastAddress", "everywhere"},
                                                      {"ExcludedFileType", "a\n[FileStore]\nQueueGap=0"},
                                                      {"PackagesRepositoryPath", KelContainer()}};
    for (const auto& [name, value] : unusable)
        EXPECT_EQ(Set(Make({{"FrameSize", 5555}, {name, value}})), kKelErrorBadInput) << name;
    EXPECT_EQ(Get(), before);
    EXPECT_EQ(GetIni("FileStore", "FrameSize"), "");
}

}  // namespace
