#include <algorithm>
#include <limits>

#include "filestore/file_store_fixture.h"

namespace {

class Configuration : public FileStoreTest {
  protected:
    static bool Trusts(const char* address) {
        return FileStore::TrustedIpRange.Contains(*IpAddress::Parse(address));
    }
};

TEST_F(Configuration, ShippedFileGivesTheDefaults) {
    FileStore::ReadSettings();
    EXPECT_EQ(FileStore::ulTimeToLive, 86400U);
    EXPECT_EQ(FileStore::ulTimeout, 300U);
    EXPECT_EQ(FileStore::ulPushTimeout, 300U);
    EXPECT_EQ(FileStore::ulPullTimeout, 300U);
    EXPECT_FALSE(FileStore::fCheckAvailableFreeSpaceBeforeDownloading);
    EXPECT_TRUE(FileStore::fEnableDialupDownloads);
    EXPECT_TRUE(FileStore::fEnableDialupUploads);
    EXPECT_EQ(FileStore::ulThresholdForDownloads, 0U);
    EXPECT_EQ(FileStore::ulThresholdForUploads, 0U);
    EXPECT_EQ(FileStore::ulFrameSize, 1492U);
    EXPECT_EQ(FileStore::ulPackageTTL, 200U);
    EXPECT_EQ(FileStore::ulMulticastBlockSize, 1024U);
    EXPECT_EQ(FileStore::ulMulticastTransferDelay, 60U);
    EXPECT_EQ(FileStore::ulMulticastRetry, 3U);
    EXPECT_EQ(FileStore::strMulticastTransferAddressRange, "224.2.0.0-224.2.0.100");
    EXPECT_TRUE(FileStore::MulticastIpRange.Contains(*IpAddress::Parse("224.2.0.100")));
    EXPECT_FALSE(FileStore::MulticastIpRange.Contains(*IpAddress::Parse("224.2.0.101")));
    EXPECT_EQ(FileStore::ulMulticastTransferPort, 1500U);
    EXPECT_EQ(FileStore::ulMulticastMinimumFileSize, 65536U);
    EXPECT_EQ(FileStore::iMulticastTTL, 1);
    EXPECT_EQ(FileStore::ulMulticastMinimumRequests, 2U);
    EXPECT_EQ(FileStore::ulMulticastMinimumSuccessRate, 50U);
    EXPECT_FALSE(FileStore::fMulticastDifferencialRetry);
    EXPECT_TRUE(FileStore::fUnicastRecoveryOnMulticastFailure);
    EXPECT_TRUE(FileStore::TrustedIpRange.IsEmpty());
    EXPECT_EQ(FileStore::strPackagesRepositoryPath, "");
    EXPECT_TRUE(FileStore::fPackagesRepositoryCopy);
    EXPECT_EQ(FileStore::uKeepCopyPackageMaxSize, 0U);
}

struct ClampCase {
    const char* section;
    const char* key;
    const char* text;
    const std::atomic<std::uint32_t>* member;
    std::uint32_t expected;
};

TEST_F(Configuration, ClampsNumbers) {
    constexpr std::uint32_t kMinusOne = std::numeric_limits<std::uint32_t>::max();
    const ClampCase cases[] = {
        {"FileStore", "Timeout", "10", &FileStore::ulTimeout, 300},
        {"FileStore", "Timeout", "301", &FileStore::ulTimeout, 301},
        {"FileStore", "PushTimeout", "299", &FileStore::ulPushTimeout, 300},
        {"FileStore", "PullTimeout", "-1", &FileStore::ulPullTimeout, kMinusOne},
        {"FileStore", "ThresholdForUploads", "-5", &FileStore::ulThresholdForUploads, 0},
        {"FileStore", "ThresholdForDownloads", "56", &FileStore::ulThresholdForDownloads, 56},
        {"FileStore", "FrameSize", "0", &FileStore::ulFrameSize, 200},
        {"FileStore", "PackageTTL", "0", &FileStore::ulPackageTTL, 0},
        {"Multicast", "MulticastBlockSize", "100000", &FileStore::ulMulticastBlockSize, 64000},
        {"Multicast", "MulticastBlockSize", "10", &FileStore::ulMulticastBlockSize, 1024},
        {"Multicast", "MulticastTransferDelay", "4", &FileStore::ulMulticastTransferDelay, 5},
        {"Multicast", "MulticastMinimumSuccessRate", "150", &FileStore::ulMulticastMinimumSuccessRate, 100},
        {"Multicast", "MulticastTransferPort", "1600", &FileStore::ulMulticastTransferPort, 1600},
    };
    for (const ClampCase& tested : cases) {
        SetIni(tested.section, tested.key, tested.text);
        FileStore::ReadSettings();
        EXPECT_EQ(*tested.member, tested.expected) << tested.key << "=" << tested.text;
    }
}

TEST_F(Configuration, TimeToLiveOutlastsEveryTimeout) {
    SetIni("FileStore", "TimeToLive", "100");
    FileStore::ReadSettings();
    EXPECT_EQ(FileStore::ulTimeToLive, 300U);
    for (const char* key : {"Timeout", "PushTimeout", "PullTimeout"}) {
        SetIni("FileStore", key, "5000");
        FileStore::ReadSettings();
        EXPECT_EQ(FileStore::ulTimeToLive, 5000U) << key;
        SetIni("FileStore", key, "300");
    }
}

TEST_F(Configuration, UnusableValuesGiveTheDefaultWithAWarning) {
    SetIni("FileStore", "FrameSize", "big");
    SetIni("FileStore", "TrustedAddressRange", "10.0.0.1-10.0.0.9, nonsense");
    FileStore::ReadSettings();
    EXPECT_EQ(FileStore::ulFrameSize, 1492U);
    EXPECT_TRUE(HasLogged(KelDebugLevel::Warning, "FrameSize"));
    EXPECT_TRUE(Trusts("10.0.0.9"));
    EXPECT_FALSE(Trusts("10.0.0.10"));
    EXPECT_TRUE(HasLogged(KelDebugLevel::Warning, "TrustedAddressRange"));
}

TEST_F(Configuration, RandomTimeoutSpreadsAroundItsMean) {
    unsigned int least = std::numeric_limits<unsigned int>::max();
    unsigned int largest = 0;
    for (int i = 0; i < 20000; ++i) {
        const unsigned int timeout = FileStore::GetRandomTimeout(300);
        least = std::min(least, timeout);
        largest = std::max(largest, timeout);
    }
    EXPECT_GE(least, 151U);
    EXPECT_LE(least, 160U);
    EXPECT_LE(largest, 451U);
    EXPECT_GE(largest, 442U);
}

}  // namespace
