#include "filestore/file_store_fixture.h"
#include "kelcore/error_codes.h"

namespace {

class SettingsAction : public FileStoreTest {
  protected:
    SettingsAction() { Initialise(); }

    static unsigned int Set(const std::function<void(KelContainer&)>& fill) {
        KelContainer values;
        fill(values);
        KelContainer arguments;
        arguments.SetContainer("Values", values);
        return Call("FileStoreSetValues", arguments);
    }
    static KelContainer Get() {
        KelContainer arguments;
        EXPECT_EQ(Call("FileStoreGetValues", arguments), kKelOk);
        return arguments.GetContainer("Values");
    }
};

TEST_F(SettingsAction, ListsEverySettingInOrder) {
    const KelContainer values = Get();
    EXPECT_EQ(values.GetNameCount(), 32U);
    EXPECT_EQ(values.GetName(0), "Timeout");
    EXPECT_EQ(values.GetName(31), "MaxFilesToConcat");
    EXPECT_EQ(values.GetInt32("QueueGap"), 3600);
    EXPECT_EQ(values.GetInt32("PackageSynchroGap"), 4096);
    EXPECT_EQ(values.GetString("ConcatFiles"), "none");
    EXPECT_EQ(values.GetType("EnableDialupUploads"), KelContainer::Type::Bool);
}

TEST_F(SettingsAction, NumbersAreWrittenUnderTheirKeysAndRead) {
    EXPECT_EQ(Set([](KelContainer& v) { v.SetInt32("MulticastPort", 1600); }), kKelOk);
    EXPECT_EQ(GetIni("Multicast", "MulticastTransferPort"), "1600");
    EXPECT_EQ(Get().GetInt32("MulticastPort"), 1600);
    EXPECT_EQ(FileStore::ulMulticastTransferPort, 1600U);
    EXPECT_EQ(Set([](KelContainer& v) { v.SetInt32("QueueGap", 7); }), kKelOk);
    EXPECT_EQ(Get().GetInt32("QueueGap"), 7);
}

TEST_F(SettingsAction, ClampsAndKeepsTheTimeToLiveAboveTheTimeouts) {
    EXPECT_EQ(Set([](KelContainer& v) {
                  v.SetInt32("PullTimeout", 5000);
                  v.SetInt32("TimeToLive", 100);
                  v.SetString("Timeout", "10");
                  v.SetInt32("MulticastBlockSize", 100000);
                  v.SetInt32("ThresholdForUploads", -5);
              }),
              kKelOk);
    EXPECT_EQ(FileStore::ulTimeToLive, 5000U);
    EXPECT_EQ(FileStore::ulTimeout, 300U);
    EXPECT_EQ(GetIni("FileStore", "Timeout"), "300");
    EXPECT_EQ(FileStore::ulMulticastBlockSize, 64000U);
    EXPECT_EQ(FileStore::ulThresholdForUploads, 0U);
}

TEST_F(SettingsAction, RangesAreRefreshedAtOnce) {
    EXPECT_EQ(Set([](KelContainer& v) { v.SetString("TrustedAddressRange", "10.0.0.0/8"); }), kKelOk);
    EXPECT_TRUE(FileStore::TrustedIpRange.Contains(*IpAddress::Parse("10.200.0.1")));
    EXPECT_EQ(Set([](KelContainer& v) { v.SetString("MulticastAddress", "224.9.0.1"); }), kKelOk);
    EXPECT_TRUE(FileStore::MulticastIpRange.Contains(*IpAddress::Parse("224.9.0.1")));
    EXPECT_EQ(GetIni("Multicast", "MulticastTransferAddressRange"), "224.9.0.1");
}

TEST_F(SettingsAction, RepositoryIsPublishedAgain) {
    EXPECT_EQ(Set([](KelContainer& v) { v.SetString("PackagesRepositoryPath", "/srv/p"); }), kKelOk);
    const KelVector<KelContainer> calls = CallsOf("HttpProtocolAddAlias");
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].GetString("AliasName"), "AlternativePackagesRepositoryPath");
    EXPECT_EQ(calls[0].GetString("AliasPath"), "/srv/p");
}

TEST_F(SettingsAction, PackingModes) {
    for (const auto& [text, concat, automatic] :
         {std::tuple{"auto", true, true}, std::tuple{"manual", true, false},
          std::tuple{"none", false, false}}) {
        EXPECT_EQ(Set([&](KelContainer& v) { v.SetString("ConcatFiles", text); }), kKelOk);
        EXPECT_EQ(FileStore::fConcatFiles, concat) << text;
        EXPECT_EQ(FileStore::fAutoConcat, automatic) << text;
        EXPECT_EQ(Get().GetString("ConcatFiles"), text);
        EXPECT_EQ(GetIni("UploadPolicy", "ConcatFiles"), text);
    }
}

TEST_F(SettingsAction, OneUnusableValueChangesNothing) {
    const std::function<void(KelContainer&)> unusable[] = {
        [](KelContainer& v) { v.SetString("PushTimeout", "soon"); },
        [](KelContainer& v) { v.SetInt64("PushTimeout", 5'000'000'000); },
        [](KelContainer& v) { v.SetInt32("PackageTTL", -1); },
        [](KelContainer& v) { v.SetString("EnableDialupUploads", "perhaps"); },
        [](KelContainer& v) { v.SetString("MulticastAddress", "everywhere"); },
        [](KelContainer& v) { v.SetString("ExcludedFileType", "a\n[FileStore]\nQueueGap=0"); },
        [](KelContainer& v) { v.SetContainer("PackagesRepositoryPath", {}); },
    };
    const KelContainer before = Get();
    for (const auto& fill : unusable)
        EXPECT_EQ(Set([&](KelContainer& v) {
                      v.SetInt32("FrameSize", 5555);
                      fill(v);
                  }),
                  kKelErrorBadInput);
    EXPECT_EQ(Set([](KelContainer& v) { v.SetString("NoSuchSetting", "1"); }), kKelOk);
    EXPECT_EQ(Get(), before);
    EXPECT_EQ(GetIni("FileStore", "FrameSize"), "");
}

}  // namespace
