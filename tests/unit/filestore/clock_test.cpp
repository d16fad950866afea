#include "filestore/db/files_selection.h"
#include "filestore/db/targets_table.h"
#include "filestore/file_store_fixture.h"

using namespace filestore;

namespace {

constexpr std::int64_t kYear = 365 * 86400;

/// Rows whose times were written before the clock was set back.
class Clock : public StoreTest {
  protected:
    const std::int64_t now_ = std::time(nullptr);
};

TEST_F(Clock, StatusTimesThatNoClockHasWrittenCountAsDue) {
    const auto select = [this](const char* status) -> FileRows {
        UploadFilter filter;
        filter.limit = 2;
        if (status == KelString("DOWNLOADING")) return SelectDownload(now_ - 300, Passing::All);
        if (status == KelString("AVAILABLE")) return SelectAcknowledgement(now_ - 300, Passing::All);
        if (status == KelString("TOBEREQUESTED")) return SelectFileToRequest(now_ - 300, Passing::All);
        return status == KelString("UPLOADING") ? SelectFilesToUpload(filter) : SelectFilesToSend(filter);
    };
    for (const auto& [side, status] : Table<Side, const char*>{{kDown, "DOWNLOADING"},
                                                               {kDown, "AVAILABLE"},
                                                               {kDown, "TOBEREQUESTED"},
                                                               {kUp, "UPLOADING"},
                                                               {kUp, "TOBEUPLOADED"},
                                                               {kUp, "TOBEPACKED"}}) {
        SCOPED_TRACE(status);
        // the time of the row, and whether it comes before or after one that was tried a moment ago
        for (const auto& [time, isDue] : Table<std::int64_t, bool>{
                 {now_ + kYear, true}, {now_ + 100, true}, {now_ + 10, false}, {now_ - 400, true}}) {
            SCOPED_TRACE(time - now_);
            DeleteRows();
            for (const auto& [name, changed] :
                 Table<const char*, std::int64_t>{{"tried", now_}, {"row", time}})
                AddFile(side, name, status,
                        KelFormat("SourceDevice = 'd', LastStatusChangeTime = %ld", changed));
            const FileRows rows = select(status);
            EXPECT_EQ(rows.size(), side == kUp ? 2U : isDue);
            EXPECT_EQ(!rows.empty() && rows.front().FileName == "row", isDue);
        }
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
        SCOPED_TRACE(KelFormat("%ld %ld", notifyTime - now_, statusTime - now_));
        DeleteRows();
        AddTarget(AddFile(kDown, "n", "AVAILABLE",
                          KelFormat("Acknowledged = 1, LastStatusChangeTime = %ld", statusTime)),
                  1, kChild, notifyTime);
        EXPECT_TRUE(MarkDueTargets(now_ - 300, announced + 60));
        EXPECT_EQ(SelectDueTargets({now_ - 300, DueTargets::Where::OtherDevices, false, {}, 50}).size(),
                  isDue);
    }
}

TEST_F(Clock, SynchronizationOfPackagesIsNotPutOffByATimeToCome) {
    for (const auto& [last, isDue] : Table<std::int64_t, bool>{{now_ + kYear, true}, {now_ - 10, false}}) {
        SetIni("PackageSynchronization", "LastPackageSynchro", KelFormat("%ld", last));
        EXPECT_EQ(FileStore::IsGapOkForPackageSynchronization(), isDue);
    }
}

}  // namespace
