#pragma once

#include <cstdint>
#include <optional>

#include "filestore/db/database.h"
#include "filestore/db/file_key.h"
#include "filestore/db/file_store_entry.h"

/// The table Files of the two databases: finding rows, changing them, removing them. files_selection.h holds
/// the selections of the workers and actions.
///
/// Reads take no lock: the connection runs one statement at a time. Every change takes the mutex of its
/// database around its statement. A caller whose change follows from what it has read holds that mutex over
/// both, so that no other thread comes in between; the mutexes are recursive. Statements that fail are logged
/// by the connection.
namespace filestore {

using FileRows = KelVector<FileStoreEntry>;

/// When the worker that serves a status tries a row that has just got it.
enum class NextTry : unsigned char {
    AtOnce,
    AfterTimeout,  ///< of that worker, counted from now
};

// ---- finding a row

/// The FileId of a file; 0 when it is unknown. A row that was recorded without a checksum matches any; an
/// empty checksum in `key` finds the row with the smallest one.
std::uint64_t FindFileInDatabase(Side side, const FileKey& key);

/// The same, with nothing when the statement failed.
std::optional<std::uint64_t> LookUpFile(Side side, const FileKey& key);

/// All files of the key's type, label and name, whatever their checksums; none when the statement failed.
KelVector<std::uint64_t> FindFilesByName(Side side, const FileKey& key);

/// The file with exactly this checksum; 0 when it is unknown. Nothing when the statement failed.
std::optional<std::uint64_t> FindExactFile(Side side, const FileKey& key);

/// The FileId of the upstream file with this FileURL; 0 when there is none.
std::uint64_t FindFileFromUrl(const KelString& url);

/// Replaces `entry` by the row of its own key; false, with `entry` unchanged, when the file is unknown.
bool LoadKnownFile(Side side, FileStoreEntry& entry);

/// The status of a row; empty when it is gone.
KelString ReadFileStatus(Side side, std::uint64_t fileId);
/// The same, with nothing when the statement failed.
std::optional<KelString> LookUpStatus(Side side, std::uint64_t fileId);

// ---- changing the status; each false when the statement failed

/// Sets the status and its time. With `unicast`, the transport mode becomes unicast as well.
bool UpdateFileStatus(Side side, std::uint64_t fileId, const KelString& status, NextTry next,
                      bool unicast = false);

/// The same for a step that took long: a row whose status is no longer `expected` keeps what others have made
/// of it in the meantime.
bool UpdateFileStatus(Side side, std::uint64_t fileId, const KelString& expected, const KelString& status,
                      NextTry next);

/// The same for many rows in one statement: all of them or none.
bool UpdateFileStatus(Side side, const IdList& fileIds, const KelString& status, NextTry next);

/// Puts status and status time back to what `row` says.
bool RestoreFileStatus(Side side, const FileStoreEntry& row);

/// Marks a missing file as supplied by a consumer of this device: not a relay's child, acknowledged.
bool SetSuppliedByConsumer(Side side, std::uint64_t fileId);

/// Removes the row and, downstream, its targets: the number may be given to another file.
bool DeleteFileRow(Side side, std::uint64_t fileId);
/// The same of several; in a transaction of the caller all or none. Why they waited, the caller has to forget
/// once that is committed.
bool DeleteFileRows(Side side, const IdList& fileIds);

// ---- downstream: a download in progress. Each leaves a row alone that is no longer to be downloaded.

/// Makes due the downloads that were tried last before `before`, or, by a clock that was set back since, in
/// the future: their status time becomes 0, as it is for new ones, so that a selection reads no file that it
/// does not take.
bool MarkDueDownloads(std::int64_t before);
bool SetDownloadPath(std::uint64_t fileId, const KelString& path);
/// The download ended early with `bytes` received.
bool SetTransferredBytes(std::uint64_t fileId, std::uint64_t bytes, NextTry next);
/// What a failed multicast reception has left is gone: from now on it is an ordinary unicast download.
bool StartUnicastRecovery(std::uint64_t fileId);
/// The content was useless and is fetched from its beginning after the time-out.
bool RestartDownload(std::uint64_t fileId);
/// The content is complete and verified.
bool SetDownloaded(std::uint64_t fileId, std::uint64_t size);

// ---- downstream: other changes

/// The sender knows that this device has the file.
bool SetAcknowledged(std::uint64_t fileId);
/// A rule file has said that this device is no child of the sender for the named content: it is not waited
/// for.
bool SetNotRelaysChild(const KelString& name, const KelString& checksum);
bool SetLastRequestTime(std::uint64_t fileId, std::int64_t time);
/// A package or script whose content is damaged or gone.
bool SetMissing(std::uint64_t fileId);
/// The same of content outside the store: the file is one of the store from now on.
bool SetExternalMissing(std::uint64_t fileId);
/// A multicast reception is complete at `size` bytes. Leaves a row alone that does not wait for it.
bool SetReceivedByMulticast(std::uint64_t fileId, std::uint64_t size);
/// Files awaited by multicast under `url` are asked for again, and fetched by unicast.
bool ResetMulticastReception(const KelString& url);
/// The same for all files: after a restart of the agent.
bool ResetAllMulticastReceptions();
/// A file that is awaited by multicast is downloaded at once instead.
bool DownloadByUnicast(std::uint64_t fileId);
/// Content that was being taken in when the agent stopped is missing.
bool ForgetUnfinishedOffers();
/// Replaces the beginning `previous` of paths by `location`, both storage folders that end with "/": of
/// content that the store itself holds, downstream only, and of external files that lie in its folders.
bool MoveContentPaths(Side side, const KelString& previous, const KelString& location);

/// What a parent answered to a request.
struct RequestAnswer {
    KelString status;
    NextTry next = NextTry::AtOnce;
    KelString url;
    std::uint32_t keepCopy = 0;
    KelString checksum;
    KelString info;  ///< FileInfo of the row, as XML
};
/// Leaves a row alone that is no longer to be requested.
bool RecordRequestAnswer(std::uint64_t fileId, const RequestAnswer& answer);

/// What failed to move from or to the parent is due: downloads, requests and acknowledgements, and the files
/// to send, in the other database. Downloads from other devices are left alone.
void MakeDueForParent();

/// The device has another parent: what was to be downloaded from the one before is requested, and what that
/// one has accepted but not received is offered again, in the other database.
void TurnToNewParent();

// ---- upstream

/// A file whose content, of `size` bytes, is expected by PUT under `url` once more.
bool SetReceivingAgain(std::uint64_t fileId, std::int64_t size, const KelString& url, bool repeated = false);
/// A known file whose content is here, and that no worker has to move on, is handed to the consumers again.
bool HandleAgain(std::uint64_t fileId);
bool SetSourceDevice(Side side, std::uint64_t fileId, const KelString& deviceUrl);
/// Files recorded while this device did not know its GUID.
bool SetMissingSourceDevices(const KelString& deviceUrl);

/// All files that have been sent are offered to the parent once more, as repeated; of packed ones the files,
/// not the archives.
bool RepeatSentFiles();

/// A file that the send pass has taken: accepted by the parent, which gave the URL, or chosen for an archive.
struct SentFile {
    std::uint64_t fileId = 0;
    const char* status = nullptr;
    KelString url;
};
/// All of them in one transaction or none.
bool RecordSentFiles(const KelVector<SentFile>& files);

/// Runs statements of the administrator on the upstream database in one transaction.
void RunUpstreamStatements(const KelVector<KelString>& statements);

}  // namespace filestore
