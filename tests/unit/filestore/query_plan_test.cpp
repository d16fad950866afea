#include <span>

#include "filestore/file_store_fixture.h"
#include "kel/text.h"

namespace {

// The selections of the module as they are run, with sample values; #X# stands for the status X.

constexpr const char* kNotifyBatch =
    "SELECT * FROM Files JOIN Targets ON Files.FileId = Targets.FileId AND LastNotifyTime < 9 WHERE "
    "FileStatus IN (#AVAILABLE#, #NOTRELAYSCHILD#) AND LastStatusChangeTime < 9 AND (Upstream = 0 AND "
    "Acknowledged <> 0) ORDER BY Priority DESC, ((0.33 * CreateTime) + (0.67 * LastNotifyTime)) ASC, "
    "Files.FileId ASC LIMIT 50";

constexpr const char* kDownstream[] = {
    "SELECT FileId FROM Files WHERE FileType = 't' AND FileLabel = 'l' AND FileName = 'n' AND (FileChecksum "
    "= 'c' OR FileChecksum = '')",
    "SELECT FileId FROM Files WHERE FileType = 't' AND FileLabel = 'l' AND FileName = 'n' ORDER BY "
    "FileChecksum",
    "SELECT FileType, FileLabel FROM Files WHERE FileName = 'n' AND FileChecksum = 'c'",
    "SELECT FileType, FileInfo FROM Files WHERE FileLabel = 'l' AND FileChecksum = 'c'",
    "SELECT * FROM Files WHERE FileType = 'OperationalRulePackage'",
    "SELECT * FROM Files WHERE (FileType = 'a' OR FileType = 'b') AND (FileStatus = #AVAILABLE# OR "
    "FileStatus = #NOTRELAYSCHILD#)",
    "SELECT * FROM Files WHERE FileStatus = #DOWNLOADING# AND LastStatusChangeTime < 9 ORDER BY Priority "
    "DESC, FileId LIMIT 1",
    "SELECT * FROM Files WHERE FileStatus = #AVAILABLE# AND Upstream = 0 AND Acknowledged = 0 AND "
    "LastStatusChangeTime < 9 LIMIT 1",
    "SELECT * FROM Files WHERE FileStatus = #MISSING# LIMIT 1",
    "SELECT * FROM Files WHERE FileStatus = #TOBEREQUESTED# AND LastStatusChangeTime < 9 ORDER BY "
    "LastStatusChangeTime LIMIT 1",
    "SELECT * FROM Files AS F LEFT JOIN Targets AS T ON F.FileId = T.FileId AND DeviceGUID = '' WHERE "
    "FileStatus = #TOBEHANDLED# ORDER BY F.FileId LIMIT 50",
    "UPDATE Files SET FileSize = 0 WHERE FileURL = 'u' AND FileStatus = #MULTICASTLISTENING#",
    "SELECT FileId FROM Files WHERE FileURL LIKE '%u' AND FileStatus IN (#MULTICASTLISTENING#, #RECEIVING#)",
    "SELECT TargetId FROM Targets WHERE FileId = 1 AND DeviceGUID LIKE 'd%'",
    "SELECT MAX(LastNotifyTime) FROM Targets WHERE DeviceGUID = 'x'",
    "UPDATE Targets SET LastNotifyTime = 1 WHERE DeviceGUID IN ('a', 'b')",
    "DELETE FROM Targets WHERE FileId = 1",
};

constexpr const char* kUpstream[] = {
    "SELECT FileId FROM Files WHERE FileType = 't' AND FileLabel = 'l' AND FileName = 'n' AND (FileChecksum "
    "= 'c' OR FileChecksum = '')",
    "SELECT FileId FROM Files WHERE FileName = 'n' AND FileChecksum = 'c'",
    "SELECT * FROM Files WHERE FileURL = 'u'",
    "SELECT * FROM Files WHERE FileStatus = #MISSING# LIMIT 1",
    "SELECT * FROM Files WHERE FileStatus = #TOBEHANDLED# ORDER BY FileId LIMIT 50",
    "SELECT * FROM Files WHERE FileStatus = #RECEIVING#",
    "SELECT COUNT (*) FROM Files WHERE FileStatus = #TOBEUPLOADED# AND Upstream <> 0 AND SourceDevice <> ''",
    "SELECT FileId FROM Files WHERE FileStatus IN (#TOBEUPLOADED#, #TOBEPACKED#) AND Upstream <> 0 AND "
    "SourceDevice <> '' AND FileType <> 'FileStorePackedFiles' LIMIT 1",
    "UPDATE Files SET SourceDevice = 'x' WHERE SourceDevice = ''",
};

class QueryPlan : public FileStoreTest {
  protected:
    QueryPlan() { Initialise(); }

    /// The steps in which SQLite runs a statement.
    static KelVector<KelString> Plan(DBConnection& connection, const KelString& statement) {
        const KelString begun = ReplaceAll(ReplaceAll(statement, " #", " '_AGTMOD_FILESTORESTATUS_"), "(#",
                                           "('_AGTMOD_FILESTORESTATUS_");
        KelVector<KelString> plan;
        const auto result = connection.Query("EXPLAIN QUERY PLAN " + ReplaceAll(begun, "#", "_'"));
        for (std::size_t row = 0; result && row < result->GetRowCount(); ++row)
            plan.push_back(result->GetString(row, "detail"));
        EXPECT_FALSE(plan.empty()) << statement;
        return plan;
    }
};

TEST_F(QueryPlan, SearchesAnIndexAndNeverSortsARowOrderThatAnIndexGives) {
    const auto check = [](DBConnection& connection, std::span<const char* const> statements, bool maySort) {
        for (const char* statement : statements) {
            SCOPED_TRACE(statement);
            for (const KelString& step : Plan(connection, statement)) {
                EXPECT_FALSE(step.starts_with("SCAN")) << step;
                EXPECT_EQ(step.find("ANY("), KelString::npos) << step;  // a scan that skips equal values
                EXPECT_TRUE(maySort || step.find("TEMP B-TREE") == KelString::npos) << step;
            }
        }
    };
    check(Downstream(), kDownstream, false);
    // Their order depends on two tables at once, or they give one row: they sort what they find.
    const char* const sorting[] = {
        kNotifyBatch, "SELECT * FROM FilesView WHERE FileId = 1 AND TargetId = 2 ORDER BY FileId LIMIT 1"};
    check(Downstream(), sorting, true);
    check(Upstream(), kUpstream, false);
}

/// With nothing due, the batch must cost nothing, however many files are kept: targets come first.
TEST_F(QueryPlan, NotificationStartsFromTheDueTargets) {
    EXPECT_NE(Plan(Downstream(), kNotifyBatch).at(0).find("INDEX TargetsDue (LastNotifyTime<?)"),
              KelString::npos);
}

/// A row that failed a moment ago ends a batch, so it must come behind those that wait longer: whatever the
/// policy and the window let pass is read from an index in the order of the last change.
TEST_F(QueryPlan, UploadsAreTakenInTheOrderOfTheirLastChange) {
    const KelString begin = "SELECT * FROM Files WHERE FileStatus IN ";
    const KelString toSend =
        begin + "(#TOBEUPLOADED#, #TOBEPACKED#) AND Upstream <> 0 AND SourceDevice <> ''";
    const KelString toUpload = begin + "(#UPLOADING#, #TOBEPACKED#)";
    const auto check = [](const KelString& statement, const KelString& index) {
        for (const char* bypass : {"", " AND Bypass = 1"})
            EXPECT_EQ(Plan(Upstream(), statement + bypass + " LIMIT 50"),
                      KelVector<KelString>{"SEARCH Files USING INDEX " + index + " (FileStatus=?)"});
    };
    for (const char* filter : {"", " AND (FileType = 'a')", " AND (FileType = 'a' OR FileType = 'b')"}) {
        check(toSend + filter, "WorkSend");
        check(toUpload + filter, "WorkUpload");
    }
    for (const KelString& waiting : {toSend, toUpload})
        check(waiting + " AND FileType = 'FileStorePackedFiles'", "WorkArchive");
    for (const char* index : {"WorkSend", "WorkUpload", "WorkArchive"})
        EXPECT_EQ(Rows(Upstream(), KelFormat("SELECT name FROM pragma_index_info('%s') LIMIT 2", index)),
                  (KelVector<KelString>{"FileStatus", "LastStatusChangeTime"}));
}

}  // namespace
