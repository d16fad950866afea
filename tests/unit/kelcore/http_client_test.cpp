#include "kelcore/http/client.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <optional>
#include <regex>
#include <thread>

#include "fake_bandwidth_manager.h"
#include "kel/checksum.h"
#include "kel/temp_folder.h"
#include "kelcore/agent.h"
#include "test_http_server.h"

namespace {

constexpr std::uint64_t kSize = 200'000;

class HttpClientTest : public testing::Test {
  protected:
    ~HttpClientTest() override {
        HttpClientCancelAll(false);
        HttpClientCloseIdleConnections();
        KelAgentConfigure({});
    }
    void Serve(TestHttpServer::Script script) {
        server_.emplace(std::move(script));
        client_.SetServer("127.0.0.1", server_->Port());
    }
    void ServeAlways(const ScriptedAnswer& answer) {
        Serve([answer](const SeenRequest&) { return answer; });
    }
    unsigned int Exchange() { return client_.SendAndRecv(request_, answer_); }
    unsigned int Download(std::uint64_t offset = 0, std::uint64_t expected = 0) {
        request_.SetRangeStart(offset);
        request_.SetIfRange(offset == 0 ? "" : "\"v1\"");
        file_.SetBodyFile(path_);
        file_.SetExpectedSize(expected);
        return client_.SendAndRecv(request_, file_);
    }

    const TempFolder folder_;
    std::string path_ = folder_ / "body";
    HttpClient client_;
    HttpMessage request_, answer_;
    HttpFileMessage file_;
    std::optional<TestHttpServer> server_;
};

/// Bytes `from` up to `to` of a pattern that tells positions apart.
std::string Pattern(std::uint64_t to, std::uint64_t from = 0) {
    std::string bytes;
    for (std::uint64_t at = from; at < to; ++at)
        bytes += static_cast<char>((at * 2654435761U) >> 13);
    return bytes;
}

ScriptedAnswer Whole(std::uint64_t size) {
    return Answer("200 OK", "", Pattern(size));
}

ScriptedAnswer Partial(const std::string& range, std::uint64_t from, std::uint64_t to = kSize,
                       const std::string& more = {}) {
    return Answer("206 Partial Content", more + "Content-Range: bytes " + range + "\r\n", Pattern(to, from));
}

ScriptedAnswer Closing(const std::string& bytes) {
    return {bytes, ScriptedAnswer::Close};
}

ScriptedAnswer WithoutTail(const ScriptedAnswer& answer, std::size_t bytes) {
    return Closing(answer.bytes.substr(0, answer.bytes.size() - bytes));
}

TEST_F(HttpClientTest, ExchangesMessagesInMemory) {
    ServeAlways(Answer("200 Fine", "Content-Type: text/x\r\nX-Mixed-Case:  v 1 \r\n", "hello"));
    request_.SetMethod(HttpMethod::Post);
    request_.SetResourcePath("/Action/../a b?c#d\xC3\xA9");
    request_.SetBody("question", "application/xml");
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(Exchange(), kHttpCompleted) << client_.GetErrorText();
    EXPECT_EQ(answer_.GetStatus(), 200U);
    EXPECT_EQ(answer_.GetBody(), "hello");
    EXPECT_EQ(answer_.GetContentType(), "text/x");
    EXPECT_EQ(answer_.GetHeader("x-mixed-case"), "v 1");
    const auto seen = server_->Seen();
    ASSERT_EQ(seen.size(), 3U);
    EXPECT_EQ(seen[2].target, "/Action/../a%20b%3Fc%23d%C3%A9");
    EXPECT_EQ(seen[2].body, "question");
    EXPECT_EQ(seen[2].Header("content-type"), "application/xml");
    EXPECT_EQ(seen[2].connection, 1) << "the connection is reused";

    request_.SetMethod(HttpMethod::Head);
    ServeAlways({"HTTP/1.1 200 OK\r\nContent-Length: 99999999999\r\n\r\n"});
    EXPECT_EQ(Exchange(), kHttpCompleted);
    EXPECT_EQ(answer_.GetHeader("content-length"), "99999999999");
    EXPECT_EQ(answer_.GetBody(), "");
}

TEST_F(HttpClientTest, OutgoingConnectionsHaveTheAgentsAddress) {
    KelAgentConfigure({"", "", "", "", "127.0.1.9", {}});
    ServeAlways(Whole(0));
    ASSERT_EQ(Exchange(), kHttpCompleted) << client_.GetErrorText();
    EXPECT_EQ(client_.GetLocalAddress().ToText(), "127.0.1.9");
}

constexpr std::uint64_t kUntouched = UINT64_MAX;

struct DownloadCase {
    const char* name;
    ScriptedAnswer answer;
    unsigned int result;
    std::uint64_t sizeAfter = kUntouched;  ///< of the file, all of it following the pattern
    std::uint64_t offset = 1000;           ///< asked for, and on hand before
    std::uint64_t expected = kSize;        ///< announced size, 0: unknown
};

const std::string kNoLength = "HTTP/1.1 200 OK\r\n\r\n";
const std::string kChunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";

TEST_F(HttpClientTest, DownloadsLeaveARightOrResumableFile) {
    const DownloadCase cases[] = {
        {"whole", Whole(kSize), kHttpCompleted, kSize, 0},
        {"whole, empty", Whole(0), kHttpCompleted, 0, 0, 0},
        {"whole without length", Closing(kNoLength + Pattern(5000)), kHttpCompleted, 5000, 0, 5000},
        {"resumed", Partial("1000-199999/200000", 1000), kHttpCompleted, kSize},
        {"resumed, unknown size", Partial("1000-199999/*", 1000), kHttpCompleted, kSize},
        {"range ignored", Whole(kSize), kHttpCompleted, kSize},
        {"range ends early", Partial("1000-1999/200000", 1000, 2000), kHttpCutOff, 2000},
        {"short body", WithoutTail(Whole(kSize), 777), kHttpCutOff, kSize - 777, 0},
        {"short range", WithoutTail(Partial("1000-199999/200000", 1000), 777), kHttpCutOff, kSize - 777},
        {"closed before the body", WithoutTail(Whole(kSize), kSize), kHttpCutOff},
        {"short without length", Closing(kNoLength + Pattern(5000)), kHttpCutOff, 5000, 0},
        {"cut in a chunk", Closing(kChunked + "2000\r\n" + Pattern(5000)), kHttpCutOff, 5000, 0, 0},
        {"sends too much", Closing(kNoLength + Pattern(5000)), kHttpBadAnswer, 0, 0, 100},
        {"announces too much", Whole(kSize + 1), kHttpBadAnswer},
        {"range announces too much", Partial("1000-200000/200001", 1000, kSize + 1), kHttpBadAnswer},
        {"late range start", Partial("1001-199999/200000", 1001), kHttpBadAnswer},
        {"early range start", Partial("0-199999/200000", 0), kHttpBadAnswer},
        {"garbled range", Partial("1000-199999", 1000), kHttpBadAnswer},
        {"range beyond its size", Partial("1000-199999/199999", 1000), kHttpBadAnswer},
        {"no range header", Answer("206 Partial Content", "", "x"), kHttpBadAnswer},
        {"range and length disagree", Partial("1000-199999/200000", 1000, 1500), kHttpBadAnswer},
        {"another version", Partial("1000-199999/200000", 1000, kSize, "ETag: \"v2\"\r\n"), kHttpBadAnswer},
        {"not found", Answer("404 Not Found", "", "no such file"), kHttpCompleted},
        {"endless error page", Answer("404 Not Found", "", Pattern(3 << 20)), kHttpCompleted},
        {"no such range", Answer("416 No", "Content-Range: bytes */1000\r\n", ""), kHttpCompleted},
        {"redirect, not followed", Answer("302 Found", "Location: /elsewhere\r\n", ""), kHttpCompleted},
        {"no answer", Closing(""), kHttpUnreachable},
        {"half a header", Closing("HTTP/1.1 200 OK\r\nContent-Le"), kHttpUnreachable},
        {"no HTTP", Closing("SSH-2.0-x\r\n\r\n"), kHttpBadAnswer},
    };
    for (const DownloadCase& test : cases) {
        SCOPED_TRACE(test.name);
        ServeAlways(test.answer);
        // What is on hand starts right and has a wrong tail beyond the offset, which must go.
        const std::string before = Pattern(test.offset) + "stale tail";
        std::filesystem::remove(path_);
        if (test.offset != 0) TempFolder::Write(path_, before);
        EXPECT_EQ(Download(test.offset, test.expected), test.result) << client_.GetErrorText();
        EXPECT_EQ(client_.GetErrorText().empty(), test.result == kHttpCompleted);
        ASSERT_TRUE(std::filesystem::exists(path_));
        const std::string after = TempFolder::Read(path_);
        EXPECT_TRUE(after == (test.sizeAfter == kUntouched ? before : Pattern(test.sizeAfter)))
            << after.size();
        const SeenRequest seen = server_->Seen().at(0);
        EXPECT_EQ(seen.Header("range"), test.offset == 0 ? "" : "bytes=1000-");
        EXPECT_EQ(seen.Header("if-range"), test.offset == 0 ? "" : "\"v1\"");
    }
}

TEST_F(HttpClientTest, LocalFileTroubleIsToldApart) {
    ServeAlways(Partial("1000-1000/1001", 1000, 1001));
    TempFolder::Write(path_, "short");
    EXPECT_EQ(Download(1000), kHttpLocalFile) << "no hole is made";
    EXPECT_EQ(TempFolder::Read(path_), "short");
    path_ = folder_ / "absent/body";
    ServeAlways(Whole(1));
    EXPECT_EQ(Download(), kHttpLocalFile);
    file_.SetMethod(HttpMethod::Put);
    EXPECT_EQ(client_.SendAndRecv(file_, answer_), kHttpLocalFile);
}

TEST_F(HttpClientTest, UnusableRequestsNeverReachTheNetwork) {
    ServeAlways(Whole(0));
    for (const KelString& path : {KelString(), KelString("relative"), KelString("/zero\0byte", 10)}) {
        request_.SetResourcePath(path);
        EXPECT_EQ(Exchange(), kHttpBadRequest) << path;
    }
    request_ = HttpMessage();
    request_.SetRangeStart(1);
    request_.SetIfRange("\"x\"\r\nEvil: 1");
    EXPECT_EQ(Exchange(), kHttpBadRequest);
    request_ = HttpMessage();
    for (const char* host : {"", "a b", "h/x", "u:p@127.0.0.1", "127.0.0.1:1", "127.0.0.1#"}) {
        client_.SetServer(host, server_->Port());
        EXPECT_EQ(Exchange(), kHttpBadRequest) << host;
    }
    EXPECT_TRUE(server_->Seen().empty());
}

TEST_F(HttpClientTest, AnswersInMemoryAreLimited) {
    for (const ScriptedAnswer& answer : {Whole(1001), Closing(kNoLength + Pattern(1001))}) {
        ServeAlways(answer);
        answer_.SetBodyLimit(1000);
        EXPECT_EQ(Exchange(), kHttpBadAnswer);
        answer_.SetBodyLimit(1001);
        EXPECT_EQ(Exchange(), kHttpCompleted);
    }
}

TEST_F(HttpClientTest, ASilentPeerIsGivenUpAfterTheExchangeTimeout) {
    client_ = HttpClient(1, 1);
    ServeAlways({"", ScriptedAnswer::Stall});
    EXPECT_EQ(Download(), kHttpUnreachable);
    ServeAlways({Whole(100).bytes.substr(0, 60), ScriptedAnswer::Stall});
    EXPECT_EQ(Download(), kHttpCutOff);
}

TEST_F(HttpClientTest, OnlyATimeoutOfItsOwnMakesAnExchangeWaitLongerForItsAnswer) {
    static constexpr std::chrono::milliseconds kWindow{400};
    Serve([](const SeenRequest&) { return std::this_thread::sleep_for(3 * kWindow), Whole(1000); });
    request_.SetMethod(HttpMethod::Post);
    request_.SetBody("question", "");
    for (const auto& [timeout, result] : {std::pair{-1, kHttpUnreachable}, {60, kHttpCompleted}}) {
        client_ = HttpClient(10, timeout);
        client_.SetServer("127.0.0.1", server_->Port());
        client_.SetSpeedWindow(kWindow);
        EXPECT_EQ(Exchange(), result) << client_.GetErrorText();
    }
    ServeAlways({Whole(kSize).bytes.substr(0, 60), ScriptedAnswer::Stall});
    EXPECT_EQ(Download(), kHttpCutOff);
    EXPECT_EQ(client_.GetErrorText(), "the peer has become too slow") << "what has begun must go on";
}

TEST_F(HttpClientTest, CancellingStopsAStalledExchange) {
    ServeAlways({Whole(kSize).bytes.substr(0, 3000), ScriptedAnswer::Stall});
    int asked = 0;
    client_.SetCancelCheck([&asked] { return ++asked > 2; });
    EXPECT_EQ(Download(), kHttpCutOff);
    EXPECT_GT(TempFolder::Read(path_).size(), 2000U) << "what came is kept";

    client_.SetCancelCheck({});
    std::thread stopper([this] {
        while (server_->Seen().size() < 2)
            std::this_thread::yield();
        HttpClientCancelAll(true);
    });
    EXPECT_EQ(Download(), kHttpCutOff);
    stopper.join();
    EXPECT_EQ(Download(), kHttpCutOff);
    EXPECT_EQ(server_->Seen().size(), 2U) << "a new exchange is not begun";
}

TEST_F(HttpClientTest, AnUntrustedPeerIsASecurityFailure) {
    ServeAlways(Whole(0));
    AgentSecuritySslSettings settings;
    settings.caFile = folder_ / "absent.pem";
    client_.EnableSsl(std::make_shared<const AgentSecuritySslSettings>(settings));
    EXPECT_EQ(Exchange(), kHttpSecurity);
}

TEST_F(HttpClientTest, AClosingWindowCutsTheTransferOff) {
    ServeAlways(Whole(kSize));
    FakeBandwidthManager window;
    window.rate = 64;
    window.closeAfterReads = 2;
    file_.SetBodyFile(path_);
    {
        HttpManagedTransmission transmission(window);
        EXPECT_EQ(client_.SendAndRecv(request_, file_, transmission), kHttpCutOff);
    }
    const std::string got = TempFolder::Read(path_);
    EXPECT_GT(got.size(), 0U);
    EXPECT_LT(got.size(), kSize);
    EXPECT_TRUE(got == Pattern(got.size()));
    window.refuse = true;
    HttpManagedTransmission refused(window);
    EXPECT_EQ(client_.SendAndRecv(request_, file_, refused), kHttpRefused);
    EXPECT_EQ(server_->Seen().size(), 1U);
}

/// A server that answers challenges (RFC 7616, SHA-256) and forgets its nonce on request.
class HttpDigestTest : public HttpClientTest {
  protected:
    HttpDigestTest() {
        Serve([this](const SeenRequest& request) { return Reply(request); });
        client_.SetAuthentification("agent", "se cret");
    }
    ~HttpDigestTest() override { server_.reset(); }
    /// Clients share what is known of a peer.
    HttpClient AnotherClient() const {
        HttpClient client;
        client.SetServer("127.0.0.1", server_->Port());
        client.SetAuthentification("agent", "se cret");
        return client;
    }

    std::string lastCount_;
    std::vector<std::string> bodies_;  ///< of the requests let in
    bool forgetAfterEach_ = false;

  private:
    ScriptedAnswer Reply(const SeenRequest& request) {
        const std::string given = request.Header("authorization");
        const std::string nonce = "nonce" + std::to_string(generation_);
        const bool stale = !given.empty() && Field(given, "nonce") != nonce;
        if (given.empty() || stale || !IsRight(request, given))
            return Answer(
                "401 Unauthorized",
                "WWW-Authenticate: Digest realm=\"kel\", qop=\"auth\", algorithm=SHA-256, nonce=\"" + nonce +
                    "\"" + (stale ? ", stale=true" : "") + "\r\n",
                "who are you?");
        lastCount_ = Field(given, "nc");
        bodies_.push_back(request.body);
        if (forgetAfterEach_) ++generation_;
        return Answer("200 OK", "", "welcome");
    }
    static std::string Field(const std::string& header, const std::string& name) {
        std::smatch found;
        return std::regex_search(header, found, std::regex("[ ,]" + name + "=\"?([^\",]*)")) ? found.str(1)
                                                                                             : "";
    }
    static bool IsRight(const SeenRequest& request, const std::string& given) {
        std::string text = TextSha256("agent:kel:se cret");
        for (const char* part : {"nonce", "nc", "cnonce"})
            text += ":" + Field(given, part);
        text += ":auth:" + TextSha256(request.method + ":" + request.target);
        return Field(given, "uri") == request.target && Field(given, "response") == TextSha256(text);
    }

    int generation_ = 1;
};

TEST_F(HttpDigestTest, OnlyTheFirstRequestToAPeerTakesTheRoundTrip) {
    for (int i = 0; i < 5; ++i) {
        request_.SetMethod(i % 2 == 0 ? HttpMethod::Post : HttpMethod::Get);
        request_.SetResourcePath("/Action/a b");
        request_.SetBody(i % 2 == 0 ? "question" : "", "");
        ASSERT_EQ(AnotherClient().SendAndRecv(request_, answer_), kHttpCompleted);
        EXPECT_EQ(answer_.GetStatus(), 200U);
        EXPECT_EQ(answer_.GetBody(), "welcome");
    }
    const auto seen = server_->Seen();
    EXPECT_EQ(seen.size(), 6U);
    EXPECT_EQ(lastCount_, "00000005");
    EXPECT_EQ(seen.back().connection, 1);
    EXPECT_EQ(seen[0].body, "") << "nothing is sent before the peer has challenged";
    EXPECT_EQ(bodies_, (std::vector<std::string>{"question", "", "question", "", "question"}));

    client_.SetAuthentification("agent", "wrong");
    ASSERT_EQ(Exchange(), kHttpCompleted);
    EXPECT_EQ(answer_.GetStatus(), 401U);
    EXPECT_EQ(answer_.GetBody(), "who are you?");
}

TEST_F(HttpDigestTest, AFileIsSentWholeAgainWhenTheNonceHasGoneStale) {
    forgetAfterEach_ = true;
    const std::string content = Pattern(3'000'000);
    TempFolder::Write(path_, content);
    file_.SetMethod(HttpMethod::Put);
    file_.SetBodyFile(path_);
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(client_.SendAndRecv(file_, answer_), kHttpCompleted) << client_.GetErrorText();
        ASSERT_EQ(answer_.GetStatus(), 200U);
    }
    EXPECT_EQ(server_->Seen().size(), 6U);
    EXPECT_TRUE(bodies_ == std::vector<std::string>(3, content));
}

TEST_F(HttpDigestTest, BasicIsNeverSentInTheClear) {
    ServeAlways(Answer("401 Unauthorized", "WWW-Authenticate: Basic realm=\"kel\"\r\n", ""));
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(Exchange(), kHttpCompleted);
    EXPECT_EQ(answer_.GetStatus(), 401U);
    for (const SeenRequest& seen : server_->Seen())
        EXPECT_EQ(seen.Header("authorization"), "");
}

TEST_F(HttpDigestTest, ManyClientsAtOnce) {
    std::atomic<int> good = 0;
    std::vector<std::jthread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&, t] {
            HttpClient client = AnotherClient();
            HttpMessage request, answer;
            request.SetMethod(HttpMethod::Post);
            request.SetBody(Pattern(t * 1000 + 1000, t * 1000), "");
            for (int i = 0; i < 20; ++i)
                good += client.SendAndRecv(request, answer) == kHttpCompleted && answer.GetStatus() == 200;
        });
    threads.clear();  // joins
    EXPECT_EQ(good, 160);
    EXPECT_LE(server_->Seen().size(), 168U) << "at most one challenge a connection";
}

}  // namespace
