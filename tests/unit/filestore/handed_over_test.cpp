#include "filestore/db/files_table.h"
#include "filestore/down/notify_thread.h"
#include "filestore/file_store_fixture.h"

using namespace filestore;

namespace {

constexpr const char* kAction = "FileStoreGetUntakenFiles";

/// What the store remembers of the files that it has given to the modules of this device.
struct HandedOver : StoreTest {
    /// A file of t/l/name/checksum that is handed over.
    std::uint64_t HandOver(const KelString& name, const KelString& set = "Acknowledged = 1") {
        const std::uint64_t fileId = AddFile(kDown, name, "AVAILABLE", "Acknowledged = 1, " + set);
        AddTarget(fileId, fileId, "");
        FileStore::threadNotify.NotifyUnicastTargets(0, 0);
        return fileId;
    }
    static KelContainer Taken(const KelString& name, const KelString& checksum = "c") {
        return Make(
            {{"Taken",
              Make(
                  {{"FileType", "t"}, {"FileLabel", "l"}, {"FileName", name}, {"FileChecksum", checksum}})}});
    }
    /// Name and checksum of each file that none has taken.
    static Texts Untaken() {
        const KelContainer answer = Ask(kAction);
        Texts files;
        for (std::uint32_t i = 0; answer.Has("Values") && i < answer.Count("Values"); ++i)
            files.push_back(Read(answer.GetContainer("Values", i), "FileName FileChecksum"));
        return files;
    }
    const std::shared_ptr<void> delivery_ = Consume("FileStoreCallbackReceivedFile", "TestConsume ()");
};

TEST_F(HandedOver, FilesAreRememberedUntilAModuleHasTakenThem) {
    Fake("TestConsume ()", [](KelContainer& file) {
        if (file.GetString("FileName") == "taken") Ask(kAction, Taken("taken"));
        return 44001U;
    });
    for (const char* name : {"taken", "refused", "replaced", "deleted"})
        HandOver(name);
    HandOver("replaced", "FileChecksum = 'd'");
    HandOver("other", "FileStatus = #NOTRELAYSCHILD#");  // a rule file is handed over in its place
    EXPECT_EQ(Count(kDown, "Targets"), "0");
    EXPECT_EQ(Untaken(), (Texts{"refused|c", "replaced|c", "deleted|c", "replaced|d"}));
    EXPECT_EQ(Read(Ask(kAction).GetContainer("Values"), "FilePath"),
              FileStore::StorePath(kDown, {"t", "l", "refused", "c"}));

    Ask(kAction, Taken("replaced", "d"));
    DeleteFileRow(kDown, 4);
    CleanUp();
    Initialise();
    EXPECT_EQ(Untaken(), Texts{"refused|c"}) << "what was replaced must not come back";
    Ask(kAction, From({}, "127.0.1.9"), kKelErrorBadInput);
    Ask(kAction, From(Taken("refused"), "127.0.1.9"), kKelErrorBadInput);
    EXPECT_EQ(Untaken().size(), 1U);
}

TEST_F(HandedOver, FilesThatCannotBeRememberedAreNotHandedOver) {
    FakeResult("TestConsume ()", 0);
    {
        const auto refusal = Refuse(kDown, "INSERT ON HandedOver");
        HandOver("n");
        EXPECT_TRUE(CallsOf("TestConsume").empty());
    }
    FileStore::threadNotify.NotifyUnicastTargets(0, 0);
    EXPECT_EQ(CallsOf("TestConsume").size(), 1U);
}

}  // namespace
