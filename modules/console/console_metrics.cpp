#include "modules/console/console_metrics.h"

#include <ctime>

#include "kel/format.h"
#include "modules/console/device.h"

namespace {

using Kind = KelMetric::Kind;

constexpr KelMetric kDevices(
    Kind::Gauge, "kel_devices",
    "Devices below the master that have reported themselves, by whether they still do.");
constexpr KelMetric kPublications(Kind::Gauge, "kel_publications", "Publications of this master.");
constexpr KelMetric kTargets(Kind::Gauge, "kel_publication_targets",
                             "Targets of all publications, by what has become of them.");

double Cell(const DBResult& rows, std::size_t row, std::size_t column) {
    return static_cast<double>(rows.GetInt64(row, column));
}

}  // namespace

void CollectConsoleMetrics(ConsoleDatabase& database, KelMetricsPage& page) {
    const auto devices = database.Select(
        KelFormat("SELECT COUNT(*), TOTAL(LastSeen < %gd) FROM Devices WHERE Role <> 'master'",
                  static_cast<std::int64_t>(std::time(nullptr)) - kSilentSeconds));
    const auto publications = database.Select("SELECT COUNT(*) FROM Publications");
    const auto targets = database.Select("SELECT Status, Targets FROM TargetCounts ORDER BY Status");
    if (!devices || !publications || !targets) return;
    const double silent = Cell(*devices, 0, 1);
    page.Add(kDevices, {{"state", "reporting"}}, Cell(*devices, 0, 0) - silent);
    page.Add(kDevices, {{"state", "silent"}}, silent);
    page.Add(kPublications, Cell(*publications, 0, 0));
    for (std::size_t row = 0; row < targets->GetRowCount(); ++row)
        page.Add(kTargets, {{"status", targets->GetString(row, std::size_t{0})}}, Cell(*targets, row, 1));
}
