#pragma once

#include <cstdint>
#include <optional>

#include "filestore/db/files_table.h"

/// The selections that workers and actions make from the table Files; locks as in files_table.h. A selection
/// returns the rows with all their columns. It returns none when the statement failed, which the connection
/// has logged; where callers must distinguish that from an empty result, the return type is an optional.
namespace filestore {

/// Which files may move: all, or only those that pass a closed window.
enum class Passing : unsigned char { All, BypassOnly };

// ---- downstream, for the workers; `before` is a time: rows whose status changed later are not tried yet,
// but for those whose time only a clock that was set back since can have written

/// The most urgent file to download that is due, which MarkDueDownloads decides; at most one row, as in the
/// next three.
FileRows SelectDownload(Passing passing);
FileRows SelectAcknowledgement(std::int64_t before, Passing passing);
FileRows SelectFileToRequest(std::int64_t before, Passing passing);
FileRows SelectMissingFile(Side side);

struct FileToHandle {
    FileStoreEntry file;
    bool isLocal = false;  ///< no target on this device waits for it; always true upstream
};
/// Those tried longest ago, or never, come first; with `after`, those that come behind that file.
KelVector<FileToHandle> SelectFilesToHandle(Side side, unsigned int limit,
                                            const FileStoreEntry* after = nullptr);

// ---- downstream, others

/// The files with this name and content, whatever their type and label.
FileRows SelectFilesOfContent(const KelString& name, const KelString& checksum);
FileRows SelectFilesOfLabel(const KelString& label, const KelString& checksum);
/// The file of exactly this key; without a checksum, those of this type, label and name. Nothing when the
/// statement failed.
std::optional<FileRows> SelectFilesOfKey(const FileKey& key);
/// Files awaited by multicast, or being received, whose URL ends with `url`.
FileRows SelectAwaitedFiles(const KelString& url);
/// All packages of the managed-relay kind.
FileRows SelectPackages();
/// Available packages and scripts whose content must be there; `fileId` 0: all.
FileRows SelectHeldPackages(std::uint64_t fileId);

/// A file and the device it comes from.
struct FileSource {
    std::uint64_t fileId = 0;
    KelString sourceDevice;
};
KelVector<FileSource> SelectSourceDevices();

/// Files of either side whose content lies outside the store, in the order of their FileIds, behind `after`.
FileRows SelectExternalFiles(Side side, std::uint64_t after, unsigned int limit);

// ---- upstream

/// What the upload policy and the window let pass.
struct UploadFilter {
    bool archivesOnly = false;
    KelVector<KelString> types;  ///< only these; empty: all
    Passing passing = Passing::All;
    unsigned int limit = 0;
};
FileRows SelectFilesToSend(const UploadFilter& filter);
FileRows SelectFilesToUpload(const UploadFilter& filter);
/// Those that the parent has accepted and not received yet.
FileRows SelectFilesBeingUploaded();
/// Nothing when the statement failed.
std::optional<std::uint32_t> CountFilesToUpload();
/// True when files other than archives wait to be sent, packed or not; false also when the statement failed.
bool HasFilesToUpload();
/// True when archives wait to be sent; false also when the statement failed.
bool HasArchivesToUpload();
/// The latest file of this type that comes from this device itself; at most one row.
FileRows SelectNewestOwnFile(const KelString& type);
/// Files whose content is expected by PUT or has just arrived.
FileRows SelectFilesBeingReceived();
/// The files with this key, one for every device that sent it. Nothing when the statement failed.
std::optional<FileRows> SelectUpstreamFiles(const FileKey& key);

// ---- listing

/// True also when the statement failed.
bool HasFiles(Side side);

/// Bytes of the files of a side whose content is in the store. Reads an index entry of each.
std::uint64_t SumOfSizes(Side side);
/// The same of the files that are being received by multicast.
std::uint64_t SumOfListening();

/// What a list shows of a file: a store may hold millions, so only that is read.
struct ListedFile {
    std::uint64_t fileId = 0;
    FileKey key;
    KelString status;
    std::int64_t size = 0;
    KelString path;
    bool acknowledged = false;
};
/// Column and direction become part of the statement as they are.
struct ListOrder {
    KelString column;  ///< empty: by type, label and name
    KelString direction;
};
/// The part of a list that is wanted: at most `limit` rows behind the first `offset`, or behind the row with
/// the FileId `after`, whatever its status; of a list by type, label and name only.
struct ListRange {
    std::uint64_t offset = 0;
    std::uint32_t limit = 0;
    std::uint64_t after = 0;  ///< 0: none; the list is empty when there is no such row
};
/// Makes an order of what a caller asked for; nothing unless `column` is one of Files and `direction` ASC or
/// DESC, in any case of letters.
std::optional<ListOrder> MakeListOrder(const KelString& column, const KelString& direction);
/// All files but the obsolete ones. Rows that are equal in the order stand in that of their FileId, so that
/// ranges of an unchanged table fit together.
KelVector<ListedFile> SelectListedFiles(Side side, const ListOrder& order, const ListRange& range);

/// The files in one status. The database keeps these numbers: to read them costs the same however many files
/// there are.
struct StatusCount {
    KelString status;
    std::int64_t count = 0;
    std::int64_t bytes = 0;           ///< as the rows say; not all of it has to be here
    std::int64_t unacknowledged = 0;  ///< files from above that are not yet acknowledged there
};
/// Without statuses in which there is no file.
KelVector<StatusCount> CountFiles(Side side);
/// The same without the obsolete ones.
KelVector<StatusCount> CountListedFiles(Side side);

/// When the first of the files in a status was recorded, in seconds since the epoch; 0: there is none.
std::int64_t FirstTimeInStatus(Side side, const KelString& status);
/// The same of the available files that wait to be acknowledged.
std::int64_t FirstTimeUnacknowledged();

}  // namespace filestore
