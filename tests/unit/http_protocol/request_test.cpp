#include <gmock/gmock.h>

#include "http_server_fixture.h"
#include "kelcore/metrics/metrics_page.h"
#include "modules/http_protocol/digest_auth.h"

namespace {

using RequestTest = RunningHttpServer;
using kelhttp::DigestAuth;

TEST_F(RequestTest, OnlyTheRightDigestIsGranted) {
    WriteFile("data", "content");
    HttpTestClient client = Connect();
    TestAnswer none = client.Ask("GET", "/Files/data");
    EXPECT_EQ(none.status, 401);
    EXPECT_NE(none.fields["www-authenticate"].find("algorithm=SHA-256"), std::string::npos);
    client.FetchNonce();

    const std::string right = client.Authorization("GET", "/Files/data");
    for (const std::string& wrong :
         {client.Authorization("GET", "/Files/data", "tree", "wrong"),
          client.Authorization("GET", "/Files/data", "other", "secret"),
          client.Authorization("PUT", "/Files/data"), client.Authorization("GET", "/Files/other"),
          std::string("Authorization: Basic dHJlZTpzZWNyZXQ=\r\n"),
          right.substr(0, right.size() - 10) + "\r\n", std::string("Authorization: \r\n")})
        EXPECT_EQ(client.Ask("GET", "/Files/data", wrong).status, 401) << wrong;
    EXPECT_EQ(client.Ask("GET", "/Files/data", right).body, "content");
    EXPECT_NE(client.Ask("GET", "/Files/data", right).fields["www-authenticate"].find("stale=true"),
              std::string::npos)
        << "a count that does not rise";
    client.nonce.back() = client.nonce.back() == '0' ? '1' : '0';
    EXPECT_EQ(client.AskGranted("GET", "/Files/data").status, 401) << "a forged nonce";
}

TEST_F(RequestTest, WhileThePasswordChangesBothAreAccepted) {
    WriteFile("data", "content");
    const auto statusAndHint = [this](const std::string& password, const std::string& fields = {}) {
        HttpTestClient client = Connect();
        client.FetchNonce();
        TestAnswer answer = client.Ask("GET", "/Files/data",
                                       client.Authorization("GET", "/Files/data", "tree", password) + fields);
        return std::to_string(answer.status) + answer.fields["kel-password"];
    };
    EXPECT_EQ(statusAndHint("former"), "401");
    TreePasswords().Set({"secret", "former"});
    EXPECT_EQ(statusAndHint("former"), "200former");
    ASSERT_EQ(TreePasswords().FormerCallers().size(), 1U);
    EXPECT_EQ(TreePasswords().FormerCallers().front().first, IpAddress(0x7F000001));
    for (const auto& [password, fields] : {std::pair("secret", ""), {"former", "Kel-Password: both\r\n"}}) {
        EXPECT_EQ(statusAndHint(password, fields).substr(0, 3), "200");
        EXPECT_TRUE(TreePasswords().FormerCallers().empty()) << password;
        statusAndHint("former");
    }
    EXPECT_EQ(statusAndHint("other"), "401");
    TreePasswords().Set({"secret"});
    EXPECT_EQ(statusAndHint("former"), "401");
}

TEST(DigestAuthTest, NonceEndsWithItsTimeAndServesOneAddress) {
    KelTreePasswords passwords;
    passwords.Set({"secret"});
    const DigestAuth auth("tree", passwords, 300);
    const DigestAuth::Clock::time_point now = DigestAuth::Clock::now();
    const IpAddress peer(0x7F000001);
    HttpTestClient client(0);
    client.TakeNonce(auth.Challenge(peer, false, false, now));
    const auto check = [&](IpAddress from, std::chrono::seconds later) {
        const std::string line = client.Authorization("GET", "/a");
        const std::string value = line.substr(15, line.size() - 17);
        DigestAuth::Memory memory;
        return auth.Check({"GET", "/a", value, from}, memory, now + later);
    };
    EXPECT_EQ(check(peer, std::chrono::seconds(299)), DigestAuth::Verdict::Granted);
    EXPECT_EQ(check(peer, std::chrono::seconds(301)), DigestAuth::Verdict::Stale);
    EXPECT_EQ(check(IpAddress(0x7F000002), std::chrono::seconds(1)), DigestAuth::Verdict::Stale);
}

TEST_F(RequestTest, ActionsSeeTheAddressOfTheCallerWhateverItSays) {
    KelContainer seen;
    FakeAction("TestEcho ()", [&seen](KelContainer* container) { return seen = *container, 42U; });
    const std::string call = From({}, "9.9.9.9").SaveToXML();
    EXPECT_EQ(Connect().AskGranted("POST", "/Action/TestEcho", "", call).fields["kel-result"], "42");
    EXPECT_EQ(ActionRequestAddress(seen), "127.0.0.1");
    EXPECT_FALSE(ActionIsFromThisDevice(seen)) << "others of the device have the address, too";
}

TEST_F(RequestTest, RefusesWhatIsNoCall) {
    Start("MaxActionBytes=2000\nMaxJsonBytes=1024\nMaxHeaderBytes=2000\n");
    const std::string big(3000, 'x');
    const std::string params = "POST /Action/HttpProtocolGetParams";
    struct Case {
        int status;
        std::string request, fields = {}, body = {};
    };
    for (const auto& [status, request, fields, body] :
         {Case{404, "POST /Action/None"}, Case{404, "POST /Action/"}, Case{404, "POST /Files/data"},
          Case{400, params, "", "<Container>"}, Case{400, params, "Content-Type: application/json\r\n", "{"},
          Case{415, params, "Content-Type: text/plain\r\n", "x"}, Case{413, params, "", big},
          Case{413, params, "Content-Type: application/json\r\n", big.substr(1500)},
          Case{411, params, "Transfer-Encoding: chunked\r\n"},
          Case{400, params, "Content-Length: 4\r\nTransfer-Encoding: chunked\r\n"},
          Case{400, params, "Content-Length: 4\r\nContent-Length: 5\r\n"},
          Case{400, params, "Content-Length: +4\r\n"},
          Case{400, params, "Content-Length: 99999999999999999999\r\n"}, Case{400, "GET /", "Name : x\r\n"},
          Case{400, "GET /", "Name: x\r\n y\r\n"}, Case{405, "DELETE /Files/data"},
          Case{431, "GET /Files/data", "Name: " + big + "\r\n"}}) {
        const std::size_t blank = request.find(' ');
        const std::string method = request.substr(0, blank), target = request.substr(blank + 1);
        EXPECT_EQ(Connect().AskGranted(method, target, fields, body).status, status)
            << request << fields << body;
    }
}

TEST_F(RequestTest, MetricsAreForMembersAndForWhoReachesTheirPort) {
    const std::uint16_t port = FreePort();
    Start(KelFormat("MetricsPort=%u", unsigned{port}));
    WriteFile("data", "content");
    ActionDbRegisterAction(
        {.signature = "AgentGetMetrics",
         .purpose = "Test.",
         .callers = KelCallers::Operator | KelCallers::Scraper},
        [](KelContainer* container) { return container->SetString("Text", "kel_up 1\n"), 0U; }, "neighbours");
    EXPECT_EQ(Connect().Ask("GET", "/metrics").status, 401);
    TestAnswer granted = Connect().AskGranted("GET", "/metrics");
    EXPECT_EQ(granted.body, "kel_up 1\n");
    EXPECT_EQ(granted.fields["content-type"], "text/plain; version=0.0.4; charset=utf-8");
    EXPECT_EQ(HttpTestClient(port).Ask("GET", "/metrics?x=1").body, "kel_up 1\n");
    for (const auto& [method, target] :
         std::vector<std::pair<std::string, std::string>>{{"GET", "/Files/data"},
                                                          {"HEAD", "/metrics"},
                                                          {"POST", "/metrics"},
                                                          {"PUT", "/Files/in/x"},
                                                          {"GET", "/metrics/"},
                                                          {"POST", "/Action/AgentGetMetrics"}})
        EXPECT_EQ(HttpTestClient(port).Ask(method, target, "Content-Length: 0\r\n").status, 404) << target;
    KelContainer arguments;
    const KelPeer scraper{.proof = KelPeer::Proof::MetricsPort};
    EXPECT_EQ(CallLocalFor(scraper, "", "HttpProtocolGetParams", arguments), unsigned{kKelErrorNotAvailable});
    KelMetricsPage page;
    ActionDbCollectMetrics(page);
    EXPECT_THAT(page.Text(), testing::Not(testing::HasSubstr("kel_calls_refused_total 0\n")));
}

TEST_F(RequestTest, PipelinedRequestsAreAnsweredInOrder) {
    const std::string large = PatternBytes(300000);
    WriteFile("a", "first");
    WriteFile("b", large);
    HttpTestClient client = Connect();
    std::string text = client.Head("GET", "/Files/a");
    text += client.Head("GET", "/Files/b");
    for (const char byte : text)
        ASSERT_TRUE(client.Send(std::string_view(&byte, 1)));
    EXPECT_EQ(client.Receive().body, "first");
    EXPECT_TRUE(client.Receive().body == large);

    const std::string length = "Content-Length: 25\r\n", body = "<Container></Container>\r\n";
    text = client.Head("GET", "/Files/b");
    text += client.Head("POST", "/Action/HttpProtocolGetParams", length) + body;
    text += "POST /Action/HttpProtocolGetParams HTTP/1.1\r\nHost: x\r\n" + length + "\r\n" + body;
    text += client.Head("GET", "/Files/missing");
    text += "GET /Files/a HTTP/1.0\r\n" + client.Authorization("GET", "/Files/a") + "\r\n";
    ASSERT_TRUE(client.Send(text));
    EXPECT_TRUE(client.Receive().body == large);
    EXPECT_EQ(client.Receive().status, 200);
    EXPECT_EQ(client.Receive().status, 401) << "its body is read and thrown away";
    EXPECT_EQ(client.Receive().status, 404);
    EXPECT_EQ(client.Receive().fields["connection"], "close");
    EXPECT_TRUE(client.WaitForClose());
}

TEST_F(RequestTest, EmptyLinesBeforeARequestAreSkippedUpToALimit) {
    WriteFile("a", "first");
    HttpTestClient client = Connect();
    std::string head = client.Head("GET", "/Files/a");
    for (const char byte : "\r\n\r\n" + head)
        ASSERT_TRUE(client.Send(std::string_view(&byte, 1)));
    EXPECT_EQ(client.Receive().body, "first");
    const std::string lines = ReplaceAll(std::string(500, '.'), ".", "\r\n");
    ASSERT_TRUE(client.Send(lines + client.Head("GET", "/Files/a")));
    EXPECT_EQ(client.Receive().body, "first");
    ASSERT_TRUE(client.Send(lines));  // the limit holds for all that come before one request
    ASSERT_TRUE(client.Send(lines + client.Head("GET", "/Files/a")));
    EXPECT_EQ(client.Receive().status, 400);
    EXPECT_TRUE(client.WaitForClose());
}

}  // namespace
