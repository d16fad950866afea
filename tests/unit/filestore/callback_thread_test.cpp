#include "filestore/archive_content.h"
#include "filestore/module/upload_repair.h"
#include "filestore/upstream_fixture.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kelcore/archive.h"

using namespace filestore;

namespace {

class CallbackThreadTest : public UpstreamTest {
  protected:
    struct Callbacks : FileStoreCallbackThread {
        using FileStoreCallbackThread::DoWork;
    };
    static constexpr const char* kUrl =
        "/FileStore/upstream/Type/Label/0123456789abcdef0123456789abcdef/it's";

    /// Reports a PUT the way the HTTP module does.
    static unsigned int Report(const KelString& url, const KelString& group = "",
                               const KelString& path = "") {
        KelContainer report;
        report.SetString("URL", url);
        report.SetString("MulticastAddress", group);
        report.SetString("LocalPath", path);
        return FileStore::ActionHandler_FileStoreHttpPutCallback(&report);
    }
    /// A file that a child has announced and put.
    static unsigned long Put(const std::function<void(FileStoreEntry&)>& change = {}) {
        return AddStored("it's", kStatusReceiving, [&](FileStoreEntry& entry) {
            entry.FileURL = kUrl;
            if (change) change(entry);
        });
    }
    Callbacks callbacks_;
};

TEST_F(CallbackThreadTest, UrlIsQueuedOnceAndTakenInOrder) {
    for (const char* url : {"/b's", "/a", "/b's"})
        EXPECT_EQ(Report(url), 0U);
    EXPECT_EQ(callbacks_.GetCallbackCount(), 2U);
    EXPECT_EQ(callbacks_.GetFileUrl(), "/b's");
    EXPECT_EQ(callbacks_.GetFileUrl(), "/a");
    EXPECT_EQ(callbacks_.GetFileUrl(), "");
    EXPECT_EQ(callbacks_.GetCallbackCount(), 0U);
}

TEST_F(CallbackThreadTest, OnlyThisDeviceReports) {
    KelContainer report = From({}, "127.0.1.9");
    report.SetString("URL", "/a");
    EXPECT_EQ(FileStore::ActionHandler_FileStoreHttpPutCallback(&report), 0U);
    EXPECT_EQ(callbacks_.GetCallbackCount(), 0U);
}

TEST_F(CallbackThreadTest, MulticastFileIsCompletedByItsStatus) {
    const KelString path = MakeFile("received", "12345");
    const unsigned long listening = AddFile(false, "l", kStatusMulticastListening, [](FileStoreEntry& entry) {
        entry.FileURL = "/FileStore/downstream/it's";
        entry.Acknowledged = true;
    });
    EXPECT_EQ(Report("/FileStore/downstream/it's", "224.2.0.1", path), 0U);
    const FileStoreEntry row = Load(false, listening);
    EXPECT_EQ(row.FileStatus, kStatusAvailable);
    EXPECT_EQ(row.FileSize, 5);
    EXPECT_FALSE(row.Acknowledged);
    EXPECT_EQ(row.TransportMode, kTransportMulticast);

    const unsigned long receiving =
        AddFile(false, "r", kStatusReceiving, [](FileStoreEntry& entry) { entry.FileURL = "/r"; });
    Report("/r", "224.2.0.1", path);
    EXPECT_EQ(StatusOf(false, receiving), kStatusToBeUploaded);
    EXPECT_TRUE(FileExists(path));

    Report("/unknown", "224.2.0.1", path);
    EXPECT_FALSE(FileExists(path));
    EXPECT_TRUE(HasLogged(KelDebugLevel::Warning, "Received unregistered file, deleting unknown"));
    EXPECT_EQ(callbacks_.GetCallbackCount(), 0U);
}

TEST_F(CallbackThreadTest, ReceivedFileIsHandledHereWhenSomebodyWantsIt) {
    struct Case {
        const char* name;
        bool consumer, console;
        const char* type;
        const char* before;
        const char* after;
    };
    for (const Case& test : {Case{"nobody", false, false, "Type", kStatusReceiving, kStatusToBeUploaded},
                             Case{"consumer", true, false, "Type", kStatusReceiving, kStatusToBeHandled},
                             Case{"known already", true, false, "Type", kStatusAvailable, kStatusAvailable},
                             Case{"console", false, true, "Type", kStatusReceiving, kStatusToBeHandled},
                             Case{"console takes packages", false, true, "UpgradePackage", kStatusReceiving,
                                  kStatusToBeHandled}}) {
        SCOPED_TRACE(test.name);
        Rows(Upstream(), "DELETE FROM Files");
        if (test.console) BecomeMaster();
        std::unique_ptr<Consumer> consumer;
        if (test.consumer)
            consumer = std::make_unique<Consumer>("FileStoreCallbackCopyUpstream", "TestConsume ()");
        const unsigned long fileId = Put([&](FileStoreEntry& entry) {
            entry.FileType = test.type;
            entry.FileStatus = test.before;
        });
        callbacks_.ReceiveFile(kUrl);
        EXPECT_EQ(StatusOf(true, fileId), test.after);
        EXPECT_TRUE(FileExists(Load(true, fileId).FilePath));
    }
    EXPECT_TRUE(HasLogged(KelDebugLevel::Warning, KelFormat("File %s already exists with status", kUrl)));
}

TEST_F(CallbackThreadTest, UnregisteredFileIsDeletedInsideTheUpstreamStoreOnly) {
    const KelString stored = FileStore::StorePath(true, "t", "l", "c", "n");
    WriteFile(stored, "x");
    callbacks_.ReceiveFile("/FileStore/upstream/t/l/c/n");
    EXPECT_FALSE(FileExists(stored));
    EXPECT_FALSE(DirExists(FileStore::StoreFolder(true, "t", "l", "c")));

    const KelString below = FileStore::StorePath(false, "t", "l", "c", "n");
    WriteFile(below, "x");
    const KelString before = Everything();
    for (const char* url : {"/FileStore/downstream/t/l/c/n", "/FileStore/upstream/../downstream/t/l/c/n",
                            "/FileStore/upstream/../../../Upstream.sqlite", "/other"})
        callbacks_.ReceiveFile(url);
    EXPECT_EQ(Everything(), before);
}

TEST_F(CallbackThreadTest, DrainedQueueRunsTheConfiguredStatements) {
    SetIni("FileStore", "SqlExecute1", "UPDATE Files SET KeepCopy = 5");
    SetIni("FileStore", "SqlExecute2", "UPDATE Files SET KeepCopy = KeepCopy + 1");
    SetIni("FileStore", "SqlExecute4", "DELETE FROM Files");
    callbacks_.LoadSqlList();
    const unsigned long fileId = Put();
    Report(kUrl);
    callbacks_.DoWork();
    EXPECT_EQ(StatusOf(true, fileId), kStatusToBeUploaded);
    EXPECT_EQ(Load(true, fileId).KeepCopy, 6U);
}

TEST_F(CallbackThreadTest, PackageOfAnotherRelayIsRejectedByItsKind) {
    struct Case {
        const char* packageType;
        const char* action;
        unsigned int result;
    };
    for (const Case& test : {Case{"CUSTOM", "PackagerCustomPublishIncorrectTarget", 0},
                             Case{"MSI", "PackagerMsiPublishIncorrectTarget", 0},
                             Case{"SNP", "PackagerSnpPublishIncorrectTarget", 0},
                             Case{"RPM", "PackagerRpmPublishIncorrectTarget", 0},
                             Case{"RPM", "PackagerRpmPublishIncorrectTarget", 1}, Case{"ODD", nullptr, 0}}) {
        SCOPED_TRACE(KelFormat("%s %u", test.packageType, test.result));
        Rows(Upstream(), "DELETE FROM Files");
        const ScriptedServer relay(
            [&](const ScriptedServer::Request&) { return ScriptedServer::ActionResult(test.result); });
        KelContainer info;
        info.SetString("AdministratedRelayGUID", kParentGuid);
        info.SetString("AdministratedRelayAddrPort", relay.HostAndPort());
        info.SetString("PackageType", test.packageType);
        info.SetString("PackageRelativePath", "a/b");
        const unsigned long fileId = Put([&](FileStoreEntry& entry) {
            entry.FileType = "PackagerZIPPackage";
            entry.FileInfo = info.SaveToXML();
        });
        const FileStoreEntry row = Load(true, fileId);
        callbacks_.ReceiveFile(kUrl);
        const bool rejected = test.action != nullptr && test.result == 0;
        EXPECT_EQ(StatusOf(true, fileId), rejected ? "(none)" : kStatusReceiving);
        EXPECT_EQ(FileExists(row.FilePath), !rejected);
        EXPECT_EQ(relay.Requests().empty(), test.action == nullptr);
        if (test.action == nullptr) continue;
        ASSERT_EQ(relay.Requests().size(), 1U);
        EXPECT_EQ(relay.Requests()[0].path, KelString("/Action/") + test.action);
        const KelContainer call = relay.Requests()[0].Arguments();
        EXPECT_EQ(call.GetString("PackageRelativePath"), "a/b");
        EXPECT_EQ(call.GetString("AdministratedRelayGUID"), kParentGuid);
        EXPECT_EQ(call.GetString("AdministratedRelayAddrPort"), relay.HostAndPort());
    }
}

TEST_F(CallbackThreadTest, PackageOfOurOwnRelayIsHandledHere) {
    KelContainer info;
    info.SetString("AdministratedRelayGUID", kGuid);
    const unsigned long fileId = Put([&](FileStoreEntry& entry) {
        entry.FileType = "UpgradePackage";
        entry.FileInfo = info.SaveToXML();
    });
    callbacks_.ReceiveFile(kUrl);
    EXPECT_EQ(StatusOf(true, fileId), kStatusToBeHandled);
}

class PackedUploadTest : public CallbackThreadTest {
  protected:
    void SetUp() override {
        UpstreamTest::SetUp();
        Fake("CoreUtilsExtractFile ()", [](KelContainer& call) {
            for (const auto& [name, content] : ArchiveContent(call.GetString("FilePath")))
                WriteFile(call.GetString("DestinationPath") + "/" + name, content);
            return 0U;
        });
    }
    static KelContainer Record(const KelString& name) {
        KelContainer record = Offer();
        record.SetString("FileName", name);
        record.SetString("SourceDevice", kChild);
        record.SetString("FilePath", "/etc/passwd");  // a child names no path of this device
        record.SetInt64("FileSize", static_cast<std::int64_t>(name.size()));
        return record;
    }
    /// An archive put by a child: these records in its index, these files beside it.
    unsigned long PutArchive(const KelVector<KelContainer>& records, const KelVector<KelString>& entries,
                             bool withIndex = true) {
        KelContainer index;
        for (const KelContainer& record : records)
            index.SetContainer("PackedFile", record, index.Has("PackedFile") ? index.Count("PackedFile") : 0);
        const KelString made = Root() + "/made.zip";
        GenericArchive archive(kArchiveZip);
        archive.Create(made);
        if (withIndex) archive.AddEntry("Temp/PackedFilesInfo.xml", MakeFile("index", index.SaveToXML()), 6);
        for (const KelString& entry : entries)
            archive.AddEntry(entry, MakeFile(entry, entry.substr(entry.rfind('/') + 1)), 6);
        EXPECT_EQ(archive.Close(), kArchiveDone);
        const unsigned long fileId = AddFile(true, "p.zip", kStatusReceiving, [](FileStoreEntry& entry) {
            entry.FileType = "FileStorePackedFiles";
            entry.FilePath = PathOf(true, entry);
            entry.FileURL = kUrl;
        });
        WriteFile(Load(true, fileId).FilePath, Content(made));
        return fileId;
    }
};

TEST_F(PackedUploadTest, FilesBecomeRowsAndTheArchiveGoes) {
    const unsigned long fileId =
        PutArchive({Record("a"), Record("it's")}, {"upstream/t/l/c/a", "upstream/t/l/c/it's"});
    const FileStoreEntry archive = Load(true, fileId);
    callbacks_.ReceiveFile(kUrl);
    EXPECT_EQ(StatusOf(true, fileId), "(none)");
    EXPECT_FALSE(FileExists(archive.FilePath));
    const auto rows =
        Rows(Upstream(), "SELECT FileName, FileStatus, SourceDevice FROM Files ORDER BY FileName");
    EXPECT_EQ(rows, (KelVector<KelString>{KelString("a|") + kStatusToBeUploaded + "|" + kChild,
                                          KelString("it's|") + kStatusToBeUploaded + "|" + kChild}));
    EXPECT_EQ(Content(FileStore::StorePath(true, "t", "l", "c", "it's")), "it's");
    EXPECT_EQ(DirList(FileStore::strStorageLocationToUse + "/Temp"), KelVector<KelString>{});
}

TEST_F(PackedUploadTest, ArchiveThatCannotBeUsedLeavesNoRows) {
    struct Case {
        const char* name;
        KelVector<KelContainer> records;
        bool withIndex;
        bool stays;
        const char* message;
    };
    KelContainer empty = Record("a");
    empty.SetInt64("FileSize", 0);
    for (const Case& test :
         {Case{"no index", {}, false, true, "CallbackThread: Failed to retrieve"},
          Case{"nothing in the index", {}, true, false, "file does not contains required data."},
          Case{"unusable record",
               {empty},
               true,
               true,
               "CallbackThread: Failed to process file a (from p.zip)"}}) {
        SCOPED_TRACE(test.name);
        Rows(Upstream(), "DELETE FROM Files");
        const unsigned long fileId = PutArchive(test.records, {"upstream/t/l/c/a"}, test.withIndex);
        const FileStoreEntry archive = Load(true, fileId);
        callbacks_.ReceiveFile(kUrl);
        EXPECT_TRUE(HasLogged(KelDebugLevel::Error, test.message));
        EXPECT_EQ(StatusOf(true, fileId), test.stays ? kStatusReceiving : "(none)");
        EXPECT_EQ(FileExists(archive.FilePath), test.stays);
        EXPECT_EQ(Count(Upstream(), "Files"), test.stays ? "1" : "0");
    }
}

TEST_F(PackedUploadTest, ArchiveMustNotReachBeyondTheUpstreamFiles) {
    for (const char* entry : {"Callback.sqlite", "downstream/t/l/c/n", "upstream/t/l/n", "Temp/other.xml"}) {
        SCOPED_TRACE(entry);
        Rows(Upstream(), "DELETE FROM Files");
        const unsigned long fileId = PutArchive({Record("a")}, {"upstream/t/l/c/a", entry});
        callbacks_.ReceiveFile(kUrl);
        EXPECT_TRUE(CallsOf("CoreUtilsExtractFile").empty());
        EXPECT_EQ(StatusOf(true, fileId), kStatusReceiving);
        EXPECT_TRUE(HasLogged(KelDebugLevel::Error, KelFormat("its entry '%s' is no upstream file", entry)));
    }
}

TEST_F(PackedUploadTest, ExtractionIsTriedFiveTimes) {
    FakeResult("CoreUtilsExtractFile ()", 16003);
    const unsigned long fileId = PutArchive({Record("a")}, {"upstream/t/l/c/a"});
    callbacks_.ReceiveFile(kUrl);
    EXPECT_EQ(CallsOf("CoreUtilsExtractFile").size(), 5U);
    EXPECT_EQ(CallsOf("CoreUtilsExtractFile")[4].GetString("DestinationPath"),
              FileStore::strStorageLocationToUse);
    EXPECT_EQ(StatusOf(true, fileId), kStatusReceiving);
    EXPECT_TRUE(HasLogged(KelDebugLevel::Warning, "error 16003 (try number 4)"));
    EXPECT_FALSE(HasLogged(KelDebugLevel::Warning, "(try number 5)"));
}

using UploadRepairTest = CallbackThreadTest;

TEST_F(UploadRepairTest, QueuesWhatArrivedWholeAndRemovesWhatIsHalfMade) {
    Put();
    const auto receiving = [](const char* name, std::int64_t size) {
        AddStored(name, kStatusReceiving, [&](FileStoreEntry& entry) {
            entry.FileURL = KelString("/") + name;
            entry.FileSize = size;
        });
    };
    receiving("short", 99);
    receiving("handled", 7);
    Rows(Upstream(),
         KelFormat("UPDATE Files SET FileStatus = '%s' WHERE FileName = 'handled'", kStatusAvailable));
    AddFile(true, "absent", kStatusReceiving, [](FileStoreEntry& entry) { entry.FileURL = "/absent"; });
    const KelString archive = FileStore::strModuleDataPath + "/Temp/PACKEDFILES_1_2.zip";
    const KelString kept = FileStore::strModuleDataPath + "/Temp/other";
    const KelString halfUnpacked = FileStore::strStorageLocationToUse + ".extract-1/upstream/x";
    for (const KelString& path : {archive, kept, halfUnpacked})
        WriteFile(path, "x");
    FileStoreRepairUploads();
    FileStoreRepairUploads();
    EXPECT_EQ(callbacks_.GetCallbackCount(), 1U);
    EXPECT_EQ(callbacks_.GetFileUrl(), kUrl);
    EXPECT_FALSE(FileExists(archive));
    EXPECT_FALSE(FileExists(halfUnpacked));
    EXPECT_TRUE(FileExists(kept));
}

}  // namespace
