#pragma once

#include <cstdint>

#include "kel/container.h"
#include "kel/result.h"
#include "kel/types.h"
#include "modules/console/device.h"

// What arrives from the devices below. Everything in it is checked: the error names the unusable value. The
// GUID in `sourceDevice` (a GUID or a device URL; empty: unknown) must be the one in the content, so that no
// device speaks for another one.

/// An identity file: what a device tells of itself.
struct IdentityReport {
    Device device;
    std::int64_t time = 0;  ///< by the device's clock, seconds since the epoch
};
KelResult<IdentityReport> ReadIdentityReport(const KelContainer& content, const KelString& sourceDevice);

/// A receipt: what became of a file on a device.
struct DeliveryReceipt {
    KelString guid;
    KelString fileType;
    KelString fileLabel;
    KelString fileName;
    KelString fileChecksum;
    KelString status;       ///< "delivered" or "failed"
    KelString message;      ///< without control characters, at most kMaxReceiptMessageBytes
    std::int64_t time = 0;  ///< by the device's clock, seconds since the epoch
};
KelResult<DeliveryReceipt> ReadDeliveryReceipt(const KelContainer& content, const KelString& sourceDevice);

inline constexpr std::size_t kMaxReceiptMessageBytes = 1024;

/// The content of such a file, a container of at most 1 MiB as XML.
KelResult<KelContainer> ReadReportFile(const KelString& path);
