#include <ctime>
#include <mutex>

#include "kel/temp_folder.h"
#include "module_fixture.h"
#include "modules/identity/guid.h"
#include "modules/identity/identity.h"

namespace {

constexpr char kGuid[] = "ABCD5678-1111-2222-3333-444444444444";
constexpr char kParentGuid[] = "ABCD0000-1111-2222-3333-444444444444";
constexpr std::int64_t kNow = 1800000000;

class IdentityReportTest : public ModuleFixture {
  protected:
    void SetUp() override {
        std::filesystem::create_directories(root_ / "data/Identity");
        TempFolder::Write(root_ / "data/Identity/guid", std::string(kGuid) + "\n");
        WriteIni("Identity", "[Identity]\nHostName=north.example\nCheckInterval=1\n");
        FakeAction("RelayGetValues ()", [this](KelContainer* container) {
            const std::lock_guard lock(mutex_);
            KelContainer values;
            values.SetString("Role", role_);
            values.SetString("ParentGuid", parentGuid_);
            values.SetBool("ParentSync", isInSync_);
            container->SetContainer("Values", values);
            return 0U;
        });
        FakeAction("HttpProtocolGetParams ()", [](KelContainer* container) {
            KelContainer values;
            values.SetInt32("Port", 1610);
            container->SetContainer("Values", values);
            return 0U;
        });
        FakeAction("FileStoreReceiveFile (string FileType)", [this](KelContainer* container) {
            const std::lock_guard lock(mutex_);
            ++calls_;
            if (storeResult_ != 0) return storeResult_;
            const KelString path = container->GetString("MovePath");
            contents_.emplace_back();
            EXPECT_TRUE(contents_.back().LoadFromFile(path));
            std::filesystem::remove(path);
            offers_.push_back(*container);
            return 0U;
        });
    }

    void SetRelay(const std::string& role, const std::string& parentGuid, bool isInSync) {
        const std::lock_guard lock(mutex_);
        role_ = role;
        parentGuid_ = parentGuid;
        isInSync_ = isInSync;
    }
    std::size_t SentCount() {
        const std::lock_guard lock(mutex_);
        return offers_.size();
    }
    bool IsOutgoingEmpty() {
        const std::string folder = root_ / "data/Identity/Outgoing";
        return !std::filesystem::exists(folder) || std::filesystem::is_empty(folder);
    }

    std::mutex mutex_;
    std::string role_ = "client";
    std::string parentGuid_ = kParentGuid;
    bool isInSync_ = true;
    unsigned int storeResult_ = 0;
    int calls_ = 0;
    std::vector<KelContainer> offers_;
    std::vector<KelContainer> contents_;
};

TEST_F(IdentityReportTest, TheFileTellsEverythingAboutTheDevice) {
    RunningModule<Identity> module;
    ASSERT_TRUE(module.Initialise());
    EXPECT_FALSE(module->ReportIdentity(kNow));
    ASSERT_EQ(offers_.size(), 1U);
    const KelContainer& offer = offers_[0];
    EXPECT_EQ(offer.GetString("FileType"), "IdentityIdentity");
    EXPECT_EQ(offer.GetString("FileLabel"), "Identity");
    EXPECT_EQ(offer.GetString("FileName"), std::string(kGuid) + ".xml");
    EXPECT_TRUE(offer.GetBool("Upstream"));
    EXPECT_EQ(offer.GetContainer("FileInfo").GetString("GUID"), kGuid);

    struct Field {
        const char* name;
        std::string text;
    };
    for (const Field& field :
         {Field{"GUID", kGuid}, Field{"HostName", "north.example"}, Field{"Role", "client"},
          Field{"Port", "1610"}, Field{"IPAddress", "127.0.3.1"}, Field{"MACAddress", "02-00-7F-00-03-01"},
          Field{"NetworkMask", "255.0.0.0"}, Field{"ParentGuid", kParentGuid},
          Field{"DeviceUrl", "north.example:1610/" + std::string(kGuid)},
          Field{"PathName",
                "north.example:1610/" + std::string(kGuid) + "/02-00-7F-00-03-01/127.0.3.1/255.0.0.0"},
          Field{"Time", std::to_string(kNow)}, Field{"PreferIPAddresses", "false"}}) {
        EXPECT_EQ(contents_[0].GetString(field.name), field.text) << field.name;
    }
    EXPECT_EQ(contents_[0].GetType("Port"), KelContainer::Type::Int32);
    EXPECT_EQ(contents_[0].GetType("Time"), KelContainer::Type::Int64);
}

TEST_F(IdentityReportTest, NothingIsSentBeforeTheGuidIsSettled) {
    struct Case {
        const char* role;
        const char* parentGuid;
        bool isInSync;
        bool isSent;
    };
    for (const Case& test : {Case{"client", "", false, false}, Case{"relay", kParentGuid, false, false},
                             Case{"client", "EF010000-1111-2222-3333-444444444444", true, false},
                             Case{"client", "nonsense", true, false}, Case{"relay", kParentGuid, true, true},
                             Case{"master", "", false, true}}) {
        RunningModule<Identity> module;
        ASSERT_TRUE(module.Initialise());
        SetRelay(test.role, test.parentGuid, test.isInSync);
        const std::size_t before = offers_.size();
        EXPECT_EQ(module->ReportIdentity(kNow), !test.isSent) << test.role << test.parentGuid;
        EXPECT_EQ(offers_.size() - before, test.isSent ? 1U : 0U) << test.role << test.parentGuid;
    }
    EXPECT_EQ(contents_.back().GetString("ParentGuid"), "");
}

TEST_F(IdentityReportTest, ItIsSentAgainOnChangeAndDaily) {
    RunningModule<Identity> module;
    ASSERT_TRUE(module.Initialise());
    const auto sentAt = [&](std::int64_t time) {
        const std::size_t before = offers_.size();
        module->CheckAddress();
        module->ReportIdentity(time);
        return offers_.size() - before == 1;
    };
    EXPECT_TRUE(sentAt(kNow));
    EXPECT_FALSE(sentAt(kNow + 1));
    EXPECT_FALSE(sentAt(kNow + 86399));
    EXPECT_TRUE(sentAt(kNow + 86400)) << "daily";
    EXPECT_TRUE(sentAt(kNow)) << "the clock was set back";
    WriteIni("Identity", "[Identity]\nHostName=south.example\n");
    EXPECT_TRUE(sentAt(kNow + 1)) << "host name";
    WriteIni("Identity", "[Identity]\nHostName=south.example\nIPAddress=10.1.2.3\n");
    EXPECT_TRUE(sentAt(kNow + 2)) << "address";
    SetRelay("relay", kParentGuid, true);
    EXPECT_TRUE(sentAt(kNow + 3)) << "role";
    SetRelay("relay", "ABCD0000-1111-2222-3333-555555555555", true);
    EXPECT_TRUE(sentAt(kNow + 4)) << "parent";
    SetRelay("relay", "EF010000-1111-2222-3333-555555555555", true);
    EXPECT_FALSE(sentAt(kNow + 5));
    Call("IdentityValidateGUIDScheme");
    EXPECT_TRUE(sentAt(kNow + 6)) << "GUID";
    EXPECT_EQ(offers_.back().GetString("FileName"), "EF015678-1111-2222-3333-444444444444.xml");
    EXPECT_FALSE(sentAt(kNow + 7));
    EXPECT_TRUE(IsOutgoingEmpty());
}

TEST_F(IdentityReportTest, ARefusedFileIsSentLaterAndLeavesNothingBehind) {
    std::filesystem::create_directories(root_ / "data/Identity/Outgoing");
    TempFolder::Write(root_ / "data/Identity/Outgoing/.kel-stale", "left by a crash");
    RunningModule<Identity> module;
    ASSERT_TRUE(module.Initialise());
    EXPECT_TRUE(IsOutgoingEmpty());
    storeResult_ = 1;
    module->ReportIdentity(kNow);
    module->ReportIdentity(kNow + 1);
    EXPECT_EQ(calls_, 2);
    EXPECT_TRUE(IsOutgoingEmpty());
    EXPECT_EQ(log_->Count(KelDebugLevel::Warning, "did not take the identity file, error 1"), 1);
    storeResult_ = 0;
    module->ReportIdentity(kNow + 2);
    EXPECT_EQ(offers_.size(), 1U);
}

TEST_F(IdentityReportTest, TheWatcherSendsWhenTheParentComesIntoSync) {
    SetRelay("client", "EF010000-1111-2222-3333-444444444444", false);
    RunningModule<Identity> module;
    ASSERT_TRUE(module.Initialise());
    module.Activate();
    SetRelay("client", "EF010000-1111-2222-3333-444444444444", true);
    Call("IdentityValidateGUIDScheme");
    EXPECT_TRUE(Eventually([this] { return SentCount() == 1; }));
}

}  // namespace
