#include <gtest/gtest.h>

#include "kelcore/action_db.h"
#include "kelcore/error_codes.h"
#include "kelcore/http/url.h"
#include "test_http_server.h"

namespace {

KelString UrlOf(const TestHttpServer& server) {
    return UrlForAgent("agent", "pass word", server.HostAndPort()) + "/ignored/path";
}

/// A call that fails: its code. The container must stay as it was.
unsigned int FailingCall(const KelString& deviceUrl) {
    KelContainer container;
    container.SetInt32("Kept", 1);
    const unsigned int result =
        ActionDbInvokeContainer("Test", deviceUrl, "SampleAction", container, 0, 5, 5, nullptr);
    EXPECT_EQ(container.GetInt32("Kept"), 1);
    return result;
}

TEST(RemoteAction, AFailureLeavesTheContainerAsItWas) {
    const KelString challenge =
        "WWW-Authenticate: Digest realm=\"r\", nonce=\"n\", algorithm=SHA-256, qop=\"auth\"\r\n";
    const KelString empty = "<Container></Container>";
    const std::tuple<const char*, TestHttpServer::Answer, unsigned int> cases[] = {
        {"unknown action", {404, "", ""}, kKelErrorUnknownAction},
        {"unauthorised", {401, challenge, ""}, kKelErrorCredentials},
        {"too large", {413, "Kel-Result: 0\r\n", ""}, kKelErrorBadAnswer},
        {"no result", {200, "", empty}, kKelErrorBadAnswer},
        {"no number", {200, "Kel-Result: 1x\r\n", empty}, kKelErrorBadAnswer},
        {"large number", {200, "Kel-Result: 4294967296\r\n", empty}, kKelErrorBadAnswer},
        {"malformed body", {200, "Kel-Result: 0\r\n", "<Container>"}, kKelErrorBadAnswer},
        {"no answer", {0}, kKelErrorUnreachable},
    };
    KelString url;
    for (const auto& [name, answer, result] : cases) {
        TestHttpServer server([&answer = answer](const auto&) { return answer; });
        url = UrlOf(server);
        EXPECT_EQ(FailingCall(url), result) << name;
    }
    for (const KelString& device : {url, KelString("ftp://host"), KelString("http://")})
        EXPECT_EQ(FailingCall(device), kKelErrorUnreachable) << device << ": no server, or no address of one";
}

}  // namespace
