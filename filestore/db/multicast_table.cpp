#include "filestore/db/multicast_table.h"

#include "filestore/db/database.h"

namespace filestore {

namespace {

constexpr char kCounts[] =
    "SELECT MulticastAddress, Status, COUNT (Status) FROM MulticastListenAddress GROUP BY MulticastAddress, "
    "Status "
    "ORDER BY MulticastAddress";
constexpr char kDevices[] =
    "SELECT MulticastAddress, DeviceUrl, Status FROM MulticastListenAddress ORDER BY MulticastAddress, "
    "Status";

}  // namespace

KelVector<MulticastGroupCount> CountMulticastDevices() {
    const auto result = FileStoreGetDatabase(Side::Downstream).connection.Query(kCounts);
    KelVector<MulticastGroupCount> counts(result ? result->GetRowCount() : 0);
    for (std::size_t i = 0; i < counts.size(); ++i) {
        RowReader row(*result, i);
        counts[i].address = row.Text();
        counts[i].status = row.Text();
        counts[i].devices = static_cast<std::int32_t>(row.Number());
    }
    return counts;
}

KelVector<MulticastDevice> SelectMulticastDevices() {
    const auto result = FileStoreGetDatabase(Side::Downstream).connection.Query(kDevices);
    KelVector<MulticastDevice> devices(result ? result->GetRowCount() : 0);
    for (std::size_t i = 0; i < devices.size(); ++i) {
        RowReader row(*result, i);
        devices[i].address = row.Text();
        devices[i].deviceUrl = row.Text();
        devices[i].status = row.Text();
    }
    return devices;
}

}  // namespace filestore
