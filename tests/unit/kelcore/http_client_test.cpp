#include "kelcore/http/client.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <thread>

#include "kel/checksum.h"
#include "kel/file.h"
#include "kel/regex.h"
#include "kelcore/agent.h"
#include "test_http_server.h"

namespace {

constexpr std::size_t kSize = 200'000;

class HttpClientTest : public testing::Test {
  protected:
    HttpClientTest() {
        std::string name = (std::filesystem::temp_directory_path() / "http_client_XXXXXX").string();
        folder_ = mkdtemp(name.data());
        path_ = folder_ / "body";
        KelAgentConfigure({});
    }
    ~HttpClientTest() override {
        HttpClientCancelAll(false);
        HttpClientCloseIdleConnections();
        std::filesystem::remove_all(folder_);
    }

    void Serve(TestHttpServer::Script script) {
        server_.emplace(std::move(script));
        client_.SetServer("127.0.0.1", server_->Port());
    }
    void WriteFile(const std::string& content) { std::ofstream(path_, std::ios::binary) << content; }
    std::optional<std::string> FileContent() {
        if (!std::filesystem::exists(path_)) return {};
        std::ifstream file(path_, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(file), {});
    }
    unsigned int Get(std::uint64_t offset = 0, std::uint64_t expected = 0, const std::string& etag = {}) {
        HttpMessage request;
        request.SetResourcePath("/Store/some file%.bin");
        request.SetRangeStart(offset);
        request.SetIfRange(etag);
        answer_.SetBodyFile(path_);
        answer_.SetExpectedSize(expected);
        return client_.SendAndRecv(request, answer_);
    }

    std::filesystem::path folder_;
    std::filesystem::path path_;
    HttpClient client_;
    HttpFileMessage answer_;
    std::optional<TestHttpServer> server_;
};

ScriptedAnswer Partial(const std::string& range, const std::string& body, const std::string& more = {}) {
    return {AnswerText("206 Partial Content", more + "Content-Range: " + range + "\r\n", body)};
}

std::string WithoutTail(std::string text, std::size_t bytes) {
    return text.substr(0, text.size() - bytes);
}

/// Answers challenges (RFC 7616, SHA-256) and forgets its nonce on request.
class DigestServer {
  public:
    ScriptedAnswer Answer(const SeenRequest& request) {
        const std::string given = request.Header("authorization");
        const bool known = !given.empty() && Field(given, "nonce") == Nonce();
        if (!known || !IsRight(request, given)) return Challenge(!given.empty() && !known);
        lastCount = Field(given, "nc");
        bodies.push_back(request.body);
        if (forgetAfterEach) ++generation;
        return {AnswerText("200 OK", "", "welcome")};
    }
    ScriptedAnswer Challenge(bool stale) const {
        return {
            AnswerText("401 Unauthorized",
                       "WWW-Authenticate: Digest realm=\"kel\", qop=\"auth\", algorithm=SHA-256, nonce=\"" +
                           Nonce() + "\"" + (stale ? ", stale=true" : "") + "\r\n",
                       "who are you?")};
    }
    static std::string Field(const std::string& header, const std::string& name) {
        KelVector<KelString> captures;
        return FindPcre("[ ,]" + name + "=\"?([^\",]*)", header, captures) ? captures[1] : "";
    }

    std::string lastCount;
    std::vector<std::string> bodies;
    bool forgetAfterEach = false;
    std::atomic<int> generation = 1;

  private:
    std::string Nonce() const { return "nonce" + std::to_string(generation); }
    static bool IsRight(const SeenRequest& request, const std::string& given) {
        const std::string first = TextSha256("agent:kel:se cret");
        const std::string second = TextSha256(request.method + ":" + request.target);
        return Field(given, "uri") == request.target &&
               Field(given, "response") ==
                   TextSha256(first + ":" + Field(given, "nonce") + ":" + Field(given, "nc") + ":" +
                              Field(given, "cnonce") + ":auth:" + second);
    }
};

}  // namespace

TEST_F(HttpClientTest, ExchangesMessagesInMemory) {
    Serve([](const SeenRequest&) {
        return ScriptedAnswer{
            AnswerText("200 Fine", "Content-Type: text/x\r\nX-Mixed-Case:  v 1 \r\n", "hello")};
    });
    HttpMessage request;
    request.SetMethod(HttpMethod::Post);
    request.SetResourcePath("/Action/../a b?c#d\xC3\xA9");
    request.SetBody("question", "application/xml");
    HttpMessage answer;
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(client_.SendAndRecv(request, answer), kHttpCompleted) << client_.GetErrorText();
    EXPECT_EQ(answer.GetStatus(), 200U);
    EXPECT_EQ(answer.GetBody(), "hello");
    EXPECT_EQ(answer.GetContentType(), "text/x");
    EXPECT_EQ(answer.GetHeader("x-mixed-case"), "v 1");
    EXPECT_EQ(client_.GetLocalAddress().ToText(), "127.0.0.1");
    const auto seen = server_->Seen();
    ASSERT_EQ(seen.size(), 3U);
    EXPECT_EQ(seen[2].target, "/Action/../a%20b%3Fc%23d%C3%A9");
    EXPECT_EQ(seen[2].body, "question");
    EXPECT_EQ(seen[2].Header("content-type"), "application/xml");
    EXPECT_EQ(seen[2].connection, 1) << "the connection is reused";

    request.SetMethod(HttpMethod::Head);
    Serve([](const SeenRequest&) {
        return ScriptedAnswer{"HTTP/1.1 200 OK\r\nContent-Length: 99999999999\r\n\r\n"};
    });
    EXPECT_EQ(client_.SendAndRecv(request, answer), kHttpCompleted);
    EXPECT_EQ(answer.GetHeader("content-length"), "99999999999");
    EXPECT_EQ(answer.GetBody(), "");
}

TEST_F(HttpClientTest, OutgoingConnectionsHaveTheAgentsAddress) {
    KelAgentSettings settings;
    settings.address = "127.0.1.9";
    KelAgentConfigure(settings);
    Serve([](const SeenRequest&) { return ScriptedAnswer{AnswerText("200 OK", "", "")}; });
    HttpMessage answer;
    ASSERT_EQ(client_.SendAndRecv(HttpMessage(), answer), kHttpCompleted) << client_.GetErrorText();
    EXPECT_EQ(client_.GetLocalAddress().ToText(), "127.0.1.9");
    KelAgentConfigure({});
}

struct DownloadCase {
    const char* name;
    std::uint64_t offset;    ///< asked for, and size of the file before
    std::uint64_t expected;  ///< announced size, 0: unknown
    ScriptedAnswer answer;
    unsigned int result;
    std::uint64_t fileSize;  ///< afterwards, all of it following the pattern; kStale: left alone
};
constexpr std::uint64_t kStale = UINT64_MAX;

class HttpDownloadTest : public HttpClientTest, public testing::WithParamInterface<DownloadCase> {};

TEST_P(HttpDownloadTest, LeavesARightOrResumableFile) {
    const DownloadCase& test = GetParam();
    Serve([&test](const SeenRequest&) { return test.answer; });
    // What is on hand starts right and has a wrong tail beyond the offset, which must go.
    const std::string before = Pattern(test.offset) + "stale tail";
    if (test.offset != 0) WriteFile(before);
    EXPECT_EQ(Get(test.offset, test.expected, test.offset != 0 ? "\"v1\"" : ""), test.result)
        << client_.GetErrorText();
    EXPECT_EQ(client_.GetErrorText().empty(), test.result == kHttpCompleted);
    if (test.fileSize == kStale)
        EXPECT_TRUE(FileContent() == (test.offset != 0 ? std::optional(before) : std::nullopt));
    else
        EXPECT_TRUE(FileContent() == Pattern(test.fileSize)) << FileContent().value_or("").size();
    const SeenRequest seen = server_->Seen().at(0);
    EXPECT_EQ(seen.Header("range"), test.offset == 0 ? "" : "bytes=" + std::to_string(test.offset) + "-");
    EXPECT_EQ(seen.Header("if-range"), test.offset == 0 ? "" : "\"v1\"");
}

INSTANTIATE_TEST_SUITE_P(
    Answers, HttpDownloadTest,
    testing::Values(
        DownloadCase{"Whole", 0, kSize, {AnswerText("200 OK", "", Pattern(kSize))}, kHttpCompleted, kSize},
        DownloadCase{"WholeEmpty", 0, 0, {AnswerText("200 OK", "", "")}, kHttpCompleted, 0},
        DownloadCase{"Resumed", 1000, kSize, Partial("bytes 1000-199999/200000", Pattern(kSize - 1000, 1000)),
                     kHttpCompleted, kSize},
        DownloadCase{"ResumedUnknownSize", 1000, kSize,
                     Partial("bytes 1000-199999/*", Pattern(kSize - 1000, 1000)), kHttpCompleted, kSize},
        DownloadCase{
            "RangeIgnored", 1000, kSize, {AnswerText("200 OK", "", Pattern(kSize))}, kHttpCompleted, kSize},
        DownloadCase{"LateRangeStart", 1000, kSize,
                     Partial("bytes 1001-199999/200000", Pattern(kSize - 1001, 1001)), kHttpBadAnswer,
                     kStale},
        DownloadCase{"EarlyRangeStart", 1000, kSize, Partial("bytes 0-199999/200000", Pattern(kSize)),
                     kHttpBadAnswer, kStale},
        DownloadCase{"GarbledRange", 1000, kSize, Partial("bytes 1000-199999", Pattern(kSize - 1000, 1000)),
                     kHttpBadAnswer, kStale},
        DownloadCase{"RangeBeyondItsSize", 1000, kSize,
                     Partial("bytes 1000-199999/199999", Pattern(kSize - 1000, 1000)), kHttpBadAnswer,
                     kStale},
        DownloadCase{"NoRangeHeader",
                     1000,
                     kSize,
                     {AnswerText("206 Partial Content", "", "x")},
                     kHttpBadAnswer,
                     kStale},
        DownloadCase{"RangeAndLengthDisagree", 1000, kSize,
                     Partial("bytes 1000-199999/200000", Pattern(500, 1000)), kHttpBadAnswer, kStale},
        DownloadCase{"PartOfAnotherVersion", 1000, kSize,
                     Partial("bytes 1000-199999/200000", Pattern(kSize - 1000, 1000), "ETag: \"v2\"\r\n"),
                     kHttpBadAnswer, kStale},
        DownloadCase{"RangeEndsEarly", 1000, kSize, Partial("bytes 1000-1999/200000", Pattern(1000, 1000)),
                     kHttpCutOff, 2000},
        DownloadCase{"ShortBody",
                     0,
                     kSize,
                     {WithoutTail(AnswerText("200 OK", "", Pattern(kSize)), 777), true},
                     kHttpCutOff,
                     kSize - 777},
        DownloadCase{
            "ShortRangeBody",
            1000,
            kSize,
            {WithoutTail(Partial("bytes 1000-199999/200000", Pattern(kSize - 1000, 1000)).bytes, 777), true},
            kHttpCutOff,
            kSize - 777},
        DownloadCase{"ClosedBeforeTheBody",
                     1000,
                     kSize,
                     {WithoutTail(AnswerText("200 OK", "", Pattern(kSize)), kSize), true},
                     kHttpCutOff,
                     kStale},
        DownloadCase{"ShortWithoutLength",
                     0,
                     kSize,
                     {"HTTP/1.1 200 OK\r\n\r\n" + Pattern(5000), true},
                     kHttpCutOff,
                     5000},
        DownloadCase{"WholeWithoutLength",
                     0,
                     5000,
                     {"HTTP/1.1 200 OK\r\n\r\n" + Pattern(5000), true},
                     kHttpCompleted,
                     5000},
        DownloadCase{"CutInAChunk",
                     0,
                     0,
                     {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n2000\r\n" + Pattern(5000), true},
                     kHttpCutOff,
                     5000},
        DownloadCase{"AnnouncesTooMuch",
                     1000,
                     kSize,
                     {AnswerText("200 OK", "", Pattern(kSize + 1))},
                     kHttpBadAnswer,
                     kStale},
        DownloadCase{"RangeAnnouncesTooMuch", 1000, kSize,
                     Partial("bytes 1000-200000/200001", Pattern(kSize - 999, 1000)), kHttpBadAnswer, kStale},
        DownloadCase{
            "SendsTooMuch", 0, 100, {"HTTP/1.1 200 OK\r\n\r\n" + Pattern(5000), true}, kHttpBadAnswer, 0},
        DownloadCase{"NotFound",
                     1000,
                     kSize,
                     {AnswerText("404 Not Found", "", "no such file")},
                     kHttpCompleted,
                     kStale},
        DownloadCase{"EndlessErrorPage",
                     1000,
                     kSize,
                     {AnswerText("404 Not Found", "", std::string(3 << 20, 'e'))},
                     kHttpCompleted,
                     kStale},
        DownloadCase{"RangeNotSatisfiable",
                     1000,
                     0,
                     {AnswerText("416 Range Not Satisfiable", "Content-Range: bytes */1000\r\n", "")},
                     kHttpCompleted,
                     kStale},
        DownloadCase{"RedirectIsNotFollowed",
                     1000,
                     kSize,
                     {AnswerText("302 Found", "Location: /elsewhere\r\n", "")},
                     kHttpCompleted,
                     kStale},
        DownloadCase{"NoAnswer", 1000, kSize, {"", true}, kHttpUnreachable, kStale},
        DownloadCase{
            "HalfAHeader", 1000, kSize, {"HTTP/1.1 200 OK\r\nContent-Le", true}, kHttpUnreachable, kStale},
        DownloadCase{"NoHttp", 1000, kSize, {"SSH-2.0-x\r\n\r\n", true}, kHttpBadAnswer, kStale}),
    [](const auto& instance) { return std::string(instance.param.name); });

TEST_F(HttpClientTest, LocalFileTroubleIsToldApart) {
    Serve([](const SeenRequest& request) {
        return request.Header("range").empty() ? ScriptedAnswer{AnswerText("200 OK", "", "x")}
                                               : Partial("bytes 1000-1000/1001", "x");
    });
    WriteFile("short");
    EXPECT_EQ(Get(1000), kHttpLocalFile) << "no hole is made";
    EXPECT_EQ(FileContent(), "short");
    path_ = folder_ / "absent" / "body";
    EXPECT_EQ(Get(), kHttpLocalFile);
    HttpFileMessage put;
    put.SetMethod(HttpMethod::Put);
    put.SetBodyFile(path_);
    HttpMessage answer;
    EXPECT_EQ(client_.SendAndRecv(put, answer), kHttpLocalFile);
}

TEST_F(HttpClientTest, UnusableRequestsNeverReachTheNetwork) {
    Serve([](const SeenRequest&) { return ScriptedAnswer{AnswerText("200 OK", "", "")}; });
    HttpMessage answer;
    for (const KelString& path : {KelString(), KelString("relative"), KelString("/zero\0byte", 10)}) {
        HttpMessage request;
        request.SetResourcePath(path);
        EXPECT_EQ(client_.SendAndRecv(request, answer), kHttpBadRequest) << path;
    }
    HttpMessage request;
    request.SetRangeStart(1);
    request.SetIfRange("\"x\"\r\nEvil: 1");
    EXPECT_EQ(client_.SendAndRecv(request, answer), kHttpBadRequest);
    for (const char* host : {"", "a b", "h/x", "u:p@127.0.0.1", "127.0.0.1:1", "127.0.0.1#"}) {
        client_.SetServer(host, server_->Port());
        EXPECT_EQ(client_.SendAndRecv(HttpMessage(), answer), kHttpBadRequest) << host;
    }
    EXPECT_TRUE(server_->Seen().empty());
}

TEST_F(HttpClientTest, AnswersInMemoryAreLimited) {
    std::atomic<bool> announced = true;
    Serve([&announced](const SeenRequest&) {
        const std::string body(1001, 'x');
        return announced ? ScriptedAnswer{AnswerText("200 OK", "", body)}
                         : ScriptedAnswer{"HTTP/1.1 200 OK\r\n\r\n" + body, true};
    });
    HttpMessage answer;
    answer.SetBodyLimit(1000);
    EXPECT_EQ(client_.SendAndRecv(HttpMessage(), answer), kHttpBadAnswer);
    announced = false;
    EXPECT_EQ(client_.SendAndRecv(HttpMessage(), answer), kHttpBadAnswer);
    answer.SetBodyLimit(1001);
    EXPECT_EQ(client_.SendAndRecv(HttpMessage(), answer), kHttpCompleted);
}

TEST_F(HttpClientTest, NoPeerIsUnreachable) {
    Serve([](const SeenRequest&) { return ScriptedAnswer{}; });
    server_.reset();
    HttpMessage answer;
    EXPECT_EQ(client_.SendAndRecv(HttpMessage(), answer), kHttpUnreachable);
    EXPECT_FALSE(client_.GetErrorText().empty());
}

TEST_F(HttpClientTest, ASilentPeerIsGivenUpAfterTheExchangeTimeout) {
    std::atomic<bool> headersFirst = false;
    Serve([&headersFirst](const SeenRequest&) {
        const std::string text = headersFirst ? AnswerText("200 OK", "", Pattern(100)).substr(0, 60) : "";
        return ScriptedAnswer{text, false, true};
    });
    client_ = HttpClient(1, 1);
    client_.SetServer("127.0.0.1", server_->Port());
    EXPECT_EQ(Get(), kHttpUnreachable);
    headersFirst = true;
    EXPECT_EQ(Get(), kHttpCutOff);
}

TEST_F(HttpClientTest, CancellingStopsAStalledExchange) {
    Serve([](const SeenRequest&) {
        return ScriptedAnswer{AnswerText("200 OK", "", Pattern(kSize)).substr(0, 3000), false, true};
    });
    int asked = 0;
    client_.SetCancelCheck([&asked] { return ++asked > 2; });
    EXPECT_EQ(Get(), kHttpCutOff);
    EXPECT_GT(FileContent().value_or("").size(), 2000U) << "what came is kept";

    client_.SetCancelCheck({});
    std::thread stopper([this] {
        while (server_->Seen().size() < 2)
            std::this_thread::yield();
        HttpClientCancelAll(true);
    });
    EXPECT_EQ(Get(), kHttpCutOff);
    stopper.join();
    EXPECT_EQ(Get(), kHttpCutOff);
    EXPECT_EQ(server_->Seen().size(), 2U) << "a new exchange is not begun";
}

TEST_F(HttpClientTest, OnlyTheFirstRequestToAPeerTakesTheDigestRoundTrip) {
    DigestServer digest;
    Serve([&digest](const SeenRequest& request) { return digest.Answer(request); });
    HttpMessage answer;
    for (int i = 0; i < 5; ++i) {
        HttpClient client;  // clients share what is known of a peer
        client.SetServer("127.0.0.1", server_->Port());
        client.SetAuthentification("agent", "se cret");
        HttpMessage request;
        request.SetMethod(i % 2 == 0 ? HttpMethod::Post : HttpMethod::Get);
        request.SetResourcePath("/Action/a b");
        request.SetBody(i % 2 == 0 ? "question" : "", "");
        ASSERT_EQ(client.SendAndRecv(request, answer), kHttpCompleted);
        EXPECT_EQ(answer.GetStatus(), 200U);
        EXPECT_EQ(answer.GetBody(), "welcome");
    }
    const auto seen = server_->Seen();
    EXPECT_EQ(seen.size(), 6U);
    EXPECT_EQ(digest.lastCount, "00000005");
    EXPECT_EQ(seen.back().connection, 1);
    EXPECT_EQ(seen[0].body, "") << "nothing is sent before the peer has challenged";
    EXPECT_EQ(digest.bodies, (std::vector<std::string>{"question", "", "question", "", "question"}));

    client_.SetAuthentification("agent", "wrong");
    ASSERT_EQ(client_.SendAndRecv(HttpMessage(), answer), kHttpCompleted);
    EXPECT_EQ(answer.GetStatus(), 401U);
    EXPECT_EQ(answer.GetBody(), "who are you?");
}

TEST_F(HttpClientTest, AFileIsSentWholeAgainWhenTheNonceHasGoneStale) {
    DigestServer digest;
    digest.forgetAfterEach = true;
    Serve([&digest](const SeenRequest& request) { return digest.Answer(request); });
    client_.SetAuthentification("agent", "se cret");
    const std::string content = Pattern(3'000'000);
    WriteFile(content);
    HttpFileMessage put;
    put.SetMethod(HttpMethod::Put);
    put.SetResourcePath("/Store/x");
    put.SetBodyFile(path_);
    HttpMessage answer;
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(client_.SendAndRecv(put, answer), kHttpCompleted) << client_.GetErrorText();
        ASSERT_EQ(answer.GetStatus(), 200U);
    }
    EXPECT_EQ(server_->Seen().size(), 6U);
    EXPECT_TRUE(digest.bodies == std::vector<std::string>(3, content));
}

TEST_F(HttpClientTest, BasicIsNeverSentInTheClear) {
    Serve([](const SeenRequest&) {
        return ScriptedAnswer{
            AnswerText("401 Unauthorized", "WWW-Authenticate: Basic realm=\"kel\"\r\n", "")};
    });
    client_.SetAuthentification("agent", "se cret");
    HttpMessage answer;
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(client_.SendAndRecv(HttpMessage(), answer), kHttpCompleted);
    EXPECT_EQ(answer.GetStatus(), 401U);
    for (const SeenRequest& seen : server_->Seen())
        EXPECT_EQ(seen.Header("authorization"), "");
}

TEST_F(HttpClientTest, AnUntrustedPeerIsASecurityFailure) {
    Serve([](const SeenRequest&) { return ScriptedAnswer{}; });
    AgentSecuritySslSettings settings;
    settings.caFile = (folder_ / "absent.pem").string();
    client_.EnableSsl(std::make_shared<const AgentSecuritySslSettings>(settings));
    HttpMessage answer;
    EXPECT_EQ(client_.SendAndRecv(HttpMessage(), answer), kHttpSecurity);
}

namespace {

/// Opens, counts and closes at a given reading of the rate.
class ClosingWindow : public HttpBandwidthManager {
  public:
    explicit ClosingWindow(int openReadings) : left_(openReadings) {}
    int StartTransmission() override { return left_ > 0 ? 1400 : -1; }
    void EndTransmission() override {}
    unsigned long GetRate(int& frameSize) override {
        frameSize = 1400;
        return left_-- > 0 ? 64 : 0;
    }
    bool BandwidthIsLimited() override { return true; }
    int GetFrameSize() override { return 1400; }
    bool IsPercentage() override { return false; }
    bool IsPerThousand() override { return false; }
    unsigned long BandwidthEstimationTCP(IpAddress const&, unsigned int, unsigned int) override { return 0; }
    bool GetClientCount(bool, unsigned int&, unsigned int&, unsigned long&, unsigned long&,
                        unsigned int&) override {
        return false;
    }

  private:
    int left_;
};

}  // namespace

TEST_F(HttpClientTest, AClosingWindowCutsTheTransferOff) {
    Serve([](const SeenRequest&) { return ScriptedAnswer{AnswerText("200 OK", "", Pattern(kSize))}; });
    ClosingWindow window(2);
    HttpMessage request;
    answer_.SetBodyFile(path_);
    {
        HttpManagedTransmission transmission(window);
        EXPECT_EQ(client_.SendAndRecv(request, answer_, transmission), kHttpCutOff);
    }
    const std::string got = FileContent().value_or("");
    EXPECT_GT(got.size(), 0U);
    EXPECT_LT(got.size(), kSize);
    EXPECT_TRUE(got == Pattern(got.size()));
    HttpManagedTransmission refused(window);
    EXPECT_EQ(client_.SendAndRecv(request, answer_, refused), kHttpRefused);
    EXPECT_EQ(server_->Seen().size(), 1U);
}

TEST_F(HttpClientTest, ManyClientsAtOnce) {
    DigestServer digest;
    Serve([&digest](const SeenRequest& request) { return digest.Answer(request); });
    std::atomic<int> good = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([&, t] {
            HttpClient client;
            client.SetServer("127.0.0.1", server_->Port());
            client.SetAuthentification("agent", "se cret");
            for (int i = 0; i < 20; ++i) {
                HttpMessage request;
                request.SetMethod(HttpMethod::Post);
                request.SetBody(Pattern(1000, t * 1000), "");
                HttpMessage answer;
                if (client.SendAndRecv(request, answer) == kHttpCompleted && answer.GetStatus() == 200)
                    ++good;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(good, 160);
    EXPECT_LE(server_->Seen().size(), 168U) << "at most one challenge a connection";
}
