#include "filestore/module/action_table.h"

#include <array>

#include "filestore/state/file_store.h"

namespace {

constexpr KelCallers kLocal = KelCallers::Local;
constexpr KelCallers kOperator = KelCallers::Operator;
constexpr KelCallers kParent = KelCallers::Parent;
constexpr KelCallers kChild = KelCallers::Child;

#define KEL_FILE_KEY "string FileType, string FileLabel, string FileName, string FileChecksum"
#define KEL_REASON                                                                                       \
    "string Code, string Message, string Peer?, int64 Bytes?, int64 Size?, int64 Count?, int64 Since?, " \
    "int64 NextTry?"

// Other modules know some actions by a signature that says less than the inputs.
constexpr std::array kActions = {
    FileStoreAction{&FileStore::ActionHandler_FileStoreGetValues,
                    {.signature = "FileStoreGetValues ()",
                     .purpose = "Gives the settings of the file store with the values in force.",
                     .outputs = "container Values {string * (a setting; bool or int32 where it is one)}",
                     .callers = kOperator}},
    FileStoreAction{&FileStore::ActionHandler_FileStoreSetValues,
                    {.signature = "FileStoreSetValues (container Values)",
                     .purpose = "Changes settings of the file store, here and in its ini file; all or, when "
                                "one is unusable, none.",
                     .inputs = "container Values {string * (a setting)}",
                     .outputs = "string Notes[]? (values moved into their bounds, and unknown names)",
                     .results = "1 a value is unusable; 17 it names a folder of the device, and comes from "
                                "elsewhere; 18 the ini file cannot be written",
                     .callers = kOperator,
                     .changes = true}},
    FileStoreAction{
        &FileStore::ActionHandler_FileStoreRequestFile,
        {.signature =
             "FileStoreRequestFile (string FileType, string FileLabel, string FileName, string Checksum)",
         .purpose = "Asks this device for a file, which it requests from its own parent when it lacks it.",
         .inputs = KEL_FILE_KEY " (empty: any content), string DeviceGUID? (device URL of the requester), "
                                "container FileInfo?, bool Bypass?, bool ContentDamaged?",
         .outputs = "string FileURL? (empty: not here yet), int32 KeepCopy?, string FileChecksum?, bool "
                    "FileObsolete?, container FileInfo? (of a file that the master has signed)",
         .results = "1 the key is unusable; 44005 the GUID belongs to another tree",
         .callers = kChild | kOperator}},
    FileStoreAction{
        &FileStore::ActionHandler_FileStoreRequestFileSize,
        {.signature =
             "FileStoreRequestFileSize (string FileType, string FileLabel, string FileName, string Checksum)",
         .purpose = "Gives the size of a file, asking the parent when this device lacks it.",
         .inputs = KEL_FILE_KEY ", string DeviceGUID?",
         .outputs = "int64 FileSize (bytes)",
         .results = "1 the key is unusable; 13 no device above has it",
         .callers = kChild | kOperator}},
    FileStoreAction{
        &FileStore::ActionHandler_FileStoreAcknowledgeFile,
        {.signature =
             "FileStoreAcknowledgeFile (string FileType, string FileLabel, string FileName, string Checksum)",
         .purpose = "Ends the announcement of a file to a device that has downloaded it.",
         .inputs = KEL_FILE_KEY ", string DeviceGUID (device URL)",
         .results = "1 unusable; 18 not recorded, to be repeated",
         .callers = kChild}},
    FileStoreAction{
        &FileStore::ActionHandler_FileStoreReceiveFile,
        {.signature =
             "FileStoreReceiveFile (string FileType, string FileLabel, string FileName, string Checksum)",
         .purpose = "Offers a file: from a module of this device, down from the parent, up from a child.",
         .inputs =
             "string FileType, string FileLabel, string FileName? (absent: made up), string FileChecksum? "
             "(absent only with a local path), bool Upstream?, int64 FileSize? (bytes), int32 Priority?, "
             "bool "
             "Bypass?, bool WakeOnLan?, int32 KeepCopy? (bits: 1 master, 2 relay, 4 client), bool Repeated?, "
             "bool Unconnected?, string FileURL?, string SourceDevice? (device URL), string FirstRelay? "
             "(device URL), container DevicePath? (the tree of targets), container FileInfo?, string "
             "TransportMode?, string MulticastAddress?, int32 MulticastPort?, int32 MulticastBlockSize?, "
             "string MovePath?, string CopyPath?, string FilePath?",
         .outputs = "string FileURL? (where to put the content), bool ContentHeld?, bool TakesContents? (by "
                    "FileStoreReceiveContents), string ParentGuid? (to a sender that is not the parent)",
         .results = "1 unusable; 13 no content at the path; 18 not recorded; 44005 of another tree",
         .callers = kParent | kChild}},
    FileStoreAction{&FileStore::ActionHandler_FileStoreReceiveContents,
                    {.signature = "FileStoreReceiveContents (container Files)",
                     .purpose = "Takes small files from a child together with their contents.",
                     .inputs = "container Files[] {string * (an offer, as of FileStoreReceiveFile), string "
                               "Content (its bytes)}",
                     .outputs = "container Files[] (in the same order; without ContentHeld, a file was "
                                "merely offered) {int32 Result, "
                                "string * (as of FileStoreReceiveFile)}",
                     .results = "1 more than 100 files; 17 not now",
                     .callers = kChild}},
    FileStoreAction{&FileStore::ActionHandler_FileStoreReceiveUnconnectedFile,
                    {.signature = "FileStoreReceiveUnconnectedFile (string FileType, string FileLabel, "
                                  "string FileName, string Checksum)",
                     .purpose = "Offers a file upward that was kept while there was no connection.",
                     .inputs = KEL_FILE_KEY ", string SourceDevice?, int32 Priority?, bool Bypass?, "
                                            "container FileInfo?, string MovePath?, string CopyPath?, "
                                            "string FilePath?",
                     .results = "1 unusable; 13 no content at the path; 18 not recorded",
                     .callers = kLocal}},
    FileStoreAction{&FileStore::ActionHandler_FileStoreHttpGet,
                    {.signature = "FileStoreHttpGet (string URL)",
                     .purpose = "Says whether the calling device may fetch a file; for the event "
                                "HttpProtocolCallbackGet.",
                     .results = "44006 the file is not for it; 44008 it may",
                     .callers = kLocal}},
    FileStoreAction{&FileStore::ActionHandler_FileStoreHttpPutBegin,
                    {.signature = "FileStoreHttpPutBegin (string URL, int64 Size)",
                     .purpose = "Says whether an upload that begins is expected; for the event "
                                "HttpProtocolCallbackPutBegin.",
                     .results = "44006 nothing awaits it; 44007 other content",
                     .callers = kLocal}},
    FileStoreAction{&FileStore::ActionHandler_FileStoreHttpPutCheck,
                    {.signature = "FileStoreHttpPutCheck (string URL, string ContentPath)",
                     .purpose = "Compares an upload that has arrived with what was offered; for the event "
                                "HttpProtocolCallbackPutCheck.",
                     .results = "44006 nothing awaits it; 44007 other content",
                     .callers = kLocal}},
    FileStoreAction{&FileStore::ActionHandler_FileStoreHttpPutCallback,
                    {.signature = "FileStoreHttpPutCallback (container Values)",
                     .purpose = "Queues a file that has arrived by upload or multicast; for the event "
                                "HttpProtocolCallbackPut.",
                     .inputs = "string URL, string MulticastAddress?, string LocalPath?",
                     .results = "17 not recorded, to be repeated",
                     .callers = kLocal}},
    FileStoreAction{&FileStore::ActionHandler_FileStoreGUIDCallback,
                    {.signature = "FileStoreGUIDCallback (string GUID)",
                     .purpose = "Takes over a new GUID of this device; for the event "
                                "IdentityCallbackGUIDChange.",
                     .results = "1 unusable",
                     .callers = kLocal}},
    FileStoreAction{&FileStore::ActionHandler_FileStoreIPCallback,
                    {.signature = "FileStoreIPCallback ()",
                     .purpose = "Takes over a new address of this device; for the event "
                                "IdentityCallbackIPChange.",
                     .inputs = "string NewIPAddress",
                     .results = "1 unusable",
                     .callers = kLocal}},
    FileStoreAction{&FileStore::ActionHandler_FileStoreParentChange,
                    {.signature = "FileStoreParentChange ()",
                     .purpose = "Turns transfers to another parent; for the event "
                                "RelayCallbackParentChange.",
                     .callers = kLocal}},
    FileStoreAction{&FileStore::ActionHandler_FileStoreParentInSync,
                    {.signature = "FileStoreParentInSync ()",
                     .purpose = "Makes due what waits for the parent; for the event "
                                "RelayCallbackParentInSync.",
                     .inputs = "string FormerParent? (HOST:PORT)",
                     .callers = kLocal}},
    FileStoreAction{
        &FileStore::ActionHandler_FileStoreWithdrawFile,
        {.signature = "FileStoreWithdrawFile (string FileType, string FileLabel, string FileName, string "
                      "FileChecksum, container DevicePath, bool KeepContent, bool Removed)",
         .purpose = "Forgets a published file that is not to be delivered, here and on the devices below.",
         .inputs = KEL_FILE_KEY " (empty: all contents of this name), container DevicePath? (the targets; "
                                "absent: this device), bool KeepContent? (it is wanted elsewhere), bool "
                                "Removed? (the targets are gone and are not called)",
         .results = "1 unusable; 18 not recorded, to be repeated",
         .callers = kParent,
         .refusal = kKelErrorBadInput}},
    FileStoreAction{
        &FileStore::ActionHandler_FileStoreDeviceContact,
        {.signature = "FileStoreDeviceContact (string DeviceGUID, string ParentGuid)",
         .purpose = "Reports that a child can be called, or that it has another parent now.",
         .inputs = "string DeviceGUID (device URL), string ParentGuid? (of its parent, when that is another)",
         .results = "1 no device URL",
         .callers = kChild}},
    FileStoreAction{&FileStore::ActionHandler_FileStoreTransferWindowCallback,
                    {.signature = "FileStoreTransferWindowCallback ()",
                     .purpose = "Reads the transfer windows again; for the event "
                                "TransferWindowCallbackWindowChange.",
                     .callers = kLocal}},
    FileStoreAction{
        &FileStore::ActionHandler_FileStoreListFiles,
        {.signature = "FileStoreListFiles ()",
         .purpose = "Lists the files of the store, except obsolete ones.",
         .inputs = "bool ListUpstream?, string SortAttr? (a column of Files), string SortOrder? (ASC or "
                   "DESC), int64 Offset?, int64 After? (FileId of the file before the first one; for long "
                   "lists without "
                   "SortAttr), int64 Limit?, bool CountsOnly?, bool Reasons?",
         .outputs =
             "int64 TotalCount? (absent with After), container Counts? {int64 * (files by status)}, "
             "container Values[]? "
             "{int32 FileId, " KEL_FILE_KEY
             ", string FileStatus, string TransferredData (per cent), container Reason? {" KEL_REASON "}}",
         .results = "1 no such column or order, or a negative number; 13 the file of After is gone",
         .callers = kOperator}},
    FileStoreAction{
        &FileStore::ActionHandler_FileStoreGetFileInfo,
        {.signature = "FileStoreGetFileInfo (string strFileType, string strFileName, string strChecksum)",
         .purpose = "Gives the values of one file of the store.",
         .inputs = "int32 FileId, bool ListUpstream?",
         .outputs =
             "container Values? {int32 FileId, " KEL_FILE_KEY
             ", int64 FileSize (bytes), string FileStatus, bool Upstream, int32 KeepCopy, bool Bypass, bool "
             "Acknowledged, int32 Priority, int32 CreateTime (seconds since the epoch), string SourceDevice, "
             "string FirstRelay, int32 TransferredBytes, string TransferredData (per cent)}",
         .callers = kOperator}},
    FileStoreAction{
        &FileStore::ActionHandler_FileStoreExplainFile,
        {.signature = "FileStoreExplainFile (string FileType, string FileLabel, string FileName, string "
                      "FileChecksum, container DevicePath, string GUID)",
         .purpose = "Says why a file waits here and on the way to its targets, asking the devices below.",
         .inputs =
             "string FileType?, string FileLabel?, string FileName?, string FileChecksum?, int64 FileId? "
             "(in place of the key), bool Upstream?, container DevicePath? (the targets), string GUID? (of "
             "the only target wanted), int32 Seconds? (to ask for), int32 Devices? (to ask at once)",
         .outputs =
             "bool Known, string FileType?, string FileLabel?, string FileName?, string "
             "FileChecksum?, int64 FileSize?, string FileStatus?, container Reason? {" KEL_REASON
             "}, container Values[]? {string GUID, string Device, string At, " KEL_REASON "}, int32 LeftOut",
         .results = "1 unusable; 17 too many are asking",
         .callers = kParent | kOperator}},
    FileStoreAction{
        &FileStore::ActionHandler_FileStoreGetWaiting,
        {.signature = "FileStoreGetWaiting ()",
         .purpose = "Says what holds files back on this device as a whole.",
         .outputs = "container Values {container WindowUp? {int64 Since, int64 Until}, container WindowDown? "
                    "{int64 Since, int64 Until}, int64 Bandwidth? (bit/s), bool BandwidthMeasured?, int64 "
                    "DiskFree? (bytes), container DiskFull? {int64 WaitingFiles, int64 Since, int64 Needed}, "
                    "int64 WaitingTargets}",
         .callers = kOperator}},
    FileStoreAction{
        &FileStore::ActionHandler_FileStoreGetTransfers,
        {.signature = "FileStoreGetTransfers ()",
         .purpose = "Lists the files that are being transferred from or to another device now.",
         .outputs = "container Values[]? {int32 FileId, " KEL_FILE_KEY
                    ", bool Upstream, int64 FileSize (bytes), string Peer (HOST:PORT), int64 Since (seconds "
                    "since the epoch), int64 TransferredBytes (here, or handed to the connection)}",
         .callers = kOperator}},
    FileStoreAction{&FileStore::ActionHandler_FileStoreGetDeviceUrl,
                    {.signature = "FileStoreGetDeviceUrl ()",
                     .purpose = "Gives the device URL of this device and which databases its store has.",
                     .outputs = "string DeviceUrl, string UpstreamDatabase, string DownstreamDatabase",
                     .callers = kChild | kOperator}},
    FileStoreAction{&FileStore::ActionHandler_FileStoreGetMulticastStatus,
                    {.signature = "FileStoreGetMulticastStatus ()",
                     .purpose = "Counts the devices that listen for multicast transfers of this device, by "
                                "group and state.",
                     .outputs = "container Values[]? {string MulticastAddress, string Status, int32 "
                                "CountStatus}",
                     .callers = kOperator}},
    FileStoreAction{&FileStore::ActionHandler_FileStoreGetMulticastDetails,
                    {.signature = "FileStoreGetMulticastDetails ()",
                     .purpose = "Lists the devices that listen for multicast transfers of this device.",
                     .outputs = "container Values[]? {string MulticastAddress, string DeviceUrl (the host "
                                "alone), string Status}",
                     .callers = kOperator}},
    FileStoreAction{&FileStore::ActionHandler_FileStoreResetMulticastStatus,
                    {.signature = "FileStoreResetMulticastStatus ()",
                     .purpose = "Requests files again that this device awaits by multicast.",
                     .inputs = "string FileURL",
                     .results = "1 no path of a URL",
                     .callers = kParent}},
    FileStoreAction{
        &FileStore::ActionHandler_FileStoreDeletePackage,
        {.signature = "FileStoreDeletePackage ()",
         .purpose = "Deletes a package here and on the devices below: its content and its targets "
                    "go, and requests for it are answered with FileObsolete.",
         .inputs = KEL_FILE_KEY " (of the package, or of an order of the type PackageDelete), "
                                "container FileInfo? (of an order) {string PackageName, string "
                                "PackageChecksum}, container DevicePath? (this "
                                "device with those below)",
         .results = "1 unusable; 17 a module works on it; 18 not recorded, "
                    "to be repeated",
         .callers = kParent,
         .changes = true}},
    FileStoreAction{&FileStore::ActionHandler_PackageSendSyncInfo,
                    {.signature = "PackageSendSyncInfo ()",
                     .purpose = "Sends the list of the rule packages that this device has to the parent.",
                     .callers = kOperator,
                     .changes = true}},
    FileStoreAction{&FileStore::ActionHandler_FileStoreGetNotifiableFiles,
                    {.signature = "FileStoreGetNotifiableFiles ()",
                     .purpose = "Lists the files that wait for targets, the oldest target first.",
                     .inputs = "int64 Offset?, int64 Limit?",
                     .outputs = "container Values[]? {int32 FileId, " KEL_FILE_KEY
                                ", string FileStatus, int64 FileSize (bytes), int32 Priority, int64 Waiting "
                                "(targets not announced yet), int64 Notified, int64 Failed (not reached, or "
                                "silent since the announcement), int64 OldestTime (seconds since the epoch)}",
                     .results = "1 a negative number",
                     .callers = kOperator}},
    FileStoreAction{
        &FileStore::ActionHandler_FileStoreGetUntakenFiles,
        {.signature = "FileStoreGetUntakenFiles (container Taken)",
         .purpose = "Lists the files that were handed to the modules of this device and that none has taken, "
                    "or forgets those named.",
         .inputs = "container Taken[]? {" KEL_FILE_KEY "}",
         .outputs = "container Values[]? {" KEL_FILE_KEY ", string FilePath, container FileInfo}",
         .results = "18 not recorded",
         .callers = kLocal}},
    FileStoreAction{&FileStore::ActionHandler_FileStoreGetFileInformation,
                    {.signature = "FileStoreGetFileInformation ()",
                     .purpose = "Gives the type and the information of a file that is known by label and "
                                "checksum.",
                     .inputs = "string FileLabel, string FileChecksum",
                     .outputs = "string FileType?, container FileInfo?",
                     .results = "1 unusable",
                     .callers = kOperator}},
    FileStoreAction{&FileStore::ActionHandler_FileStorePerformManualUpload,
                    {.signature = "FileStorePerformManualUpload ()",
                     .purpose = "Packs and sends what a relay with manual upload holds back.",
                     .callers = kOperator,
                     .changes = true}},
    FileStoreAction{
        &FileStore::ActionHandler_FileStoreIsPatchInventoryUploaded,
        {.signature = "FileStoreIsPatchInventoryUploaded ()",
         .purpose = "Says whether the newest patch inventory of this device, a file of the type "
                    "PatchInventory, has reached the parent.",
         .outputs = "bool IsKnown, bool IsUploaded, int64 UploadTime (seconds since the epoch; 0: "
                    "not uploaded, or not known), string FileType? (these while the store has the "
                    "file), string FileLabel?, string FileName?, string FileChecksum?, string "
                    "FileStatus?, int64 CreateTime?",
         .callers = kOperator}},
};

#undef KEL_FILE_KEY
#undef KEL_REASON

}  // namespace

std::span<const FileStoreAction> FileStoreActions() {
    return kActions;
}
