#include <chrono>
#include <filesystem>
#include <thread>
#include <vector>

#include "http_server_fixture.h"
#include "kelcore/http/client.h"

namespace {

/// The agent's own client against the server.
class AgentClientTest : public HttpServerFixture {
  protected:
    void TearDown() override {
        HttpClientCloseIdleConnections();
        HttpServerFixture::TearDown();
    }
    HttpClient NewClient() const {
        HttpClient client;
        client.SetServer("127.0.0.1", module->Port());
        client.SetAuthentification("tree", "secret");
        return client;
    }
    /// The status of a GET into the local file `name`, from `offset` on; `tag` is taken and given back.
    unsigned int Get(HttpClient& client, const std::string& path, const std::string& name,
                     std::uint64_t offset, KelString& tag) const {
        HttpMessage request;
        request.SetResourcePath(path);
        request.SetRangeStart(offset);
        request.SetIfRange(tag);
        HttpFileMessage answer;
        answer.SetBodyFile((root / "files" / name).string());
        EXPECT_EQ(client.SendAndRecv(request, answer), kHttpCompleted) << client.GetErrorText();
        tag = answer.GetHeader("etag");
        return answer.GetStatus();
    }
    unsigned int Put(HttpClient& client, const std::string& name, const std::string& path) const {
        HttpFileMessage request;
        request.SetMethod(HttpMethod::Put);
        request.SetResourcePath(path);
        request.SetBodyFile((root / "files" / name).string());
        HttpMessage answer;
        EXPECT_EQ(client.SendAndRecv(request, answer), kHttpCompleted) << client.GetErrorText();
        return answer.GetStatus();
    }
};

TEST_F(AgentClientTest, ResumesADownloadOrStartsOverWhenTheFileChanged) {
    Start();
    const std::string content = PatternBytes(5'000'000);
    WriteFile("data", content);
    HttpClient client = NewClient();
    KelString tag;
    EXPECT_EQ(Get(client, "/Files/data", "copy", 0, tag), 200U);
    EXPECT_TRUE(ReadFile("copy") == content);
    std::filesystem::resize_file(root / "files/copy", 2'000'000);
    EXPECT_EQ(Get(client, "/Files/data", "copy", 2'000'000, tag), 206U);
    EXPECT_TRUE(ReadFile("copy") == content);
    WriteFile("data", content + "more");
    std::filesystem::resize_file(root / "files/copy", 2'000'000);
    EXPECT_EQ(Get(client, "/Files/data", "copy", 2'000'000, tag), 200U);
    EXPECT_TRUE(ReadFile("copy") == content + "more");
}

TEST_F(AgentClientTest, UploadsWithAFreshAndWithAnExpiredNonce) {
    Start("NonceLifetime=1\n");
    const std::string content = PatternBytes(20'000'000);
    WriteFile("data", content);
    HttpClient client = NewClient();
    EXPECT_EQ(Put(client, "data", "/Files/in/a b%"), 201U);
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    EXPECT_EQ(Put(client, "data", "/Files/in/a b%"), 204U);
    EXPECT_TRUE(ReadFile("in/a b%") == content);
    EXPECT_EQ(CountFilesIn("in"), 1U);
}

TEST_F(AgentClientTest, ManyClientsAtATimeGetAndPutTheirOwnFiles) {
    Start();
    constexpr int kClients = 10;
    std::vector<std::thread> threads;
    for (int i = 0; i < kClients; ++i) {
        threads.emplace_back([this, i] {
            const std::string name = std::to_string(i);
            WriteFile(name, PatternBytes(3'000'000 + static_cast<std::size_t>(i)));
            HttpClient client = NewClient();
            EXPECT_EQ(Put(client, name, "/Files/in/" + name), 201U);
            KelString tag;
            EXPECT_EQ(Get(client, "/Files/in/" + name, name + ".back", 0, tag), 200U);
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    for (int i = 0; i < kClients; ++i)
        EXPECT_TRUE(ReadFile(std::to_string(i) + ".back") ==
                    PatternBytes(3'000'000 + static_cast<std::size_t>(i)));
}

}  // namespace
