#include "filestore/db/files_selection.h"
#include "filestore/db/files_table.h"
#include "filestore/db/handed_over_table.h"
#include "filestore/db/targets_table.h"
#include "filestore/file_store_fixture.h"

using namespace filestore;

namespace {

/// How SQLite runs the statements of the module, with the indexes and statistics of the shipped ini file.
struct QueryPlan : FileStoreTest {
    QueryPlan() { Initialise(); }

    /// The selections, updates and deletions that `calls` runs on a database.
    static Texts Recorded(Side side, const std::function<void()>& calls) {
        Texts statements;
        Database(side).SetObserver([&statements](const KelString& statement) {
            for (const char* kind : {"SELECT", "UPDATE", "DELETE"})
                if (statement.starts_with(kind)) statements.push_back(statement);
        });
        calls();
        Database(side).SetObserver({});
        EXPECT_FALSE(statements.empty());
        return statements;
    }
    /// The steps of a statement.
    static Texts Plan(Side side, const KelString& statement) {
        Texts plan;
        const auto result = Database(side).Query("EXPLAIN QUERY PLAN " + statement);
        for (std::size_t row = 0; result && row < result->GetRowCount(); ++row)
            plan.push_back(result->GetString(row, "detail"));
        EXPECT_FALSE(plan.empty()) << statement;
        return plan;
    }
    enum class May { Search, Sort, Scan };
    /// Checks that no statement costs more than is allowed; one that is allowed to scan must do so.
    static void Check(Side side, May may, const std::function<void()>& calls) {
        for (const KelString& statement : Recorded(side, calls)) {
            SCOPED_TRACE(statement);
            bool scans = false;
            for (const KelString& step : Plan(side, statement)) {
                scans |= step.starts_with("SCAN");
                EXPECT_EQ(step.find("ANY("), KelString::npos) << step;  // a scan that skips equal values
                EXPECT_TRUE(may != May::Search || step.find("TEMP B-TREE") == KelString::npos) << step;
            }
            EXPECT_EQ(scans, may == May::Scan);
        }
    }
    static IdList Ids() {
        IdList ids;
        for (const std::uint64_t id : {1U, 2U})
            ids.Add(id);
        return ids;
    }
    const FileKey key_ = {"t", "l", "n", "c"};
};

TEST_F(QueryPlan, StatementsOfBothDatabasesSearchAnIndex) {
    for (const Side side : {kDown, kUp})
        Check(side, May::Search, [this, side] {
            FileStoreEntry entry(key_);
            entry.FileId = 1;
            entry.LoadFromDatabase(1, side);
            entry.SaveToDatabase(side);
            FindFileInDatabase(side, key_);
            FindFileInDatabase(side, {"t", "l", "n", ""});
            FindExactFile(side, key_);
            ReadFileStatus(side, 1);
            UpdateFileStatus(side, 1, kStatusMissing, NextTry::AtOnce);
            UpdateFileStatus(side, 1, kStatusMissing, NextTry::AtOnce, true);
            UpdateFileStatus(side, 1, kStatusMissing, kStatusAvailable, NextTry::AtOnce);
            UpdateFileStatus(side, Ids(), kStatusMissing, NextTry::AtOnce);
            RestoreFileStatus(side, entry);
            SetSuppliedByConsumer(side, 1);
            SetSourceDevice(side, 1, "d");
            DeleteFileRow(side, 1);
            SelectMissingFile(side);
            SelectFilesToHandle(side, 50);
        });
}

TEST_F(QueryPlan, DownstreamStatementsSearchAnIndex) {
    Check(kDown, May::Search, [] {
        for (const Passing passing : {Passing::All, Passing::BypassOnly}) {
            SelectDownload(9, passing);
            SelectAcknowledgement(9, passing);
            SelectFileToRequest(9, passing);
        }
        SelectFilesOfContent("n", "c");
        SelectFilesOfLabel("l", "c");
        SelectAwaitedFiles("u");
        SelectPackages();
        for (const std::uint64_t fileId : {0U, 1U})
            SelectHeldPackages(fileId);
        SetDownloadPath(1, "p");
        SetTransferredBytes(1, 1, NextTry::AtOnce);
        RestartDownload(1);
        SetDownloaded(1, 1);
        SetAcknowledged(1);
        SetNotRelaysChild("n", "c");
        SetLastRequestTime(1, 1);
        SetMissing(1);
        SetReceivedByMulticast(1, 1);
        ResetMulticastReception("u");
        ForgetUnfinishedOffers();
        MakeDueForParent();
        RecordRequestAnswer(1, {kStatusDownloading, NextTry::AtOnce, "u", 0, "c"});

        SelectTarget(1, 2);
        FindTargets(1, "");
        FindTargets(1, "d");
        HasTargets(1);
        LatestNotifyTime("d");
        MakeTargetsDue("d", 1);
        SetNotifyTime(1, 1);
        SetTargetDevice({});
        DeleteTargetsOfDevice(1, "G");
        ForgetHandedOver({"t", "l", "n", "c"});
        RecordAnnouncements({Ids(), Ids(), Ids(), {"a", "b"}, Ids()}, {1, 1, 1});
    });
    // Their order depends on two tables at once: what is due is sorted.
    for (const bool windowClosed : {false, true})
        for (const auto where : {DueTargets::Where::ThisDevice, DueTargets::Where::OtherDevices})
            Check(kDown, May::Sort, [=] { SelectDueTargets({9, 99, where, windowClosed, {"a"}, 50}); });
}

TEST_F(QueryPlan, UpstreamStatementsSearchAnIndex) {
    Check(kUp, May::Search, [] {
        FindFileFromUrl("u");
        SelectUpstreamFiles({"t", "l", "n", "c"});
        CountFilesToUpload();
        HasFilesToUpload();
        SelectFilesBeingReceived();
        SetReceivingAgain(1, 1, "u");
        HandleAgain(1);
        MakeDueForParent();
        SetMissingSourceDevices("d");
        RecordSentFiles({{1, kStatusUploading, "u"}});
    });
}

TEST_F(QueryPlan, TablesAreScannedOnlyWhereAllRowsAreMeant) {
    Check(kDown, May::Scan, [] { SelectSourceDevices(); });         // another port of this device:
    Check(kDown, May::Scan, [] { SelectAllTargets(); });            // every device URL is rewritten
    Check(kDown, May::Scan, [] { MoveContentPaths("/a", "/b"); });  // another storage location
    Check(kDown, May::Scan, [] { SelectHandedOver(); });            // of these few
    for (const Side side : {kDown, kUp})                            // a list of all files
        Check(side, May::Scan, [side] { SelectListedFiles(side, {"FileSize", "ASC"}, {0, 10}); });
    // Every start: all rows lose the mark of a planned multicast transfer, those that listened are found by
    // their status.
    const Texts reset = Recorded(kDown, [] { ResetAllMulticast(); });
    ASSERT_EQ(reset.size(), 2U);
    EXPECT_EQ(Plan(kDown, reset[0]), Texts{"SCAN Files"});
    EXPECT_TRUE(Plan(kDown, reset[1]).at(0).starts_with("SEARCH"));
}

/// With nothing due, the batch must cost nothing, however many files are kept: targets come first.
TEST_F(QueryPlan, NotificationStartsFromTheDueTargets) {
    const Texts batch = Recorded(kDown, [] {
        SelectDueTargets({9, 99, DueTargets::Where::OtherDevices, false, {}, 50});
    });
    ASSERT_EQ(batch.size(), 2U);
    for (const auto& [part, search] : {std::pair(0U, "(LastNotifyTime>?)"), {1U, "(LastNotifyTime<?)"}})
        EXPECT_NE(Plan(kDown, batch[part]).at(0).find(KelFormat("INDEX TargetsDue %s", search)),
                  KelString::npos);
}

/// A row that failed a moment ago ends a batch, so it must come behind those that wait longer: whatever the
/// policy and the window let pass is read from an index in the order of the last change.
TEST_F(QueryPlan, UploadsAreTakenInTheOrderOfTheirLastChange) {
    const auto check = [](const UploadFilter& filter, const char* sendIndex, const char* uploadIndex) {
        for (const auto& [select, index] :
             {std::pair(&SelectFilesToSend, sendIndex), std::pair(&SelectFilesToUpload, uploadIndex)})
            for (const KelString& statement : Recorded(kUp, [&, select = select] { select(filter); }))
                EXPECT_EQ(Plan(kUp, statement),
                          Texts{KelFormat("SEARCH Files USING INDEX %s (FileStatus=? AND "
                                          "LastStatusChangeTime%s?)",
                                          index, statement.find("Time >") != KelString::npos ? ">" : "<")});
    };
    for (const Passing passing : {Passing::All, Passing::BypassOnly}) {
        for (const Texts& types : {Texts{}, {"a"}, {"a", "b"}})
            check({false, types, passing, 50}, "WorkSend", "WorkUpload");
        check({true, {}, passing, 50}, "WorkArchive", "WorkArchive");
    }
    for (const char* index : {"WorkSend", "WorkUpload", "WorkArchive"})
        EXPECT_EQ(Rows(kUp, KelFormat("SELECT name FROM pragma_index_info('%s') LIMIT 2", index)),
                  (Texts{"FileStatus", "LastStatusChangeTime"}));
}

}  // namespace
