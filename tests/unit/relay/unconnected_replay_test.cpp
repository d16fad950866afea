#include "modules/relay/unconnected_replay.h"

#include <gmock/gmock.h>

#include <ctime>

#include "kel/checksum.h"
#include "module_fixture.h"
#include "modules/relay/relay.h"

namespace {

const std::string kUrl = "north:1610/ABCD5678-1111-2222-3333-444444444444";
const std::string kGuid = "ABCD5678-1111-2222-3333-444444444444";

class UnconnectedReplayTest : public ModuleFixture {
  protected:
    void SetUp() override {
        FakeResults("FileStoreGetDeviceUrl ()", Values({"DeviceUrl=" + kUrl}));
        FakeAction("FileStoreReceiveUnconnectedFile (string FileType)", [this](KelContainer* container) {
            taken_.push_back(*container);
            if (container->Has("FilePath"))
                bodies_.push_back(TempFolder::Read(container->GetString("FilePath")));
            return answer_ ? answer_(*container) : 0U;
        });
        logger_.SetContext(log_);
    }

    std::string Folder(const std::string& kind) { return root_ / ("data/FileStore/unconnected/" + kind); }

    static KelContainer Request(const std::string& name, const std::string& content) {
        return Values({"FileType=Inventory", "FileLabel=label", "FileName=" + name,
                       "FileChecksum=" + TextMd5(content), "FileSize=" + std::to_string(content.size()),
                       "SourceDevice=" + kGuid});
    }
    void Keep(const std::string& kind, const KelContainer& request) {
        TempFolder::Write(Folder(kind) + "/" + request.GetString("FileName"), request.SaveToXML());
    }
    void KeepFile(const std::string& name, const std::string& content,
                  const std::string& kind = "inventory") {
        Keep(kind, With(Request(name, content), {"FilePath=/moved/since/inventory/" + name + ".xml"}));
        TempFolder::Write(Folder(kind) + "/" + name + ".xml", content);
    }
    void Run(std::int64_t secondsLater = 0) {
        replay_.Run(root_ / "data/FileStore/unconnected", std::time(nullptr) + secondsLater);
    }
    std::ptrdiff_t FileCount(const std::string& kind) {
        if (!std::filesystem::exists(Folder(kind))) return 0;
        return std::distance(std::filesystem::directory_iterator(Folder(kind)), {});
    }

    std::function<unsigned int(const KelContainer&)> answer_;
    std::vector<KelContainer> taken_;
    std::vector<std::string> bodies_;
    KelDebug logger_{"Relay", "Relay"};
    UnconnectedReplay replay_{logger_, [] { return false; }};
};

TEST_F(UnconnectedReplayTest, RequestsAreHandedOverAndRemoved) {
    const KelContainer info = Values({"GUID=" + kGuid});
    const Texts values = {"FileType=IdentityIdentity",
                          "SourceDevice=other:1/ABCD0000-1111-2222-3333-444444444444"};
    const KelContainer identity = With(With(Request("me.xml", info.SaveToXML()), values), "FileInfo", info);
    Keep("identity", identity);
    Keep("identity", With(Request(".other", "the same in other words"), "FileInfo", info));
    KeepFile("disks", "binary \x01 content");
    Run();
    ASSERT_EQ(taken_.size(), 3U);
    EXPECT_EQ(taken_[0], identity) << "a device URL and a right checksum are kept as they are";
    EXPECT_FALSE(taken_[1].Has("FileChecksum")) << "one that is not the info's is left to the store";
    EXPECT_EQ(taken_[1].GetContainer("FileInfo"), info);
    EXPECT_EQ(taken_[2].GetString("SourceDevice"), kUrl) << "a bare GUID is completed";
    EXPECT_EQ(taken_[2].GetString("FilePath"), Folder("claimed/inventory") + "/disks.xml");
    EXPECT_EQ(bodies_, std::vector<std::string>{"binary \x01 content"});
    EXPECT_EQ(FileCount("identity") + FileCount("inventory"), 0);
}

TEST_F(UnconnectedReplayTest, TheOldestGoesFirstAndARefusedOneStays) {
    for (const char* name : {"refused", "good", "last"})
        KeepFile(name, name);
    answer_ = [](const KelContainer& file) { return file.GetString("FileName") == "refused" ? 1U : 0U; };
    Run(3600);
    Run(3600);
    EXPECT_EQ(bodies_, (std::vector<std::string>{"refused", "good", "last", "refused"}));
    EXPECT_EQ(FileCount("inventory"), 2) << "the request and its content";
    EXPECT_EQ(FileCount("damaged"), 0);
    answer_ = nullptr;
    Run();
    EXPECT_EQ(FileCount("inventory"), 0);
}

TEST_F(UnconnectedReplayTest, AnOldSchemeIsReplacedByOurDeviceUrl) {
    const KelContainer request =
        With(Request("me", "x"), {"SourceDevice=north:1610/00005678-1111-2222-3333-444444444444"});
    Keep("inventory", With(request, "FileInfo", {}));
    answer_ = [](const KelContainer& file) {
        return file.GetString("SourceDevice") == kUrl ? 0U : unsigned{kKelErrorGuidScheme};
    };
    Run();
    EXPECT_EQ(FileCount("inventory"), 0);
}

TEST_F(UnconnectedReplayTest, NewerContentIsNotRemovedWhetherItsRequestIsThereYetOrNot) {
    for (const bool isWhole : {true, false}) {
        bodies_.clear();
        KeepFile("disks", "old");
        answer_ = [this, isWhole](const KelContainer&) {
            answer_ = nullptr;
            if (isWhole)
                KeepFile("disks", "new");
            else
                TempFolder::Write(Folder("inventory") + "/disks.xml", "new");
            return 0U;
        };
        Run();
        EXPECT_EQ(TempFolder::Read(Folder("inventory") + "/disks.xml"), "new");
        if (!isWhole) KeepFile("disks", "new");
        EXPECT_EQ(FileCount("inventory"), 2);
        Run();
        EXPECT_EQ(bodies_, (std::vector<std::string>{"old", "new"}));
        EXPECT_EQ(FileCount("inventory"), 0);
    }
}

TEST_F(UnconnectedReplayTest, WhatAStopLeftHalfWayIsReplayedUnlessANewerCame) {
    KeepFile("both", "both", "claimed/inventory");
    KeepFile("content", "content");
    std::filesystem::rename(Folder("inventory") + "/content.xml",
                            Folder("claimed/inventory") + "/content.xml");
    KeepFile("newer", "old", "claimed/inventory");
    KeepFile("newer", "new");
    Run();
    EXPECT_THAT(bodies_, testing::UnorderedElementsAre("both", "content", "new"));
    EXPECT_EQ(FileCount("inventory") + FileCount("claimed/inventory"), 0);
}

TEST_F(UnconnectedReplayTest, UnusableRequestsAreMovedAsideOnceTheyAreSurelyComplete) {
    const std::string folder = Folder("inventory");
    Keep("inventory", Request("empty", "neither content nor path"));
    Keep("inventory", With(Request("outside", "x"), {"FilePath=/etc/passwd"}));
    Keep("inventory", With(Request("absent", "x"), {"FilePath=" + folder + "/absent.xml"}));
    Keep("inventory", With(With(Request("path", "x"), {"FileLabel=../label"}), "FileInfo", {}));
    KeepFile("changed", "content");
    TempFolder::Write(folder + "/changed.xml", "other");
    TempFolder::Write(folder + "/cut", "<Container><Val");
    TempFolder::Write(folder + "/orphan.xml", "content without a request");
    TempFolder::Write(folder + "/.kel-abcdef", "still being written");

    Run();
    EXPECT_EQ(FileCount("damaged"), 0);
    EXPECT_EQ(FileCount("inventory"), 9);
    Run(61);
    Run(61);
    EXPECT_TRUE(taken_.empty());
    EXPECT_EQ(FileCount("damaged"), 8) << "with the content that had not its checksum";
    EXPECT_EQ(FileCount("inventory"), 1);
    EXPECT_EQ(log_->Count(KelDebugLevel::Error, "is no usable request"), 8);
}

TEST_F(UnconnectedReplayTest, AMasterReplaysWithoutAParent) {
    WriteIni("Relay", "[Relay]\nRole=Master\n");
    KeepFile("disks", "content");
    ActiveModule<Relay> module;
    EXPECT_TRUE(Eventually([this] { return FileCount("inventory") == 0; }));
    module.Cleanup();
    ExpectValues(Call("RelayGetValues").GetContainer("Values"), {"IsEnabled=true", "Role=master"});
}

}  // namespace
