#include "kelcore/http/client.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <memory>
#include <optional>
#include <thread>

#include "fake_bandwidth_manager.h"
#include "kel/temp_folder.h"
#include "on_threads.h"
#include "test_http_server.h"

namespace {

using Answer = TestHttpServer::Answer;

constexpr std::uint64_t kSize = 200'000;

class HttpClientTest : public testing::Test {
  protected:
    ~HttpClientTest() override {
        HttpClientCancelAll(false);
        HttpClientCloseIdleConnections();
    }
    void Serve(TestHttpServer::Script script) {
        server_.emplace(std::move(script), TestHttpServer::Access::Open);
        client_.SetServer(TestHttpServer::kAddress, server_->Port());
    }
    void ServeAlways(const Answer& answer) {
        Serve([answer](const auto&) { return answer; });
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

Answer Whole(std::uint64_t size) {
    return {200, "", Pattern(size)};
}

Answer Partial(const std::string& range, std::uint64_t from, std::uint64_t to = kSize,
               const std::string& more = {}) {
    return {206, more + "Content-Range: bytes " + range + "\r\n", Pattern(to, from)};
}

/// These bytes, and the connection is closed.
Answer Raw(const std::string& bytes) {
    return {0, "", bytes};
}

Answer WithoutTail(Answer answer, std::size_t bytes) {
    answer.cutAfter = answer.body.size() - bytes;
    return answer;
}

/// A part of an answer of `size` bytes, and then nothing.
Answer Stalling(std::uint64_t size, std::size_t sent) {
    Answer answer = WithoutTail(Whole(size), size - sent);
    answer.stalls = true;
    return answer;
}

const std::string kNoLength = "HTTP/1.1 200 OK\r\n\r\n";

TEST_F(HttpClientTest, ExchangesMessagesInMemoryUpToALimit) {
    ServeAlways({200, "Content-Type: text/x\r\nX-Mixed-Case:  v 1 \r\n", "hello"});
    request_.SetMethod(HttpMethod::Post);
    request_.SetResourcePath("/Action/../a b?c#d\xC3\xA9");
    request_.SetBody("question", "application/xml");
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(Exchange(), kHttpCompleted) << client_.GetErrorText();
    EXPECT_EQ(answer_.GetStatus(), 200U);
    EXPECT_EQ(answer_.GetBody(), "hello");
    EXPECT_EQ(answer_.GetContentType(), "text/x");
    EXPECT_EQ(answer_.GetHeader("x-mixed-case"), "v 1");
    const auto seen = server_->Requests();
    ASSERT_EQ(seen.size(), 3U);
    EXPECT_EQ(seen[2].target, "/Action/../a%20b%3Fc%23d%C3%A9");
    EXPECT_EQ(seen[2].body, "question");
    EXPECT_EQ(seen[2].Header("content-type"), "application/xml");
    EXPECT_EQ(seen[2].connection, 1) << "the connection is reused";

    for (const Answer& answer : {Whole(1001), Raw(kNoLength + Pattern(1001))}) {
        ServeAlways(answer);
        answer_.SetBodyLimit(1000);
        EXPECT_EQ(Exchange(), kHttpBadAnswer);
        answer_.SetBodyLimit(1001);
        EXPECT_EQ(Exchange(), kHttpCompleted);
    }
    request_.SetMethod(HttpMethod::Head);
    ServeAlways(Raw("HTTP/1.1 200 OK\r\nContent-Length: 99999999999\r\n\r\n"));
    EXPECT_EQ(Exchange(), kHttpCompleted);
    EXPECT_EQ(answer_.GetHeader("content-length"), "99999999999");
    EXPECT_EQ(answer_.GetBody(), "");
}

constexpr std::uint64_t kUntouched = UINT64_MAX;

struct DownloadCase {
    const char* name;
    Answer answer;
    unsigned int result;
    std::uint64_t sizeAfter = kUntouched;  ///< of the file, all of it following the pattern
    std::uint64_t offset = 1000;           ///< asked for, and on hand before
    std::uint64_t expected = kSize;        ///< announced size, 0: unknown
};

const std::string kChunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";

TEST_F(HttpClientTest, DownloadsLeaveARightOrResumableFile) {
    const DownloadCase cases[] = {
        {"whole", Whole(kSize), kHttpCompleted, kSize, 0},
        {"whole, empty", Whole(0), kHttpCompleted, 0, 0, 0},
        {"whole without length", Raw(kNoLength + Pattern(5000)), kHttpCompleted, 5000, 0, 5000},
        {"resumed", Partial("1000-199999/200000", 1000), kHttpCompleted, kSize},
        {"resumed, unknown size", Partial("1000-199999/*", 1000), kHttpCompleted, kSize},
        {"range ignored", Whole(kSize), kHttpCompleted, kSize},
        {"range ends early", Partial("1000-1999/200000", 1000, 2000), kHttpCutOff, 2000},
        {"short body", WithoutTail(Whole(kSize), 777), kHttpCutOff, kSize - 777, 0},
        {"closed before the body", WithoutTail(Whole(kSize), kSize), kHttpCutOff},
        {"short without length", Raw(kNoLength + Pattern(5000)), kHttpCutOff, 5000, 0},
        {"cut in a chunk", Raw(kChunked + "2000\r\n" + Pattern(5000)), kHttpCutOff, 5000, 0, 0},
        {"sends too much", Raw(kNoLength + Pattern(5000)), kHttpBadAnswer, 0, 0, 100},
        {"announces too much", Whole(kSize + 1), kHttpBadAnswer},
        {"late range start", Partial("1001-199999/200000", 1001), kHttpBadAnswer},
        {"early range start", Partial("0-199999/200000", 0), kHttpBadAnswer},
        {"garbled range", Partial("1000-199999", 1000), kHttpBadAnswer},
        {"range beyond its size", Partial("1000-199999/199999", 1000), kHttpBadAnswer},
        {"range and length disagree", Partial("1000-199999/200000", 1000, 1500), kHttpBadAnswer},
        {"another version", Partial("1000-199999/200000", 1000, kSize, "ETag: \"v2\"\r\n"), kHttpBadAnswer},
        {"not found", {404, "", "no such file"}, kHttpCompleted},
        {"endless error page", {404, "", Pattern(3 << 20)}, kHttpCompleted},
        {"no such range", {416, "Content-Range: bytes */1000\r\n", ""}, kHttpCompleted},
        {"redirect, not followed", {302, "Location: /elsewhere\r\n", ""}, kHttpCompleted},
        {"no answer", Raw(""), kHttpUnreachable},
        {"no HTTP", Raw("SSH-2.0-x\r\n\r\n"), kHttpBadAnswer},
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
        const TestHttpServer::Request seen = server_->Requests().at(0);
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
    client_.SetServer(TestHttpServer::kAddress, server_->Port());
    AgentSecuritySslSettings untrusted;
    untrusted.caFile = folder_ / "absent.pem";
    client_.EnableSsl(std::make_shared<const AgentSecuritySslSettings>(untrusted));
    EXPECT_EQ(Exchange(), kHttpSecurity);
    EXPECT_TRUE(server_->Requests().empty());
}

TEST_F(HttpClientTest, ASilentPeerIsGivenUpAndOnlyATimeoutOfItsOwnMakesAnExchangeWaitLonger) {
    static constexpr std::chrono::milliseconds kWindow{100};
    const auto setTimeout = [this](int seconds) {
        client_ = HttpClient(1, seconds);
        client_.SetServer(TestHttpServer::kAddress, server_->Port());
        client_.SetSpeedWindow(kWindow);
    };
    Serve([](const auto&) { return std::this_thread::sleep_for(3 * kWindow), Whole(1000); });
    request_.SetMethod(HttpMethod::Post);
    request_.SetBody("question", "");
    for (const auto& [timeout, result] : {std::pair{-1, kHttpUnreachable}, {60, kHttpCompleted}}) {
        setTimeout(timeout);
        EXPECT_EQ(Exchange(), result) << client_.GetErrorText();
    }
    request_ = HttpMessage();
    ServeAlways(Stalling(kSize, 20));
    EXPECT_EQ(Download(), kHttpCutOff);
    EXPECT_EQ(client_.GetErrorText(), "the peer has become too slow") << "what has begun must go on";
    setTimeout(1);
    client_.SetSpeedWindow(std::chrono::seconds(10));
    EXPECT_EQ(Download(), kHttpCutOff);
    EXPECT_NE(client_.GetErrorText(), "the peer has become too slow") << "the time-out comes first";
    Answer silent{0};
    silent.stalls = true;
    ServeAlways(silent);
    EXPECT_EQ(Download(), kHttpUnreachable);
}

TEST_F(HttpClientTest, CancellingStopsAStalledExchange) {
    ServeAlways(Stalling(kSize, 3000));
    int asked = 0;
    client_.SetCancelCheck([&asked] { return ++asked > 2; });
    EXPECT_EQ(Download(), kHttpCutOff);
    EXPECT_GT(TempFolder::Read(path_).size(), 2000U) << "what came is kept";

    client_.SetCancelCheck({});
    std::thread stopper([this] {
        while (server_->Requests().size() < 2)
            std::this_thread::yield();
        HttpClientCancelAll(true);
    });
    EXPECT_EQ(Download(), kHttpCutOff);
    stopper.join();
    EXPECT_EQ(Download(), kHttpCutOff);
    EXPECT_EQ(server_->Requests().size(), 2U) << "a new exchange is not begun";
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
    EXPECT_EQ(server_->Requests().size(), 1U);
}

/// A server that challenges, lets in whoever uses its nonce and forgets it on request.
class HttpDigestTest : public HttpClientTest {
  protected:
    HttpDigestTest() {
        Serve([this](const TestHttpServer::Request& request) { return Reply(request); });
        client_ = AnotherClient();
    }
    ~HttpDigestTest() override { server_.reset(); }
    /// Clients share what is known of a peer.
    HttpClient AnotherClient() const {
        HttpClient client;
        client.SetServer(TestHttpServer::kAddress, server_->Port());
        client.SetAuthentification("agent", "se cret");
        return client;
    }

    std::string lastAuthorization_;
    std::vector<std::string> bodies_;  ///< of the requests let in
    bool forgetAfterEach_ = false;

  private:
    Answer Reply(const TestHttpServer::Request& request) {
        const std::string given = request.Header("authorization");
        const std::string nonce = "nonce=\"" + std::to_string(generation_) + "\"";
        if (given.find(" " + nonce) == std::string::npos)
            return {401, "WWW-Authenticate: Digest realm=\"kel\", qop=\"auth\", algorithm=SHA-256, " + nonce +
                             (given.empty() ? "" : ", stale=true") + "\r\n"};
        lastAuthorization_ = given;
        bodies_.push_back(request.body);
        if (forgetAfterEach_) ++generation_;
        return {200, "", "welcome"};
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
    const auto seen = server_->Requests();
    EXPECT_EQ(seen.size(), 6U);
    EXPECT_NE(lastAuthorization_.find("nc=00000005"), std::string::npos);
    EXPECT_EQ(seen.back().connection, 1);
    EXPECT_EQ(seen[0].body, "") << "nothing is sent before the peer has challenged";
    EXPECT_EQ(bodies_, (std::vector<std::string>{"question", "", "question", "", "question"}));
    client_.SetAuthentification("other", "secret");
    ASSERT_EQ(Exchange(), kHttpCompleted);
    EXPECT_NE(lastAuthorization_.find("username=\"other\""), std::string::npos) << "it has its own";
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
    EXPECT_EQ(server_->Requests().size(), 6U);
    EXPECT_TRUE(bodies_ == std::vector<std::string>(3, content));
    ServeAlways({401, "WWW-Authenticate: Basic realm=\"kel\"\r\n"});
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(Exchange(), kHttpCompleted);
    for (const TestHttpServer::Request& seen : server_->Requests())
        EXPECT_EQ(seen.Header("authorization"), "") << "basic is never sent in the clear";
}

TEST_F(HttpDigestTest, NoOtherDigestThanSha256IsAnswered) {
    for (const char* challenge :
         {R"(Digest realm="kel", qop="auth", nonce="rogue", algorithm=MD5)",
          R"(Digest realm="kel", qop="auth", nonce="rogue")", R"(digest nonce="rogue",algorithm="md5-sess")",
          R"(Digest realm="algorithm=SHA-256, ", qop="auth", nonce="rogue")",
          R"(Digest realm="\", algorithm=SHA-256, x=\"", nonce="rogue")",
          R"(Digest algorithm=SHA-256, nonce="rogue", algorithm=MD5)",
          R"(Digest algorithm=SHA-256, nonce="rogue", realm="open)"}) {
        ServeAlways({401, KelString("WWW-Authenticate: ") + challenge + "\r\n"});
        for (int i = 0; i < 2; ++i)
            EXPECT_EQ(Exchange(), kHttpSecurity) << challenge;
        for (const TestHttpServer::Request& seen : server_->Requests())
            EXPECT_EQ(seen.Header("authorization"), "") << challenge;
    }
}

TEST_F(HttpDigestTest, ManyClientsAtOnce) {
    std::atomic<int> good = 0;
    OnThreads(8, [&](int thread) {
        HttpClient client = AnotherClient();
        HttpMessage request, answer;
        request.SetMethod(HttpMethod::Post);
        request.SetBody(Pattern(1000, thread), "");
        for (int i = 0; i < 20; ++i)
            good += client.SendAndRecv(request, answer) == kHttpCompleted && answer.GetStatus() == 200;
    });
    EXPECT_EQ(good, 160);
    EXPECT_LE(server_->Requests().size(), 168U) << "at most one challenge a connection";
}

}  // namespace
