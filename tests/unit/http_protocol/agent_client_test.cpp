#include <thread>
#include <vector>

#include "http_server_fixture.h"
#include "kelcore/http/client.h"

namespace {

/// The agent's own client against the server.
class AgentClientTest : public HttpServerFixture {
  protected:
    void TearDown() override { HttpClientCloseIdleConnections(); }

    HttpClient NewClient() {
        HttpClient client;
        client.SetServer("127.0.0.1", Port());
        client.SetAuthentification("tree", "secret");
        return client;
    }
    /// The status of a GET into the local file `name` from `offset` on; `tag` is taken and given back.
    unsigned int Get(HttpClient& client, const std::string& path, const std::string& name,
                     std::uint64_t offset, KelString& tag) {
        HttpMessage request;
        request.SetResourcePath(path);
        request.SetRangeStart(offset);
        request.SetIfRange(tag);
        HttpFileMessage answer;
        answer.SetBodyFile(File(name));
        EXPECT_EQ(client.SendAndRecv(request, answer), kHttpCompleted) << client.GetErrorText();
        tag = answer.GetHeader("etag");
        return answer.GetStatus();
    }
    unsigned int Put(HttpClient& client, const std::string& name, const std::string& path) {
        HttpFileMessage request;
        request.SetMethod(HttpMethod::Put);
        request.SetResourcePath(path);
        request.SetBodyFile(File(name));
        HttpMessage answer;
        EXPECT_EQ(client.SendAndRecv(request, answer), kHttpCompleted) << client.GetErrorText();
        return answer.GetStatus();
    }
};

TEST_F(AgentClientTest, ManyClientsAtATimePutGetAndResumeTheirOwnFiles) {
    Start();
    std::vector<std::jthread> threads;
    for (std::size_t i = 0; i < 10; ++i) {
        threads.emplace_back([this, i] {
            const std::string name = std::to_string(i), back = name + ".back", path = "/Files/in/a b%" + name;
            const std::string content = PatternBytes(3'000'000 + i);
            WriteFile(name, content);
            HttpClient client = NewClient();
            EXPECT_EQ(Put(client, name, path), 201U);
            KelString tag;
            EXPECT_EQ(Get(client, path, back, 0, tag), 200U);
            EXPECT_TRUE(ReadFile(back) == content);
            std::filesystem::resize_file(File(back), 2'000'000);
            EXPECT_EQ(Get(client, path, back, 2'000'000, tag), 206U);
            EXPECT_TRUE(ReadFile(back) == content);

            WriteFile(name, "changed" + content);
            EXPECT_EQ(Put(client, name, path), 204U);
            EXPECT_EQ(Get(client, path, back, 2'000'000, tag), 200U) << "another content starts over";
            EXPECT_TRUE(ReadFile(back) == "changed" + content);
        });
    }
}

}  // namespace
