#include "filestore/state/file_store.h"

#include <array>

#include "filestore/down/multicast_thread.h"
#include "filestore/down/notify_thread.h"
#include "filestore/down/pull_thread.h"
#include "filestore/module/cleanup_thread.h"
#include "filestore/state/bandwidth_manager.h"
#include "filestore/up/callback_thread.h"
#include "filestore/up/handle_thread.h"
#include "filestore/up/push_thread.h"
#include "kelcore/db/connection.h"
#include "kelcore/db/connection_pool.h"
#include "kelcore/db/sequence_manager.h"

// All static members stand in one file, so that they are made in this order and destroyed in the reverse one:
// the log outlives all that may write to it, the mutexes and connections outlive the threads.

KelDebug FileStore::debugFileStore("FileStore", "File store module");
KelFailureLog FileStore::failures(FileStore::debugFileStore);
KelString FileStore::strModuleIniFile;
KelString FileStore::strModuleDataPath;
const char FileStore::szBuildNumber[] = "121004r";

KelMutex FileStore::mutexUpstream;
KelMutex FileStore::mutexDownstream;
KelMutex FileStore::mutexCallback;
KelMutex FileStore::mutexGUID;
KelMutex FileStore::mutexMulticastVector;
KelMutex FileStore::mutexSettings;

DBConnectionPool FileStore::dbConnectionPoolUpstream;
DBConnectionPool FileStore::dbConnectionPoolDownstream;
DBConnectionPool FileStore::dbConnectionPoolCallback;
std::unique_ptr<DBConnection> FileStore::pDbConnectionUpstream;
std::unique_ptr<DBConnection> FileStore::pDbConnectionDownstream;
std::unique_ptr<DBConnection> FileStore::pDbConnectionCallback;
DBSequenceManager FileStore::dbSequenceManagerUpstream;
DBSequenceManager FileStore::dbSequenceManagerDownstream;
DBSequenceManager FileStore::dbSequenceManagerCallback;

FileStoreBandwidthManager FileStore::bmTrackUsageUp;
FileStoreBandwidthManager FileStore::bmTrackUsageDown;
FileStoreBandwidthManager FileStore::bmTrackUsageMulticast;

KelString FileStore::strOurGUID;
KelString FileStore::strOurHostName;
KelString FileStore::strOurIPAddress;
std::atomic<std::uint32_t> FileStore::ulOurHttpPort = 0;
std::atomic<bool> FileStore::fPreferIPAddresses = false;
std::atomic<std::int32_t> FileStore::eKeepCopyMask = 4;
std::atomic<bool> FileStore::fRelayEnabled = false;

std::atomic<bool> FileStore::fPerformVacuum = true;
std::atomic<std::uint32_t> FileStore::ulTimeToLive = 86400;
std::atomic<std::uint32_t> FileStore::ulTimeout = 300;
std::atomic<std::uint32_t> FileStore::ulPushTimeout = 300;
std::atomic<std::uint32_t> FileStore::ulPullTimeout = 300;
std::atomic<bool> FileStore::fCheckAvailableFreeSpaceBeforeDownloading = false;
std::atomic<std::uint32_t> FileStore::ulFreeSpaceReserve = 64;
std::atomic<std::uint32_t> FileStore::ulStoreQuota = 0;
std::atomic<bool> FileStore::fEnableDialupDownloads = true;
std::atomic<bool> FileStore::fEnableDialupUploads = true;
std::atomic<std::uint32_t> FileStore::ulThresholdForDownloads = 0;
std::atomic<std::uint32_t> FileStore::ulThresholdForUploads = 0;
std::atomic<std::uint32_t> FileStore::ulFrameSize = 1492;
std::atomic<std::uint32_t> FileStore::ulPackageTTL = 200;
std::atomic<std::uint32_t> FileStore::ulKeepSentFiles = 86400;
std::atomic<std::uint32_t> FileStore::ulMulticastBlockSize = 1024;
std::atomic<std::uint32_t> FileStore::ulMulticastTransferDelay = 60;
std::atomic<std::uint32_t> FileStore::ulMulticastRetry = 3;
KelString FileStore::strMulticastTransferAddressRange;
IpRange FileStore::MulticastIpRange;
std::atomic<std::uint32_t> FileStore::ulMulticastTransferPort = 1500;
std::atomic<std::uint32_t> FileStore::ulMulticastMinimumFileSize = 65536;
std::atomic<std::int32_t> FileStore::iMulticastTTL = 1;
std::atomic<std::uint32_t> FileStore::ulMulticastMinimumRequests = 2;
std::atomic<std::uint32_t> FileStore::ulMulticastMinimumSuccessRate = 50;
std::atomic<bool> FileStore::fMulticastDifferencialRetry = false;
std::atomic<bool> FileStore::fUnicastRecoveryOnMulticastFailure = true;
KelString FileStore::strTrustedAddressRange;
IpRange FileStore::TrustedIpRange;
KelString FileStore::strPackagesRepositoryPath;
std::atomic<bool> FileStore::fPackagesRepositoryCopy = true;
std::atomic<std::uint32_t> FileStore::uKeepCopyPackageMaxSize = 0;
KelString FileStore::strStorageLocationToUse;

std::atomic<bool> FileStore::fConcatFiles = false;
std::atomic<bool> FileStore::fAutoConcat = false;
KelString FileStore::strExcludedFileType;
std::atomic<std::int32_t> FileStore::eArchiveType = 1;
std::atomic<std::uint32_t> FileStore::uMaxFilesToConcat = 50;
KelString FileStore::strArchiveFilePath;

std::atomic<bool> FileStore::fManualUploadRequested = false;
std::atomic<bool> FileStore::fProcessManualUpload = false;
std::atomic<std::uint32_t> FileStore::uLimit = 0;
std::atomic<std::uint32_t> FileStore::uCurrent = 0;

KelVector<KelString> FileStore::vecMulticastAddressInUse;

FileStoreDeleteThread FileStore::threadDelete;
FileStorePushThread FileStore::threadPush;
FileStorePullThread FileStore::threadPull;
FileStoreNotifyThread FileStore::threadNotify;
FileStoreCallbackThread FileStore::threadCallback;
FileStoreHandleThread FileStore::threadHandler;
FileStoreMulticastThread FileStore::threadMulticast;

std::span<FileThreadBase* const> FileStore::Workers() {
    static const std::array<FileThreadBase*, 7> workers = {
        &FileStore::threadDelete,   &FileStore::threadPush,     &FileStore::threadPull,
        &FileStore::threadNotify,   &FileStore::threadCallback, &FileStore::threadHandler,
        &FileStore::threadMulticast};
    return workers;
}

void FileStore::WakeWorker(Worker worker, unsigned long reason) {
    Workers()[static_cast<std::size_t>(worker)]->WakeUp(reason);
}
