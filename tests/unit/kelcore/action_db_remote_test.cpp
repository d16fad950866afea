#include <gtest/gtest.h>

#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/http/url.h"
#include "test_http_server.h"

namespace {

KelString UrlOf(const TestHttpServer& server) {
    return UrlForAgent("agent", "pass word", "127.0.0.1:" + std::to_string(server.Port())) + "/ignored/path";
}

unsigned int Call(const KelString& deviceUrl, KelContainer& container, IpAddress* localAddress = nullptr) {
    return ActionDbInvokeContainer("Test", deviceUrl, "SampleAction", container, 0, 5, 5, localAddress);
}

TEST(RemoteAction, SendsTheContainerAndTakesTheAnswer) {
    KelContainer results;
    results.SetInt64("Size", 5000000000);
    TestHttpServer server([&](const SeenRequest&) {
        return ScriptedAnswer{AnswerText("200 OK", "Kel-Result: 4294967295\r\n", results.SaveToXML())};
    });
    KelContainer container;
    container.SetString("FileName", "it's <one>");
    const KelContainer arguments = container;
    IpAddress local;
    EXPECT_EQ(Call(UrlOf(server), container, &local), 4294967295u);
    EXPECT_TRUE(container == results);
    EXPECT_EQ(local.ToText(), "127.0.0.1");

    const std::vector<SeenRequest> seen = server.Seen();
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ(seen.back().method, "POST");
    EXPECT_EQ(seen.back().target, "/Action/SampleAction");
    EXPECT_EQ(seen.back().Header("content-type"), "application/xml");
    KelContainer received;
    ASSERT_TRUE(received.LoadFromXML(seen.back().body));
    EXPECT_TRUE(received == arguments);
}

struct Answer {
    const char* name;
    const char* status;
    const char* headers;
    const char* body;
    unsigned int result;
};

class RemoteActionAnswerTest : public testing::TestWithParam<Answer> {};

TEST_P(RemoteActionAnswerTest, AFailureLeavesTheContainerAsItWas) {
    const Answer& answer = GetParam();
    TestHttpServer server([&](const SeenRequest&) {
        return ScriptedAnswer{AnswerText(answer.status, answer.headers, answer.body), true};
    });
    KelContainer container;
    container.SetInt32("Kept", 1);
    EXPECT_EQ(Call(UrlOf(server), container), answer.result);
    EXPECT_EQ(container.GetInt32("Kept"), 1);
}

INSTANTIATE_TEST_SUITE_P(
    Answers, RemoteActionAnswerTest,
    testing::Values(
        Answer{"UnknownAction", "404 Not Found", "", "", kKelErrorUnknownAction},
        Answer{"Unauthorised", "401 Unauthorized",
               "WWW-Authenticate: Digest realm=\"r\", nonce=\"n\", algorithm=SHA-256, qop=\"auth\"\r\n", "",
               kKelErrorCredentials},
        Answer{"TooLarge", "413 Content Too Large", "Kel-Result: 0\r\n", "", kKelErrorBadAnswer},
        Answer{"NoResult", "200 OK", "", "<Container></Container>", kKelErrorBadAnswer},
        Answer{"NoNumber", "200 OK", "Kel-Result: 1x\r\n", "<Container></Container>", kKelErrorBadAnswer},
        Answer{"TooLargeNumber", "200 OK", "Kel-Result: 4294967296\r\n", "<Container></Container>",
               kKelErrorBadAnswer},
        Answer{"MalformedBody", "200 OK", "Kel-Result: 0\r\n", "<Container>", kKelErrorBadAnswer}),
    [](const auto& one) { return KelString(one.param.name); });

TEST(RemoteAction, ADeviceThatDoesNotAnswerIsUnreachable) {
    KelString url;
    {
        TestHttpServer server([](const SeenRequest&) { return ScriptedAnswer{"", true}; });
        url = UrlOf(server);
        KelContainer container;
        EXPECT_EQ(Call(url, container), kKelErrorUnreachable) << "closed without an answer";
    }
    for (const KelString& device : {url, KelString("ftp://host"), KelString("http://")}) {
        KelContainer container;
        container.SetInt32("Kept", 1);
        EXPECT_EQ(Call(device, container), kKelErrorUnreachable) << device;
        EXPECT_EQ(container.GetInt32("Kept"), 1);
    }
}

}  // namespace
