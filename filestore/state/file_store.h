#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>

#include "kel/debug.h"
#include "kel/ip_address.h"
#include "kel/mutex.h"
#include "kel/types.h"
#include "kelcore/failure_log.h"

class DBConnection;
class DBConnectionPool;
class DBSequenceManager;
class FileStoreBandwidthManager;
class FileStoreCallbackThread;
class FileStoreDeleteThread;
class FileStoreHandleThread;
class FileStoreMulticastThread;
class FileStoreNotifyThread;
class FileStorePullThread;
class FileStorePushThread;
class FileThreadBase;
class KelContainer;
struct FileKey;
enum class Side : unsigned char;

/// The module's background threads, in the order in which they are started and stopped.
enum class Worker : unsigned char { Delete, Push, Pull, Notify, Callback, Handler, Multicast };

/// The file store module: its shared state and the functions that its handlers and threads use. There is no
/// module object; everything is static. Only declarations stand here; the threads and managers have headers
/// of their own.
///
/// Locks: mutexUpstream, mutexDownstream and mutexCallback are held around every write to their database;
/// where two are taken, upstream or downstream comes before callback. None is held during a call to another
/// device or while content is read, hashed or copied. The numbers among the settings are read by all threads
/// at any time; they are written at initialisation and by the settings action.
class FileStore {
  public:
    // ---- entry (module/lifecycle.cpp, module/registration.cpp); on the agent's main thread
    static unsigned int ModuleRegister(const char* handle);
    static unsigned int ModuleUnregister(unsigned int flags);
    static unsigned int ModuleInitialise();
    static unsigned int ModuleActivate();
    static unsigned int ModuleCleanup(unsigned int flags);
    static unsigned int ModuleSuspend();

    /// Ends the wait of a worker, so that it looks for work at once; no effect on one that does not run. From
    /// any thread. `reason` is only for the log. (module/file_store.cpp)
    static void WakeWorker(Worker worker, unsigned long reason = 0);
    /// The threads in the order of the enumeration Worker.
    static std::span<FileThreadBase* const> Workers();

    // ---- configuration (state/settings.cpp)
    static void ReadSettings();      ///< all settings but PerformVacuum
    static void EnsureTimeToLive();  ///< raises ulTimeToLive to the largest time-out
    static unsigned int GetRandomTimeout(
        unsigned int seconds);  ///< between seconds/2 + 1 and seconds * 3/2 + 1, or the largest number

    // ---- identity of this device (state/device.cpp)
    /// This device's GUID, or with `asUrl` its device URL "host:port/GUID"; empty while unknown. Calls local
    /// actions.
    static void GetOurDeviceGUID(KelString& result, bool asUrl);
    static bool CheckDevicePath(const KelContainer& targets);  ///< the first name designates this device
    static bool CheckDeviceGuid(const KelString& path);        ///< the second "/" piece is our GUID
    static bool CheckGuidScheme(const KelString& path);        ///< the GUID in it has our scheme
    static void UpdateGuidScheme();  ///< has the identity module adopt the parent's scheme

    // ---- the parent and other devices (state/parent.cpp)
    /// The parent's call URL, empty while it is unknown or out of sync, and its GUID. Calls a local action.
    static void GetRelayUrl(KelString& url, KelString& parentGuid);
    /// The call URL and the GUID of a device URL or path name.
    static void GetDeviceUrl(const KelString& deviceUrl, KelString& url, KelString& guid);

    /// The size of a file in bytes, from the own store or from the parent: 0 or an error code. Network; hold
    /// no lock. (down/file_size.cpp)
    static unsigned int RequestFileSize(const FileKey& key, long long& size);

    // ---- the store's folders (state/store_layout.cpp)
    /// Folder of a file: "<storage>downstream|upstream/type/label/checksum".
    static KelString StoreFolder(Side side, const FileKey& key);
    /// The same with "/name" behind it.
    static KelString StorePath(Side side, const FileKey& key);

    // ---- transfer windows (state/transfer_windows.cpp)
    static void UpdateAllTransferWindows();
    static bool IsTransferAllowed(bool upload, bool& dialupBlocked);
    static bool HaveActiveRASConnection();
    static bool HaveActiveSlowConnection(bool upload);

    // ---- databases (state/databases.cpp)
    static bool SetupDatabases();
    static void CleanupDatabases();

    // ---- storage location and maintenance (module/storage_location.cpp, module/store_maintenance.cpp)
    static KelString GetFileStorageDirectory();
    static bool ChangeFileStoragePath();
    static void UpdateHttpPort();
    static void UpdateScriptAndPackageStatus(unsigned long fileId);

    // ---- group addresses (down/multicast_planner.cpp)
    /// Reserves the first free address of the range, as text, in `inUse`; empty when there is none, and while
    /// any is in use: one transfer runs at a time.
    static KelString GetFreeMulticastAddress(const IpRange& range, KelVector<KelString>& inUse)
        KEL_REQUIRES(mutexMulticastVector);
    static void DropFreeMulticastAddress(const KelString& address, KelVector<KelString>& inUse)
        KEL_REQUIRES(mutexMulticastVector);

    // ---- receivers of offers, by direction and origin (module/receive_file_action.cpp); result 0, 1
    // (unusable input) or 44005. `checksum` receives the computed one when it is empty and the content is
    // local.
    static int ReceiveUpstreamLocalFile(KelContainer& arguments, const KelString& type,
                                        const KelString& label, const KelString& name, KelString& checksum,
                                        unsigned int keepCopy, bool bypass, unsigned int wakeOnLan,
                                        unsigned int priority);
    static int ReceiveUpstreamRemoteFile(KelContainer& arguments, const KelString& type,
                                         const KelString& label, const KelString& name, KelString& checksum,
                                         unsigned int keepCopy, bool bypass, unsigned int wakeOnLan,
                                         unsigned int priority);
    static int ReceiveUnconnectedLocalFile(KelContainer& arguments, const KelString& type,
                                           const KelString& label, const KelString& name, KelString& checksum,
                                           unsigned int keepCopy, bool bypass, unsigned int wakeOnLan,
                                           unsigned int priority);
    static int ReceiveDownstreamLocalFile(KelContainer& arguments, const KelString& type,
                                          const KelString& label, const KelString& name, KelString& checksum,
                                          unsigned int keepCopy, bool bypass, unsigned int wakeOnLan,
                                          unsigned int priority);
    static int ReceiveDownstreamRemoteFile(KelContainer& arguments, const KelString& type,
                                           const KelString& label, const KelString& name, KelString& checksum,
                                           unsigned int keepCopy, bool bypass, unsigned int wakeOnLan,
                                           unsigned int priority);
    static int ReceivedCopyPublishedAction(KelContainer& arguments, const KelString& type,
                                           const KelString& label, const KelString& name,
                                           const KelString& checksum);
    static int ReceivedPublishToMasterAction(KelContainer& arguments, const KelString& type,
                                             const KelString& label, const KelString& name,
                                             const KelString& checksum);
    /// Records the targets of a file from its target tree (down/target_list.cpp).
    static void ProcessFileTargetList(unsigned long fileId, unsigned int wakeOnLan, KelContainer& targets);

    /// True when some consumer answered `code` (exchange/file_record.cpp).
    static bool CheckHandlerResult(const KelContainer& results, unsigned int code);

    /// Progress of a file as text: "57 %", "100 %" or "N/A" (module/file_queries.cpp).
    static KelString getFileTransferPercent(const KelString& status, const KelString& path,
                                            long long expectedSize);

    // ---- package synchronisation (packages/package_sync.cpp)
    static bool IsGapOkForPackageSynchronization();  ///< the configured gap since the last one has passed
    static void ExecutePackageSynchroAtStartup();

    // ---- action handlers; on any thread, concurrently. module/action_table.cpp says what each takes and
    // gives
    static unsigned int ActionHandler_FileStoreGetValues(KelContainer* arguments);
    static unsigned int ActionHandler_FileStoreSetValues(KelContainer* arguments);
    static unsigned int ActionHandler_FileStoreRequestFile(KelContainer* arguments);
    static unsigned int ActionHandler_FileStoreRequestFileSize(KelContainer* arguments);
    static unsigned int ActionHandler_FileStoreAcknowledgeFile(KelContainer* arguments);
    static unsigned int ActionHandler_FileStoreReceiveFile(KelContainer* arguments);
    static unsigned int ActionHandler_FileStoreReceiveContents(KelContainer* arguments);
    static unsigned int ActionHandler_FileStoreReceiveUnconnectedFile(KelContainer* arguments);
    static unsigned int ActionHandler_FileStoreHttpGet(KelContainer* arguments);
    static unsigned int ActionHandler_FileStoreHttpPutBegin(KelContainer* arguments);
    static unsigned int ActionHandler_FileStoreHttpPutCheck(KelContainer* arguments);
    static unsigned int ActionHandler_FileStoreHttpPutCallback(KelContainer* arguments);
    static unsigned int ActionHandler_FileStoreGUIDCallback(KelContainer* arguments);
    static unsigned int ActionHandler_FileStoreIPCallback(KelContainer* arguments);
    static unsigned int ActionHandler_FileStoreParentChange(KelContainer* arguments);
    static unsigned int ActionHandler_FileStoreParentInSync(KelContainer* arguments);
    static unsigned int ActionHandler_FileStoreDeviceContact(KelContainer* arguments);
    /// Asks the modules by the event FileStoreCallbackWithdrawnFile. The parent repeats it until the result
    /// is 0.
    static unsigned int ActionHandler_FileStoreWithdrawFile(KelContainer* arguments);
    static unsigned int ActionHandler_FileStoreTransferWindowCallback(KelContainer* arguments);
    static unsigned int ActionHandler_FileStoreListFiles(KelContainer* arguments);
    static unsigned int ActionHandler_FileStoreGetFileInfo(KelContainer* arguments);
    static unsigned int ActionHandler_FileStoreExplainFile(KelContainer* arguments);
    static unsigned int ActionHandler_FileStoreGetWaiting(KelContainer* arguments);
    static unsigned int ActionHandler_FileStoreGetTransfers(KelContainer* arguments);
    static unsigned int ActionHandler_FileStoreGetDeviceUrl(KelContainer* arguments);
    static unsigned int ActionHandler_FileStoreGetMulticastStatus(KelContainer* arguments);
    static unsigned int ActionHandler_FileStoreGetMulticastDetails(KelContainer* arguments);
    static unsigned int ActionHandler_FileStoreResetMulticastStatus(KelContainer* arguments);
    static unsigned int ActionHandler_FileStoreDeletePackage(KelContainer* arguments);
    static unsigned int ActionHandler_PackageSendSyncInfo(KelContainer* arguments);
    static unsigned int ActionHandler_FileStoreGetNotifiableFiles(KelContainer* arguments);
    static unsigned int ActionHandler_FileStoreGetUntakenFiles(KelContainer* arguments);
    static unsigned int ActionHandler_FileStoreGetFileInformation(KelContainer* arguments);
    static unsigned int ActionHandler_FileStorePerformManualUpload(KelContainer* arguments);
    static unsigned int ActionHandler_FileStoreIsPatchInventoryUploaded(KelContainer* arguments);

    // ---- shared state (module/file_store.cpp)
    static KelDebug debugFileStore;
    static KelFailureLog failures;  ///< of what workers repeat: transfers, calls, the parent
    static KelString strModuleIniFile;
    static KelString strModuleDataPath;
    static const char szBuildNumber[];

    static KelMutex mutexUpstream;
    static KelMutex mutexDownstream;
    static KelMutex mutexCallback;
    static KelMutex mutexGUID;             ///< never held while other modules or the name server are asked
    static KelMutex mutexMulticastVector;  ///< a leaf: nothing is called under it
    static KelMutex mutexSettings;         ///< the texts and ranges among the settings; writing the ini file

    static DBConnectionPool dbConnectionPoolUpstream;
    static DBConnectionPool dbConnectionPoolDownstream;
    static DBConnectionPool dbConnectionPoolCallback;
    static std::unique_ptr<DBConnection> pDbConnectionUpstream;
    static std::unique_ptr<DBConnection> pDbConnectionDownstream;
    static std::unique_ptr<DBConnection> pDbConnectionCallback;
    static DBSequenceManager dbSequenceManagerUpstream;
    static DBSequenceManager dbSequenceManagerDownstream;
    static DBSequenceManager dbSequenceManagerCallback;

    static FileStoreDeleteThread threadDelete;
    static FileStorePushThread threadPush;
    static FileStorePullThread threadPull;
    static FileStoreNotifyThread threadNotify;
    static FileStoreCallbackThread threadCallback;
    static FileStoreHandleThread threadHandler;
    static FileStoreMulticastThread threadMulticast;

    static FileStoreBandwidthManager bmTrackUsageUp;
    static FileStoreBandwidthManager bmTrackUsageDown;
    static FileStoreBandwidthManager bmTrackUsageMulticast;

    // identity of this device
    static KelString strOurGUID KEL_GUARDED_BY(mutexGUID);
    static KelString strOurHostName KEL_GUARDED_BY(mutexGUID);
    static KelString strOurIPAddress KEL_GUARDED_BY(mutexGUID);
    static std::atomic<std::uint32_t> ulOurHttpPort;  ///< 0: not yet known
    static std::atomic<bool> fPreferIPAddresses;
    static std::atomic<std::int32_t> eKeepCopyMask;  ///< 1 master, 2 relay, 4 client
    static std::atomic<bool> fRelayEnabled;

    // settings; times in seconds, sizes in bytes
    static std::atomic<bool> fPerformVacuum;
    static std::atomic<std::uint32_t> ulTimeToLive;
    static std::atomic<std::uint32_t> ulTimeout;
    static std::atomic<std::uint32_t> ulPushTimeout;
    static std::atomic<std::uint32_t> ulPullTimeout;
    static std::atomic<bool> fCheckAvailableFreeSpaceBeforeDownloading;
    static std::atomic<std::uint32_t> ulFreeSpaceReserve;  ///< megabytes
    static std::atomic<std::uint32_t> ulStoreQuota;        ///< megabytes; 0: none
    static std::atomic<bool> fEnableDialupDownloads;
    static std::atomic<bool> fEnableDialupUploads;
    static std::atomic<std::uint32_t> ulThresholdForDownloads;
    static std::atomic<std::uint32_t> ulThresholdForUploads;
    static std::atomic<std::uint32_t> ulFrameSize;
    static std::atomic<std::uint32_t> ulPackageTTL;  ///< days
    static std::atomic<std::uint32_t> ulKeepSentFiles;
    static std::atomic<std::uint32_t> ulMulticastBlockSize;
    static std::atomic<std::uint32_t> ulMulticastTransferDelay;
    static std::atomic<std::uint32_t> ulMulticastRetry;
    static KelString strMulticastTransferAddressRange KEL_GUARDED_BY(mutexSettings);
    static IpRange MulticastIpRange KEL_GUARDED_BY(mutexSettings);
    static std::atomic<std::uint32_t> ulMulticastTransferPort;
    static std::atomic<std::uint32_t> ulMulticastMinimumFileSize;
    static std::atomic<std::int32_t> iMulticastTTL;
    static std::atomic<std::uint32_t> ulMulticastMinimumRequests;
    static std::atomic<std::uint32_t> ulMulticastMinimumSuccessRate;  ///< per cent
    static std::atomic<bool> fMulticastDifferencialRetry;
    static std::atomic<bool> fUnicastRecoveryOnMulticastFailure;
    static KelString strTrustedAddressRange KEL_GUARDED_BY(mutexSettings);
    static IpRange TrustedIpRange KEL_GUARDED_BY(mutexSettings);
    static KelString strPackagesRepositoryPath KEL_GUARDED_BY(mutexSettings);
    static std::atomic<bool> fPackagesRepositoryCopy;
    static std::atomic<std::uint32_t> uKeepCopyPackageMaxSize;  ///< megabytes
    static KelString strStorageLocationToUse;                   ///< ends with "/"; set at initialisation

    // upload policy
    static std::atomic<bool> fConcatFiles;
    static std::atomic<bool> fAutoConcat;
    static KelString strExcludedFileType KEL_GUARDED_BY(mutexSettings);
    static std::atomic<std::int32_t> eArchiveType;
    static std::atomic<std::uint32_t> uMaxFilesToConcat;
    static KelString strArchiveFilePath;  ///< of the archive being filled; only the push thread uses it

    // manual upload
    static std::atomic<bool> fManualUploadRequested;
    static std::atomic<bool> fProcessManualUpload;
    static std::atomic<std::uint32_t> uLimit;
    static std::atomic<std::uint32_t> uCurrent;

    static KelVector<KelString> vecMulticastAddressInUse KEL_GUARDED_BY(mutexMulticastVector);
};
