#include "filestore/down/pull_thread.h"
#include "filestore/file_store_fixture.h"

namespace {

constexpr const char* kPackage = "OperationalRulePackage";

class DownloadBoundsTest : public StoreTest {
  protected:
    std::uint64_t Wanted(const KelString& name, const KelString& set) const {
        return AddFile(kDown, name, "DOWNLOADING",
                       KelFormat("FileChecksum = '%S', FileSize = 3000, FileURL = '/%S', %S",
                                 TextMd5(content_), name, set));
    }
    static int Step() { return FileStore::threadPull.DownloadFile(); }
    static KelString StorePathOf(std::uint64_t fileId) { return PathOf(kDown, Load(kDown, fileId)); }
    void Answer(const TestHttpServer::Answer& answer) {
        AnswerAsParent([answer](const TestHttpServer::Request&) { return answer; });
    }

    const KelString content_ = KelString(1500, 'a') + KelString(1500, 'b');
};

TEST_F(DownloadBoundsTest, OnlyAFileThatIsGoneOrChangedLosesItsPartialContent) {
    const KelString partial = content_.substr(0, 1000);
    for (const auto& [status, left] : Table<unsigned int, KelString>{{401, partial},
                                                                     {403, partial},
                                                                     {500, partial},
                                                                     {503, partial},
                                                                     {404, "(none)"},
                                                                     {416, "(none)"}}) {
        const auto trace = Begin(std::to_string(status));
        Answer({status, "", "no"});
        const std::uint64_t fileId = Wanted("n", "KeepCopy = 0");
        WriteFile(StorePathOf(fileId), partial);
        EXPECT_EQ(Step(), 1);
        EXPECT_EQ(Content(StorePathOf(fileId)), left);
        EXPECT_EQ(Status(kDown, fileId), "DOWNLOADING|now");
    }
}

TEST_F(DownloadBoundsTest, RecoveryOfAMulticastFileBeginsAnewOnlyOnce) {
    const std::uint64_t fileId = Wanted("n", "TransportMode = 'UnicastRecovery'");
    WriteFile(StorePathOf(fileId), KelString(1000, '?'));
    Answer({200, "", content_, 500});
    EXPECT_EQ(Step(), 1);
    AnswerAsParent(TestHttpServer::FileScript(content_));
    Set(kDown, fileId, "LastStatusChangeTime = 0");
    EXPECT_EQ(Step(), 1);
    EXPECT_EQ(Fields(kDown, fileId), "AVAILABLE");
    EXPECT_EQ(Parent().Requests().back().Header("Range"), "bytes=500-");
}

TEST_F(DownloadBoundsTest, ContentThatMayChangeUnderItsKeyIsTakenWholeWhateverWasAnnounced) {
    AnswerAsParent(TestHttpServer::FileScript(content_));
    const std::uint64_t fileId =
        Wanted("n", "FileType = 'OperationalRuleNetworkPackageInfo', FileSize = 1000");
    WriteFile(StorePathOf(fileId), KelString(1000, '?'));
    EXPECT_EQ(Step(), 1);
    EXPECT_EQ(Fields(kDown, fileId, "FileStatus, FileSize"), "AVAILABLE|3000");
    EXPECT_EQ(Content(StorePathOf(fileId)), content_);
}

TEST_F(DownloadBoundsTest, SizeThatWasNotAnnouncedIsAskedForAndBoundsTheTransfer) {
    for (const auto& [size, status] :
         Table<std::int64_t, const char*>{{3000, "AVAILABLE"}, {2999, "DOWNLOADING"}}) {
        const auto trace = Begin(status);
        AnswerAsParent([this, size = size](const TestHttpServer::Request& request) -> TestHttpServer::Answer {
            if (request.method == "GET") return {200, "", content_};
            return TestHttpServer::ActionResult(0, Make({{"FileSize", size}}));
        });
        const std::uint64_t fileId = Wanted(status, "FileSize = 0");
        EXPECT_EQ(Step(), 1);
        EXPECT_EQ(Fields(kDown, fileId), status);
    }
}

TEST_F(DownloadBoundsTest, TransferMakesWayForAMoreUrgentFileAndGoesOnBehindIt) {
    AnswerAsParent([this](const TestHttpServer::Request& request) -> TestHttpServer::Answer {
        if (request.target == "/urgent") return {200, "", content_};
        Wanted("urgent", "Priority = 500");
        return {200, "", content_, 500, true};
    });
    const std::uint64_t fileId = Wanted("slow", "KeepCopy = 0");
    EXPECT_EQ(Step(), 1);
    EXPECT_EQ(Fields(kDown, fileId, "FileStatus, LastStatusChangeTime, TransferredBytes"),
              "DOWNLOADING|0|500");
    EXPECT_EQ(Step(), 1);
    EXPECT_EQ(Names(kDown, "AVAILABLE"), Texts{"urgent"});
}

class HeldContentTest : public StoreTest {
  protected:
    static constexpr const char* kParent = "127.0.1.1";

    static void Order(const char* type, const KelString& checksum) {
        Accept(From(Offer(type), kParent),
               {{"FileInfo", Make({{"PackageName", "pack"}, {"PackageChecksum", checksum}})}});
    }
};

TEST_F(HeldContentTest, ContentInTheStoreIsFoundByItsPlaceNotByThePathInItsRow) {
    const std::uint64_t fileId = AddStored(kDown, "n", "AVAILABLE", KelFormat("FileType = '%s'", kPackage));
    Set(kDown, fileId, "FilePath = '/former/place/n'");
    FileStore::UpdateScriptAndPackageStatus(0);
    EXPECT_EQ(Fields(kDown, fileId), "AVAILABLE");
    EXPECT_EQ(Ask("FileStoreRequestFileSize", Offer(kPackage)).GetInt64("FileSize"), 1);
}

TEST_F(HeldContentTest, PackageOutsideTheStoreIsPublishedFromWhereItLies) {
    AnswerAsParent(0);
    const KelString path = MakeFile("elsewhere", "abc");
    AddFile(kDown, "n", "AVAILABLE",
            KelFormat("FileType = '%s', FileLabel = 'pack', FileChecksum = 'p1', ExternalFile = 1, FilePath "
                      "= '%S'",
                      kPackage, path));
    Order("PackagerPublishPackageToMaster", "p1");
    EXPECT_EQ(OnlyFields(kUp, "FileType, FileChecksum"), "PackagerZIPPackage|" + TextMd5("abc"));
}

TEST_F(HeldContentTest, PackageOrderIsAcknowledgedOnceItIsCarriedOut) {
    WriteFile(FileStore::StorePath(kDown, {kPackage, "pack", "n", "p1"}), "abc");
    for (const auto& [type, side] : Table<const char*, Side>{{"PackagerCopyAdministratedPackage", kDown},
                                                             {"PackagerPublishPackageToMaster", kUp}}) {
        AnswerAsParent(0);
        {
            const auto refusal = Refuse(Database(side), "INSERT ON Files");
            Order(type, "p1");
            EXPECT_TRUE(Parent().Requests().empty()) << type;
        }
        Order(type, "p1");
        EXPECT_EQ(Read(OnlyCallTo(Parent(), "FileStoreAcknowledgeFile"), "FileType FileName"),
                  type + KelString("|n"));
    }
}

TEST_F(HeldContentTest, AnnouncedFileThatTheRepositoryHoldsIsStillToBeAcknowledged) {
    FakeResult("FileStoreReceiveFile ()", 0);
    MakeFile("repository/n", "abc");
    Ask("FileStoreSetValues", Make({{"Values", Make({{"PackagesRepositoryPath", Root() + "/repository"}})}}));
    for (const auto& [status, acknowledged] :
         Table<const char*, const char*>{{"DOWNLOADING", "0"}, {"MISSING", "1"}}) {
        const auto trace = Begin(status);
        AddFile(kDown, "n", status, KelFormat("FileChecksum = '%S'", TextMd5("abc")));
        Ask("FileStoreRequestFile", With(Offer("t", TextMd5("abc")), {{"DeviceGUID", kChild}}));
        EXPECT_EQ(OnlyFields(kDown, "FileStatus, Acknowledged"), KelString("AVAILABLE|") + acknowledged);
    }
}

}  // namespace
