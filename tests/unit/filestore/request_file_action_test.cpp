#include "filestore/upstream_fixture.h"
#include "kel/checksum.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"

using namespace filestore;

namespace {

class RequestFileActionTest : public UpstreamTest {
  protected:
    static unsigned int Ask(KelContainer& request) {
        return FileStore::ActionHandler_FileStoreRequestFile(&request);
    }
    static KelContainer Request(const KelString& device, const KelString& name = "n") {
        KelContainer request = Offer();
        request.SetString("FileName", name);
        request.SetString("DeviceGUID", device);
        return request;
    }
    /// The answer to a request of the child.
    static KelContainer Answer(const KelString& name = "n") {
        KelContainer request = Request(kChild, name);
        EXPECT_EQ(Ask(request), 0U);
        return request;
    }
    /// A downstream row of the requested key.
    static unsigned long Known(const KelString& status,
                               const std::function<void(FileStoreEntry&)>& change = {}) {
        return AddFile(false, "n", status, [&](FileStoreEntry& entry) {
            entry.FileType = "t";
            entry.FileLabel = "l";
            entry.FileChecksum = "c";
            entry.KeepCopy = 6;
            if (change) change(entry);
        });
    }
    static KelVector<KelString> Targets() {
        return Rows(Downstream(),
                    "SELECT DeviceGUID, DevicePath, LastNotifyTime FROM Targets ORDER BY TargetId");
    }
    static void OpenMulticastWindow() {
        KelString slots;
        for (int i = 0; i < 168; ++i)
            slots += "100 ";
        KelContainer window;
        window.SetString("Slots", slots);
        window.SetInt32("SlotType", 2);
        FileStore::bmTrackUsageMulticast.UpdateTransferWindow(window);
    }
    static constexpr const char* kStoreUrl = "/FileStore/downstream/t/l/c/n";
};

TEST_F(RequestFileActionTest, UnknownFileIsRecordedAsMissingForItsRequester) {
    for (const KelString device : {kChild, ""}) {
        Rows(Downstream(), "DELETE FROM Files");
        Rows(Downstream(), "DELETE FROM Targets");
        KelContainer info;
        info.SetString("Fact", "it's");
        KelContainer request = Request(device, "it's");
        request.SetContainer("FileInfo", info);
        request.SetBool("Bypass", true);
        EXPECT_EQ(Ask(request), 0U);
        EXPECT_EQ(request.GetString("FileURL", "none"), "");
        EXPECT_FALSE(request.Has("FileObsolete"));
        const FileStoreEntry row = OnlyRow(false);
        EXPECT_EQ(row.FileStatus, kStatusMissing);
        EXPECT_EQ(row.FileName, "it's");
        EXPECT_EQ(row.TransportMode, kTransportUnknown);
        EXPECT_EQ(row.FileInfo, info.SaveToXML());
        EXPECT_TRUE(row.Bypass);
        EXPECT_TRUE(JustNow(row.LastRequestTime));
        EXPECT_EQ(Targets(), KelVector<KelString>{device + "||0"});
    }
}

TEST_F(RequestFileActionTest, StatusOfAKnownFileDecidesTheAnswer) {
    struct Case {
        const char* status;
        const char* url;
        bool obsolete;
    };
    for (const Case& test : {Case{kStatusAvailable, kStoreUrl, false}, Case{kStatusDownloading, "", false},
                             Case{kStatusMissing, "", false}, Case{kStatusObsolete, "", true}}) {
        SCOPED_TRACE(test.status);
        Rows(Downstream(), "DELETE FROM Files");
        Rows(Downstream(), "DELETE FROM Targets");
        const unsigned long fileId = Known(test.status);
        for (int repetition = 0; repetition < 2; ++repetition) {
            const KelContainer answer = Answer();
            EXPECT_EQ(answer.GetBool("FileObsolete"), test.obsolete);
            EXPECT_EQ(answer.Has("FileURL"), !test.obsolete);
            EXPECT_EQ(answer.GetString("FileURL"), test.url);
            EXPECT_EQ(answer.GetInt32("KeepCopy"), test.obsolete ? 0 : 6);
            EXPECT_FALSE(answer.Has("FileChecksum"));
        }
        EXPECT_EQ(StatusOf(false, fileId), test.status);
        EXPECT_EQ(JustNow(Load(false, fileId).LastRequestTime), KelString(test.status) == kStatusAvailable);
        EXPECT_EQ(Targets(),
                  test.obsolete ? KelVector<KelString>{} : KelVector<KelString>{KelString(kChild) + "||8"});
    }
}

TEST_F(RequestFileActionTest, ModuleOfThisDeviceIsATargetBesideTheOthers) {
    const unsigned long fileId = Known(kStatusAvailable);
    AddTarget(fileId, 1000, kChild, 1);
    KelContainer request = Request("");
    EXPECT_EQ(Ask(request), 0U);
    EXPECT_EQ(request.GetString("FileURL"), kStoreUrl);
    EXPECT_EQ(Rows(Downstream(), "SELECT DeviceGUID FROM Targets ORDER BY DeviceGUID"),
              (KelVector<KelString>{"", kChild}));
}

TEST_F(RequestFileActionTest, ContentOutsideTheStoreIsNamedByItsOwnUrl) {
    const auto external = [](FileStoreEntry& entry) {
        entry.ExternalFile = true;
        entry.FileURL = "/QuarnelDatabase/it's";
    };
    Known(kStatusAvailable, external);
    EXPECT_EQ(Answer().GetString("FileURL"), "/QuarnelDatabase/it's");

    BecomeMaster();
    Rows(Downstream(), "DELETE FROM Files");
    Known(kStatusAvailable, [](FileStoreEntry& entry) { entry.FileURL = "/QuarnelDatabase/x"; });
    EXPECT_EQ(Answer().GetString("FileURL"), "/QuarnelDatabase/x");
    Rows(Downstream(), "UPDATE Files SET FileURL = ''");
    EXPECT_EQ(Answer().GetString("FileURL"), kStoreUrl);
}

TEST_F(RequestFileActionTest, RequestWithoutChecksumLearnsIt) {
    Known(kStatusAvailable);
    KelContainer request = Request(kChild);
    request.SetString("FileChecksum", "");
    EXPECT_EQ(Ask(request), 0U);
    EXPECT_EQ(request.GetString("FileURL"), kStoreUrl);
    EXPECT_EQ(request.GetString("FileChecksum"), "c");
}

TEST_F(RequestFileActionTest, MulticastGivesNoUrlAndServesTheTargetSoon) {
    OpenMulticastWindow();
    const unsigned long fileId = Known(kStatusAvailable);
    AddTarget(fileId, 1000, kChild, 77);
    const KelContainer answer = Answer();
    EXPECT_EQ(answer.GetString("FileURL", "none"), "");
    EXPECT_FALSE(answer.Has("KeepCopy"));
    EXPECT_EQ(Rows(Downstream(), "SELECT LastNotifyTime FROM Targets"), KelVector<KelString>{"0"});
}

TEST_F(RequestFileActionTest, ForeignSchemesAndHostileValuesChangeNothing) {
    struct Case {
        const char* name;
        const char* value;
        unsigned int result;
    };
    Known(kStatusAvailable);
    for (const Case& test :
         {Case{"DeviceGUID", "127.0.1.9:1610/FFFF0000-0000-4000-8000-0000000000C1", 44005},
          Case{"DeviceGUID", "nonsense", 44005}, Case{"DeviceGUID", "x' OR 1=1 --", 1},
          Case{"FileType", "a'b", 1}, Case{"FileType", "..", 1}, Case{"FileLabel", "a/b", 1},
          Case{"FileName", "../../etc/passwd", 1}, Case{"FileName", "", 1}, Case{"FileChecksum", "a\nb", 1},
          Case{"FileChecksum", "c'", 1}}) {
        SCOPED_TRACE(KelFormat("%s = %s", test.name, test.value));
        const KelString before = Everything();
        KelContainer request = Request(kChild);
        request.SetString(test.name, test.value);
        EXPECT_EQ(Ask(request), test.result);
        EXPECT_EQ(request.GetNameCount(), 0U);
        EXPECT_EQ(Everything(), before);
    }
}

TEST_F(RequestFileActionTest, NetworkPackageIsServedFromTheRulePackage) {
    for (const char* type : {"OperationalRuleNetworkPackage", "OperationalRelayPackage"}) {
        SCOPED_TRACE(type);
        Rows(Downstream(), "DELETE FROM Files");
        Known(kStatusAvailable, [](FileStoreEntry& entry) {
            entry.FileType = "OperationalRulePackage";
            entry.FilePath = PathOf(false, entry);
        });
        KelContainer request = Request(kChild);
        request.SetString("FileType", type);
        EXPECT_EQ(Ask(request), 0U);
        EXPECT_EQ(request.GetString("FileURL"), "/FileStore/downstream/OperationalRulePackage/l/c/n");
        EXPECT_EQ(Rows(Downstream(), "SELECT FileType FROM Files ORDER BY FileType DESC"),
                  (KelVector<KelString>{"OperationalRulePackage", type}));
    }
}

class PackageRepositoryTest : public RequestFileActionTest {
  protected:
    void SetUp() override {
        RequestFileActionTest::SetUp();
        FileStore::strPackagesRepositoryPath = Root() + "/absent , " + Root() + "/repository";
        stored_ = MakeFile("repository/n", "content");
    }
    void TearDown() override { FileStore::strPackagesRepositoryPath.clear(); }
    KelContainer AskFor(const KelString& checksum) {
        KelContainer request = Request(kChild);
        request.SetString("FileChecksum", checksum);
        EXPECT_EQ(Ask(request), 0U);
        return request;
    }

    KelString stored_;
    const KelString checksum_ = TextMd5("content");
};

TEST_F(PackageRepositoryTest, FileIsCopiedOrReferredToAndServedFromTheNextRequestOn) {
    for (const bool copied : {true, false}) {
        SCOPED_TRACE(copied);
        FileStore::fPackagesRepositoryCopy = copied;
        Rows(Downstream(), "DELETE FROM Files");
        Rows(Upstream(), "DELETE FROM Files");
        EXPECT_EQ(AskFor(checksum_).GetString("FileURL", "none"), "");
        const FileStoreEntry row = OnlyRow(false);
        EXPECT_EQ(row.FileStatus, kStatusAvailable);
        EXPECT_EQ(row.FilePath, copied ? PathOf(false, row) : stored_);
        EXPECT_EQ(row.ExternalFile, !copied);
        EXPECT_EQ(row.FileSize, 7);
        EXPECT_EQ(Content(row.FilePath), "content");
        EXPECT_EQ(Content(stored_), "content");
        EXPECT_TRUE(Targets().empty());
        const FileStoreEntry offered = OnlyRow(true);
        KelContainer info;
        ASSERT_TRUE(static_cast<bool>(info.LoadFromXML(offered.FileInfo)));
        const KelContainer relay = info.GetContainer("PackagerAdministratedPackage");
        EXPECT_EQ(relay.GetString("AdministratedRelayGUID"), kGuid);
        EXPECT_EQ(relay.GetString("AdministratedRelayAddrPort"), "127.0.1.7:1610");
        EXPECT_EQ(relay.GetInt32("SendingToMaster"), 1);
        EXPECT_EQ(Content(offered.FilePath), "content");
        EXPECT_EQ(AskFor(checksum_).GetString("FileURL"),
                  copied ? "/FileStore/downstream/t/l/" + checksum_ + "/n"
                         : "/AlternativePackagesRepositoryPath/n");
        Rows(Downstream(), "DELETE FROM Targets");
    }
}

TEST_F(PackageRepositoryTest, OtherContentCountsAsAbsent) {
    EXPECT_EQ(AskFor("0123").GetString("FileURL", "none"), "");
    EXPECT_EQ(OnlyRow(false).FileStatus, kStatusMissing);
    EXPECT_EQ(Targets(), KelVector<KelString>{KelString(kChild) + "||0"});
    EXPECT_EQ(Count(Upstream(), "Files"), "0");
    EXPECT_TRUE(HasLogged(KelDebugLevel::Warning, "Bad checksum: '" + checksum_ + "'"));
}

}  // namespace
