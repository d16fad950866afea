#include "filestore/transfer_fixture.h"
#include "kel/checksum.h"
#include "kel/format.h"

using namespace filestore;

namespace {

class RequestFileActionTest : public StepTest {
  protected:
    /// What `device` is answered that asks for the file t/l/n; the pairs replace or add arguments.
    static KelContainer Ask(const KelString& device, Values change = {}, unsigned int result = 0) {
        KelContainer request = With(Offer(), {{"DeviceGUID", device}, {"FileInfo", Info()}});
        request = With(request, change);
        EXPECT_EQ(FileStore::ActionHandler_FileStoreRequestFile(&request), result);
        return request;
    }
    /// A downstream row of the requested key.
    static unsigned long Known(const KelString& status, const KelString& set = "Bypass = 0") {
        return AddFile(false, "n", status,
                       "FileType = 't', FileLabel = 'l', FileChecksum = 'c', KeepCopy = 6, " + set);
    }
    static KelVector<KelString> Targets() {
        return Rows(Downstream(), "SELECT DeviceGUID, LastNotifyTime FROM Targets ORDER BY DeviceGUID");
    }
    static constexpr const char* kStoreUrl = "/FileStore/downstream/t/l/c/n";
};

TEST_F(RequestFileActionTest, UnknownFileIsRecordedAsMissingForItsRequester) {
    for (const KelString device : {kChild, ""}) {
        DeleteRows();
        const KelContainer answer = Ask(device, {{"FileName", "it's"}, {"Bypass", "1"}});
        EXPECT_EQ(Texts(answer, "FileURL FileObsolete"), "|(none)");
        const auto fileId = static_cast<unsigned long>(OnlyRow(false).FileId);
        EXPECT_EQ(Fields(false, fileId, "FileStatus, FileName, TransportMode, Bypass, FileInfo"),
                  KelFormat("%s|it's|%s|1|%S", kStatusMissing, kTransportUnknown, Info().SaveToXML()));
        EXPECT_TRUE(IsNew(false, fileId, "LastRequestTime"));
        EXPECT_EQ(Targets(), KelVector<KelString>{device + "|0"});
    }
}

TEST_F(RequestFileActionTest, StatusOfAKnownFileDecidesTheAnswer) {
    const KelVector<KelString> none, child = {KelString(kChild) + "|8"};
    for (const auto& [status, answer, targets] : Table<KelString, KelString, KelVector<KelString>>{
             {kStatusAvailable, KelString(kStoreUrl) + "|6|(none)|(none)", child},
             {kStatusDownloading, "|6|(none)|(none)", child},
             {kStatusMissing, "|6|(none)|(none)", child},
             {kStatusObsolete, "(none)|(none)|true|(none)", none}}) {
        SCOPED_TRACE(status);
        DeleteRows();
        const unsigned long fileId = Known(status);
        for (int repetition = 0; repetition < 2; ++repetition)
            EXPECT_EQ(Texts(Ask(kChild), "FileURL KeepCopy FileObsolete FileChecksum"), answer);
        EXPECT_EQ(StatusOf(false, fileId), status);
        EXPECT_EQ(IsNew(false, fileId, "LastRequestTime"), status == kStatusAvailable);
        EXPECT_EQ(Targets(), targets);
    }
}

TEST_F(RequestFileActionTest, ModuleOfThisDeviceIsATargetBesideTheOthers) {
    AddTarget(Known(kStatusAvailable), 1000, kChild, 1);
    EXPECT_EQ(Ask("").GetString("FileURL"), kStoreUrl);
    EXPECT_EQ(Targets(), (KelVector<KelString>{"|8", KelString(kChild) + "|1"}));
}

TEST_F(RequestFileActionTest, ContentOutsideTheStoreIsNamedByItsOwnUrl) {
    for (const auto& [isMaster, set, url] : Table<bool, const char*, const char*>{
             {false, "ExternalFile = 1, FileURL = '/QuarnelDatabase/it''s'", "/QuarnelDatabase/it's"},
             {true, "FileURL = '/QuarnelDatabase/x'", "/QuarnelDatabase/x"},
             {true, "FileURL = ''", kStoreUrl}}) {
        DeleteRows();
        if (isMaster) BecomeMaster();
        Known(kStatusAvailable, set);
        EXPECT_EQ(Ask(kChild).GetString("FileURL"), url);
    }
}

TEST_F(RequestFileActionTest, RequestWithoutChecksumLearnsIt) {
    Known(kStatusAvailable);
    EXPECT_EQ(Texts(Ask(kChild, {{"FileChecksum", ""}}), "FileURL FileChecksum"),
              KelString(kStoreUrl) + "|c");
}

TEST_F(RequestFileActionTest, MulticastGivesNoUrlAndServesTheTargetSoon) {
    LimitWindow(FileStore::bmTrackUsageMulticast, 100);
    AddTarget(Known(kStatusAvailable), 1000, kChild, 77);
    EXPECT_EQ(Texts(Ask(kChild), "FileURL KeepCopy"), "|(none)");
    EXPECT_EQ(Targets(), KelVector<KelString>{KelString(kChild) + "|0"});
}

TEST_F(RequestFileActionTest, ForeignSchemesAndHostileValuesChangeNothing) {
    Known(kStatusAvailable);
    for (const auto& [name, value, result] : Table<const char*, const char*, unsigned int>{
             {"DeviceGUID", "127.0.1.9:1610/FFFF0000-0000-4000-8000-0000000000C1", 44005},
             {"DeviceGUID", "nonsense", 44005},
             {"DeviceGUID", "x' OR 1=1 --", 1},
             {"FileType", "a'b", 1},
             {"FileType", "..", 1},
             {"FileLabel", "a/b", 1},
             {"FileName", "../../etc/passwd", 1},
             {"FileName", "", 1},
             {"FileChecksum", "a\nb", 1},
             {"FileChecksum", "c'", 1}}) {
        SCOPED_TRACE(KelFormat("%s = %s", name, value));
        const KelString before = Everything();
        EXPECT_TRUE(Ask(kChild, {{name, value}}, result).IsEmpty());
        EXPECT_EQ(Everything(), before);
    }
}

TEST_F(RequestFileActionTest, NetworkPackageIsServedAndAnnouncedFromTheRulePackage) {
    FakeResult("TestConsume ()", 0);
    const auto receiver = Consume("FileStoreCallbackReceivedFile", "TestConsume ()");
    for (const KelString type : {"OperationalRuleNetworkPackage", "OperationalRelayPackage"}) {
        DeleteRows();
        const unsigned long package = Known(kStatusAvailable, "FileType = 'OperationalRulePackage'");
        const KelString path = PathOf(false, Load(false, package));
        Set(false, package, "Acknowledged = 1, FilePath = '" + path + "'");
        const KelString url = "/FileStore/downstream/OperationalRulePackage/l/c/n";
        EXPECT_EQ(Ask("", {{"FileType", type}}).GetString("FileURL"), url);
        EXPECT_EQ(Ask("", {{"FileType", type}}).GetString("FileURL"), url);
        EXPECT_EQ(FileStore::threadNotify.NotifyUnicastTargets(0, 0), 1);
        EXPECT_EQ(CallsOf("TestConsume").back().GetString("FilePath"), path);
        EXPECT_EQ(
            Rows(Downstream(), "SELECT FileURL, ExternalFile FROM Files WHERE FileType = '" + type + "'"),
            KelVector<KelString>{url + "|1"});
        EXPECT_EQ(Rows(Downstream(), "SELECT FileType FROM Files ORDER BY FileId"),
                  (KelVector<KelString>{"OperationalRulePackage", type}));
    }
}

class PackageRepositoryTest : public RequestFileActionTest {
  protected:
    void SetUp() override {
        RequestFileActionTest::SetUp();
        FileStore::strPackagesRepositoryPath = Root() + "/repository";
        stored_ = MakeFile("repository/n", "content");
    }
    void TearDown() override { FileStore::strPackagesRepositoryPath.clear(); }
    static KelString UrlFor(const KelString& checksum) {
        return Ask(kChild, {{"FileChecksum", checksum}}).GetString("FileURL", "none");
    }

    KelString stored_;
    const KelString checksum_ = TextMd5("content");
};

TEST_F(PackageRepositoryTest, FileIsCopiedOrReferredToAndServedFromTheNextRequestOn) {
    const KelString one = Root() + "/repository";
    for (const auto& [folders, copies, copied] :
         Table<KelString, bool, bool>{{one, true, true},
                                      {one, false, false},
                                      {" " + one, false, true},  // no alias serves what comes from these
                                      {Root() + "/absent , " + one, false, true}}) {
        SCOPED_TRACE(KelFormat("'%S' %u", folders, copies));
        FileStore::strPackagesRepositoryPath = folders;
        FileStore::fPackagesRepositoryCopy = copies;
        DeleteRows();
        EXPECT_EQ(UrlFor(checksum_), "");
        const FileStoreEntry row = OnlyRow(false);
        EXPECT_EQ(row.FileStatus, kStatusAvailable);
        EXPECT_EQ(row.FilePath, copied ? PathOf(false, row) : stored_);
        EXPECT_EQ(row.ExternalFile, !copied);
        EXPECT_EQ(row.FileSize, 7);
        EXPECT_EQ(Content(row.FilePath), "content");
        EXPECT_EQ(Content(stored_), "content");
        EXPECT_TRUE(Targets().empty());
        const FileStoreEntry offered = OnlyRow(true);
        EXPECT_EQ(Content(offered.FilePath), "content");
        EXPECT_EQ(Texts(FromXml(offered.FileInfo).GetContainer("PackagerAdministratedPackage"),
                        "AdministratedRelayGUID AdministratedRelayAddrPort SendingToMaster"),
                  KelString(kGuid) + "|127.0.1.7:1610|1");
        EXPECT_EQ(UrlFor(checksum_), copied ? "/FileStore/downstream/t/l/" + checksum_ + "/n"
                                            : "/AlternativePackagesRepositoryPath/n");
    }
}

TEST_F(PackageRepositoryTest, CopyThatFailsIsLogged) {
    FileStore::fPackagesRepositoryCopy = true;
    WriteFile(FileStore::strStorageLocationToUse + "downstream/t", "a file where the folder should be");
    EXPECT_EQ(UrlFor(checksum_), "");
    EXPECT_EQ(OnlyRow(false).FileStatus, kStatusMissing);
    EXPECT_TRUE(HasLogged(KelDebugLevel::Error, stored_ + "' from the package repository to"));
}

TEST_F(PackageRepositoryTest, OtherContentCountsAsAbsent) {
    EXPECT_EQ(UrlFor("0123"), "");
    EXPECT_EQ(OnlyRow(false).FileStatus, kStatusMissing);
    EXPECT_EQ(Targets(), KelVector<KelString>{KelString(kChild) + "|0"});
    EXPECT_EQ(Count(Upstream(), "Files"), "0");
}

}  // namespace
