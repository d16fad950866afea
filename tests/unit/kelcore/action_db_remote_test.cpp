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

/// A call that fails: its code. The container must stay as it was.
unsigned int FailingCall(const KelString& deviceUrl) {
    KelContainer container;
    container.SetInt32("Kept", 1);
    const unsigned int result = Call(deviceUrl, container);
    EXPECT_EQ(container.GetInt32("Kept"), 1);
    return result;
}

TEST(RemoteAction, SendsTheContainerAndTakesTheAnswer) {
    KelContainer results;
    results.SetInt64("Size", 5000000000);
    TestHttpServer server([&](const SeenRequest&) {
        return Answer("200 OK", "Kel-Result: 4294967295\r\n", results.SaveToXML());
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

TEST(RemoteAction, AFailureLeavesTheContainerAsItWas) {
    const KelString challenge =
        "WWW-Authenticate: Digest realm=\"r\", nonce=\"n\", algorithm=SHA-256, qop=\"auth\"\r\n";
    const KelString empty = "<Container></Container>";
    const std::tuple<const char*, ScriptedAnswer, unsigned int> cases[] = {
        {"unknown action", Answer("404 Not Found", "", ""), kKelErrorUnknownAction},
        {"unauthorised", Answer("401 Unauthorized", challenge, ""), kKelErrorCredentials},
        {"too large", Answer("413 Content Too Large", "Kel-Result: 0\r\n", ""), kKelErrorBadAnswer},
        {"no result", Answer("200 OK", "", empty), kKelErrorBadAnswer},
        {"no number", Answer("200 OK", "Kel-Result: 1x\r\n", empty), kKelErrorBadAnswer},
        {"large number", Answer("200 OK", "Kel-Result: 4294967296\r\n", empty), kKelErrorBadAnswer},
        {"malformed body", Answer("200 OK", "Kel-Result: 0\r\n", "<Container>"), kKelErrorBadAnswer},
        {"no answer", {"", ScriptedAnswer::Close}, kKelErrorUnreachable},
    };
    KelString url;
    for (const auto& [name, answer, result] : cases) {
        TestHttpServer server([&answer = answer](const SeenRequest&) { return answer; });
        url = UrlOf(server);
        EXPECT_EQ(FailingCall(url), result) << name;
    }
    for (const KelString& device : {url, KelString("ftp://host"), KelString("http://")})
        EXPECT_EQ(FailingCall(device), kKelErrorUnreachable) << device << ": no server, or no address of one";
}

}  // namespace
