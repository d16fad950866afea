#pragma once

#include <cstdint>

#include "kel/container.h"
#include "kel/result.h"
#include "kel/types.h"
#include "kelcore/file_key.h"
#include "modules/console/device.h"

// Files that the devices below send about themselves. All values are checked; the error names the unusable
// one. The GUID in `sourceDevice` (a GUID or a device URL; empty: unknown) must be the one in the content, so
// that no device can report for another.

/// The content of an identity file: how a device describes itself.
struct IdentityReport {
    Device device;
    KelString storeId;      ///< of the downstream database of its file store; empty: unknown
    std::int64_t time = 0;  ///< by the device's clock, seconds since the epoch
};
KelResult<IdentityReport> ReadIdentityReport(const KelContainer& content, const KelString& sourceDevice);

/// The content of a receipt: the outcome of a delivery on a device.
struct DeliveryReceipt {
    KelString guid;
    FileKey file;
    KelVector<KelString> publications;  ///< their identifiers; none: the file came without an order
    KelString status;                   ///< "delivered" or "failed"
    KelString message;                  ///< without control characters, at most kMaxReceiptMessageBytes
    std::int64_t time = 0;              ///< by the device's clock, seconds since the epoch
    bool isRefused = false;             ///< a device above it has brought what was never published for it
};
KelResult<DeliveryReceipt> ReadDeliveryReceipt(const KelContainer& content, const KelString& sourceDevice);

inline constexpr std::size_t kMaxReceiptMessageBytes = 1024;

/// Reads such a file, a container of at most 1 MiB as XML. The error is kKelErrorNotAvailable when the file
/// is there but cannot be read now.
KelResult<KelContainer> ReadReportFile(const KelString& path);
