#include "filestore/file_store_fixture.h"
#include "filestore/up/push_thread.h"

namespace {

/// Starts that must not end in an agent that takes files and does not move them.
using Start = FileStoreTest;

TEST_F(Start, FailsWithoutTheTables) {
    const KelString shipped = Content(FileStore::strModuleIniFile);
    const auto without = [&shipped](const KelString& section) {
        KelString text = shipped;
        text.replace(text.find("\n[" + section + "]\n"), section.size() + 4, "\n[Unused]\n");
        return text;
    };
    for (const KelString& ini :
         {KelString(), without("SqlUpgrade"), without("SqlUpgrade2"), without("SqlUpgrade3"),
          KelString("[SqlUpgrade3]\nSql1=CREATE NO TABLE\n")}) {
        WriteFile(FileStore::strModuleIniFile, ini);
        EXPECT_EQ(FileStore::ModuleInitialise(), kModuleFailure);
        EXPECT_EQ(FileStore::pDbConnectionUpstream, nullptr);
        EXPECT_TRUE(HasLogged(KelDebugLevel::Error, FileStore::strModuleIniFile));
    }
    ASSERT_TRUE(FileDelete(FileStore::strModuleIniFile));
    EXPECT_EQ(FileStore::ModuleInitialise(), kModuleFailure);
    WriteFile(FileStore::strModuleIniFile, shipped);
    Initialise();
}

TEST_F(Start, TakesNoFilesWithoutItsThreads) {
    Initialise();
    ASSERT_TRUE(FileStore::threadPush.Start());  // so that it cannot be started
    EXPECT_EQ(FileStore::ModuleActivate(), kModuleFailure);
    EXPECT_FALSE(FileStore::threadPush.IsThreadRunning());
    Ask("FileStoreListFiles", {}, kKelErrorNotAvailable);
    CleanUp();
    Initialise();
    Activate();
    Ask("FileStoreListFiles");
}

TEST_F(Start, RelativeStorageLocationCountsFromTheDataFolder) {
    SetIni("Directories", "FileStorage", "store/");
    FileStore::strModuleDataPath = Root() + "/data/FileStore";
    EXPECT_EQ(FileStore::GetFileStorageDirectory(), Root() + "/data/FileStore/store/");
}

}  // namespace
