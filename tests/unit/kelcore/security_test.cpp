#include "kelcore/security.h"

#include <gtest/gtest.h>

#include "kelcore/tree_passwords.h"
#include "on_threads.h"

/// pacparser keeps a copy of each URL it was asked about; leak checkers need not tell.
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() {
    return "leak:libpacparser";
}

namespace {

const char* const kScript =
    "function FindProxyForURL(url, host) {\n"
    "  if (host == 'direct') return 'DIRECT';\n"
    "  if (host == 'socks') return 'SOCKS s:1; PROXY p:2; DIRECT';\n"
    "  if (host == 'nothing') return 'SOCKS s:1';\n"
    "  if (host == 'quoted') return 'PROXY ' + (url.indexOf('%27') > 0 ? 'safe' : 'raw') + ':4';\n"
    "  if (host == 'throws') throw 'x';\n"
    "  return 'proxy ' + host + ':3';\n"
    "}\n";

TEST(PacScript, GivesTheFirstUsableProxy) {
    const std::pair<const char*, const char*> cases[] = {
        {"direct", ""}, {"socks", "p:2"},     {"other", "other:3"}, {"nothing", ""},
        {"throws", ""}, {"quoted", "safe:4"}, {"');alert('x", ""}};
    for (const auto& [host, proxy] : cases)
        EXPECT_EQ(AgentSecurityPacFindProxy({kScript}, "http://h/a'b", host), proxy) << host;
}

TEST(PacScript, ABrokenScriptMeansADirectConnection) {
    for (const char* script : {"", "function Other() {}", "function FindProxyForURL(url, host) {"})
        EXPECT_EQ(AgentSecurityPacFindProxy({script}, "http://h/", "h"), "") << script;
    EXPECT_EQ(AgentSecurityPacFindProxy({kScript}, "http://h/", "h"), "h:3") << "the engine recovers";
}

TEST(PacScript, ThreadsMayAskAtOnce) {
    OnThreads(4, [](int thread) {
        const KelString host = "h" + std::to_string(thread);
        for (int round = 0; round < 5; ++round)
            EXPECT_EQ(AgentSecurityPacFindProxy({kScript}, "http://x/", host), host + ":3");
    });
}

TEST(TreePasswordsTest, CallsBeginWithTheFormerPasswordUntilADeviceHasTheNewOne) {
    using Order = KelVector<KelString>;
    const Order formerFirst = {"old", "new"};
    const Order newFirst = {"new", "old"};
    KelTreePasswords passwords;
    passwords.Set({"old"});
    EXPECT_EQ(passwords.OrderFor("a:1"), Order{"old"});
    passwords.Set({"new", "old"});
    passwords.NoteTaken("waits:1", "old", false);
    passwords.NoteTaken("both:1", "old", true);
    passwords.NoteTaken("ended:1", "new", false);
    EXPECT_EQ(passwords.OrderFor("waits:1"), formerFirst);
    EXPECT_EQ(passwords.OrderFor("both:1"), newFirst);
    EXPECT_EQ(passwords.OrderFor("ended:1"), newFirst);
    passwords.NoteTaken("ended:1", "old", false);  // restored from a backup
    EXPECT_EQ(passwords.OrderFor("ended:1"), formerFirst);
    EXPECT_FALSE(passwords.Has(""));
    EXPECT_EQ(PasswordEndText(ParsePasswordEnd("2026-12-31").value_or(0)), "2026-12-31");
    EXPECT_FALSE(ParsePasswordEnd("2026-12-31 x"));
}

}  // namespace
