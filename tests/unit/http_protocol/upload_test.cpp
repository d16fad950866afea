#include <sys/resource.h>
#include <csignal>
#include <system_error>
#include <thread>

#include "http_server_fixture.h"
#include "kelcore/callback_db.h"

namespace {

class UploadTest : public HttpServerFixture {
  protected:
    void SetUp() override {
        HttpServerFixture::SetUp();
        ActionDbRegisterAction(
            "TestPut ()",
            [this](KelContainer* container) -> unsigned int {
                url = container->GetString("URL");
                path = container->GetString("LocalPath");
                multicast = container->GetString("MulticastAddress", "absent");
                seen = ReadFile("in/" + path.substr(path.rfind('/') + 1));
                return 0;
            },
            "test");
        CallbackDbRegisterAction("HttpProtocolCallbackPut", "TestPut ()", "", 0);
    }
    void TearDown() override {
        CallbackDbDeleteAction("HttpProtocolCallbackPut", "TestPut ()", "");
        HttpServerFixture::TearDown();
    }
    /// Files without a name that this process has open in the folder "in".
    std::size_t CountNamelessFiles() const {
        std::size_t count = 0;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code gone;
            const std::string target = std::filesystem::read_symlink(entry, gone).string();
            if (target.starts_with((root / "files/in/#").string())) ++count;
        }
        return count;
    }
    /// Polls for some seconds.
    bool WaitForNamelessFiles(std::size_t count) const {
        for (int i = 0; i < 1000 && CountNamelessFiles() != count; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        return CountNamelessFiles() == count;
    }
    KelString url, path, multicast, seen;  ///< written before the upload is answered
};

TEST_F(UploadTest, PutsTheFileInPlaceThenTellsThenAnswers) {
    Start();
    const std::string content = PatternBytes(3 << 20);
    HttpTestClient client = Connect();
    EXPECT_EQ(client.AskGranted("PUT", "/Files/in/a%20b", "", content).status, 201);
    EXPECT_TRUE(seen == content);
    EXPECT_EQ(url, "/Files/in/a b");
    EXPECT_EQ(path, (root / "files/in/a b").string());
    EXPECT_EQ(multicast, "");
    EXPECT_EQ(client.AskGranted("PUT", "/Files/in/a%20b", "", "new").status, 204);
    EXPECT_EQ(ReadFile("in/a b"), "new");
    EXPECT_EQ(client.AskGranted("PUT", "/Files/in/empty", "Content-Length: 0\r\n").status, 201);
    EXPECT_EQ(CountFilesIn("in"), 2U);
}

TEST_F(UploadTest, TellsWhenToSendTheBody) {
    Start();
    HttpTestClient client = Connect();
    client.FetchNonce();
    const std::string head =
        "PUT /Files/in/x HTTP/1.1\r\nHost: x\r\nExpect: 100-continue\r\nContent-Length: 4\r\n";
    client.Send(head + client.Authorization("PUT", "/Files/in/x") + "\r\n");
    EXPECT_EQ(client.Receive(false).status, 100);
    client.Send("body");
    EXPECT_EQ(client.Receive().status, 201);
    client.Send(head + "\r\n");
    EXPECT_EQ(client.Receive().status, 401) << "before any body is asked for";
    EXPECT_TRUE(client.WaitForClose());
}

TEST_F(UploadTest, RefusesWithoutTouchingAnything) {
    Start();
    std::filesystem::create_directories(root / "files/in/folder");
    std::filesystem::create_directory_symlink("folder", root / "files/in/link");
    WriteFile("in/old", "old");
    const struct {
        const char* name;
        const char* target;
        const char* fields;
        int status;
    } cases[] = {
        {"NotWritable", "/Files/x", "Content-Length: 4\r\n", 403},
        {"NoAlias", "/None/x", "Content-Length: 4\r\n", 404},
        {"NoFolder", "/Files/in/none/x", "Content-Length: 4\r\n", 404},
        {"ThroughLink", "/Files/in/link/x", "Content-Length: 4\r\n", 403},
        {"OntoFolder", "/Files/in/folder", "Content-Length: 4\r\n", 409},
        {"Escape", "/Files/in/..%2fx", "Content-Length: 4\r\n", 404},
        {"Database", "/Files/in/x.sqlite", "Content-Length: 4\r\n", 403},
        {"NoLength", "/Files/in/x", "", 411},
        {"Part", "/Files/in/old", "Content-Length: 4\r\nContent-Range: bytes 0-3/9\r\n", 400},
        {"MoreThanTheDisk", "/Files/in/x", "Content-Length: 9000000000000000000\r\n", 507},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        HttpTestClient client = Connect();
        client.FetchNonce();
        client.Send(std::string("PUT ") + test.target + " HTTP/1.1\r\nHost: x\r\n" + test.fields +
                    client.Authorization("PUT", test.target) + "\r\nbody");
        EXPECT_EQ(client.Receive().status, test.status);
    }
    EXPECT_EQ(CountFilesIn("in"), 3U);
    EXPECT_EQ(CountFilesIn("in/folder"), 0U);
    EXPECT_EQ(ReadFile("in/old"), "old");
    EXPECT_EQ(url, "");
}

TEST_F(UploadTest, AShortBodyLeavesNothing) {
    Start();
    {
        HttpTestClient client = Connect();
        client.FetchNonce();
        client.Send("PUT /Files/in/x HTTP/1.1\r\nHost: x\r\nContent-Length: 5000000\r\n" +
                    client.Authorization("PUT", "/Files/in/x") + "\r\n" + PatternBytes(3000000));
        EXPECT_TRUE(WaitForNamelessFiles(1)) << "a process that is killed here leaves nothing";
        EXPECT_EQ(CountFilesIn("in"), 0U);
    }
    EXPECT_TRUE(WaitForNamelessFiles(0));
    EXPECT_EQ(CountFilesIn("in"), 0U);
    EXPECT_EQ(url, "");
}

TEST_F(UploadTest, AFullDiskIsAnsweredAndLeavesNothing) {
    Start();
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit old{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
    const rlimit small{1 << 20, old.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    HttpTestClient client = Connect();
    const int status = client.AskGranted("PUT", "/Files/in/x", "", PatternBytes(2 << 20)).status;
    EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &old), 0);
    EXPECT_EQ(status, 507);
    EXPECT_EQ(CountFilesIn("in"), 0U);
}

}  // namespace
