#include <sys/stat.h>

#include "delivery_fixture.h"
#include "kel/text.h"
#include "on_threads.h"

namespace {

TEST_F(DeliveryTest, FilesGoToTheirFolders) {
    WriteIni("Delivery", "[Folders]\nScript=" + root_ / "scripts" + "\nRules=Own\n");
    RunningModule<Delivery> module;
    for (const auto& [type, name, path] :
         {std::tuple{"Package", "a b'c%.bin", InboxPath("Package", "a b'c%.bin")},
          {"Script", "s.sh", root_ / "scripts/label/s.sh"},
          {"Rules", "r", root_ / "data/Delivery/Own/label/r"}}) {
        EXPECT_EQ(Announce(Stored(type, name, type)), 0U);
        EXPECT_EQ(TempFolder::Read(path), type);
    }

    TempFolder::Write(InboxPath("Package", ".kel-abcdef"), "a copy in progress");
    const KelContainer list = Call("DeliveryListFiles");
    ASSERT_EQ(list.Count("Values"), 3U);
    ExpectValues(list.GetContainer("Values"), {"FileType=Package", "FileChecksum=" + TextMd5("Package")});
}

/// Another user of the device may write in a folder that the agent delivers to.
TEST_F(DeliveryTest, LinksInASharedFolderLeadNowhere) {
    const std::string outside = root_ / "outside", inbox = root_ / "data/Delivery/Inbox/";
    RunningModule<Delivery> module;
    TempFolder::Write(outside + "/f", "text");
    const auto plant = [&](const std::string& link, const std::string& target) {
        std::filesystem::remove_all(inbox);
        std::filesystem::create_directories(std::filesystem::path(inbox + link).parent_path());
        std::filesystem::create_symlink(target, inbox + link);
    };
    for (const auto& [link, name] : std::initializer_list<std::array<std::string, 2>>{
             {"T", "a"}, {"T/label", "a"}, {"T/label/sub", "sub%2Fa"}, {"T/label/a/b", "a%2Fb%2Fc"}}) {
        plant(link, outside);
        const KelContainer file = Stored("T", name, "for " + link);
        EXPECT_EQ(Announce(file), 0U) << link;
        EXPECT_EQ(log_->Count(KelDebugLevel::Warning, link + " is in the way"), 1) << link;
        const FilePlace place{inbox, "T/label/" + ReplaceAll(name, "%2F", "/")};
        EXPECT_FALSE(PlaceCopy(file.GetString("FilePath"), place, {})) << "planted after the check: " << link;
    }
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(outside), {}), 1);
    plant("T/label/f", outside + "/f");
    EXPECT_FALSE(Call("DeliveryListFiles").Has("Values")) << "it names a file elsewhere";
    EXPECT_EQ(Announce(Stored("T", "f", "text")), 0U);
    EXPECT_FALSE(std::filesystem::is_symlink(inbox + "T/label/f"))
        << "replaced, though the content was the same";
}

TEST_F(DeliveryTest, FilesAndTheirFoldersAreOpenToWhomTheSettingSays) {
    const mode_t before = ::umask(077);
    for (const auto& [access, file, folder] : std::initializer_list<std::tuple<std::string, int, int>>{
             {"all", 0644, 0755}, {"group", 0640, 0750}}) {
        WriteIni("Delivery", "[Delivery]\nAccess=" + access + "\n");
        RunningModule<Delivery> module;
        EXPECT_EQ(Announce(Stored(access, "f", access)), 0U);
        const std::string path = InboxPath(access, "f");
        EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(file));
        EXPECT_EQ(std::filesystem::status(InboxPath(access, "..")).permissions(),
                  std::filesystem::perms(folder));
    }
    ::umask(before);
    WriteIni("Delivery", "[Commands]\nT=/bin/true secret\n");
    std::filesystem::permissions(root_ / "config/Delivery.ini", std::filesystem::perms(0644));
    RunningModule<Delivery> refused(Start::Fails);
    EXPECT_TRUE(log_->Count(KelDebugLevel::Error, "chmod 600") == 1);
}

TEST_F(DeliveryTest, NewContentReplacesAndTheSameContentChangesNothing) {
    ActiveModule<Delivery> module;
    ASSERT_EQ(Announce(Stored("T", "f", "old")), 0U);
    const KelContainer file = Stored("T", "f", "new!");
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(Announce(file), 0U);
    EXPECT_EQ(TempFolder::Read(InboxPath("T", "f")), "new!");
    EXPECT_TRUE(AllJobsEnd());
    ExpectValues(Call("DeliveryListFiles").GetContainer("Values"), {"FileChecksum=" + TextMd5("new!")});
    const auto time = std::filesystem::last_write_time(InboxPath("T", "f"));
    std::filesystem::remove(file.GetString("FilePath"));
    EXPECT_EQ(Announce(file), 0U) << "nothing needs to be read from the store";
    EXPECT_EQ(std::filesystem::last_write_time(InboxPath("T", "f")), time);
    EXPECT_TRUE(std::filesystem::is_empty(Pending()));
    EXPECT_EQ(OfferCount(), 2U) << "one receipt for each content";
}

/// Names that stand for paths; one that would lead elsewhere is a name like any other.
TEST_F(DeliveryTest, PathInANameIsAPathBelowTheLabelAndNeverLeavesIt) {
    ActiveModule<Delivery> module;
    const std::pair<const char*, const char*> cases[] = {
        {"bin%2Fdeep%2Fa", "bin/deep/a"}, {"bin%2Fb%252F", "bin/b%252F"}, {"..%2F..%2Fx", "..%2F..%2Fx"},
        {"%2Fetc%2Fx", "%2Fetc%2Fx"},     {"a%2F%2Fx", "a%2F%2Fx"},       {"a%2F.%2Fx", "a%2F.%2Fx"},
        {"bin%2F.kel-x", "bin%2F.kel-x"}, {"%2E%2E%2Fx", "%2E%2E/x"}};
    for (const auto& [name, path] : cases) {
        EXPECT_EQ(Announce(Stored("T", name, name)), 0U);
        EXPECT_EQ(TempFolder::Read(InboxPath("T", path)), name);
    }
    EXPECT_TRUE(AllJobsEnd());
    TempFolder::Write(InboxPath("T", "bin/unpacked"), "by a command");
    const KelContainer info = Values({"PublicationId=p1", "PublicationTime=1"});
    EXPECT_EQ(Announce(With(Stored("T", "sub%2Ff", "listed"), "FileInfo", info)), 0U);
    const auto isListed = [] {
        const KelContainer list = Call("DeliveryListFiles");
        return list.Count("Values") == 6U &&
               list.GetContainer("Values", 5).GetString("FileName") == "sub%2Ff";
    };
    EXPECT_TRUE(Eventually(isListed)) << "deeper files only once they are delivered";
    for (const char* blocked : {"sub%2Ff%2Fg", "bin"})
        EXPECT_EQ(Announce(Stored("T", blocked, blocked)), 0U);
    EXPECT_TRUE(Eventually([this] { return Statuses()[TextMd5("bin")] == "failed"; }));
    EXPECT_EQ(Statuses()[TextMd5("sub%2Ff%2Fg")], "failed");
}

TEST_F(DeliveryTest, UnusableFilesAreRefused) {
    RunningModule<Delivery> module;
    const KelContainer file = Stored("T", "f", "content");
    for (const char* bad :
         {"FileType=..", "FileType=", "FileLabel=a/b", "FileLabel=.", "FileName=../../x", "FileName=a\nb",
          "FileName=.kel-abcdef", "FileChecksum=", "FilePath=", "FilePath=relative"})
        EXPECT_EQ(Call("DeliveryReceiveFile", With(file, {bad})), kKelErrorBadInput) << bad;
    EXPECT_EQ(Call("DeliveryReceiveFile", From(file, "127.0.3.9")), kKelErrorNotAvailable);
    EXPECT_FALSE(std::filesystem::exists(root_ / "data/Delivery/Inbox"));
}

TEST_F(DeliveryTest, ACommandGetsTheFileWithoutAShell) {
    const std::string out = root_ / "out";
    const std::string injected = root_ / "injected";
    RunOnArrival(
        "printf '%s|' \"$@\" $KEL_FILE_TYPE $KEL_FILE_LABEL \"$KEL_FILE_NAME\" $KEL_FILE_CHECKSUM > '" + out +
            "'; echo said; echo complained >&2",
        "\"two words\" $(touch " + injected + ")");
    ActiveModule<Delivery> module;
    const std::string name = "; touch injected2 `id` $HOME";
    ASSERT_EQ(Announce(Stored("T", name, "content")), 0U);
    EXPECT_TRUE(AllJobsEnd());
    EXPECT_EQ(TempFolder::Read(out), "two words|$(touch|" + injected + ")|" + InboxPath("T", name) +
                                         "|T|label|" + name + "|" + TextMd5("content") + "|");
    for (const char* logged : {": said", ": complained", "is done"})
        EXPECT_EQ(log_->Count(KelDebugLevel::Print, logged), 1) << logged;
    EXPECT_FALSE(std::filesystem::exists(injected));
}

TEST_F(DeliveryTest, ACommandCutOffByTheStopRunsAtTheNextStart) {
    const std::string started = root_ / "started";
    RunOnArrival("echo x >> '" + started + "'; exec sleep 60");
    {
        ActiveModule<Delivery> module;
        ASSERT_EQ(Announce(Stored("T", "f", "content")), 0U);
        ASSERT_TRUE(Eventually([&] { return TempFolder::Read(started) == "x\n"; }));
    }
    EXPECT_FALSE(std::filesystem::is_empty(Pending()));
    RunOnArrival("echo x >> '" + started + "'");
    ActiveModule<Delivery> module;
    EXPECT_TRUE(AllJobsEnd());
    EXPECT_EQ(TempFolder::Read(started), "x\nx\n");
}

TEST_F(DeliveryTest, FilesThatCouldNotBeCopiedAreSettledAtTheNextStart) {
    const std::string inTheWay = root_ / "data/Delivery/Inbox/T";
    {
        RunningModule<Delivery> module;
        TempFolder::Write(inTheWay, "a file");
        const KelContainer vanishing = Stored("T", "gone", "vanished");
        for (const KelContainer& file :
             {Stored("T", "late", "late"), Stored("T", "replaced", "old"), vanishing, vanishing})
            EXPECT_EQ(Announce(file), kNotReady);
        EXPECT_EQ(log_->Count(KelDebugLevel::Error, "cannot be created"), 1) << "not at every attempt";
        std::filesystem::remove(inTheWay);
        std::filesystem::remove(vanishing.GetString("FilePath"));
        EXPECT_EQ(Announce(Stored("T", "replaced", "new")), 0U);
    }
    TempFolder::Write(InboxPath("T", ".kel-abcdef"), "a copy cut off by a kill");
    TempFolder::Write(Pending() + "/00000000000000000007.xml", "<Container><Val");
    TempFolder::Write(Pending() + "/notes.txt", "x");
    ActiveModule<Delivery> module;
    EXPECT_TRUE(AllJobsEnd());
    EXPECT_EQ(TempFolder::Read(InboxPath("T", "late")), "late");
    EXPECT_EQ(TempFolder::Read(InboxPath("T", "replaced")), "new") << "older content never replaces newer";
    EXPECT_FALSE(std::filesystem::exists(InboxPath("T", ".kel-abcdef")));
    EXPECT_EQ(Statuses(), (std::map<std::string, std::string>{{TextMd5("late"), "delivered"},
                                                              {TextMd5("old"), "failed"},
                                                              {TextMd5("vanished"), "failed"},
                                                              {TextMd5("new"), "delivered"}}));
}

TEST_F(DeliveryTest, ManyFilesMayArriveAtOnce) {
    WriteIni("Delivery", "[Commands]\nT = /bin/true\n");
    ActiveModule<Delivery> module;
    std::vector<KelContainer> files;
    for (int i = 0; i < 16; ++i)
        files.push_back(Stored("T", "f" + std::to_string(i % 8), "content" + std::to_string(i)));
    OnThreads(4, [&files](int thread) {
        for (std::size_t i = 0; i < 4; ++i)
            EXPECT_EQ(Announce(files[4 * i + thread]), 0U);
        Call("DeliveryListFiles");
    });
    EXPECT_EQ(Call("DeliveryListFiles").Count("Values"), 8U);
    EXPECT_TRUE(AllJobsEnd());
}

using ReceiptTest = DeliveryTest;

TEST_F(ReceiptTest, TellsHowTheCommandEnded) {
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"/bin/true", "delivered", ""},
        {"/bin/false", "failed", "/bin/false failed with exit code 1"},
        {"/no/program", "failed", "/no/program could not be started: No such file or directory"},
        {"relative", "delivered", ""},
        {"/bin/sh \"open", "delivered", ""}};
    for (const auto& [command, status, message] : cases) {
        WriteIni("Delivery", "[Commands]\nT = " + command + "\n");
        ActiveModule<Delivery> module;
        ASSERT_EQ(Announce(Stored("T", "f", command)), 0U);
        ASSERT_TRUE(AllJobsEnd()) << command;
        ExpectValues(Contents().back(),
                     {"FileChecksum=" + TextMd5(command), "Status=" + status, "Message=" + message});
    }
    EXPECT_EQ(log_->Count(KelDebugLevel::Warning, "run no command"), 2) << "the unusable command lines";
}

TEST_F(ReceiptTest, OutlivesTheAgentWithoutRunningTheCommandAgain) {
    const std::string ran = root_ / "ran";
    RunOnArrival("echo x >> '" + ran + "'; exit 3");
    SetStoreResult(1);
    {
        ActiveModule<Delivery> module;
        ASSERT_EQ(Announce(Stored("T", "f", "with command")), 0U);
        ASSERT_EQ(Announce(Stored("Plain", "f", "without")), 0U);
        ASSERT_TRUE(IsLoggedOnce(KelDebugLevel::Error, "exit code 3"));
        ASSERT_TRUE(IsLoggedOnce(KelDebugLevel::Warning, "did not take a receipt"));
    }
    EXPECT_TRUE(std::filesystem::is_empty(Outgoing())) << "what was not taken is not left behind";
    SetStoreResult(0);
    TempFolder::Write(Outgoing() + "/.kel-stale", "left by a crash");
    RunningModule<Delivery> module;
    EXPECT_TRUE(std::filesystem::is_empty(Outgoing()));
    module.Activate();
    EXPECT_TRUE(AllJobsEnd());
    EXPECT_EQ(Statuses(), (std::map<std::string, std::string>{{TextMd5("with command"), "failed"},
                                                              {TextMd5("without"), "delivered"}}));
    EXPECT_EQ(TempFolder::Read(ran), "x\n");
}

TEST_F(ReceiptTest, ASentReceiptComesOutTheSameAfterACrash) {
    {
        RunningModule<Delivery> module;
        ASSERT_EQ(Announce(Stored("T", "f", "content")), 0U);
    }
    std::filesystem::copy(Pending(), root_ / "saved");
    for (std::size_t count = 1; count <= 2; ++count) {
        ActiveModule<Delivery> module;
        ASSERT_TRUE(Eventually([&] { return OfferCount() == count; }));
        module.Cleanup();
        std::filesystem::remove_all(Pending());
        std::filesystem::copy(root_ / "saved", Pending());  // as if it had not been removed in time
    }
    EXPECT_EQ(Contents()[0], Contents()[1]);
    EXPECT_EQ(Offers()[0].GetString("FileName"), Offers()[1].GetString("FileName"));
    ExpectValues(Contents()[0], {"GUID=" + kGuid, "DeviceUrl=north:1610/" + kGuid, "FileSize=7"});
    EXPECT_GT(Contents()[0].GetInt64("Time"), 1700000000);
}

}  // namespace
