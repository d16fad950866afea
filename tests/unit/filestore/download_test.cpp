#include <ctime>

#include "filestore/scripted_server.h"
#include "filestore/transfer_fixture.h"
#include "kel/checksum.h"
#include "kel/file.h"
#include "kel/format.h"

using namespace filestore;

namespace {

/// 3000 bytes in which every position looks different, so that an offset error shows.
KelString Pattern() {
    KelString text;
    for (int i = 0; text.size() < 3000; ++i)
        text += std::to_string(i) + ",";
    return text.substr(0, 3000);
}

class DownloadTest : public TransferTest {
  protected:
    /// A row to be downloaded whose checksum is `content`'s.
    static FileStoreEntry Wanted(const KelString& name, const KelString& content,
                                 const std::function<void(FileStoreEntry&)>& change = {}) {
        const unsigned long fileId = AddFile(false, name, kStatusDownloading, [&](FileStoreEntry& entry) {
            entry.FileChecksum = TextMd5(content);
            entry.FileSize = static_cast<std::int64_t>(content.size());
            entry.FileURL = "/served/a b%20#?ü'" + name;
            if (change) change(entry);
        });
        return Load(fileId);
    }
    static FileStoreEntry Load(unsigned long fileId) {
        FileStoreEntry entry;
        EXPECT_TRUE(entry.LoadFromDatabase(fileId, false));
        return entry;
    }
    static KelString StorePathOf(const FileStoreEntry& entry) {
        return FileStore::StorePath(false, entry.FileType, entry.FileLabel, entry.FileChecksum,
                                    entry.FileName);
    }
    static bool JustNow(std::int64_t time) { return time != 0 && std::time(nullptr) - time < 60; }

    const KelString content_ = Pattern();
};

TEST_F(DownloadTest, ResumesWhereThePartialFileEnds) {
    struct Case {
        const char* name;
        std::size_t present;
        const char* mode;
        const char* range;  ///< that is asked for
    };
    for (const Case& test :
         {Case{"new", 0, kTransportUnicast, ""}, Case{"partial", 1000, kTransportUnicast, "bytes=1000-"},
          Case{"recovery starts again", 1000, kTransportUnicastRecovery, ""},
          Case{"longer than announced starts again", 4000, kTransportUnicast, ""}}) {
        SCOPED_TRACE(test.name);
        ScriptedServer parent(ScriptedServer::FileScript(content_));
        SetParent("127.0.1.1", parent.Port());
        const FileStoreEntry wanted =
            Wanted(test.name, content_, [&](FileStoreEntry& entry) { entry.TransportMode = test.mode; });
        if (test.present > 0) WriteFile(StorePathOf(wanted), (content_ + content_).substr(0, test.present));
        EXPECT_EQ(FileStore::threadPull.DownloadFile(), 1);
        const FileStoreEntry row = Load(wanted.FileId);
        EXPECT_EQ(row.FileStatus, kStatusAvailable);
        EXPECT_EQ(row.LastStatusChangeTime, 0);
        EXPECT_EQ(row.FilePath, StorePathOf(wanted));
        EXPECT_EQ(Content(row.FilePath), content_);
        ASSERT_EQ(parent.Requests().size(), 1U);
        EXPECT_EQ(parent.Requests()[0].Header("Range"), test.range);
    }
}

TEST_F(DownloadTest, OutcomeOfAFailureDependsOnItsKind) {
    struct Case {
        const char* name;
        ScriptedServer::Answer answer;
        const char* type;
        const char* status;
        const char* left;  ///< of the local file's content; null: the partial body
    };
    const KelString partial = content_.substr(0, 500);
    const KelVector<Case> cases = {
        {"gone", {404, "", "no", SIZE_MAX}, "t", kStatusDownloading, "(none)"},
        {"wrong content", {200, "", KelString(3000, 'x'), SIZE_MAX}, "t", kStatusDownloading, "(none)"},
        {"cut off", {200, "", content_, 500}, "t", kStatusDownloading, nullptr},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        ScriptedServer parent([&test](const ScriptedServer::Request&) { return test.answer; });
        SetParent("127.0.1.1", parent.Port());
        const FileStoreEntry wanted =
            Wanted(test.name, content_, [&](FileStoreEntry& entry) { entry.FileType = test.type; });
        EXPECT_EQ(FileStore::threadPull.DownloadFile(), 1);
        const FileStoreEntry row = Load(wanted.FileId);
        EXPECT_EQ(row.FileStatus, test.status);
        EXPECT_TRUE(JustNow(row.LastStatusChangeTime));
        EXPECT_EQ(Content(StorePathOf(wanted)), test.left == nullptr ? partial : KelString(test.left));
        EXPECT_EQ(row.TransferredBytes, test.left == nullptr ? 500U : 0U);
        EXPECT_EQ(FileStore::threadPull.DownloadFile(), 0) << "taken up again before the time-out";
    }
}

TEST_F(DownloadTest, NetworkPackageInfoIsTakenWithAnyChecksumAndTheSizeItHas) {
    ScriptedServer parent(ScriptedServer::FileScript("something else"));
    SetParent("127.0.1.1", parent.Port());
    const FileStoreEntry wanted = Wanted("n", content_, [](FileStoreEntry& entry) {
        entry.FileType = "OperationalRuleNetworkPackageInfo";
        entry.FileSize = 0;
    });
    EXPECT_EQ(FileStore::threadPull.DownloadFile(), 1);
    EXPECT_EQ(Load(wanted.FileId).FileStatus, kStatusAvailable);
    EXPECT_EQ(Load(wanted.FileId).FileSize, 14);
}

TEST_F(DownloadTest, CompleteLocalFileIsVerifiedNotDownloaded) {
    ScriptedServer parent(ScriptedServer::FileScript(content_));
    SetParent("127.0.1.1", parent.Port());
    const FileStoreEntry good = Wanted("good", content_);
    WriteFile(StorePathOf(good), content_);
    EXPECT_EQ(FileStore::threadPull.DownloadFile(), 1);
    EXPECT_EQ(Load(good.FileId).FileStatus, kStatusAvailable);

    const FileStoreEntry damaged = Wanted("damaged", content_);
    WriteFile(StorePathOf(damaged), KelString(3000, '\0'));
    EXPECT_EQ(FileStore::threadPull.DownloadFile(), 1);
    EXPECT_EQ(Load(damaged.FileId).FileStatus, kStatusDownloading);
    EXPECT_FALSE(FileExists(StorePathOf(damaged)));
    EXPECT_TRUE(parent.Requests().empty());
}

TEST_F(DownloadTest, HighestPriorityThenOldestRowGoesFirstAndAWaitingOneIsPassedOver) {
    ScriptedServer parent(ScriptedServer::FileScript(content_));
    SetParent("127.0.1.1", parent.Port());
    const std::int64_t now = std::time(nullptr);
    Wanted("second", content_);
    Wanted("third", content_);
    Wanted("first", content_, [](FileStoreEntry& entry) { entry.Priority = 500; });
    Wanted("failed lately", content_, [&](FileStoreEntry& entry) {
        entry.Priority = 900;
        entry.LastStatusChangeTime = now - FileStore::ulPullTimeout + 20;
    });
    Wanted("failed long ago", content_, [&](FileStoreEntry& entry) {
        entry.Priority = 800;
        entry.LastStatusChangeTime = now - FileStore::ulPullTimeout - 1;
    });
    KelString order;
    while (FileStore::threadPull.DownloadFile() != 0) {
    }
    for (const ScriptedServer::Request& request : parent.Requests())
        order += request.path.substr(request.path.rfind("%27") + 3) + " ";
    EXPECT_EQ(order, "failed%20long%20ago first second third ");
}

TEST_F(DownloadTest, ClosedWindowLetsBypassFilesThroughOnly) {
    ScriptedServer parent(ScriptedServer::FileScript(content_));
    SetParent("127.0.1.1", parent.Port());
    KelContainer window;
    window.SetString("Slots", "0");
    window.SetInt32("SlotType", 2);
    FileStore::bmTrackUsageUp.UpdateTransferWindow(window);
    FileStore::bmTrackUsageUp.CancelAllTransfers();
    const FileStoreEntry ordinary = Wanted("ordinary", content_);
    const FileStoreEntry bypass =
        Wanted("bypass", content_, [](FileStoreEntry& entry) { entry.Bypass = true; });
    EXPECT_EQ(FileStore::threadPull.DownloadFile(), 1);
    EXPECT_EQ(FileStore::threadPull.DownloadFile(), 0);
    EXPECT_EQ(Load(bypass.FileId).FileStatus, kStatusAvailable);
    EXPECT_EQ(Load(ordinary.FileId).FileStatus, kStatusDownloading);
}

TEST_F(DownloadTest, NamedSourceDeviceIsAskedInsteadOfTheParent) {
    ScriptedServer source(ScriptedServer::FileScript(content_));
    const FileStoreEntry wanted = Wanted("n", content_, [&](FileStoreEntry& entry) {
        entry.SourceDevice = source.HostAndPort() + "/0A1B0000-0000-4000-8000-0000000000C1";
    });
    EXPECT_EQ(FileStore::threadPull.DownloadFile(), 1);
    EXPECT_EQ(Load(wanted.FileId).FileStatus, kStatusAvailable);
}

TEST_F(DownloadTest, UnknownParentAndMissingSpacePostponeTheFile) {
    const FileStoreEntry orphan = Wanted("orphan", content_);
    relayValues.SetBool("ParentSync", false);
    EXPECT_EQ(FileStore::threadPull.DownloadFile(), 0);
    EXPECT_TRUE(JustNow(Load(orphan.FileId).LastStatusChangeTime));

    SetParent("127.0.1.1", 1);
    FileStore::fCheckAvailableFreeSpaceBeforeDownloading = true;
    const FileStoreEntry huge =
        Wanted("huge", content_, [](FileStoreEntry& entry) { entry.FileSize = INT64_MAX; });
    EXPECT_EQ(FileStore::threadPull.DownloadFile(), 0);
    EXPECT_TRUE(JustNow(Load(huge.FileId).LastStatusChangeTime));
    EXPECT_TRUE(HasLogged(KelDebugLevel::Error, "9223372036854775807 bytes needed."));
}

TEST_F(DownloadTest, MulticastOfferIsHandedToTheHttpModule) {
    FakeResult("HttpProtocolMulticastStartListen ()", 0);
    const FileStoreEntry wanted = Wanted("n", content_, [](FileStoreEntry& entry) {
        entry.MulticastAddress = "224.2.0.1";
        entry.MulticastPort = 1500;
        entry.MulticastBlockSize = 2048;
    });
    EXPECT_EQ(FileStore::threadPull.DownloadFile(), 1);
    EXPECT_EQ(Load(wanted.FileId).FileStatus, kStatusMulticastListening);
    ASSERT_EQ(CallsOf("HttpProtocolMulticastStartListen").size(), 1U);
    const KelContainer call = CallsOf("HttpProtocolMulticastStartListen")[0];
    EXPECT_EQ(call.GetInt32("MulticastBlockSize"), 2048);
    EXPECT_EQ(call.GetInt64("FileSize"), 3000);
    EXPECT_EQ(call.GetString("LocalPath"), StorePathOf(wanted));
}

}  // namespace
