#include "filestore/db/files_selection.h"
#include "filestore/db/targets_table.h"
#include "filestore/file_store_fixture.h"

using namespace filestore;

namespace {

/// What every test checks is that statements search an index; these must search a certain one, with the
/// statistics of the shipped ini file.
using QueryPlan = StoreTest;

/// With nothing due, the batch must cost nothing, however many files are kept: targets come first.
TEST_F(QueryPlan, NotificationStartsFromTheDueTargets) {
    SelectDueTargets(9, 99, false, 50);
    const auto batch = TakeStatements(kDown);
    EXPECT_EQ(batch.size(), 2U);
    for (const KelString& statement : batch)
        EXPECT_TRUE(Plan(kDown, statement).at(0).find("INDEX TargetsDue (LastNotifyTime") != KelString::npos);
}

/// A row that failed a moment ago ends a batch, so it must come behind those that wait longer: whatever the
/// policy and the window let pass is read from an index in the order of the last change.
TEST_F(QueryPlan, UploadsAreTakenInTheOrderOfTheirLastChange) {
    const auto check = [this](const auto& select, const UploadFilter& filter, const KelString& index) {
        select(filter);
        for (const KelString& statement : TakeStatements(kUp))
            EXPECT_EQ(
                Plan(kUp, statement),
                Texts{KelFormat("SEARCH Files USING INDEX %S (FileStatus=? AND LastStatusChangeTime%s?)",
                                index, statement.find("Time >") != KelString::npos ? ">" : "<")});
    };
    for (const Passing passing : {Passing::All, Passing::BypassOnly}) {
        for (const Texts& types : {Texts{}, {"a"}, {"a", "b"}}) {
            check(SelectFilesToSend, {false, types, passing, 50}, "WorkSend");
            check(SelectFilesToUpload, {false, types, passing, 50}, "WorkUpload");
        }
        check(SelectFilesToSend, {true, {}, passing, 50}, "WorkArchive");
        check(SelectFilesToUpload, {true, {}, passing, 50}, "WorkArchive");
    }
}

}  // namespace
