#include <algorithm>
#include <limits>
#include <optional>
#include <utility>

#include "filestore/db/file_status.h"
#include "filestore/db/files_selection.h"
#include "filestore/db/information_table.h"
#include "filestore/exchange/input_checks.h"
#include "filestore/exchange/reason_of_file.h"
#include "filestore/state/device.h"
#include "filestore/state/file_store.h"
#include "filestore/state/parent.h"
#include "filestore/state/store_layout.h"
#include "filestore/state/waiting_reasons.h"
#include "kel/container.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kelcore/error_codes.h"
#include "kelcore/file_values.h"

using namespace filestore;

namespace {

/// Files in one answer: with their values it stays well below what a container's XML may hold.
constexpr std::int64_t kMaxListedFiles = 50'000;

/// The order that the caller asked for; nothing, with a warning, when it is none.
std::optional<ListOrder> ReadOrder(const KelContainer& arguments) {
    // The progress text is made after the selection, which cannot sort by it.
    const KelString attribute = arguments.GetString("SortAttr");
    const KelString column = attribute == "TransferredData" ? KelString() : attribute;
    const KelString direction = arguments.GetString("SortOrder", "ASC");
    auto order = MakeListOrder(column, direction);
    if (!order)
        FileStore::debugFileStore.Warning(
            "Files cannot be sorted by '%S' in the order '%S'; use a column of Files, and ASC or DESC\n",
            attribute, direction);
    return order;
}

/// The part of the list that the caller asked for; nothing, with a warning, when it is none.
std::optional<ListRange> ReadRange(const KelContainer& arguments) {
    const std::int64_t offset = arguments.GetInt64("Offset", 0);
    const std::int64_t after = arguments.GetInt64("After", 0);
    const std::int64_t limit = arguments.GetInt64("Limit", kMaxListedFiles);
    if (after > 0 && !arguments.GetString("SortAttr").empty()) {
        FileStore::debugFileStore.Warning("After belongs to a list of files without SortAttr\n");
        return std::nullopt;
    }
    if (offset >= 0 && after >= 0 && limit >= 0)
        return ListRange{static_cast<std::uint64_t>(offset),
                         static_cast<std::uint32_t>(std::min<std::int64_t>(limit, kMaxListedFiles)),
                         static_cast<std::uint64_t>(after)};
    FileStore::debugFileStore.Warning(
        "Offset %gd, After %gd and Limit %gd of a list of files must not be negative\n", offset, after,
        limit);
    return std::nullopt;
}

void WriteCounts(Side side, bool byStatus, KelContainer& results) {
    std::int64_t total = 0;
    KelContainer counts;
    for (const StatusCount& counted : CountListedFiles(side)) {
        total += counted.count;
        counts.SetInt64(counted.status, counted.count);
    }
    results.SetInt64("TotalCount", total);
    if (byStatus) results.SetContainer("Counts", std::move(counts));
}

Side ChosenSide(const KelContainer& arguments) {
    return arguments.GetBool("ListUpstream", false) ? Side::Upstream : Side::Downstream;
}

/// `size` as per cent of `whole` (above 0), at most 100, without overflow.
std::uint64_t Percent(std::int64_t size, long long whole) {
    if (size >= whole) return 100;
    if (size > std::numeric_limits<std::int64_t>::max() / 100)
        return static_cast<std::uint64_t>(size / (whole / 100));
    return static_cast<std::uint64_t>(size * 100 / whole);
}

KelContainer ListValues(const ListedFile& file) {
    KelContainer values;
    values.SetInt32("FileId", static_cast<std::int32_t>(file.fileId));
    file.key.Write(values);
    values.SetString("FileStatus", file.status);
    values.SetString("TransferredData", FileStore::getFileTransferPercent(file.status, file.path, file.size));
    return values;
}

/// Only a few of the files of a store wait: for these the whole row is read.
void AddReason(const ListedFile& file, Side side, const Circumstances& circumstances, KelContainer& values) {
    const bool isDone = file.status == kStatusPackedFile ||
                        (file.status == kStatusAvailable && (side == Side::Upstream || file.acknowledged));
    FileStoreEntry entry;
    if (isDone || !entry.LoadFromDatabase(file.fileId, side)) return;
    const auto reason = ReasonOfFile(entry, side, circumstances);
    if (!reason) return;
    KelContainer written;
    reason->Write(written);
    values.SetContainer("Reason", std::move(written));
}

KelContainer DetailValues(const FileStoreEntry& entry, Side side) {
    KelContainer values;
    values.SetInt32("FileId", static_cast<std::int32_t>(entry.FileId));
    entry.Key().Write(values);
    values.SetInt64(kValueFileSize, entry.FileSize);
    values.SetString("FileStatus", entry.FileStatus);
    values.SetBool(kValueUpstream, entry.Upstream);
    values.SetInt32(kValueKeepCopy, static_cast<std::int32_t>(entry.KeepCopy));
    values.SetBool(kValueBypass, entry.Bypass);
    values.SetBool("Acknowledged", entry.Acknowledged);
    values.SetInt32(kValuePriority, static_cast<std::int32_t>(entry.Priority));
    values.SetInt32("CreateTime", static_cast<std::int32_t>(entry.CreateTime));
    values.SetString(kValueSourceDevice, entry.SourceDevice);
    values.SetString(kValueFirstRelay, entry.FirstRelay);
    values.SetInt32("TransferredBytes", static_cast<std::int32_t>(entry.TransferredBytes));
    values.SetString("TransferredData", FileStore::getFileTransferPercent(
                                            entry.FileStatus, ContentPath(entry, side), entry.FileSize));
    return values;
}

}  // namespace

KelString FileStore::getFileTransferPercent(const KelString& status, const KelString& path,
                                            long long expectedSize) {
    if (status == kStatusAvailable || status == kStatusUnicastAvailable) return "100 %";
    const bool isArriving = status == kStatusDownloading || status == kStatusReceiving;
    const std::int64_t size = isArriving && expectedSize > 0 ? FileGetSize64(path) : -1;
    if (size < 0) return "N/A";
    return KelFormat("%gu %", Percent(size, expectedSize));
}

unsigned int FileStore::ActionHandler_FileStoreListFiles(KelContainer* arguments) {
    const auto order = ReadOrder(*arguments);
    const auto range = ReadRange(*arguments);
    if (!order || !range) return kKelErrorBadInput;
    const Side side = ChosenSide(*arguments);
    const bool countsOnly = arguments->GetBool("CountsOnly");
    arguments->Remove("Values");
    if (range->after == 0)
        WriteCounts(side, countsOnly, *arguments);
    else if (ReadFileStatus(side, range->after).empty())
        return kKelErrorMissingContent;
    if (countsOnly || range->limit == 0) return kKelOk;
    const KelVector<ListedFile> files = SelectListedFiles(side, *order, *range);
    std::optional<Circumstances> circumstances;
    if (arguments->GetBool("Reasons")) circumstances = Circumstances::Now();
    for (std::size_t i = 0; i < files.size(); ++i) {
        KelContainer values = ListValues(files[i]);
        if (circumstances) AddReason(files[i], side, *circumstances, values);
        arguments->SetContainer("Values", std::move(values), static_cast<std::uint32_t>(i));
    }
    return kKelOk;
}

unsigned int FileStore::ActionHandler_FileStoreGetFileInfo(KelContainer* arguments) {
    const auto fileId = static_cast<std::uint32_t>(arguments->GetInt32("FileId", -1));
    FileStoreEntry entry;
    const Side side = ChosenSide(*arguments);
    const bool isKnown = entry.LoadFromDatabase(fileId, side);
    arguments->Remove("Values");
    if (isKnown) arguments->SetContainer("Values", DetailValues(entry, side));
    return kKelOk;
}

/// Takes no lock across the rows: a transfer that has ended meanwhile is left out.
unsigned int FileStore::ActionHandler_FileStoreGetTransfers(KelContainer* arguments) {
    arguments->Clear();
    for (const WaitingReasons::Transfer& transfer : Reasons().ListTransfers()) {
        FileStoreEntry entry;
        if (!entry.LoadFromDatabase(transfer.fileId, transfer.side)) continue;
        KelContainer values;
        values.SetInt32("FileId", static_cast<std::int32_t>(entry.FileId));
        entry.Key().Write(values);
        values.SetBool(kValueUpstream, transfer.side == Side::Upstream);
        values.SetInt64(kValueFileSize, entry.FileSize);
        const bool isDown = transfer.side == Side::Downstream;
        values.SetString("Peer", PeerName(SenderUrl(isDown ? entry.SourceDevice : KelString())));
        values.SetInt64("Since", transfer.since);
        if (isDown)
            values.SetInt64("TransferredBytes",
                            std::max<std::int64_t>(FileGetSize64(ContentPath(entry, transfer.side)), 0));
        else if (transfer.sent)
            values.SetInt64("TransferredBytes", static_cast<std::int64_t>(transfer.sent->load()));
        arguments->SetContainer("Values", std::move(values), KelContainer::kAbsent);
    }
    return kKelOk;
}

unsigned int FileStore::ActionHandler_FileStoreGetDeviceUrl(KelContainer* arguments) {
    arguments->SetString("DeviceUrl", OurDeviceUrl());
    arguments->SetString("UpstreamDatabase", DatabaseId(Side::Upstream));
    arguments->SetString("DownstreamDatabase", DatabaseId(Side::Downstream));
    return kKelOk;
}

unsigned int FileStore::ActionHandler_FileStoreGetFileInformation(KelContainer* arguments) {
    const KelString label = arguments->GetString(kValueFileLabel);
    const KelString checksum = arguments->GetString(kValueFileChecksum);
    if (!CheckKeyPart(kValueFileLabel, label, false) || !CheckKeyPart(kValueFileChecksum, checksum, true))
        return kKelErrorBadInput;
    const FileRows files = SelectFilesOfLabel(label, checksum);
    if (files.empty()) return kKelOk;
    KelContainer info;
    if (const KelStatus status = info.LoadFromXML(files.front().FileInfo); !status)
        debugFileStore.Warning("The stored information of file %S is unusable: %S\n", label,
                               status.Error().message);
    arguments->SetString(kValueFileType, files.front().FileType);
    arguments->SetContainer(kValueFileInfo, std::move(info));
    return kKelOk;
}
