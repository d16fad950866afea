#include <algorithm>
#include <array>

#include "filestore/file_store_fixture.h"
#include "filestore/module/action_gate.h"
#include "kelcore/callback_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/module.h"

namespace {

class Lifecycle : public FileStoreTest {
  protected:
    static bool AllThreadsRun() {
        const std::array<const KelThread*, 7> threads = {
            &FileStore::threadDelete,   &FileStore::threadPush,     &FileStore::threadPull,
            &FileStore::threadNotify,   &FileStore::threadCallback, &FileStore::threadHandler,
            &FileStore::threadMulticast};
        return std::all_of(threads.begin(), threads.end(),
                           [](const KelThread* thread) { return thread->IsThreadRunning(); });
    }
};

TEST_F(Lifecycle, RegistersTheActionsAndSubscriptions) {
    const std::array expected = {
        "FileStoreGetValues ()",
        "FileStoreSetValues (container Values)",
        "FileStoreRequestFile (string FileType, string FileLabel, string FileName, string Checksum)",
        "FileStoreRequestFileSize (string FileType, string FileLabel, string FileName, string Checksum)",
        "FileStoreAcknowledgeFile (string FileType, string FileLabel, string FileName, string Checksum)",
        "FileStoreReceiveFile (string FileType, string FileLabel, string FileName, string Checksum)",
        "FileStoreReceiveUnconnectedFile (string FileType, string FileLabel, string FileName, string "
        "Checksum)",
        "FileStoreHttpPutCallback (container Values)",
        "FileStoreGUIDCallback (string GUID)",
        "FileStoreIPCallback ()",
        "FileStoreTransferWindowCallback ()",
        "FileStoreListFiles ()",
        "FileStoreGetFileInfo (string strFileType, string strFileName, string strChecksum)",
        "FileStoreGetDeviceUrl ()",
        "FileStoreGetMulticastStatus ()",
        "FileStoreGetMulticastDetails ()",
        "FileStoreResetMulticastStatus ()",
        "FileStoreDeletePackage ()",
        "PackageSendSyncInfo ()",
        "FileStoreGetNotifiableFiles ()",
        "FileStoreGetFileInformation ()",
        "FileStorePerformManualUpload ()",
        "FileStoreIsPatchInventoryUploaded ()",
    };
    ASSERT_EQ(expected.size(), 23U);
    const KelVector<KelString> actions = ActionDbListActions();
    for (const char* signature : expected)
        EXPECT_NE(std::find(actions.begin(), actions.end(), signature), actions.end()) << signature;
    const std::array events = {"HttpProtocolCallbackPut", "IdentityCallbackGUIDChange",
                               "IdentityCallbackIPChange", "TransferWindowCallbackWindowChange"};
    for (const char* event : events)
        EXPECT_EQ(CallbackDbGetActionCount(event), 1U) << event;
    FileStore::ModuleUnregister(0);
    for (const char* event : events)
        EXPECT_EQ(CallbackDbGetActionCount(event), 0U) << event;
    EXPECT_TRUE(ActionDbIsActionRegistered("FileStoreGetValues"));
}

TEST_F(Lifecycle, RefusesCallsWhileTheDatabasesAreClosed) {
    KelContainer before;
    EXPECT_EQ(Call("FileStoreListFiles", before), kKelErrorNotAvailable);
    Initialise();
    KelContainer during;
    EXPECT_EQ(Call("FileStoreListFiles", during), kKelOk);
    CleanUp();
    KelContainer after;
    EXPECT_EQ(Call("FileStoreListFiles", after), kKelErrorNotAvailable);
    EXPECT_EQ(FileStore::pDbConnectionUpstream, nullptr);
}

TEST_F(Lifecycle, InitialisationFailsAndClosesWhatItOpenedWithoutADatabase) {
    WriteFile(Root() + "/data/FileStore/FileStore.sqlite/in-the-way", "");
    EXPECT_EQ(FileStore::ModuleInitialise(), kModuleFailure);
    EXPECT_EQ(FileStore::pDbConnectionUpstream, nullptr);
    EXPECT_EQ(FileStore::pDbConnectionDownstream, nullptr);
}

TEST_F(Lifecycle, ActivationPublishesTheFolders) {
    SetIni("AlternativePackagesRepository", "PackagesRepositoryPath", "/srv/packages");
    Initialise();
    Activate();
    const KelVector<KelContainer> removed = CallsOf("HttpProtocolDeleteAlias");
    ASSERT_EQ(removed.size(), 1U);
    EXPECT_EQ(removed[0].GetString("AliasName"), "FileStore");
    EXPECT_TRUE(removed[0].GetBool("CompletelyRemove"));
    const KelString data = Root() + "/data/FileStore";
    const std::array<std::pair<KelString, KelString>, 4> expected = {
        std::pair<KelString, KelString>{"FileStore/upstream", data + "/upstream"},
        {"FileStore/downstream", data + "/downstream"},
        {"FileStore", data},
        {"AlternativePackagesRepositoryPath", "/srv/packages"}};
    const KelVector<KelContainer> added = CallsOf("HttpProtocolAddAlias");
    ASSERT_EQ(added.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(added[i].GetString("AliasName"), expected[i].first);
        EXPECT_EQ(added[i].GetString("AliasPath"), expected[i].second);
    }
    EXPECT_TRUE(AllThreadsRun());
}

TEST_F(Lifecycle, FailedAliasesAreLoggedAndActivationGoesOn) {
    FakeResult("HttpProtocolAddAlias (string AliasName, string AliasPath)", 1);
    FakeResult("HttpProtocolDeleteAlias (string AliasName, bool CompletelyRemove)", 1);
    Initialise();
    Activate();
    EXPECT_TRUE(HasLogged(KelDebugLevel::Error, "Failed to completely remove alias FileStore"));
    EXPECT_TRUE(HasLogged(KelDebugLevel::Error, "Failed to add alias FileStore/upstream"));
    EXPECT_TRUE(HasLogged(KelDebugLevel::Error, "Failed to add alias FileStore/downstream"));
    EXPECT_TRUE(AllThreadsRun());
}

TEST_F(Lifecycle, WithoutAnyNeighbourAllThreadsStart) {
    ActionDbUnregisterAll("Fakes");
    Initialise();
    Activate();
    EXPECT_TRUE(HasLogged(KelDebugLevel::Warning, "HttpProtocolHandler's actions are not registered."));
    EXPECT_TRUE(AllThreadsRun());
    EXPECT_EQ(FileStore::eKeepCopyMask, 4);
    CleanUp();
    EXPECT_FALSE(FileStore::threadDelete.IsThreadRunning());
    EXPECT_FALSE(FileStore::threadMulticast.IsThreadRunning());
}

struct RoleCase {
    const char* name;
    bool master;
    bool relay;
    const char* concatFiles;
    int keepCopyMask;
    bool concat;
    bool automatic;
};

class Role : public FileStoreTest, public ::testing::WithParamInterface<RoleCase> {};

TEST_P(Role, IsDeterminedWithItsUploadPolicy) {
    const RoleCase& tested = GetParam();
    if (tested.master) BecomeMaster();
    relayValues.SetBool("IsEnabled", tested.relay);
    SetIni("UploadPolicy", "ConcatFiles", tested.concatFiles);
    SetIni("UploadPolicy", "ExcludedFileType", "Inventory");
    SetIni("UploadPolicy", "MaxFilesToConcat", "7");
    SetIni("UploadPolicy", "ArchiveType", "TAR");
    Initialise();
    Activate();
    EXPECT_EQ(FileStore::eKeepCopyMask, tested.keepCopyMask);
    EXPECT_EQ(FileStore::fConcatFiles, tested.concat);
    EXPECT_EQ(FileStore::fAutoConcat, tested.automatic);
    EXPECT_EQ(FileStore::eArchiveType, 1);
    const bool readsPolicy = tested.relay && !tested.master;
    EXPECT_EQ(FileStore::strExcludedFileType, readsPolicy ? "Inventory" : "");
    EXPECT_EQ(FileStore::uMaxFilesToConcat, readsPolicy ? 7U : 50U);
}

INSTANTIATE_TEST_SUITE_P(
    Module, Role,
    ::testing::Values(RoleCase{"Client", false, false, "auto", 4, false, false},
                      RoleCase{"RelayPackingItself", false, true, "Auto", 2, true, true},
                      RoleCase{"RelayPackingOnDemand", false, true, "manual", 2, true, false},
                      RoleCase{"RelayNotPacking", false, true, "sometimes", 2, false, false},
                      RoleCase{"MasterWithRelay", true, true, "auto", 1, false, false}),
    [](const auto& tested) { return KelString(tested.param.name); });

TEST_F(Lifecycle, ActivationRepairsInterruptedMulticast) {
    Initialise();
    const unsigned long waiting =
        AddFile(false, "waiting", filestore::kStatusMulticastListening, [](FileStoreEntry& entry) {
            entry.FileSize = 4711;
            entry.Acknowledged = true;
            entry.LastStatusChangeTime = 99;
        });
    AddFile(false, "sending", filestore::kStatusAvailable, [](FileStoreEntry& entry) {
        entry.FileSize = 12;
        entry.Acknowledged = true;
        entry.MulticastTransferToBeStarted = true;
    });
    Activate();
    const KelString select =
        "SELECT FileName, FileStatus, FileSize, Acknowledged, LastStatusChangeTime, "
        "MulticastTransferToBeStarted FROM Files ORDER BY FileId";
    EXPECT_EQ(waiting, 1U);
    EXPECT_EQ(Rows(Downstream(), select),
              (KelVector<KelString>{"waiting|_AGTMOD_FILESTORESTATUS_TOBEREQUESTED_|0|0|0|0",
                                    "sending|_AGTMOD_FILESTORESTATUS_AVAILABLE_|12|1|0|0"}));
}

TEST(ActionGate, CloseWaitsForCallsInsideAndLetsTheirInnerCallsPass) {
    FileStoreActionGate gate;
    gate.Open();
    std::thread closer;
    std::atomic<bool> closed = false;
    {
        const FileStoreActionGate::Pass outer(gate);
        ASSERT_TRUE(outer.IsGranted());
        closer = std::thread([&] {
            gate.Close();
            closed = true;
        });
        bool refused = false;  // a caller on another thread, once the gate is closing
        while (!refused)
            std::thread([&] { refused = !FileStoreActionGate::Pass(gate).IsGranted(); }).join();
        EXPECT_FALSE(closed);
        const FileStoreActionGate::Pass inner(gate);
        EXPECT_TRUE(inner.IsGranted());
    }
    closer.join();
    EXPECT_TRUE(closed);
}

}  // namespace
