#include <algorithm>
#include <atomic>
#include <semaphore>
#include <stdexcept>
#include <thread>

// The entry function is not among the module's objects: it belongs to the shared library alone.
#include "filestore/module_main.cpp"

#include "filestore/file_store_fixture.h"
#include "filestore/module/action_gate.h"
#include "filestore/state/worker_loop.h"
#include "filestore/up/push_thread.h"

namespace {

struct Lifecycle : StoreTest {
    Lifecycle() { CleanUp(); }

    static void ExpectRunning(long threads, unsigned int subscribers) {
        const auto workers = FileStore::Workers();
        EXPECT_EQ(std::count_if(workers.begin(), workers.end(),
                                [](const KelThread* thread) { return thread->IsThreadRunning(); }),
                  threads);
        for (const char* event : {"HttpProtocolCallbackPut", "IdentityCallbackGUIDChange",
                                  "IdentityCallbackIPChange", "TransferWindowCallbackWindowChange"})
            EXPECT_EQ(CallbackDbGetActionCount(event), subscribers) << event;
    }
};

TEST_F(Lifecycle, ActionsRefuseCallsWhileTheDatabasesAreClosed) {
    int actions = 0;
    for (const KelContainer& action : ActionDbListActions()) {
        const KelString name = action.GetString("Name");
        if (!name.starts_with("FileStore") && !name.starts_with("Package")) continue;
        ++actions;
        EXPECT_NE(action.GetString("Callers"), "") << name << ": say who may call it";
        Ask(name, {}, kKelErrorNotAvailable);
    }
    EXPECT_EQ(actions, 35);
}

TEST_F(Lifecycle, InitialisationFailsWithoutItsTablesOrADatabaseAndClosesWhatItOpened) {
    const KelString shipped = Content(FileStore::strModuleIniFile), data = Root() + "/data/FileStore/";
    const auto without = [&shipped](const KelString& section) {
        KelString text = shipped;
        return text.replace(text.find("\n[" + section + "]\n"), section.size() + 4, "\n[Unused]\n");
    };
    for (const KelString& ini :
         {KelString(), without("SqlUpgrade"), without("SqlUpgrade2"), without("SqlUpgrade3"),
          KelString("[SqlUpgrade3]\nSql1=CREATE NO TABLE\n"), shipped}) {
        DirDelete(data, true);
        WriteFile(FileStore::strModuleIniFile, ini);
        if (ini == shipped) WriteFile(data + "FileStore.sqlite/in-the-way", "");
        EXPECT_EQ(FileStore::ModuleInitialise(), kModuleFailure);
        EXPECT_EQ(FileStore::pDbConnectionUpstream, nullptr);
        EXPECT_EQ(FileStore::pDbConnectionDownstream, nullptr);
        EXPECT_FALSE(log_->TakeProblems().empty());
    }
    FileDelete(FileStore::strModuleIniFile);
    EXPECT_EQ(FileStore::ModuleInitialise(), kModuleFailure);
}

TEST_F(Lifecycle, NoFilesAreTakenWithoutTheThreads) {
    Initialise();
    ASSERT_TRUE(FileStore::threadPush.Start());  // so that it cannot be started
    EXPECT_EQ(FileStore::ModuleActivate(), kModuleFailure);
    EXPECT_FALSE(FileStore::threadPush.IsThreadRunning());
    Ask("FileStoreListFiles", {}, kKelErrorNotAvailable);
}

TEST_F(Lifecycle, ActivationPublishesTheFoldersAndGoesOnWithNeighboursThatFailOrAreAbsent) {
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
    CleanUp();
    FakeResult("HttpProtocolAddAlias ()", 1);
    FakeResult("HttpProtocolDeleteAlias ()", 1);
    for (const char* warning : {"Failed to add alias FileStore/downstream", "actions are not registered"}) {
        Initialise();
        Activate();
        ExpectRunning(7, 1);
        EXPECT_TRUE(HasLogged(KelDebugLevel::Warning, warning));
        CleanUp();
        ActionDbUnregisterAll("neighbours");
    }
}

TEST_F(Lifecycle, RoleIsDeterminedWithItsUploadPolicy) {
    for (const char* entry : {"ExcludedFileType", "MaxFilesToConcat", "ArchiveType"})
        SetIni("UploadPolicy", entry, "7");
    for (const auto& [isMaster, isRelay, setting, keepCopyMask, packing] :
         Table<bool, bool, const char*, int, KelString>{{false, false, "auto", 4, "none||50"},
                                                        {false, true, "Auto", 2, "auto|7|7"},
                                                        {false, true, "manual", 2, "manual|7|7"},
                                                        {false, true, "sometimes", 2, "none|7|7"},
                                                        {true, true, "auto", 1, "none|7|7"}}) {
        SCOPED_TRACE(KelFormat("master %d, relay %d, %s", isMaster, isRelay, setting));
        if (isMaster) BecomeMaster();
        relayValues.SetBool("IsEnabled", isRelay);
        SetIni("UploadPolicy", "ConcatFiles", setting);
        Initialise();
        Activate();
        EXPECT_EQ(FileStore::eKeepCopyMask, keepCopyMask);
        EXPECT_EQ(FileStore::eArchiveType, 1);
        EXPECT_EQ(Read(Ask("FileStoreGetValues").GetContainer("Values"),
                       "ConcatFiles ExcludedFileType MaxFilesToConcat"),
                  packing);
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
    EXPECT_EQ(Fields(kDown, 3, kState), "MISSING|0");
    Rows(kDown, "DELETE FROM Files WHERE FileId = 3");  // which the threads would ask for
    AddFile(kDown, "offered before activation", "RECEIVING");
    relayValues.SetBool("ParentSync", false);  // so that no thread asks for a file yet
    Activate();
    // Not the time: the first may have been requested already.
    EXPECT_EQ(Files(kDown, "FileStatus, FileSize, Acknowledged, MulticastTransferToBeStarted"),
              (Texts{"TOBEREQUESTED|0|0|0", "AVAILABLE|12|1|0", "RECEIVING|0|0|0"}));
}

TEST_F(Lifecycle, EntryDrivesALifeAndASecondOne) {
    char handle[] = "FileStore";
    for (int life = 0; life < 2; ++life) {
        for (const unsigned int operation : {1U, 3U, 4U})  // registration, initialisation, activation
            EXPECT_EQ(ModuleMain(operation, 0, handle), 1U);
        ExpectRunning(7, 1);
        EXPECT_EQ(Ask("FileStoreGetDeviceUrl").GetString("DeviceUrl"), kOwnUrl);
        for (const unsigned int operation : {9U, 5U, 2U})  // suspension and the ends
            EXPECT_EQ(ModuleMain(operation, 0, nullptr), 1U);
        ExpectRunning(0, 0);
    }
    for (const unsigned int operation : {0U, 8U, 10U, 4096U})
        EXPECT_EQ(ModuleMain(operation, 0, nullptr), 5U);
}

TEST(ActionGate, CloseWaitsForCallsInsideAndLetsTheirInnerCallsPass) {
    FileStoreActionGate gate;
    gate.Open();
    std::jthread closer;
    std::atomic<bool> closed = false;
    {
        const FileStoreActionGate::Pass outer(gate);
        ASSERT_TRUE(outer.IsGranted());
        closer = std::jthread([&] {
            gate.Close();
            closed = true;
        });
        bool refused = false;  // a caller on another thread, once the gate is closing
        while (!refused)
            std::jthread([&] { refused = !FileStoreActionGate::Pass(gate).IsGranted(); }).join();
        EXPECT_FALSE(closed);
        EXPECT_TRUE(FileStoreActionGate::Pass(gate).IsGranted()) << "an inner call";
    }
    closer.join();
    EXPECT_TRUE(closed);
}

struct CountingThread : FileThreadBase {
    CountingThread() : FileThreadBase("FileStore", "TestGap", 3600) {}
    ~CountingThread() override {
        Cancel(0, false);
        Join();
    }
    std::counting_semaphore<> begun{0};  ///< released at the begin of every step
    int steps = 0;

    bool DoWork() override {
        begun.release();
        if (++steps == 1) throw std::runtime_error("no space");
        return false;
    }
};

TEST_F(Lifecycle, WorkerWakesAtOnceOutlivesAFailedStepAndEndsWhenItsSettingIsZero) {
    CountingThread thread, cancelled;
    thread.WakeUp();  // not running: no signal is kept
    ASSERT_TRUE(thread.Start() && cancelled.Start());
    for (int step = 0; step < 2; ++step) {
        thread.WakeUp();
        thread.begun.acquire();
    }
    EXPECT_TRUE(HasLogged(KelDebugLevel::Error, "no space"));
    SetIni("FileStore", "TestGap", "0");
    thread.WakeUp();
    thread.Join();  // returns when the thread has ended
    cancelled.Cancel(0, false);
    cancelled.Join();
    EXPECT_EQ(cancelled.steps, 0) << "a cancelled pause ends a thread without work";
}

}  // namespace
