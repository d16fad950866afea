// Cost of one step of the notify and the pull thread beside a growing database:
//   filestore_rows_bench [ROWS...]      default: 10000 100000 1000000
// Prints the median elapsed and processor time of a step in milliseconds. The database lies in the folder for
// temporary files (TMPDIR).

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>

#include "filestore/db/file_status.h"
#include "filestore/module/file_store.h"
#include "kel/format.h"
#include "kelcore/action_db.h"
#include "kelcore/agent.h"
#include "kelcore/callback_db.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kHandle = "Bench";
constexpr unsigned int kTargetsPerFile = 100;
constexpr int kSteps = 7;

/// Rows of the benchmark as statements that SQLite runs by itself.
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

/// `device`: SQL of the DeviceGUID.
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

void MeasureNotification(unsigned long rows) {
    const std::int64_t now = std::time(nullptr);
    FillFiles(rows / kTargetsPerFile + 1, filestore::kStatusAvailable, 0);
    FillTargets(rows, "''", 1);
    Measure("notify 50 local targets, all rows due", rows,
            [] { Expect(FileStore::threadNotify.NotifyUnicastTargets(0, 0) == 1, "nothing to notify"); });
    FillTargets(rows, "'127.0.0.1:1/G' || i", 1);
    Measure("drop 50 unusable targets, all rows due", rows,
            [] { Expect(FileStore::threadNotify.NotifyUnicastTargets(0, 0) == 1, "nothing to notify"); });
    FillTargets(rows, "'host:1/G' || i", now + 1200);
    Measure("look for targets, no row due", rows,
            [] { Expect(FileStore::threadNotify.NotifyUnicastTargets(0, 0) == 0, "a row was due"); });
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
    FillFiles(rows, filestore::kStatusDownloading, now + 1000);
    Measure("look for a download, no row due", rows,
            [] { Expect(FileStore::threadPull.DownloadFile() == 0, "a row was due"); });
    FillFiles(rows, filestore::kStatusAvailable, 1);
    Measure("look for a download, none wanted", rows,
            [] { Expect(FileStore::threadPull.DownloadFile() == 0, "a row was due"); });
}

void SetUp(const KelString& root) {
    fs::create_directories(root + "/config");
    fs::create_directories(root + "/data");
    fs::copy_file(KEL_SOURCE_DIR "/filestore/FileStore.ini", root + "/config/FileStore.ini");
    KelAgentConfigure({root + "/config/", root + "/data/", "bench", "bench", "", nullptr});
    // A parent out of sync: a download that is found ends at the point where its server would be asked.
    ActionDbRegisterAction(
        "RelayGetValues ()", [](KelContainer*) { return 0U; }, kHandle);
    ActionDbRegisterAction(
        "BenchReceive ()", [](KelContainer*) { return 0U; }, kHandle);
    CallbackDbRegisterAction("FileStoreCallbackReceivedFile", "BenchReceive ()", "", 0);
    Expect(FileStore::ModuleInitialise() == 1, "the module cannot be initialised");
}

}  // namespace

int main(int argc, char** argv) {
    KelVector<unsigned long> sizes;
    for (int i = 1; i < argc; ++i)
        sizes.push_back(std::strtoul(argv[i], nullptr, 10));
    if (sizes.empty()) sizes = {10000, 100000, 1000000};
    KelString root = (fs::temp_directory_path() / "filestore-bench-XXXXXX").string();
    if (mkdtemp(root.data()) == nullptr) return 1;
    // The warnings of the provoked failures are not what is measured.
    std::freopen("/dev/null", "w", stderr);
    SetUp(root);
    for (const unsigned long rows : sizes) {
        MeasureNotification(rows);
        MeasureDownload(rows);
    }
    FileStore::ModuleCleanup(0);
    ActionDbUnregisterAll(kHandle);
    fs::remove_all(root);
    return 0;
}
