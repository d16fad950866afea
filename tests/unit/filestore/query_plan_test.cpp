#include <tuple>

#include "filestore/file_store_fixture.h"

namespace {

/// A selection of the module as a thread runs it, with sample values.
struct Selection {
    const char* name;
    bool upstream;
    const char* statement;
    bool sorts =
        false;  ///< its order depends on two tables at once (or it is one row): it sorts what it finds
};

void PrintTo(const Selection& selection, std::ostream* stream) {
    *stream << selection.name;
}

#define STATUS(name) "'_AGTMOD_FILESTORESTATUS_" name "_'"

constexpr const char* kMulticastCandidate =
    "SELECT FileId, FileName, FileSize, TargetId FROM FilesView WHERE FileStatus = " STATUS(
        "AVAILABLE") " AND MulticastTransferToBeStarted = 0 AND LastStatusChangeTime < 1000 AND "
                     "LastNotifyTime < 1000 ORDER BY Priority DESC, ((0.33 * CreateTime) + (0.67 * "
                     "LastNotifyTime)) ASC LIMIT 1";

constexpr const char* kNotifyBatch =
    "SELECT Files.FileId AS FileId, FilePath, FileURL, ExternalFile, FileType, FileLabel, FileName, "
    "FileChecksum, SourceDevice, FirstRelay, DevicePath, FileInfo, DeviceGUID, WakeUpDevice, KeepCopy, "
    "FileSize, Priority, TargetId, Bypass, TransportMode, FileStatus FROM Files JOIN Targets ON "
    "Files.FileId = Targets.FileId AND LastNotifyTime < 1000 WHERE FileStatus IN (" STATUS(
        "AVAILABLE") ", " STATUS("NOTRELAYSCHILD") ") AND LastStatusChangeTime < 1000 AND (Upstream = 0 AND "
                                                   "Acknowledged <> 0) ORDER BY Priority DESC, ((0.33 * "
                                                   "CreateTime) + (0.67 * LastNotifyTime)) ASC, Files.FileId "
                                                   "ASC LIMIT 50";

constexpr const char* kDeliveredDownstream =
    "SELECT FileId, FilePath, FileStatus, KeepCopy, ExternalFile, Upstream, Acknowledged FROM Files WHERE "
    "FileStatus IN (" STATUS("AVAILABLE") ", " STATUS(
        "NOTRELAYSCHILD") ") AND ((KeepCopy & 2) = 0) AND (ExternalFile = 0) AND ((Upstream <> 0) OR (Upstream = "
                          "0 AND Acknowledged <> 0 AND CreateTime < 1000) OR (Upstream = 0 AND FileType = "
                          "'PackagerStatus')) AND FileId NOT IN (SELECT DISTINCT FileId FROM Targets)";

constexpr const char* kOldPackages =
    "SELECT FileId, FileLabel, FilePath, FileURL, LastRequestTime, CreateTime, ExternalFile, FileType, "
    "FileInfo FROM Files WHERE (((LastRequestTime < 1000) AND (LastRequestTime <> 0)) OR ((CreateTime < "
    "1000) "
    "AND (LastRequestTime = 0))) AND (ExternalFile = 0) AND ((FileType = 'OperationalRulePackage') OR "
    "(FileType = 'PackagerCopyAdministratedPackage') OR (FileType = 'PackagerPublishPackageToMaster') OR "
    "(FileType = 'OperationalRuleNetworkPackage') OR (FileType = 'OperationalRelayPackage') OR (FileType = "
    "'OperationalRuleNetworkPackageInfo')) ";

const Selection kSelections[] = {
    {"FileByKey", false,
     "SELECT FileId FROM Files WHERE FileType = 't' AND FileLabel = 'l' AND FileName = 'n' AND (FileChecksum "
     "= "
     "'c' OR FileChecksum = '')"},
    {"FileByKeyWithoutChecksum", false,
     "SELECT FileId FROM Files WHERE FileType = 't' AND FileLabel = 'l' AND FileName = 'n' ORDER BY "
     "FileChecksum ASC"},
    {"UpstreamFileByKey", true,
     "SELECT FileId FROM Files WHERE FileType = 't' AND FileLabel = 'l' AND FileName = 'n' AND (FileChecksum "
     "= "
     "'c' OR FileChecksum = '')"},
    {"UpstreamFileByUrl", true, "SELECT FileId FROM Files WHERE FileURL = 'u'"},
    {"Download", false,
     "SELECT * FROM Files WHERE FileStatus = " STATUS(
         "DOWNLOADING") " AND LastStatusChangeTime < 1000  ORDER BY Priority DESC, FileId ASC LIMIT 1"},
    {"DownloadBypassOnly", false,
     "SELECT * FROM Files WHERE FileStatus = " STATUS(
         "DOWNLOADING") " AND LastStatusChangeTime < 1000 AND Bypass = 1 ORDER BY Priority DESC, FileId ASC "
                        "LIMIT 1"},
    {"Acknowledge", false,
     "SELECT FileId, FileType, FileLabel, FileName, FileChecksum, SourceDevice, FileStatus, Upstream, "
     "Acknowledged, LastStatusChangeTime FROM Files WHERE FileStatus = " STATUS(
         "AVAILABLE") " AND Upstream = 0 AND Acknowledged = 0 AND LastStatusChangeTime < 1000  LIMIT 1"},
    {"PackageByNameAndChecksum", false,
     "SELECT FileType, FileLabel FROM Files WHERE FileName = 'n' AND  FileChecksum = 'c'"},
    {"AcknowledgedTarget", false, "DELETE FROM Targets WHERE FileId = 1 AND DeviceGUID LIKE '%/G%'"},
    {"LocalRequest", false,
     "SELECT FileId, FileType, FileLabel, FileName, FileChecksum, Bypass, FileInfo, Upstream, Priority, "
     "FileStatus FROM Files WHERE FileStatus = " STATUS("MISSING") " LIMIT 1"},
    {"HandleUpstream", true,
     "SELECT FileId, FileType, FileLabel, FileName, FileChecksum, SourceDevice, FirstRelay, Upstream, "
     "FileInfo, Priority, FileSize, 1 AS ISLOCAL FROM Files WHERE FileStatus = " STATUS(
         "TOBEHANDLED") " ORDER BY FileId ASC LIMIT 50"},
    {"HandleDownstream", false,
     "SELECT JFILES.FileId AS FileId, FileType, FileLabel, FileName, FileChecksum, SourceDevice, FirstRelay, "
     "Upstream, FileInfo, Priority, FileSize, JTARGETS.TargetId IS NULL AS ISLOCAL FROM Files AS JFILES LEFT "
     "JOIN Targets AS JTARGETS ON JFILES.FileId = JTARGETS.FileId AND DeviceGUID = '' WHERE FileStatus "
     "= " STATUS("TOBEHANDLED") " ORDER BY JFILES.FileId ASC LIMIT 50"},
    {"NotifyBatch", false, kNotifyBatch, true},
    {"NotifyOne", false,
     "SELECT FileId, FilePath, DevicePath, TargetId FROM FilesView WHERE FileId = 1 AND TargetId = 2 ORDER "
     "BY "
     "FileId ASC LIMIT 1",
     true},
    {"PostponedDevices", false, "UPDATE Targets SET LastNotifyTime = 1 WHERE DeviceGUID IN ('a', 'b')"},
    {"LastNotification", false,
     "SELECT MAX(LastNotifyTime) AS LastNotifyTime FROM Targets WHERE DeviceGUID='x'"},
    {"MulticastCandidate", false, kMulticastCandidate, true},
    {"MulticastTargets", false,
     "SELECT * FROM FilesView WHERE FileStatus = " STATUS(
         "AVAILABLE") " AND FileId = 1 AND LastStatusChangeTime < 1000 AND LastNotifyTime < 1000"},
    {"OldestTarget", false, "SELECT min (TargetCreateTime) FROM Targets WHERE FileId = 1"},
    {"MulticastStart", false, "SELECT * FROM Files WHERE MulticastTransferToBeStarted = 1 LIMIT 1"},
    {"MulticastReset", false,
     "UPDATE Files SET FileSize = 0, FileStatus = " STATUS(
         "TOBEREQUESTED") ", LastStatusChangeTime = 0, Acknowledged = 0 WHERE FileURL = 'u' AND FileStatus "
                          "= " STATUS("MULTICASTLISTENING")},
    {"Request", false,
     "SELECT FileId, FileType, FileLabel, FileName, FileChecksum, Bypass, FileInfo, FileStatus, "
     "LastStatusChangeTime, Priority FROM Files WHERE FileStatus = " STATUS(
         "TOBEREQUESTED") " AND LastStatusChangeTime < 1000  ORDER BY LastStatusChangeTime LIMIT 1"},
    {"RequestingTarget", false, "SELECT TargetId FROM Targets WHERE FileId = 1 AND DeviceGUID LIKE 'd%'"},
    {"RequestBypassOnly", false,
     "SELECT FileId, FileType, FileLabel, FileName, FileChecksum, Bypass, FileInfo, FileStatus, "
     "LastStatusChangeTime, Priority FROM Files WHERE FileStatus = " STATUS(
         "TOBEREQUESTED") " AND LastStatusChangeTime < 1000 AND Bypass = 1 ORDER BY LastStatusChangeTime "
                          "LIMIT "
                          "1"},
    {"LocalRequestUpstream", true,
     "SELECT FileId, FileType, FileLabel, FileName, FileChecksum, Bypass, FileInfo, Upstream, Priority, "
     "FileStatus FROM Files WHERE FileStatus = " STATUS("MISSING") " LIMIT 1"},
    {"RulePackageByKey", false,
     "SELECT FileId FROM Files WHERE FileType = 'OperationalRulePackage' AND FileLabel = 'l' AND FileName = "
     "'n' AND FileChecksum = 'c' "},
    {"LocalRequester", false, "SELECT TargetId FROM Targets WHERE FileId = 1 AND DeviceGUID = ''"},
    {"ManualUploadCount", true,
     "SELECT COUNT (*) FROM Files WHERE FileStatus = " STATUS(
         "TOBEUPLOADED") " AND Upstream <> 0 AND SourceDevice <> '' "},
    {"ManualUploadRest", true,
     "SELECT FileId FROM Files WHERE FileStatus IN (" STATUS("TOBEUPLOADED") ", " STATUS(
         "TOBEPACKED") ") AND Upstream <> 0 AND SourceDevice <> '' AND FileType <> 'FileStorePackedFiles' "
                       "LIMIT 1"},
    {"ArrivedUploads", true,
     "SELECT FileURL, FilePath, FileSize FROM Files WHERE FileStatus = " STATUS("RECEIVING")},
    {"DeliveredUpstream", true,
     "SELECT FileId, FilePath, FileStatus, KeepCopy, ExternalFile, Upstream, Acknowledged FROM Files WHERE "
     "FileStatus IN (" STATUS("AVAILABLE") ", " STATUS("NOTRELAYSCHILD") ", " STATUS(
         "PACKEDFILE") ") AND ((KeepCopy & 2) = 0) AND (ExternalFile = 0) AND ((Upstream <> 0) OR (Upstream "
                       "= 0 "
                       "AND Acknowledged <> 0  AND CreateTime < 1000)) "},
    {"OldFiles", false,
     "SELECT FileId, FilePath, FileURL, CreateTime, KeepCopy, ExternalFile FROM Files WHERE (CreateTime < "
     "1000) AND ((KeepCopy & 2) = 0) AND (ExternalFile = 0) "},
    {"OldUpstreamFiles", true,
     "SELECT FileId, FilePath, FileURL, CreateTime, KeepCopy, ExternalFile FROM Files WHERE (CreateTime < "
     "1000) AND ((KeepCopy & 2) = 0) AND (ExternalFile = 0) "},
    {"OldPackages", false, kOldPackages},
    {"OldTargets", false, "DELETE FROM Targets WHERE (TargetCreateTime < 1000)"},
    {"TargetsOfFile", false, "DELETE FROM Targets WHERE FileId = 1"},
    {"ReceivedFile", true,
     "SELECT FileId, FileStatus, FileInfo, SourceDevice, FileType, FileName, FilePath FROM Files WHERE "
     "FileURL "
     "= 'u'"},
    {"UnpackedFile", true, "SELECT FileId FROM Files WHERE FileName = 'n' AND FileChecksum = 'c'"},
    {"MulticastFileByUrlEnd", false,
     "SELECT FileId, FileStatus FROM Files WHERE FileURL LIKE '%u' AND FileStatus IN (" STATUS(
         "MULTICASTLISTENING") ", " STATUS("RECEIVING") ")"},
    {"FilesWithoutSource", true, "UPDATE Files SET SourceDevice = 'x' WHERE SourceDevice = ''"},
    {"InformationByLabel", false,
     "SELECT FileType, FileInfo FROM Files WHERE FileLabel = 'l' AND FileChecksum = 'c'"},
    {"PackageList", false,
     "SELECT FileType, FileLabel ,FileName ,FileChecksum FROM Files WHERE "
     "FileType='OperationalRulePackage' "},
    {"PackageStatus", false,
     "SELECT FileId, FilePath, FileSize, ExternalFile FROM Files WHERE (FileType = 'OperationalRulePackage' "
     "OR "
     "FileType = 'OperationalRuleScript') AND (FileStatus = " STATUS("AVAILABLE") " OR FileStatus = " STATUS(
         "NOTRELAYSCHILD") ")"},
};

class QueryPlan : public FileStoreTest, public ::testing::WithParamInterface<Selection> {
  protected:
    KelVector<KelString> Plan(const char* statement) {
        KelVector<KelString> plan;
        const auto result = (GetParam().upstream ? Upstream() : Downstream())
                                .Query(KelString("EXPLAIN QUERY PLAN ") + statement);
        for (std::size_t row = 0; result && row < result->GetRowCount(); ++row)
            plan.push_back(result->GetString(row, "detail"));
        return plan;
    }
};

TEST_P(QueryPlan, SearchesAnIndexAndNeverSortsARowOrderThatAnIndexGives) {
    Initialise();
    const KelVector<KelString> plan = Plan(GetParam().statement);
    ASSERT_FALSE(plan.empty());
    for (const KelString& step : plan) {
        EXPECT_FALSE(step.starts_with("SCAN")) << step;
        if (!GetParam().sorts) {
            EXPECT_EQ(step.find("TEMP B-TREE"), KelString::npos) << step;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Module, QueryPlan, ::testing::ValuesIn(kSelections),
                         [](const auto& tested) { return KelString(tested.param.name); });

struct Filter {
    const char* policy;
    bool isArchives;
};

class WaitingPlan : public FileStoreTest,
                    public ::testing::WithParamInterface<std::tuple<Filter, const char*>> {
  protected:
    static KelString Plan(const KelString& statement) {
        const auto result = Upstream().Query("EXPLAIN QUERY PLAN " + statement);
        EXPECT_TRUE(result && result->GetRowCount() == 1) << statement;
        return result ? result->GetString(0, "detail") : KelString();
    }
};

/// A row that failed a moment ago ends a batch, so it must come behind those that wait longer: whatever the
/// policy and the window let pass is read from an index in the order of the last change.
TEST_P(WaitingPlan, TakesTheRowsOfAStatusInTheOrderOfTheirLastChange) {
    Initialise();
    const auto& [filter, bypass] = GetParam();
    const KelString end = KelString(filter.policy) + " " + bypass + " LIMIT 50";
    EXPECT_EQ(Plan("SELECT * FROM Files WHERE FileStatus IN (" STATUS("TOBEUPLOADED") ", " STATUS(
                       "TOBEPACKED") ") AND Upstream <> 0 AND SourceDevice <> '' " +
                   end),
              KelString("SEARCH Files USING INDEX ") + (filter.isArchives ? "WorkArchive" : "WorkSend") +
                  " (FileStatus=?)");
    EXPECT_EQ(Plan("SELECT FileId, FileType, FileLabel, FileName, FileChecksum, FileURL, Bypass, "
                   "LastStatusChangeTime, FileStatus FROM Files WHERE FileStatus IN (" STATUS(
                       "UPLOADING") ", " STATUS("TOBEPACKED") ") " +
                   end),
              KelString("SEARCH Files USING INDEX ") + (filter.isArchives ? "WorkArchive" : "WorkUpload") +
                  " (FileStatus=?)");
}

INSTANTIATE_TEST_SUITE_P(
    Upstream, WaitingPlan,
    ::testing::Combine(::testing::Values(Filter{"", false},
                                         Filter{" AND FileType = 'FileStorePackedFiles'", true},
                                         Filter{" AND (FileType = 'a') ", false},
                                         Filter{" AND (FileType = 'a' OR FileType = 'b') ", false}),
                       ::testing::Values("", "AND Bypass = 1")));

using DeliveredPlan = FileStoreTest;

/// What has no target any more is found by the index on the targets' files alone, read once per pass.
TEST_F(DeliveredPlan, ReadsTheTargetsFromAnIndexOnly) {
    Initialise();
    const auto result = Downstream().Query(KelString("EXPLAIN QUERY PLAN ") + kDeliveredDownstream);
    ASSERT_TRUE(result);
    for (std::size_t row = 0; row < result->GetRowCount(); ++row) {
        const KelString& step = result->GetString(row, "detail");
        if (step.starts_with("SCAN")) {
            EXPECT_TRUE(step.starts_with("SCAN Targets USING COVERING INDEX")) << step;
        }
    }
}

/// With nothing due, the batch must cost nothing, however many files are kept: targets come first.
TEST_F(DeliveredPlan, NotificationStartsFromTheDueTargets) {
    Initialise();
    for (const char* statement : {kNotifyBatch, kMulticastCandidate}) {
        const auto result = Downstream().Query(KelString("EXPLAIN QUERY PLAN ") + statement);
        ASSERT_TRUE(result);
        EXPECT_NE(result->GetString(0, "detail").find("INDEX TargetsDue (LastNotifyTime<?)"), KelString::npos)
            << result->GetString(0, "detail");
    }
}

}  // namespace
