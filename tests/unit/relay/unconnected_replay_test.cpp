#include "modules/relay/unconnected_replay.h"

#include <ctime>

#include "fake_parent.h"
#include "kel/checksum.h"
#include "kelcore/error_codes.h"
#include "kelcore/http/client.h"
#include "module_fixture.h"
#include "modules/relay/relay.h"

namespace {

constexpr char kUrl[] = "north:1610/ABCD5678-1111-2222-3333-444444444444";
constexpr char kGuid[] = "ABCD5678-1111-2222-3333-444444444444";

class UnconnectedReplayTest : public ModuleFixture {
  protected:
    void SetUp() override {
        FakeAction("FileStoreGetDeviceUrl ()", [](KelContainer* container) {
            container->SetString("DeviceUrl", kUrl);
            return 0U;
        });
        FakeAction("FileStoreReceiveUnconnectedFile (string FileType)", [this](KelContainer* container) {
            taken_.push_back(*container);
            if (container->Has("FilePath"))
                contents_.push_back(TempFolder::Read(container->GetString("FilePath")));
            return answer_ ? answer_(*container) : 0U;
        });
        log.SetContext(log_);
    }
    void TearDown() override { HttpClientCloseIdleConnections(); }

    std::string Folder(const std::string& kind) { return root_ / ("data/FileStore/unconnected/" + kind); }

    static KelContainer Request(const std::string& name, const std::string& content) {
        KelContainer request;
        request.SetString("FileType", "Inventory");
        request.SetString("FileLabel", "label");
        request.SetString("FileName", name);
        request.SetString("FileChecksum", TextMd5(content));
        request.SetInt64("FileSize", static_cast<std::int64_t>(content.size()));
        request.SetString("SourceDevice", kGuid);
        return request;
    }
    void Keep(const std::string& kind, const KelContainer& request) {
        std::filesystem::create_directories(Folder(kind));
        ASSERT_TRUE(request.SaveToFile(Folder(kind) + "/" + request.GetString("FileName")));
    }
    void KeepFile(const std::string& name, const std::string& content) {
        KelContainer request = Request(name, content);
        request.SetString("FilePath", "/moved/away/since/inventory/" + name + ".xml");
        std::filesystem::create_directories(Folder("inventory"));
        TempFolder::Write(Folder("inventory") + "/" + name + ".xml", content);
        Keep("inventory", request);
    }
    void Run(std::int64_t secondsLater = 0) {
        replay_.Run(root_ / "data/FileStore/unconnected", std::time(nullptr) + secondsLater);
    }
    std::size_t FileCount(const std::string& kind) {
        if (!std::filesystem::exists(Folder(kind))) return 0;
        const std::filesystem::directory_iterator entries(Folder(kind));
        return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
    }

    std::function<unsigned int(const KelContainer&)> answer_;
    std::vector<KelContainer> taken_;
    std::vector<std::string> contents_;
    KelDebug log{"Relay", "Relay"};
    UnconnectedReplay replay_{log, [] { return false; }};
};

TEST_F(UnconnectedReplayTest, RequestsAreHandedOverAndRemoved) {
    KelContainer info;
    info.SetString("GUID", kGuid);
    KelContainer identity = Request("me.xml", info.SaveToXML());
    identity.SetString("FileType", "IdentityIdentity");
    identity.SetString("SourceDevice", "other:1/ABCD0000-1111-2222-3333-444444444444");
    identity.SetContainer("FileInfo", info);
    Keep("identity", identity);
    KeepFile("disks", "binary \x01 content");
    Run();
    ASSERT_EQ(taken_.size(), 2U);
    EXPECT_EQ(taken_[0], identity) << "a device URL and a right checksum are kept as they are";
    EXPECT_EQ(taken_[1].GetString("SourceDevice"), kUrl) << "a bare GUID is completed";
    EXPECT_EQ(taken_[1].GetString("FilePath"), Folder("inventory") + "/disks.xml");
    EXPECT_EQ(contents_, std::vector<std::string>{"binary \x01 content"});
    EXPECT_EQ(FileCount("identity") + FileCount("inventory"), 0U);
}

TEST_F(UnconnectedReplayTest, AChecksumThatIsNotThatOfTheInfoIsLeftToTheStore) {
    KelContainer info;
    info.SetString("a", "b");
    KelContainer request = Request("me", "the same container in other words");
    request.SetContainer("FileInfo", info);
    Keep("identity", request);
    Run();
    ASSERT_EQ(taken_.size(), 1U);
    EXPECT_FALSE(taken_[0].Has("FileChecksum"));
    EXPECT_EQ(taken_[0].GetContainer("FileInfo"), info);
}

TEST_F(UnconnectedReplayTest, TheOldestGoesFirst) {
    for (const char* name : {"c", "a", "b"})
        KeepFile(name, name);
    Run();
    EXPECT_EQ(contents_, (std::vector<std::string>{"c", "a", "b"}));
}

TEST_F(UnconnectedReplayTest, ARefusedRequestStaysAndTheOthersGoOn) {
    KeepFile("bad", "one");
    KeepFile("good", "two");
    answer_ = [](const KelContainer& file) { return file.GetString("FileName") == "bad" ? 1U : 0U; };
    Run(3600);
    Run(3600);
    EXPECT_EQ(FileCount("inventory"), 2U) << "the request and its content";
    EXPECT_EQ(FileCount("damaged"), 0U);
    EXPECT_EQ(taken_.size(), 3U);
    answer_ = nullptr;
    Run();
    EXPECT_EQ(FileCount("inventory"), 0U);
}

TEST_F(UnconnectedReplayTest, AnOldSchemeIsReplacedByOurDeviceUrl) {
    KelContainer request = Request("me", "x");
    request.SetString("SourceDevice", "north:1610/00005678-1111-2222-3333-444444444444");
    request.SetContainer("FileInfo", KelContainer());
    Keep("inventory", request);
    answer_ = [](const KelContainer& file) {
        return file.GetString("SourceDevice") == kUrl ? 0U : unsigned{kKelErrorGuidScheme};
    };
    Run();
    EXPECT_EQ(FileCount("inventory"), 0U);
}

TEST_F(UnconnectedReplayTest, ANewerRequestOfThatNameIsNotRemoved) {
    KeepFile("disks", "old");
    answer_ = [this](const KelContainer&) {
        answer_ = nullptr;
        KeepFile("disks", "new");
        return 0U;
    };
    Run();
    EXPECT_EQ(FileCount("inventory"), 2U);
    Run();
    EXPECT_EQ(contents_, (std::vector<std::string>{"old", "new"}));
    EXPECT_EQ(FileCount("inventory"), 0U);
}

TEST_F(UnconnectedReplayTest, UnusableRequestsAreMovedAsideOnceTheyAreSurelyComplete) {
    std::filesystem::create_directories(Folder("inventory"));
    TempFolder::Write(Folder("inventory") + "/cut", "<Container><Val");
    TempFolder::Write(Folder("inventory") + "/orphan.xml", "content without a request");
    Keep("inventory", Request("empty", "neither content nor path"));
    KelContainer outside = Request("outside", "x");
    outside.SetString("FilePath", "/etc/passwd");
    Keep("inventory", outside);
    KelContainer absent = Request("absent", "x");
    absent.SetString("FilePath", Folder("inventory") + "/absent.xml");
    Keep("inventory", absent);
    KelContainer path = Request("path", "x");
    path.SetContainer("FileInfo", KelContainer());
    path.SetString("FileLabel", "../label");
    Keep("inventory", path);
    KeepFile("changed", "content");
    TempFolder::Write(Folder("inventory") + "/changed.xml", "other");
    TempFolder::Write(Folder("inventory") + "/.kel-abcdef", "still being written");

    Run();
    EXPECT_EQ(FileCount("damaged"), 0U);
    EXPECT_EQ(FileCount("inventory"), 9U);
    Run(61);
    Run(61);
    EXPECT_TRUE(taken_.empty());
    EXPECT_EQ(FileCount("damaged"), 8U) << "with the content that had not its checksum";
    EXPECT_EQ(FileCount("inventory"), 1U);
    EXPECT_EQ(log_->Count(KelDebugLevel::Error, "is no usable request"), 8);
}

TEST_F(UnconnectedReplayTest, TheModuleReplaysOnceTheParentAnswers) {
    Configure("");
    FakeParent parent(kGuid);
    parent.SetStatus(500);
    WriteIni("Relay", "[Relay]\nRole=client\nParentName=127.0.0.1\nParentPort=" +
                          std::to_string(parent.Port()) + "\nCheckInterval=1\nRetryInterval=1\n");
    KeepFile("disks", "content");
    RunningModule<Relay> module;
    ASSERT_TRUE(module.Initialise());
    module.Activate();
    ASSERT_TRUE(Eventually([&] { return parent.GetCallCount() >= 2; }));
    EXPECT_EQ(FileCount("inventory"), 2U);
    parent.SetStatus(200);
    EXPECT_TRUE(Eventually([this] { return FileCount("inventory") == 0; }));
    module.Cleanup();
    EXPECT_EQ(taken_.size(), 1U);
}

TEST_F(UnconnectedReplayTest, AMasterReplaysWithoutAParent) {
    WriteIni("Relay", "[Relay]\nRole=master\n");
    KeepFile("disks", "content");
    RunningModule<Relay> module;
    ASSERT_TRUE(module.Initialise());
    module.Activate();
    EXPECT_TRUE(Eventually([this] { return FileCount("inventory") == 0; }));
}

}  // namespace
