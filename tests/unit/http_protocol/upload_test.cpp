#include <sys/resource.h>
#include <atomic>
#include <csignal>

#include "http_server_fixture.h"
#include "kelcore/error_codes.h"

namespace {

class UploadTest : public RunningHttpServer {
  protected:
    void SetUp() override {
        RunningHttpServer::SetUp();
        Subscribe("HttpProtocolCallbackPut", [this](KelContainer* container) {
            event_ = *container;
            seen_ = TempFolder::Read(container->GetString("LocalPath"));
            return 0U;
        });
    }
    /// Waits until this process has `count` files without a name open in the folder "in".
    bool WaitForNamelessFiles(int count) {
        return Eventually([this, count] {
            int found = 0;
            for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
                std::error_code gone;
                if (std::filesystem::read_symlink(entry, gone).string().starts_with(File("in/#"))) ++found;
            }
            return found == count;
        });
    }
    /// What HEAD says is kept of an upload, empty for nothing.
    std::string Kept(std::uint32_t peer = 1) {
        TestAnswer answer = HttpTestClient(Port(), peer).AskGranted("HEAD", "/Files/in/x");
        EXPECT_TRUE(answer.status == 404 || answer.status == 503) << answer.status;  // 503 while it is in use
        return answer.fields["upload-offset"];
    }
    /// Sends the first bytes of an upload and goes away.
    void Interrupt(const std::string& content, std::size_t size) {
        {
            HttpTestClient client = Connect();
            const std::string length = "Content-Length: " + std::to_string(content.size()) + "\r\n";
            client.Send(client.Head("PUT", "/Files/in/x", length) + content.substr(0, size));
        }
        EXPECT_TRUE(Eventually([&] { return Kept() == std::to_string(size); })) << Kept();
    }
    static std::string Range(std::size_t first, std::size_t size) {
        return KelFormat("Content-Range: bytes %lu-%lu/%lu\r\n", first, size - 1, size);
    }
    KelContainer event_;  ///< written before the upload is answered
    std::string seen_;    ///< the file's content at that time
};

TEST_F(UploadTest, PutsTheFileInPlaceThenTellsThenAnswers) {
    const std::string content = PatternBytes(3 << 20);
    HttpTestClient client = Connect();
    EXPECT_EQ(client.AskGranted("PUT", "/Files/in/a%20b", "", content).status, 201);
    EXPECT_TRUE(seen_ == content);
    ExpectValues(event_, {"URL=/Files/in/a b", "LocalPath=" + File("in/a b"), "MulticastAddress="});
    EXPECT_EQ(client.AskGranted("PUT", "/Files/in/a%20b", "", "new").status, 204);
    EXPECT_EQ(ReadFile("in/a b"), "new");
    EXPECT_EQ(client.AskGranted("PUT", "/Files/in/empty", "Content-Length: 0\r\n").status, 201);
    EXPECT_EQ(CountFilesIn("in"), 2);
}

TEST_F(UploadTest, TellsWhenToSendTheBody) {
    HttpTestClient client = Connect();
    const std::string fields = "Expect: 100-continue\r\nContent-Length: 4\r\n";
    client.Send(client.Head("PUT", "/Files/in/x", fields));
    EXPECT_EQ(client.Receive(false).status, 100);
    client.Send("body");
    EXPECT_EQ(client.Receive().status, 201);
    EXPECT_EQ(client.Ask("PUT", "/Files/in/x", fields).status, 401) << "before any body is asked for";
    EXPECT_TRUE(client.WaitForClose());
}

TEST_F(UploadTest, RefusesWithoutTouchingAnything) {
    std::filesystem::create_directories(File("in/folder"));
    std::filesystem::create_directory_symlink("folder", File("in/link"));
    WriteFile("in/old", "old");
    struct Case {
        int status;
        std::string target, fields = "Content-Length: 4\r\n";
    };
    for (const Case& test :
         {Case{403, "/Files/x"}, Case{404, "/None/x"}, Case{404, "/Files/in/none/x"},
          Case{403, "/Files/in/link/x"}, Case{409, "/Files/in/folder"}, Case{404, "/Files/in/..%2fx"},
          Case{403, "/Files/in/.kel-upload-x"}, Case{411, "/Files/in/x", ""},
          Case{400, "/Files/in/old", "Content-Length: 4\r\nContent-Range: bytes 0-3/9\r\n"},
          Case{507, "/Files/in/x", "Content-Length: 9000000000000000000\r\n"}}) {
        HttpTestClient client = Connect();
        client.Send(client.Head("PUT", test.target, test.fields) + "body");
        EXPECT_EQ(client.Receive().status, test.status) << test.target << " " << test.fields;
    }
    EXPECT_EQ(CountFilesIn("in"), 3);
    EXPECT_EQ(CountFilesIn("in/folder"), 0);
    EXPECT_EQ(ReadFile("in/old"), "old");
    EXPECT_TRUE(event_.IsEmpty());
    std::filesystem::create_directories(root_ / "data/Store/up");
    AddAlias("Files/in", root_ / "data/Store");
    for (const auto& [target, status] : {std::pair{"a.sqlite", 403}, {"up/a.sqlite", 201}})
        EXPECT_EQ(Connect().AskGranted("PUT", std::string("/Files/in/") + target, "", "body").status, status);
}

/// What the first event refuses is not put in place, and what the second one refuses is not acknowledged.
TEST_F(UploadTest, SubscribersDecideWhatIsAcknowledged) {
    Start();
    unsigned int toCheck = 0, toReport = 0;
    std::string checked;
    Subscribe("HttpProtocolCallbackPutCheck", [&](KelContainer* container) {
        checked = TempFolder::Read(container->GetString("ContentPath"));
        return toCheck;
    });
    Subscribe("HttpProtocolCallbackPut", [&](KelContainer*) { return toReport; });
    WriteFile("in/x", "old");
    const std::tuple<unsigned int, unsigned int, int, const char*> cases[] = {
        {kKelAnswerNotExpected, 0, 404, "old"},
        {kKelAnswerOtherContent, 0, 422, "old"},
        {kKelErrorNotAvailable, 0, 503, "old"},
        {0, kKelErrorNotAvailable, 503, "new"},
        {0, 0, 204, "new"}};
    for (const auto& [check, report, status, content] : cases) {
        toCheck = check;
        toReport = report;
        EXPECT_EQ(Connect().AskGranted("PUT", "/Files/in/x", "", "new").status, status);
        EXPECT_EQ(checked, "new");
        EXPECT_EQ(ReadFile("in/x"), content);
        EXPECT_EQ(CountFilesIn("in"), 1);
    }
}

TEST_F(UploadTest, AShortBodyLeavesNothing) {
    {
        HttpTestClient client = Connect();
        client.Send(client.Head("PUT", "/Files/in/x", "Content-Length: 5000000\r\n") + PatternBytes(3000000));
        EXPECT_TRUE(WaitForNamelessFiles(1)) << "a process that is killed here leaves nothing";
        EXPECT_EQ(CountFilesIn("in"), 0);
    }
    EXPECT_TRUE(WaitForNamelessFiles(0));
    EXPECT_EQ(CountFilesIn("in"), 0);
    EXPECT_TRUE(event_.IsEmpty());
}

TEST_F(UploadTest, AnInterruptedUploadGoesOnBehindWhatWasKept) {
    const std::string content = PatternBytes(300'000);
    std::atomic<unsigned int> toBegin = 0,
                              toCheck = 0;  // an upload that was left is unanswered: nothing orders its reads
    Subscribe("HttpProtocolCallbackPutBegin", [&](KelContainer* container) {
        ExpectValues(*container, {"URL=/Files/in/x", "Size=300000"});
        return toBegin.load();
    });
    Subscribe("HttpProtocolCallbackPutCheck", [&](KelContainer*) { return toCheck.load(); });
    struct Case {
        const char* name;
        std::size_t first;
        int status;
        const char* kept;
        unsigned int begin = kKelAnswerExpected, check = 0;
        std::uint32_t peer = 1;
    };
    for (const Case& test :
         {Case{"the rest", 200'000, 201, ""}, Case{"overlapping", 199'999, 201, ""}, Case{"anew", 0, 201, ""},
          Case{"behind a gap", 200'001, 409, "200000"},
          Case{"another peer's", 200'000, 409, "200000", kKelAnswerExpected, 0, 2},
          Case{"anew from another peer", 0, 201, "", kKelAnswerExpected, 0, 2},
          Case{"not expected", 200'000, 404, "200000", kKelAnswerNotExpected},
          Case{"of another size", 200'000, 422, "200000", kKelAnswerOtherContent},
          Case{"arrived already", 200'000, 409, "200000", 0},
          Case{"cannot be said", 200'000, 503, "200000", kKelErrorNotAvailable},
          Case{"damaged", 200'000, 422, "", kKelAnswerExpected, kKelAnswerOtherContent},
          Case{"not checked", 200'000, 503, "300000", kKelAnswerExpected, kKelErrorNotAvailable}}) {
        SCOPED_TRACE(test.name);
        toBegin = kKelAnswerExpected;
        toCheck = test.check;
        Interrupt(content, 200'000);
        toBegin = test.begin;
        const std::string range = test.first == 0 ? "" : Range(test.first, content.size());
        EXPECT_EQ(HttpTestClient(Port(), test.peer)
                      .AskGranted("PUT", "/Files/in/x", range, content.substr(test.first))
                      .status,
                  test.status);
        EXPECT_EQ(ReadFile("in/x") == content, test.status == 201);
        std::filesystem::remove(File("in/x"));
        EXPECT_TRUE(Eventually([&] { return Kept() == test.kept; })) << Kept();
        EXPECT_EQ(CountFilesIn("in"), *test.kept == '\0' ? 0 : 1);
        for (const auto& part : std::filesystem::directory_iterator(File("in")))
            std::filesystem::remove(part);
    }
}

TEST_F(UploadTest, AFullDiskIsAnsweredAndLeavesNothing) {
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit old{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
    const rlimit small{1 << 20, old.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    const int status = Connect().AskGranted("PUT", "/Files/in/x", "", PatternBytes(2 << 20)).status;
    EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &old), 0);
    EXPECT_EQ(status, 507);
    EXPECT_EQ(CountFilesIn("in"), 0);
}

}  // namespace
