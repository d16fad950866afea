#include "delivery_fixture.h"

namespace {

TEST_F(DeliveryTest, FilesGoToTheirFolders) {
    WriteIni("Delivery", "[Folders]\nScript=" + root_ / "scripts" + "\nRules=Own\n");
    RunningModule<Delivery> module;
    ASSERT_TRUE(module.Initialise());
    EXPECT_EQ(Announce(Stored("Package", "a b'c%.bin", "one")), 0U);
    EXPECT_EQ(Announce(Stored("Script", "s.sh", "two")), 0U);
    EXPECT_EQ(Announce(Stored("Rules", "r", "three")), 0U);
    EXPECT_EQ(TempFolder::Read(InboxPath("Package", "a b'c%.bin")), "one");
    EXPECT_EQ(TempFolder::Read(root_ / "scripts/label/s.sh"), "two");
    EXPECT_EQ(TempFolder::Read(root_ / "data/Delivery/Own/label/r"), "three");

    const KelContainer list = Call("DeliveryListFiles");
    ASSERT_EQ(list.Count("Values"), 3U);
    const KelContainer& first = list.GetContainer("Values", 0);
    EXPECT_EQ(first.GetString("FileType"), "Package");
    EXPECT_EQ(first.GetString("FileLabel"), "label");
    EXPECT_EQ(first.GetString("FileName"), "a b'c%.bin");
    EXPECT_EQ(first.GetString("FileChecksum"), TextMd5("one"));
    EXPECT_EQ(first.GetString("Path"), InboxPath("Package", "a b'c%.bin"));
    EXPECT_EQ(first.GetInt64("Size"), 3);
    EXPECT_GT(first.GetInt64("Time"), 1700000000);
    EXPECT_EQ(list.GetContainer("Values", 1).GetString("FileType"), "Script");
}

TEST_F(DeliveryTest, NewContentReplacesAndTheSameContentChangesNothing) {
    RunningModule<Delivery> module;
    ASSERT_TRUE(module.Initialise());
    ASSERT_EQ(Announce(Stored("T", "f", "old")), 0U);
    ASSERT_EQ(Announce(Stored("T", "f", "new!")), 0U);
    EXPECT_EQ(TempFolder::Read(InboxPath("T", "f")), "new!");
    EXPECT_EQ(Call("DeliveryListFiles").GetContainer("Values").GetString("FileChecksum"), TextMd5("new!"));
    const auto time = std::filesystem::last_write_time(InboxPath("T", "f"));
    KelContainer again = Stored("T", "f", "new!");
    std::filesystem::remove(again.GetString("FilePath"));
    EXPECT_EQ(Announce(again), 0U) << "nothing needs to be read from the store";
    EXPECT_EQ(std::filesystem::last_write_time(InboxPath("T", "f")), time);
}

TEST_F(DeliveryTest, UnusableFilesAreRefused) {
    struct Case {
        const char* value;
        const char* text;
    };
    RunningModule<Delivery> module;
    ASSERT_TRUE(module.Initialise());
    for (const Case& bad : {Case{"FileType", ".."}, Case{"FileType", ""}, Case{"FileLabel", "a/b"},
                            Case{"FileLabel", "."}, Case{"FileName", "../../x"}, Case{"FileName", "a\nb"},
                            Case{"FileChecksum", ""}, Case{"FilePath", ""}, Case{"FilePath", "relative"}}) {
        KelContainer file = Stored("T", "f", "content");
        file.SetString(bad.value, bad.text);
        EXPECT_EQ(Call("DeliveryReceiveFile", file), kKelErrorBadInput) << bad.value << " " << bad.text;
    }
    KelContainer remote = Stored("T", "f", "content");
    remote.SetContainer("HttpProtocolRequestInfo", KelContainer());
    EXPECT_EQ(Call("DeliveryReceiveFile", remote), kKelErrorBadInput);
    EXPECT_FALSE(std::filesystem::exists(root_ / "data/Delivery/Inbox"));
}

TEST_F(DeliveryTest, ACommandGetsTheFileWithoutAShell) {
    const std::string out = root_ / "out";
    const std::string script = Script(
        "printf '%s|' \"$@\" \"$KEL_FILE_TYPE\" \"$KEL_FILE_LABEL\" \"$KEL_FILE_NAME\" "
        "\"$KEL_FILE_CHECKSUM\" > '" +
        out + ".new'; echo said; echo complained >&2; mv '" + out + ".new' '" + out + "'");
    WriteIni("Delivery",
             "[Commands]\nT = " + script + " \"two words\" $(touch " + root_ / "injected" + ")\n");
    RunningModule<Delivery> module;
    ASSERT_TRUE(module.Initialise());
    module.Activate();
    const std::string name = "; touch " + std::string("injected2 `id` $HOME");
    ASSERT_EQ(Announce(Stored("T", name, "content")), 0U);
    ASSERT_TRUE(Eventually([&] { return log_->Count(KelDebugLevel::Print, "is done") == 1; }));
    EXPECT_EQ(TempFolder::Read(out), "two words|$(touch|" + root_ / "injected" + ")|" + InboxPath("T", name) +
                                         "|T|label|" + name + "|" + TextMd5("content") + "|");
    EXPECT_EQ(log_->Count(KelDebugLevel::Print, ": said"), 1);
    EXPECT_EQ(log_->Count(KelDebugLevel::Print, ": complained"), 1);
    EXPECT_FALSE(std::filesystem::exists(root_ / "injected"));
    EXPECT_TRUE(Eventually([this] { return std::filesystem::is_empty(Pending()); }));
}

TEST_F(DeliveryTest, CommandsThatFailAreLogged) {
    struct Case {
        const char* command;
        const char* logged;
    };
    for (const Case& test :
         {Case{"/bin/false", "exit code 1"}, Case{"/nonexistent/program", "could not be started"},
          Case{"relative", "run no command"}, Case{"/bin/sh \"open", "run no command"}}) {
        WriteIni("Delivery", std::string("[Commands]\nT = ") + test.command + "\n");
        RunningModule<Delivery> module;
        ASSERT_TRUE(module.Initialise());
        module.Activate();
        EXPECT_EQ(Announce(Stored("T", "f", test.command)), 0U);
        EXPECT_TRUE(Eventually([&] { return log_->Count(KelDebugLevel::Error, test.logged) >= 1; }))
            << test.command;
    }
}

TEST_F(DeliveryTest, ACommandCutOffByTheStopRunsAtTheNextStart) {
    const std::string started = root_ / "started";
    WriteIni("Delivery", "[Commands]\nT = " + Script("echo x >> '" + started + "'; exec sleep 60") + "\n");
    {
        RunningModule<Delivery> module;
        ASSERT_TRUE(module.Initialise());
        module.Activate();
        ASSERT_EQ(Announce(Stored("T", "f", "content")), 0U);
        ASSERT_TRUE(Eventually([&] { return TempFolder::Read(started) == "x\n"; }));
    }
    EXPECT_FALSE(std::filesystem::is_empty(Pending()));
    Script("echo x >> '" + started + "'");
    RunningModule<Delivery> module;
    ASSERT_TRUE(module.Initialise());
    module.Activate();
    EXPECT_TRUE(Eventually([&] { return TempFolder::Read(started) == "x\nx\n"; }));
    EXPECT_TRUE(Eventually([this] { return std::filesystem::is_empty(Pending()); }));
}

TEST_F(DeliveryTest, AFileThatCouldNotBeCopiedIsDeliveredLater) {
    const KelContainer file = Stored("T", "f", "content");
    {
        RunningModule<Delivery> module;
        ASSERT_TRUE(module.Initialise());
        std::filesystem::create_directories(root_ / "data/Delivery/Inbox");
        TempFolder::Write(root_ / "data/Delivery/Inbox/T", "a file in the way");
        EXPECT_EQ(Announce(file), 44001U);
        EXPECT_EQ(Announce(file), 44001U);
        EXPECT_EQ(log_->Count(KelDebugLevel::Error, "cannot be created"), 1);
    }
    std::filesystem::remove(root_ / "data/Delivery/Inbox/T");
    RunningModule<Delivery> module;
    ASSERT_TRUE(module.Initialise());
    module.Activate();
    EXPECT_TRUE(Eventually([this] { return TempFolder::Read(InboxPath("T", "f")) == "content"; }));
    EXPECT_TRUE(Eventually([this] { return std::filesystem::is_empty(Pending()); }));
}

TEST_F(DeliveryTest, AnOlderContentThatWaitsNeverReplacesANewerOne) {
    {
        RunningModule<Delivery> module;
        ASSERT_TRUE(module.Initialise());
        std::filesystem::create_directories(InboxPath("T", "f"));
        EXPECT_EQ(Announce(Stored("T", "f", "old")), 44001U);
        std::filesystem::remove(InboxPath("T", "f"));
        EXPECT_EQ(Announce(Stored("T", "f", "new")), 0U);
    }
    RunningModule<Delivery> module;
    ASSERT_TRUE(module.Initialise());
    module.Activate();
    EXPECT_TRUE(Eventually([this] { return std::filesystem::is_empty(Pending()); }));
    EXPECT_EQ(TempFolder::Read(InboxPath("T", "f")), "new");
    EXPECT_EQ(Statuses(), (std::map<std::string, std::string>{{TextMd5("old"), "failed"},
                                                              {TextMd5("new"), "delivered"}}));
}

TEST_F(DeliveryTest, DamagedJobsAreRemoved) {
    std::filesystem::create_directories(Pending());
    TempFolder::Write(Pending() + "/00000000000000000007.xml", "<Container><Val");
    TempFolder::Write(Pending() + "/notes.txt", "x");
    RunningModule<Delivery> module;
    ASSERT_TRUE(module.Initialise());
    EXPECT_TRUE(std::filesystem::is_empty(Pending()));
    EXPECT_EQ(log_->Count(KelDebugLevel::Warning, "holds no job"), 2);
}

TEST_F(DeliveryTest, ManyFilesMayArriveAtOnce) {
    WriteIni("Delivery", "[Commands]\nT = /bin/true\n");
    RunningModule<Delivery> module;
    ASSERT_TRUE(module.Initialise());
    module.Activate();
    std::vector<KelContainer> files;
    for (int i = 0; i < 16; ++i)
        files.push_back(Stored("T", "f" + std::to_string(i % 8), "content" + std::to_string(i)));
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&files, thread] {
            for (int i = thread; i < 16; i += 4)
                EXPECT_EQ(Announce(files[static_cast<std::size_t>(i)]), 0U);
            Call("DeliveryListFiles");
        });
    }
    threads.clear();
    EXPECT_EQ(Call("DeliveryListFiles").Count("Values"), 8U);
    EXPECT_TRUE(Eventually([this] { return std::filesystem::is_empty(Pending()); }));
}

}  // namespace
