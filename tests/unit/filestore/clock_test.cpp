#include "filestore/db/files_selection.h"
#include "filestore/db/targets_table.h"
#include "filestore/file_store_fixture.h"

using namespace filestore;

namespace {

constexpr std::int64_t kYear = 365 * 86400;

/// Rows whose times were written before the clock was set back.
struct Clock : StoreTest {
    const std::int64_t now_ = std::time(nullptr);
};

TEST_F(Clock, StatusTimesThatNoClockHasWrittenCountAsDue) {
    const std::int64_t due = now_ - 300;
    UploadFilter two;
    two.limit = 2;
    for (const auto& [side, status, select] : Table<Side, const char*, std::function<FileRows()>>{
             {kDown, "DOWNLOADING", [&] { return FileRows{SelectDownload(due, Passing::All)}; }},
             {kDown, "AVAILABLE", [&] { return FileRows{SelectAcknowledgement(due, Passing::All)}; }},
             {kDown, "TOBEREQUESTED", [&] { return FileRows{SelectFileToRequest(due, Passing::All)}; }},
             {kUp, "UPLOADING", [&] { return SelectFilesToUpload(two); }},
             {kUp, "TOBEUPLOADED", [&] { return SelectFilesToSend(two); }},
             {kUp, "TOBEPACKED", [&] { return SelectFilesToSend(two); }}})
        // the time of the row, and whether it comes before or after one that was tried a moment ago
        for (const auto& [ago, isDue] :
             Table<std::int64_t, bool>{{-kYear, true}, {-100, true}, {-10, false}, {400, true}}) {
            const auto trace = Begin(KelFormat("%s %ld s ago", status, ago));
            AddFile(side, "tried", status, "SourceDevice = 'd', " + ChangedAgo(0));
            AddFile(side, "row", status, "SourceDevice = 'd', " + ChangedAgo(ago));
            const FileRows rows = select();
            EXPECT_EQ(rows.size(), side == kUp ? 2U : isDue);
            EXPECT_EQ(!rows.empty() && rows.front().FileName == "row", isDue);
        }
}

TEST_F(Clock, OnlyNotificationTimesThatNothingWritesCountAsDue) {
    const std::int64_t announced = now_ + 1200;
    for (const auto& [notifyTime, statusTime, isDue] : Table<std::int64_t, std::int64_t, bool>{
             {now_ + kYear, 0, true},  // announced before the clock was set back
             {0, now_ + kYear, true},  // received before that
             {0, now_ + 10, false},    // received a moment ago, on another thread
             {announced, 0, false},    // waits for an acknowledgement
             {now_, 0, false},
             {now_ - 400, now_ - 400, true}}) {
        const auto trace = Begin(KelFormat("%ld %ld", notifyTime - now_, statusTime - now_));
        AddTarget(AddFile(kDown, "n", "AVAILABLE", "Acknowledged = 1, " + ChangedAgo(now_ - statusTime)), 1,
                  kChild, notifyTime);
        EXPECT_TRUE(MarkDueTargets(now_ - 300, announced + 60));
        EXPECT_EQ(SelectDueTargets({now_ - 300, DueTargets::Where::OtherDevices, false, {}, 50}).size(),
                  isDue);
    }
}

TEST_F(Clock, SynchronizationOfPackagesIsNotPutOffByATimeToCome) {
    for (const auto& [last, isDue] : Table<std::int64_t, bool>{{now_ + kYear, true}, {now_ - 10, false}}) {
        SetIni("PackageSynchronization", "LastPackageSynchro", std::to_string(last));
        EXPECT_EQ(FileStore::IsGapOkForPackageSynchronization(), isDue);
    }
}

}  // namespace
