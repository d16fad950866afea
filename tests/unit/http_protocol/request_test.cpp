#include "http_server_fixture.h"
#include "modules/http_protocol/digest_auth.h"

namespace {

using RequestTest = HttpServerFixture;
using kelhttp::DigestAuth;

TEST_F(RequestTest, OnlyTheRightDigestIsGranted) {
    Start();
    WriteFile("data", "content");
    HttpTestClient client = Connect();
    TestAnswer none = client.Ask("GET", "/Files/data");
    EXPECT_EQ(none.status, 401);
    EXPECT_NE(none.fields["www-authenticate"].find("algorithm=SHA-256"), std::string::npos);
    client.FetchNonce();

    const std::string right = client.Authorization("GET", "/Files/data");
    const struct {
        const char* name;
        std::string line;
    } refused[] = {
        {"Password", client.Authorization("GET", "/Files/data", "tree", "wrong")},
        {"User", client.Authorization("GET", "/Files/data", "other", "secret")},
        {"OtherMethod", client.Authorization("PUT", "/Files/data")},
        {"OtherTarget", client.Authorization("GET", "/Files/other")},
        {"BasicOnPlainConnection", "Authorization: Basic dHJlZTpzZWNyZXQ=\r\n"},
        {"Cut", right.substr(0, right.size() - 10) + "\r\n"},
        {"Empty", "Authorization: \r\n"},
    };
    for (const auto& test : refused) {
        SCOPED_TRACE(test.name);
        EXPECT_EQ(client.Ask("GET", "/Files/data", test.line).status, 401);
    }
    EXPECT_EQ(client.Ask("GET", "/Files/data", right).body, "content");
    EXPECT_NE(client.Ask("GET", "/Files/data", right).fields["www-authenticate"].find("stale=true"),
              std::string::npos)
        << "a count that does not rise";
    client.nonce.back() = client.nonce.back() == '0' ? '1' : '0';
    EXPECT_EQ(client.AskGranted("GET", "/Files/data").status, 401) << "a forged nonce";
}

TEST(DigestAuthTest, NonceEndsWithItsTimeAndServesOneAddress) {
    const DigestAuth auth("tree", "secret", 300);
    const DigestAuth::Clock::time_point now = DigestAuth::Clock::now();
    const IpAddress peer(0x7F000001);
    const std::string challenge = auth.Challenge(peer, false, false, now);
    HttpTestClient client(0);
    const std::size_t start = challenge.find("nonce=\"") + 7;
    client.nonce = challenge.substr(start, challenge.find('"', start) - start);
    const auto check = [&](IpAddress from, std::chrono::seconds later) {
        std::string line = client.Authorization("GET", "/a");
        const std::string value = line.substr(15, line.size() - 17);
        DigestAuth::Memory memory;
        return auth.Check({"GET", "/a", value, from, false}, memory, now + later);
    };
    EXPECT_EQ(check(peer, std::chrono::seconds(299)), DigestAuth::Verdict::Granted);
    EXPECT_EQ(check(peer, std::chrono::seconds(301)), DigestAuth::Verdict::Stale);
    EXPECT_EQ(check(IpAddress(0x7F000002), std::chrono::seconds(1)), DigestAuth::Verdict::Stale);
    DigestAuth::Memory memory;
    EXPECT_EQ(auth.Check({"GET", "/a", "Basic dHJlZTpzZWNyZXQ=", peer, true}, memory, now),
              DigestAuth::Verdict::Granted);
    EXPECT_EQ(auth.Check({"GET", "/a", "Basic dHJlZTpzZWNyZXR=", peer, true}, memory, now),
              DigestAuth::Verdict::Refused);
}

TEST_F(RequestTest, CallsActionsInBothFormats) {
    Start();
    ActionDbRegisterAction(
        "TestEcho (string Text)",
        [](KelContainer* container) -> unsigned int {
            const KelString address =
                container->GetContainer("HttpProtocolRequestInfo").GetString("HttpProtocolRequestAddress");
            const KelString text = container->GetString("Text");
            container->Clear();
            container->SetString("Text", text + "!");
            container->SetString("Address", address);
            return 42;
        },
        "test");
    KelContainer forged;
    forged.SetString("HttpProtocolRequestAddress", "9.9.9.9");
    KelContainer arguments;
    arguments.SetString("Text", "it's");
    arguments.SetContainer("HttpProtocolRequestInfo", forged);
    HttpTestClient client = Connect();

    TestAnswer xml = client.AskGranted("POST", "/Action/TestEcho", "Content-Type: application/xml\r\n",
                                       arguments.SaveToXML());
    EXPECT_EQ(xml.status, 200);
    EXPECT_EQ(xml.fields["kel-result"], "42");
    KelContainer results;
    ASSERT_TRUE(results.LoadFromXML(xml.body));
    EXPECT_EQ(results.GetString("Text"), "it's!");
    EXPECT_EQ(results.GetString("Address"), "127.0.0.1");

    TestAnswer json = client.AskGranted(
        "POST", "/Action/TestEcho",
        "Content-Type: application/json; charset=utf-8\r\nAccept: application/json\r\n", R"({"Text":"j"})");
    EXPECT_EQ(json.fields["content-type"], "application/json");
    EXPECT_NE(json.body.find("\"j!\""), std::string::npos);
}

TEST_F(RequestTest, RefusesWhatIsNoCall) {
    Start("MaxActionBytes=2000\nMaxHeaderBytes=2000\n");
    const std::string big(3000, 'x');
    const struct {
        const char* name;
        std::string method, target, fields, body;
        int status;
    } cases[] = {
        {"UnknownAction", "POST", "/Action/None", "", "", 404},
        {"NoAction", "POST", "/Action/", "", "", 404},
        {"OtherPath", "POST", "/Files/data", "", "", 404},
        {"MalformedXml", "POST", "/Action/HttpProtocolGetParams", "", "<Container>", 400},
        {"MalformedJson", "POST", "/Action/HttpProtocolGetParams", "Content-Type: application/json\r\n", "{",
         400},
        {"OtherType", "POST", "/Action/HttpProtocolGetParams", "Content-Type: text/plain\r\n", "x", 415},
        {"TooLarge", "POST", "/Action/HttpProtocolGetParams", "", big, 413},
        {"Chunked", "POST", "/Action/HttpProtocolGetParams", "Transfer-Encoding: chunked\r\n", "", 411},
        {"LengthAndEncoding", "POST", "/Action/X", "Content-Length: 4\r\nTransfer-Encoding: chunked\r\n", "",
         400},
        {"DifferingLengths", "POST", "/Action/X", "Content-Length: 4\r\nContent-Length: 5\r\n", "", 400},
        {"SignedLength", "POST", "/Action/X", "Content-Length: +4\r\n", "", 400},
        {"BlankBeforeColon", "GET", "/", "Name : x\r\n", "", 400},
        {"FoldedLine", "GET", "/", "Name: x\r\n y\r\n", "", 400},
        {"OtherMethod", "DELETE", "/Files/data", "", "", 405},
        {"LongHead", "GET", "/Files/data", "Name: " + big + "\r\n", "", 431},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        HttpTestClient client = Connect();
        EXPECT_EQ(client.AskGranted(test.method, test.target, test.fields, test.body).status, test.status);
    }
}

TEST_F(RequestTest, PipelinedRequestsAreAnsweredInOrder) {
    Start();
    WriteFile("a", "first");
    WriteFile("b", PatternBytes(300000));
    HttpTestClient client = Connect();
    client.FetchNonce();
    const auto get = [&client](const std::string& target) {
        return "GET " + target + " HTTP/1.1\r\nHost: x\r\n" + client.Authorization("GET", target) + "\r\n";
    };
    std::string text = get("/Files/a");
    text += get("/Files/b");
    for (const char byte : text)
        ASSERT_TRUE(client.Send(std::string_view(&byte, 1)));
    EXPECT_EQ(client.Receive().body, "first");
    EXPECT_TRUE(client.Receive().body == PatternBytes(300000));
    const std::string call =
        "POST /Action/HttpProtocolGetParams HTTP/1.1\r\nHost: x\r\nContent-Length: 25\r\n";
    text = get("/Files/b");
    text += call + client.Authorization("POST", "/Action/HttpProtocolGetParams") +
            "\r\n<Container></Container>\r\n";
    text += call + "\r\n<Container></Container>\r\n";
    text += get("/Files/missing");
    text += "GET /Files/a HTTP/1.0\r\n" + client.Authorization("GET", "/Files/a") + "\r\n";
    ASSERT_TRUE(client.Send(text));
    EXPECT_EQ(client.Receive().body.size(), 300000U);
    EXPECT_EQ(client.Receive().status, 200);
    EXPECT_EQ(client.Receive().status, 401) << "its body is read and thrown away";
    EXPECT_EQ(client.Receive().status, 404);
    EXPECT_EQ(client.Receive().fields["connection"], "close");
    EXPECT_TRUE(client.WaitForClose());
}

}  // namespace
