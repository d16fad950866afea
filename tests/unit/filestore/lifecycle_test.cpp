#include <algorithm>
#include <atomic>
#include <thread>

// The entry function is not among the module's objects: it belongs to the shared library alone.
#include "filestore/module_main.cpp"

#include "filestore/file_store_fixture.h"
#include "filestore/module/action_gate.h"
#include "filestore/state/worker_loop.h"
#include "kelcore/callback_db.h"

namespace {

struct Lifecycle : FileStoreTest {
    static long RunningThreads() {
        const auto workers = FileStore::Workers();
        return std::count_if(workers.begin(), workers.end(),
                             [](const KelThread* thread) { return thread->IsThreadRunning(); });
    }
};

TEST_F(Lifecycle, EventsAreSubscribedUntilTheModuleIsUnregistered) {
    for (const unsigned int subscribers : {1U, 0U}) {
        for (const char* event : {"HttpProtocolCallbackPut", "IdentityCallbackGUIDChange",
                                  "IdentityCallbackIPChange", "TransferWindowCallbackWindowChange"})
            EXPECT_EQ(CallbackDbGetActionCount(event), subscribers) << event;
        FileStore::ModuleUnregister(0);
    }
}

TEST_F(Lifecycle, ActionsRefuseCallsWhileTheDatabasesAreClosed) {
    const auto signatures = ActionDbListActions();
    Initialise();
    Ask("FileStoreListFiles");
    CleanUp();
    EXPECT_EQ(FileStore::pDbConnectionUpstream, nullptr);
    int actions = 0;
    for (const KelString& signature : signatures) {
        if (!signature.starts_with("FileStore") && !signature.starts_with("Package")) continue;
        ++actions;
        Ask(signature.substr(0, signature.find(' ')), {}, kKelErrorNotAvailable);
    }
    EXPECT_EQ(actions, 29);
}

TEST_F(Lifecycle, InitialisationFailsAndClosesWhatItOpenedWithoutADatabase) {
    WriteFile(Root() + "/data/FileStore/FileStore.sqlite/in-the-way", "");
    EXPECT_EQ(FileStore::ModuleInitialise(), kModuleFailure);
    EXPECT_EQ(FileStore::pDbConnectionUpstream, nullptr);
    EXPECT_EQ(FileStore::pDbConnectionDownstream, nullptr);
}

TEST_F(Lifecycle, ActivationPublishesTheFoldersAndStartsTheThreads) {
    SetIni("AlternativePackagesRepository", "PackagesRepositoryPath", "/srv/packages");
    Initialise();
    Activate();
    EXPECT_EQ(OnlyCallOf("HttpProtocolDeleteAlias"),
              Make({{"AliasName", "FileStore"}, {"CompletelyRemove", true}}));
    Texts added;
    for (const KelContainer& call : CallsOf("HttpProtocolAddAlias"))
        added.push_back(Read(call, "AliasName AliasPath"));
    const KelString data = Root() + "/data/FileStore";
    EXPECT_EQ(added, (Texts{"FileStore/upstream|" + data + "/upstream",
                            "FileStore/downstream|" + data + "/downstream", "FileStore|" + data,
                            "AlternativePackagesRepositoryPath|/srv/packages"}));
    EXPECT_EQ(RunningThreads(), 7);
    CleanUp();
    EXPECT_EQ(RunningThreads(), 0);
}

TEST_F(Lifecycle, ActivationGoesOnWithNeighboursThatFailOrAreAbsent) {
    FakeResult("HttpProtocolAddAlias (string AliasName, string AliasPath)", 1);
    FakeResult("HttpProtocolDeleteAlias (string AliasName, bool CompletelyRemove)", 1);
    for (const auto& [level, text] : Table<KelDebugLevel, const char*>{
             {KelDebugLevel::Error, "Failed to add alias FileStore/downstream"},
             {KelDebugLevel::Warning, "HttpProtocolHandler's actions are not registered."}}) {
        Initialise();
        Activate();
        EXPECT_TRUE(HasLogged(level, text));
        EXPECT_EQ(RunningThreads(), 7);
        CleanUp();
        ActionDbUnregisterAll("Fakes");
    }
}

TEST_F(Lifecycle, RoleIsDeterminedWithItsUploadPolicy) {
    SetIni("UploadPolicy", "ExcludedFileType", "Inventory");
    SetIni("UploadPolicy", "MaxFilesToConcat", "7");
    SetIni("UploadPolicy", "ArchiveType", "TAR");
    for (const auto& [isMaster, isRelay, setting, keepCopyMask, packing] :
         Table<bool, bool, const char*, int, const char*>{{false, false, "auto", 4, "none"},
                                                          {false, true, "Auto", 2, "auto"},
                                                          {false, true, "manual", 2, "manual"},
                                                          {false, true, "sometimes", 2, "none"},
                                                          {true, true, "auto", 1, "none"}}) {
        SCOPED_TRACE(KelFormat("master %d, relay %d, %s", isMaster, isRelay, setting));
        if (isMaster) BecomeMaster();
        relayValues.SetBool("IsEnabled", isRelay);
        SetIni("UploadPolicy", "ConcatFiles", setting);
        Initialise();
        Activate();
        EXPECT_EQ(FileStore::eKeepCopyMask, keepCopyMask);
        EXPECT_EQ(FileStore::eArchiveType, 1);
        const KelContainer values = Ask("FileStoreGetValues").GetContainer("Values");
        EXPECT_EQ(values.GetString("ConcatFiles"), packing);
        if (isRelay) {
            EXPECT_EQ(Read(values, "ExcludedFileType"), "Inventory");
            EXPECT_EQ(FileStore::uMaxFilesToConcat, 7U);
        }
        CleanUp();
    }
}

TEST_F(Lifecycle, StartRepairsWhatAnEarlierRunInterrupted) {
    Initialise();
    for (const char* status : {"MULTICASTLISTENING", "AVAILABLE", "RECEIVING"})
        AddFile(kDown, "n", status,
                "FileSize = 12, Acknowledged = 1, LastStatusChangeTime = 99, "
                "MulticastTransferToBeStarted = 1");
    CleanUp();
    Initialise();
    AddFile(kDown, "offered before activation", "RECEIVING");
    Activate();
    EXPECT_EQ(
        Rows(kDown,
             "SELECT FileStatus, FileSize, Acknowledged, LastStatusChangeTime, "
             "MulticastTransferToBeStarted FROM Files ORDER BY FileId"),
        (Texts{"TOBEREQUESTED|0|0|0|0", "AVAILABLE|12|1|99|0", "MISSING|12|1|0|0", "RECEIVING|0|0|0|0"}));
}

TEST_F(Lifecycle, EntryDrivesALifeAndASecondOneAndAnswersTexts) {
    char handle[] = "FileStore", buffer[kModuleTextBytes];
    for (int life = 0; life < 2; ++life) {
        for (const unsigned int operation : {1U, 3U, 4U})  // registration, initialisation, activation
            EXPECT_EQ(ModuleMain(operation, 0, handle), 1U);
        EXPECT_EQ(Ask("FileStoreGetDeviceUrl").GetString("DeviceUrl"), kOwnUrl);
        for (const unsigned int operation : {9U, 5U, 2U})  // suspension and the ends
            EXPECT_EQ(ModuleMain(operation, 0, nullptr), 1U);
    }
    for (const auto& [operation, text] : Table<unsigned int, const char*>{
             {6, "File store module"}, {7, "11.5.0.121004r - Oct  4 2012 - 17:21:12"}}) {
        EXPECT_EQ(ModuleMain(operation, 0, buffer), 1U);
        EXPECT_STREQ(buffer, text);
    }
    for (const unsigned int operation : {0U, 8U, 10U, 4096U})
        EXPECT_EQ(ModuleMain(operation, 0, nullptr), 5U);
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
