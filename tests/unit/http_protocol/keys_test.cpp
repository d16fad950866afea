// The server and the client of a tree with keys, one facing the other.
#include <gmock/gmock.h>

#include <atomic>

#include "http_server_fixture.h"
#include "kelcore/action_db_remote.h"
#include "kelcore/http/client.h"
#include "kelcore/keys/authority.h"
#include "kelcore/security.h"

namespace {

using testing::HasSubstr;

const KelDeviceIdentity kRelay{"ABCD0000-0000-0000-0000-000000000001", KelDeviceRole::Relay};
const KelDeviceIdentity kClient{"ABCD0000-0000-0000-0000-000000000002", KelDeviceRole::Client};
const KelDeviceIdentity kAbove{"ABCD0000-0000-0000-0000-000000000003", KelDeviceRole::Relay};

/// A relay, whose server runs, and an action there that says who called.
class KeyedServerTest : public HttpServerFixture {
  protected:
    KeyedServerTest() {
        EXPECT_TRUE(authority_.Create(now_));
        EXPECT_TRUE(authority_.Open());
        relay_ = Member(authority_, relayKey_, kRelay);
        client_ = Member(authority_, clientKey_, kClient);
        AgentSecuritySetKeys(relay_);
        constexpr auto kMember = KelCallers::Parent | KelCallers::Child;
        for (const auto& [action, callers] : {std::pair("Who", kMember),
                                              {"Enrol", kMember | KelCallers::Stranger},
                                              {"Order", KelCallers::Parent}})
            ActionDbRegisterAction(
                {.signature = action, .purpose = "Says who called.", .inputs = "", .callers = callers},
                [this](KelContainer* container) {
                    ++calls_;
                    const KelCallOrigin origin = CallOriginOf(*container);
                    container->Clear();
                    container->SetString("Device", origin.deviceGuid);
                    container->SetString("Callers", CallersText(origin.callers));
                    container->SetBool("MayPassOn", origin.mayPassOn);
                    return 0U;
                },
                "neighbours");
        Start();
    }
    ~KeyedServerTest() override {
        module_.reset();
        HttpClientCloseIdleConnections();
        AgentSecuritySetKeys(nullptr);
    }

    AgentSecurityKeys Member(const KelAuthority& authority, const KelKeyPair& key,
                             const KelDeviceIdentity& device, const KelRevocationList& revoked = {},
                             const KelParentPin& parent = {}) const {
        return *KelKeyRing::Make({key, device, *authority.Issue(key.Get(), device, now_),
                                  authority.Certificate(), revoked, "00", parent});
    }

    /// Calls an action with these keys; `error` receives what the client says.
    unsigned int CallWith(const AgentSecurityKeys& keys, KelContainer& container, const char* action = "Who",
                          const std::function<void(HttpClient&)>& prepare = {}) {
        HttpClient client(5, 30);
        client.SetServer("127.0.0.1", Port());
        client.EnableKeys(keys);
        if (prepare) prepare(client);
        const unsigned int code = ActionDbCallThrough(client, {}, action, action, container);
        error_ = client.GetErrorText() + client.GetRefusal();
        peer_ = client.GetPeer();
        return code;
    }
    std::string Caller(const AgentSecurityKeys& keys) {
        KelContainer container =
            With(KelContainer(), "HttpProtocolRequestInfo", Values({"HttpProtocolRequestDevice=forged"}));
        const unsigned int code = CallWith(keys, container);
        return code == 0 ? container.GetString("Callers") + " " + container.GetString("Device") +
                               (container.GetBool("MayPassOn") ? " for others" : "")
                         : std::to_string(code);
    }

    const std::int64_t now_ = std::time(nullptr);
    KelAuthority authority_{root_ / "Authority"};
    const KelKeyPair relayKey_ = *KelKeyPair::Make();
    const KelKeyPair clientKey_ = *KelKeyPair::Make();
    AgentSecurityKeys relay_, client_;
    std::atomic<int> calls_ = 0;
    std::string error_;
    KelTlsPeer peer_;
};

TEST_F(KeyedServerTest, CallersAreWhoTheirCertificatesSayUntilTheseAreRevoked) {
    const std::string asChild = "child " + kClient.guid;
    EXPECT_EQ(Caller(client_), asChild);
    EXPECT_EQ(peer_.guid, kRelay.guid);
    HttpClientCloseIdleConnections();  // the next connection may resume the session of the first
    EXPECT_EQ(Caller(client_), asChild);
    EXPECT_EQ(Caller(relay_), "child, observer " + kRelay.guid + " for others") << "this device by TCP";

    // Whoever calls from the parent's address is not the parent.
    FakeValues("RelayGetValues ()", {"ParentIPAddress=127.0.0.1", "ParentGuid=" + kClient.guid});
    IpRange near;
    near.Parse("127.0.0.1");
    TrustAsParents(near);
    KelContainer container;
    EXPECT_EQ(CallWith(client_, container, "Order"), kKelErrorNotAvailable);
    AgentSecuritySetKeys(Member(authority_, relayKey_, kRelay, {}, {{}, kClient.guid, {}, {}}));
    EXPECT_EQ(CallWith(client_, container, "Order"), kKelErrorNotAvailable) << "a client is no parent";
    AgentSecuritySetKeys(Member(authority_, relayKey_, kRelay, {}, {{}, kAbove.guid, {}, {}}));
    const KelKeyPair aboveKey = *KelKeyPair::Make();
    EXPECT_EQ(CallWith(Member(authority_, aboveKey, kAbove), container, "Order"), 0U)
        << "with the GUID of the parent";
    TrustAsParents({});

    ASSERT_TRUE(authority_.Revoke(kClient.guid, now_));
    AgentSecuritySetKeys(Member(authority_, relayKey_, kRelay, *authority_.Revoked()));
    EXPECT_EQ(Caller(client_), std::to_string(kKelErrorCredentials)) << "on the connection that it had";
    EXPECT_THAT(error_, testing::HasSubstr("certificate of " + kClient.guid + " was revoked"));
    HttpClientCloseIdleConnections();
    error_.clear();
    EXPECT_EQ(Caller(client_), std::to_string(kKelErrorCredentials)) << "and on another one";
    EXPECT_THAT(error_, testing::HasSubstr("certificate of " + kClient.guid + " was revoked"));
    EXPECT_EQ(calls_, 4);
}

TEST_F(KeyedServerTest, AServerThatIsNotWhoItShouldBeReceivesNothing) {
    KelAuthority other(root_ / "Other");
    ASSERT_TRUE(other.Create(now_));
    ASSERT_TRUE(other.Open());
    const KelString place = "127.0.0.1:" + std::to_string(Port());
    const auto ofParent = [&](const KelString& guid, const KelString& fingerprint) {
        return Member(authority_, clientKey_, kClient, {}, {{place}, guid, fingerprint, {}});
    };
    const auto expect = [](const KelString& guid) {
        return [guid](HttpClient& client) { client.ExpectDevice(guid); };
    };
    const auto join = [](const KelString& authority) {
        return [authority](HttpClient& client) { client.ExpectAuthority(authority); };
    };
    struct {
        AgentSecurityKeys keys;
        std::function<void(HttpClient&)> prepare;
        const char* problem;
    } const cases[] = {
        {Member(other, clientKey_, kClient), {}, "this tree's authority"},
        {client_, expect(kClient.guid), "not ABCD0000-0000-0000-0000-000000000002"},
        {ofParent(kRelay.guid, KeyFingerprint(clientKey_.Get())), {}, "forget-parent"},
        {client_, join(other.Certificate().Fingerprint()), "the tree of the invitation"},
    };
    for (const auto& item : cases) {
        KelContainer container;
        EXPECT_EQ(CallWith(item.keys, container, "Who", item.prepare), kKelErrorUnreachable);
        EXPECT_THAT(error_, HasSubstr(item.problem));
    }
    EXPECT_EQ(calls_, 0);
    KelContainer container;
    EXPECT_EQ(CallWith(ofParent(kRelay.guid, KeyFingerprint(relayKey_.Get())), container, "Who",
                       expect(kRelay.guid)),
              0U)
        << error_;
}

TEST_F(KeyedServerTest, WithoutACertificateOnlyAnEnrolmentIsServed) {
    const auto join = [this](HttpClient& client) {
        client.ExpectAuthority(authority_.Certificate().Fingerprint());
    };
    KelContainer container;
    EXPECT_EQ(CallWith(client_, container, "Who", join), kKelErrorCredentials);
    EXPECT_EQ(CallWith(client_, container, "Enrol", join), 0U);
    ExpectValues(container, {"Callers=stranger", "Device="});
    container.SetString("Request", KelString(17 << 10, 'x'));
    EXPECT_EQ(CallWith(client_, container, "Enrol", join), kKelErrorBadAnswer) << "too long";
    EXPECT_EQ(calls_, 1);
}

}  // namespace
