// Cost of one step of the notify, pull, push and handler threads and of the passes of the cleanup thread as
// the database grows:
//   filestore_rows_bench [--cleanup] [ROWS...]      default: 10000 100000 1000000
//   filestore_rows_bench --files-on-disk N
// Prints the median elapsed and processor time of a step in milliseconds, and of the removal of rows the rate
// and what another thread waits. With --cleanup only the passes. With --files-on-disk the passes over N files
// whose content lies in the store. Databases and store are created in the folder for temporary files
// (TMPDIR).

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <thread>

#include "filestore/db/file_key.h"
#include "filestore/db/file_status.h"
#include "filestore/down/notify_thread.h"
#include "filestore/down/pull_thread.h"
#include "filestore/module/cleanup_passes.h"
#include "filestore/module/orphans.h"
#include "filestore/packages/unused_packages.h"
#include "filestore/state/bandwidth_manager.h"
#include "filestore/state/file_store.h"
#include "filestore/up/handle_thread.h"
#include "filestore/up/push_thread.h"
#include "kel/container.h"
#include "kel/format.h"
#include "kelcore/action_db.h"
#include "kelcore/agent.h"
#include "kelcore/callback_db.h"
#include "kelcore/db/connection.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kHandle = "Bench";
constexpr unsigned int kTargetsPerFile = 100;
constexpr int kSteps = 7;
constexpr int kHandedOver = 400;  ///< upstream files, in one step

/// Statements that make the rows of the benchmark inside SQLite.
void Fill(const KelString& statement, unsigned long rows) {
    if (FileStore::pDbConnectionDownstream->Query(
            KelFormat("WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < %lu) ",
                      rows - 1) +
            statement) == nullptr)
        std::abort();
}

void FillFiles(unsigned long rows, const char* status, std::int64_t changed) {
    FileStore::pDbConnectionDownstream->Query("DELETE FROM Files");
    Fill(KelFormat(
             "INSERT INTO Files (FileId, FileType, FileLabel, FileName, FileChecksum, FileSize, FilePath, "
             "FileURL, FileStatus, Acknowledged, Priority, CreateTime, LastStatusChangeTime, FileInfo) "
             "SELECT i, 'OperationalRule', 'label' || (i %% 97), 'name' || i, printf('%032x', i), 100000, "
             "'/var/lib/kel/data/FileStore/downstream/OperationalRule/label/name' || i, "
             "'/FileStore/downstream/OperationalRule/label/name' || i, '%s', 1, 100 + (i %% 3), "
             "1000000 + i, %ld, '<Container><Value name=\"Fact\" type=\"string\">x</Value></Container>' "
             "FROM n",
             status, changed),
         rows);
}

/// `device`: the SQL expression of the DeviceGUID.
void FillTargets(unsigned long rows, const char* device, std::int64_t notified) {
    FileStore::pDbConnectionDownstream->Query("DELETE FROM Targets");
    Fill(KelFormat("INSERT INTO Targets (TargetId, FileId, DeviceGUID, DevicePath, TargetCreateTime, "
                   "LastNotifyTime) SELECT i + 1, i / %u, %s, '<Container><Value name=\"host' || i || "
                   "':1610/0A1B0000-0000-4000-8000-000000000001/02-00-7F-00-01-01/10.0.0.1/255.0.0.0\" "
                   "type=\"container\"></Value></Container>', 1000000, %ld + (i * 7919 %% 1000) FROM n",
                   kTargetsPerFile, device, notified),
         rows);
}

double Median(KelVector<double>& values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void Measure(const char* what, unsigned long rows, const std::function<void()>& step) {
    KelVector<double> elapsed, processor;
    for (int i = 0; i < kSteps; ++i) {
        const auto start = std::chrono::steady_clock::now();
        const std::clock_t ticks = std::clock();
        step();
        processor.push_back(1000.0 * static_cast<double>(std::clock() - ticks) / CLOCKS_PER_SEC);
        elapsed.push_back(
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
    }
    std::printf("%-44s %9lu rows %10.3f ms elapsed %10.3f ms processor\n", what, rows, Median(elapsed),
                Median(processor));
    std::fflush(stdout);
}

void Expect(bool condition, const char* what) {
    if (condition) return;
    std::fprintf(stderr, "unexpected: %s\n", what);
    std::exit(1);
}

/// The rate of all hours of a window, in kbit/s.
void SetRate(FileStoreBandwidthManager& manager, const char* rate) {
    KelString slots = rate;
    for (int hour = 1; hour < 168; ++hour)
        slots += KelString(" ") + rate;
    KelContainer window;
    window.SetString("Slots", slots);
    window.SetInt32("SlotType", 2);
    window.SetBool("UseUTCTime", true);
    manager.UpdateTransferWindow(window);
}

void MeasureNotification(unsigned long rows) {
    FileStore::ulMulticastMinimumFileSize = std::numeric_limits<std::int32_t>::max();  // all files are small
    const std::int64_t now = std::time(nullptr);
    FillFiles(rows / kTargetsPerFile + 1, filestore::kStatusAvailable, 0);
    FillTargets(rows, "''", 1);
    Measure("notify 50 local targets, all rows due", rows,
            [] { Expect(FileStore::threadNotify.NotifyUnicastTargets(0, 0) == 1, "nothing to notify"); });
    FillTargets(rows, "'127.0.0.1:1/G' || i", 1);
    Measure("drop 50 unusable targets, all rows due", rows,
            [] { Expect(FileStore::threadNotify.NotifyUnicastTargets(0, 0) == 1, "nothing to notify"); });
    FillTargets(rows, "'127.0.0.1:1/G' || i", 1);
    SetRate(FileStore::bmTrackUsageMulticast, "1000");
    Measure("the same beside multicast", rows,
            [] { Expect(FileStore::threadNotify.NotifyTargets(), "nothing to notify"); });
    FileStore::bmTrackUsageMulticast.ClearWindow();
    const auto expectNothing = [] {
        Expect(FileStore::threadNotify.NotifyUnicastTargets(0, 0) == 0, "a row was due");
    };
    FillTargets(rows, "'host:1/G' || i", now);
    Measure("look for targets, no row due", rows, expectNothing);
    FillTargets(rows, "'host:1/G' || i", 1);
    SetRate(FileStore::bmTrackUsageDown, "0");
    Measure("look for targets, held by a closed window", rows, expectNothing);
    SetRate(FileStore::bmTrackUsageMulticast, "1000");
    Measure("the same beside multicast", rows,
            [] { Expect(!FileStore::threadNotify.NotifyTargets(), "a row was due"); });
    FileStore::bmTrackUsageMulticast.ClearWindow();
    FileStore::bmTrackUsageDown.ClearWindow();
    KelString ids = "1";
    for (int i = 2; i <= 50; ++i)
        ids += KelFormat(", %d", i * 3);
    Measure("postpone 50 targets by TargetId", rows, [&] {
        const KelLock lock(FileStore::mutexDownstream);
        FileStore::pDbConnectionDownstream->Query(
            KelFormat("UPDATE Targets SET LastNotifyTime = %ld WHERE TargetId IN (%S)", now + 1200, ids));
    });
}

void MeasureDownload(unsigned long rows) {
    const std::int64_t now = std::time(nullptr);
    FillFiles(rows, filestore::kStatusDownloading, 1);
    Measure("look for a download and fail, all rows due", rows, [] {
        Expect(FileStore::threadPull.DownloadFile() == 0, "a download although there is no parent");
    });
    FillFiles(rows, filestore::kStatusDownloading, now);
    Measure("look for a download, no row due", rows,
            [] { Expect(FileStore::threadPull.DownloadFile() == 0, "a row was due"); });
    FillFiles(rows, filestore::kStatusAvailable, 1);
    Measure("look for a download, none wanted", rows,
            [] { Expect(FileStore::threadPull.DownloadFile() == 0, "a row was due"); });
}

/// Rows of the upstream database that have no content in the store.
void FillUpstream(unsigned long rows, const char* status, std::int64_t changed) {
    DBConnection& connection = *FileStore::pDbConnectionUpstream;
    connection.Query("DELETE FROM Files");
    if (connection.Query(KelFormat(
            "WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < %lu) INSERT INTO Files "
            "(FileId, FileType, FileLabel, FileName, FileChecksum, FileSize, FilePath, FileURL, FileStatus, "
            "Upstream, CreateTime, LastStatusChangeTime, SourceDevice, FileInfo) SELECT i, 'Inventory', "
            "'label' || (i %% 97), 'name' || i, printf('%032x', i), 100000, '/var/lib/kel/upstream/name' || "
            "i, "
            "'/FileStore/upstream/Inventory/name' || i, '%s', 1, 1000000 + i, %ld, "
            "'host:1610/0A1B0000-0000-4000-8000-00000000000A', "
            "'<Container><Value name=\"Fact\" type=\"string\">x</Value></Container>' FROM n",
            rows - 1, status, changed)) == nullptr)
        std::abort();
}

KelString Checksum(int row) {
    std::array<char, 33> text;
    std::snprintf(text.data(), text.size(), "%032x", static_cast<unsigned int>(row));
    return text.data();
}

void MeasureUpstream(unsigned long rows) {
    using Outcome = FileStorePushThread::Outcome;
    const std::int64_t now = std::time(nullptr);
    FileStorePushThread& push = FileStore::threadPush;
    bool reached = false;
    FillFiles(rows, filestore::kStatusToBeRequested, 1);
    Measure("request one file, all rows due, no parent", rows,
            [&] { Expect(push.RequestFile(reached) == Outcome::Failed, "an answer without a parent"); });
    FillUpstream(rows, filestore::kStatusToBeUploaded, 1);
    Measure("select 50 files to send, all rows due", rows,
            [&] { Expect(push.SendFile(reached, false) == Outcome::Failed, "a parent"); });
    Measure("look for archives to send, none among them", rows,
            [&] { Expect(push.SendFile(reached, true) == Outcome::Nothing, "an archive"); });
    FileStore::fConcatFiles = true;
    {
        const KelLock lock(FileStore::mutexSettings);
        FileStore::strExcludedFileType = "Identity,Receipt";
    }
    Measure("look for the types that manual policy sends", rows,
            [&] { Expect(push.SendFile(reached, false) == Outcome::Nothing, "such a type"); });
    FileStore::fConcatFiles = false;
    FillUpstream(rows, filestore::kStatusUploading, 1);
    Measure("select 50 files to put, all rows due", rows,
            [&] { Expect(push.UploadFile(reached, false) == Outcome::Failed, "a parent"); });
    FillUpstream(rows, filestore::kStatusAvailable, now);
    Measure("look for files to send and put, none", rows, [&] {
        Expect(push.SendFile(reached, false) == Outcome::Nothing, "a file to send");
        Expect(push.UploadFile(reached, false) == Outcome::Nothing, "a file to put");
    });
    FillUpstream(rows, filestore::kStatusToBeHandled, 1);
    for (int i = 0; i < kSteps * kHandedOver; ++i) {
        const KelString path = FileStore::StorePath(
            Side::Upstream, {"Inventory", KelFormat("label%d", i % 97), KelFormat("name%d", i), Checksum(i)});
        fs::create_directories(fs::path(path).parent_path());
        std::ofstream(path) << "x";
    }
    Measure("hand over 400 files, no module wants them", rows,
            [] { Expect(FileStore::threadHandler.HandleFile(Side::Upstream), "nothing to handle"); });
    FillUpstream(rows, filestore::kStatusAvailable, 1);
    Measure("look for files to hand over, none", rows,
            [] { Expect(!FileStore::threadHandler.HandleFile(Side::Upstream), "a file to handle"); });
}

/// What another thread waits at most for a mutex and one statement of its database, in milliseconds.
class LongestWait {
  public:
    explicit LongestWait(Side side)
        : thread_([this, side] {
              while (!end_) {
                  const auto start = std::chrono::steady_clock::now();
                  {
                      const FileStoreDatabase database = FileStoreGetDatabase(side);
                      const KelLock lock(database.mutex);
                      database.connection.Query("SELECT FileId FROM Files LIMIT 1");
                  }
                  const std::chrono::duration<double, std::milli> waited =
                      std::chrono::steady_clock::now() - start;
                  longest_ = std::max(longest_, waited.count());
                  std::this_thread::sleep_for(std::chrono::microseconds(200));
              }
          }) {}
    double Stop() {
        end_ = true;
        thread_.join();
        return longest_;
    }

  private:
    std::atomic<bool> end_ = false;
    double longest_ = 0;
    std::thread thread_;
};

const filestore::PassHost kHost = {
    [] { return false; },
    [](std::chrono::steady_clock::duration held) {
        std::this_thread::sleep_for(
            std::max<std::chrono::steady_clock::duration>(held, std::chrono::milliseconds(1)));
    }};

/// Removes some rows beside a thread that uses the same database.
void MeasureRemoval(const char* what, Side side, const char* table, const std::function<void()>& pass) {
    const auto count = [&] {
        const auto rows =
            FileStoreGetDatabase(side).connection.Query(KelFormat("SELECT COUNT(*) FROM %s", table));
        return rows->GetInt64(0, std::size_t{0});
    };
    const std::int64_t before = count();
    // The log that the making of the rows has left is larger than any that the programs write.
    FileStoreGetDatabase(side).connection.Flush();
    LongestWait wait(side);
    const auto start = std::chrono::steady_clock::now();
    const std::clock_t ticks = std::clock();
    pass();
    const double processor = static_cast<double>(std::clock() - ticks) / CLOCKS_PER_SEC;
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const double longest = wait.Stop();
    const auto removed = static_cast<double>(before - count());
    std::printf(
        "%-44s %9.0f removed %7.2f s, processor %6.2f s, %7.0f/s, longest wait of another thread %6.1f "
        "ms\n",
        what, removed, seconds, processor, removed / seconds, longest);
    std::fflush(stdout);
}

/// The times of the rows that the other benchmarks make begin at this one.
constexpr std::int64_t kFirstTime = 1000000;
constexpr std::int64_t kRemoved = 50000;

void SetRelay() {
    FileStore::eKeepCopyMask = 2;
    FileStore::fRelayEnabled = true;
}

void SetBound(std::int64_t time) {
    FileStore::ulTimeToLive = static_cast<std::uint32_t>(std::time(nullptr) - time);
}

/// Makes the content of the rows that FillFiles makes, in the store.
void FillContent(unsigned long rows) {
    for (unsigned long i = 0; i < rows; ++i) {
        const KelString path =
            FileStore::StorePath(Side::Downstream, {"OperationalRule", KelFormat("label%lu", i % 97),
                                                    KelFormat("name%lu", i), Checksum(static_cast<int>(i))});
        fs::create_directories(fs::path(path).parent_path());
        std::ofstream(path) << "content of a small file";
    }
}

/// A relay whose store holds so many files; half of them, 50,000 at most, are then removed.
void MeasureFilesOnDisk(unsigned long rows) {
    const std::int64_t now = std::time(nullptr);
    SetRelay();
    FillFiles(rows, filestore::kStatusAvailable, now);
    FillContent(rows);
    SetBound(kFirstTime);
    Measure("all passes, nothing to remove", rows, [now] {
        for (const Side side : {Side::Downstream, Side::Upstream}) {
            filestore::DeleteFiles(side, now, kHost);
            filestore::KillFiles(side, now, kHost);
        }
        filestore::KillPackages(now, true, kHost);
        filestore::KillTargets(now, kHost);
    });
    NoteStoreIsKnown(1);
    Measure("the daily search for orphans", rows,
            [now] { OrphanSearch().RunWhenDue(now, [] { return false; }); });
    SetBound(kFirstTime + std::min(static_cast<std::int64_t>(rows / 2), kRemoved));
    MeasureRemoval("delivered files with their content", Side::Downstream, "Files",
                   [now] { filestore::DeleteFiles(Side::Downstream, now, kHost); });
}

/// The passes of the cleanup thread on a relay.
void MeasureCleanup(unsigned long rows) {
    const std::int64_t now = std::time(nullptr);
    SetRelay();
    FillFiles(rows, filestore::kStatusAvailable, now);
    FillTargets(rows, "'host:1/G' || i", now);
    FillUpstream(rows, filestore::kStatusToBeUploaded, now);
    const unsigned long every = std::max(rows / static_cast<unsigned long>(kRemoved), 1UL);
    SetBound(kFirstTime);
    for (const Side side : {Side::Downstream, Side::Upstream}) {
        Measure(side == Side::Upstream ? "delivered files upstream, none" : "delivered files, none", rows,
                [side, now] { filestore::DeleteFiles(side, now, kHost); });
        Measure(side == Side::Upstream ? "outdated files upstream, none" : "outdated files, none", rows,
                [side, now] { filestore::KillFiles(side, now, kHost); });
    }
    Measure("unused packages, none", rows, [now] { filestore::KillPackages(now, true, kHost); });
    Measure("outdated targets, none", rows, [now] { filestore::KillTargets(now, kHost); });

    // Files that have targets come first; they stay.
    SetBound(kFirstTime + static_cast<std::int64_t>(rows / kTargetsPerFile) + kRemoved);
    MeasureRemoval("delivered files", Side::Downstream, "Files",
                   [now] { filestore::DeleteFiles(Side::Downstream, now, kHost); });
    FileStore::pDbConnectionDownstream->Query(
        KelFormat("UPDATE Targets SET TargetCreateTime = 1 WHERE TargetId %% %lu = 0", every));
    SetBound(1000);
    MeasureRemoval("outdated targets", Side::Downstream, "Targets",
                   [now] { filestore::KillTargets(now, kHost); });
    FileStore::pDbConnectionDownstream->Query(
        KelFormat("UPDATE Files SET FileType = 'OperationalRulePackage' WHERE FileId %% %lu = 0", every));
    MeasureRemoval("unused packages", Side::Downstream, "Files",
                   [now] { filestore::KillPackages(now, true, kHost); });
    SetBound(kFirstTime + kRemoved);
    MeasureRemoval("outdated files with 100 targets each", Side::Downstream, "Files",
                   [now] { filestore::KillFiles(Side::Downstream, now, kHost); });
    MeasureRemoval("outdated files upstream", Side::Upstream, "Files",
                   [now] { filestore::KillFiles(Side::Upstream, now, kHost); });
    FileStore::pDbConnectionUpstream->Query(KelFormat("UPDATE Files SET FileStatus = '%s' WHERE FileId < %ld",
                                                      filestore::kStatusAvailable, 2 * kRemoved));
    MeasureRemoval("sent files", Side::Upstream, "Files",
                   [now] { filestore::DeleteFiles(Side::Upstream, now, kHost); });
}

void SetUp(const KelString& root) {
    fs::create_directories(root + "/config");
    fs::create_directories(root + "/data");
    fs::copy_file(KEL_SOURCE_DIR "/filestore/FileStore.ini", root + "/config/FileStore.ini");
    KelAgentConfigure({root + "/config/", root + "/data/", "bench", "bench", "", nullptr});
    // The parent is out of sync, so a download ends where its server would be called.
    ActionDbRegisterAction(
        {.signature = "RelayGetValues", .purpose = "Serves the benchmark."}, [](KelContainer*) { return 0U; },
        kHandle);
    ActionDbRegisterAction(
        {.signature = "IdentityGetGUID", .purpose = "Serves the benchmark."},
        [](KelContainer* container) {
            container->SetString("GUID", "0A1B0000-0000-4000-8000-00000000000A");
            return 0U;
        },
        kHandle);
    ActionDbRegisterAction(
        {.signature = "BenchReceive", .purpose = "Serves the benchmark."}, [](KelContainer*) { return 0U; },
        kHandle);
    CallbackDbRegisterAction("FileStoreCallbackReceivedFile", "BenchReceive ()", "", 0);
    Expect(FileStore::ModuleInitialise() == 1, "the module cannot be initialised");
    // A million rows may take longer to make than the defaults.
    FileStore::ulTimeout = FileStore::ulPullTimeout = FileStore::ulPushTimeout = 86400;
}

}  // namespace

int main(int argc, char** argv) {
    KelVector<unsigned long> sizes;
    bool cleanupOnly = false;
    unsigned long onDisk = 0;
    for (int i = 1; i < argc; ++i)
        if (argv[i] == KelString("--cleanup"))
            cleanupOnly = true;
        else if (argv[i] == KelString("--files-on-disk") && i + 1 < argc)
            onDisk = std::strtoul(argv[++i], nullptr, 10);
        else
            sizes.push_back(std::strtoul(argv[i], nullptr, 10));
    if (sizes.empty() && onDisk == 0) sizes = {10000, 100000, 1000000};
    KelString root = (fs::temp_directory_path() / "filestore-bench-XXXXXX").string();
    if (mkdtemp(root.data()) == nullptr) return 1;
    // Writing the warnings of the provoked failures is not to be measured.
    std::freopen("/dev/null", "w", stderr);
    SetUp(root);
    if (onDisk != 0) MeasureFilesOnDisk(onDisk);
    for (const unsigned long rows : sizes) {
        if (!cleanupOnly) {
            MeasureNotification(rows);
            MeasureDownload(rows);
            MeasureUpstream(rows);
        }
        MeasureCleanup(rows);
    }
    FileStore::ModuleCleanup(0);
    ActionDbUnregisterAll(kHandle);
    fs::remove_all(root);
    return 0;
}
