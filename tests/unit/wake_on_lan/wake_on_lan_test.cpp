#include "modules/wake_on_lan/wake_on_lan.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include "kel/text.h"
#include "kelcore/net/udp_socket.h"
#include "module_fixture.h"
#include "test_http_server.h"

namespace {

using namespace std::chrono_literals;

const std::string kCard = "02-00-7F-00-01-0A";
const std::string kGuid = "ABCD0000-1111-2222-3333-444444444444";
const std::string kOtherGuid = "ABCD0000-1111-2222-3333-555555555555";

/// Receives what is sent to the broadcast address of the loopback network.
class Listener {
  public:
    Listener() {
        socket_.Bind(IpAddress(), 0);
        sockaddr_in own{};
        socklen_t length = sizeof own;
        ::getsockname(socket_.Get(), reinterpret_cast<sockaddr*>(&own), &length);
        port_ = ntohs(own.sin_port);
    }
    std::string Port() const { return std::to_string(port_); }
    /// A packet that has arrived; empty when there is none. Within one machine it is there once it is sent.
    std::string Take() const {
        std::string packet(2000, '\0');
        const ssize_t length = ::recv(socket_.Get(), packet.data(), packet.size(), MSG_DONTWAIT);
        packet.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
        return packet;
    }

  private:
    UdpSocket socket_;
    std::uint16_t port_ = 0;
};

class WakeOnLanTest : public ModuleFixture {
  protected:
    void SetUp() override { WriteIni("WakeOnLan", "[WakeOnLan]\nPort = " + listener_.Port() + "\n"); }

    static KelContainer Request(const std::string& host, const Texts& more = {}) {
        return With(Values({"WakeOnLanDeviceMACAddr=" + kCard, "WakeOnLanDeviceIPAddr=" + host,
                            "WakeOnLanDeviceNetworkMask=255.255.255.0"}),
                    more);
    }
    static unsigned int AddAgent(const std::string& address, int port, const std::string& mask,
                                 std::string guid = kGuid) {
        KelContainer agent = Values({"WakeOnLanAgentGuid=" + guid});
        agent.SetInt32("WakeOnLanDeviceIPAddr",
                       static_cast<std::int32_t>(IpAddress::Parse(address)->Value()));
        agent.SetInt32("WakeOnLanDeviceAgentPort", port);
        agent.SetInt32("WakeOnLanDeviceNetworkMask",
                       static_cast<std::int32_t>(IpAddress::Parse(mask)->Value()));
        return Call("WakeOnLanAddSubnet", agent);
    }

    Listener listener_;
};

TEST_F(WakeOnLanTest, PacketHoldsTheAddressOfTheCardSixteenTimes) {
    RunningModule<WakeOnLan> module;
    std::string expected(6, '\xFF');
    for (int i = 0; i < 16; ++i)
        expected += std::string("\x02\x00\x7F\x00\x01\x0A", 6);
    for (const char* card : {"02-00-7F-00-01-0A", "02:00:7f:00:01:0a"}) {
        KelContainer call = Request("127.0.1.10", {std::string("WakeOnLanDeviceMACAddr=") + card});
        EXPECT_EQ(Call("WakeOnLanWakeUp", call), 0U);
        ExpectValues(call, {"WakeOnLanBroadcastIPAddr=127.255.255.255"});
        EXPECT_EQ(listener_.Take(), expected);
        EXPECT_EQ(listener_.Take(), "");
    }
}

TEST_F(WakeOnLanTest, UnusableValuesSendNothing) {
    RunningModule<WakeOnLan> module;
    for (const KelString& value :
         SplitText("MACAddr=|MACAddr=02-00-7F-00-01|MACAddr=02-00:7F-00-01-0A|MACAddr=02-00-7F-00-01-0G|"
                   "MACAddr=02-00-7F-00-01-+A|MACAddr=00-00-00-00-00-00|MACAddr=FF-FF-FF-FF-FF-FF|MACAddr=01-"
                   "00-5E-00-00-01|IPAddr=host|IPAddr=0.0.0.1|IPAddr=127.0.1.255|IPAddr=127.0.1.0|IPAddr=224."
                   "0.0.5|IPAddr=255.255.255.255|NetworkMask=|NetworkMask=255.0.255.0|NetworkMask=0.0.0.0|"
                   "NetworkMask=254.0.0.0|NetworkMask=255.255.255.254",
                   '|'))
        EXPECT_EQ(Call("WakeOnLanWakeUp", Request("127.0.1.10", {"WakeOnLanDevice" + value})),
                  kKelErrorBadInput)
            << value;
    for (const KelString& value : SplitText("NumberOfRetry=-1|NumberOfRetry=21|NumberOfRetry=x|RetryInterval="
                                            "0|RetryInterval=3601|Way=host|Way=a@b:80",
                                            '|'))
        EXPECT_EQ(Call("WakeOnLanWakeUp", Request("127.0.1.10", {"WakeOnLan" + value})), kKelErrorBadInput)
            << value;
    EXPECT_EQ(listener_.Take(), "");
}

/// A device in no subnet.
struct Apart : WakeOnLan {
    Apart() : WakeOnLan([] { return KelVector<NetworkInterface>(); }) {}
};

TEST_F(WakeOnLanTest, RequestIsPassedOnByTheWayOrToAnAgentInTheSubnetOfTheDevice) {
    RunningModule<Apart> module;
    const std::string host = "127.0.1.10";
    TestHttpServer agent(TestHttpServer::ActionScript(0, Values({"WakeOnLanSenderIPAddr=127.0.1.1"})));
    const auto agentPort = static_cast<int>(agent.Port());
    EXPECT_EQ(AddAgent(host, agentPort, "255.255.255.0"), 0U);  // the device itself
    EXPECT_EQ(Call("WakeOnLanWakeUp", Request(host)), kKelErrorNotAvailable);
    for (const auto& [address, port, mask] :
         {std::tuple("127.0.1.1", 0, "255.255.255.0"), {"127.0.1.255", 1, "255.255.255.0"}})
        EXPECT_EQ(AddAgent(address, port, mask), kKelErrorBadInput) << address;
    EXPECT_EQ(AddAgent("127.0.1.1", agentPort, "255.255.255.0", kOtherGuid), 0U);
    EXPECT_EQ(Call("WakeOnLanWakeUp", Request(host, {"WakeOnLanOnlyOwnSubnet=true"})), kKelErrorNotAvailable);
    const Texts common = {"WakeOnLanDeviceMACAddr=" + kCard, "WakeOnLanDeviceIPAddr=" + host,
                          "WakeOnLanDeviceNetworkMask=255.255.255.0", "WakeOnLanNumberOfRetry=2",
                          "WakeOnLanRetryInterval=7"};
    std::size_t calls = 0;
    for (const auto& [way, own] :
         {std::pair(Texts{}, "true"), {Texts{agent.HostAndPort(), "next:1"}, "false"}}) {
        KelContainer call = Request(host, common);
        for (const std::string& name : way)
            call.SetString("WakeOnLanWay", name, call.Has("WakeOnLanWay") ? call.Count("WakeOnLanWay") : 0);
        EXPECT_EQ(Call("WakeOnLanWakeUp", call), 0U);
        ExpectValues(call, {"WakeOnLanSenderIPAddr=127.0.1.1"});
        ASSERT_EQ(agent.Requests().size(), ++calls);
        const KelContainer passed = agent.Requests().back().Arguments();
        ExpectValues(passed, common);
        ExpectValues(passed, {std::string("WakeOnLanOnlyOwnSubnet=") + own,
                              std::string("WakeOnLanWay=") + (way.empty() ? "(none)" : "next:1")});
    }
}

TEST_F(WakeOnLanTest, OtherDevicesNeitherEnterAgentsNorNameWaysButTheParentMay) {
    RunningModule<WakeOnLan> module;
    FakeValues("RelayGetValues ()", {"ParentIPAddress=127.0.9.1"});
    EXPECT_EQ(Call("WakeOnLanAddSubnet", From(Values({"WakeOnLanAgentGuid=" + kGuid}), "127.0.9.1")),
              kKelErrorNotAvailable);
    TestHttpServer next(TestHttpServer::ActionScript(0));
    const KelContainer request = Request("127.0.1.10", {"WakeOnLanWay=" + next.HostAndPort()});
    for (const auto& [caller, result] :
         {std::pair("127.0.9.2", unsigned{kKelErrorBadInput}), {"127.0.9.1", 0U}})
        EXPECT_EQ(Call("WakeOnLanWakeUp", From(request, caller)), result) << caller;
    EXPECT_EQ(next.Requests().size(), 1U);
    EXPECT_EQ(Call("WakeOnLanWakeUp", From(Request("127.0.1.10"), "127.0.9.2")), 0U);
    EXPECT_NE(listener_.Take(), "");
}

TEST(SubnetAgents, LatestAgentsOfASubnetAreKeptAndAMovedOneLeavesItsOldSubnet) {
    const auto mask = *IpAddress::Parse("255.255.255.0");
    const auto first = *SubnetOf(*IpAddress::Parse("10.1.2.3"), mask);
    const auto second = *SubnetOf(*IpAddress::Parse("10.1.3.3"), mask);
    EXPECT_EQ(first.Text(), "10.1.2.0/24");
    SubnetAgents agents;
    for (unsigned int i = 0; i < 10; ++i)
        agents.Add(first, {std::to_string(i), IpAddress(first.network.Value() + 1 + i), 1});
    agents.Add(second, {"9", *IpAddress::Parse("10.1.3.3"), 1});
    const auto found = agents.Find(first, *IpAddress::Parse("10.1.2.9"));
    ASSERT_EQ(found.size(), SubnetAgents::kMostAgents - 2);  // without "9", which moved, and "8"
    EXPECT_EQ(found.front().guid, "7");
    EXPECT_EQ(agents.Find(second, {}).size(), 1U);
}

TEST(WakeSchedule, PacketsAreRepeatedAtIntervalsAndANewRequestReplacesTheOldOne) {
    const MacAddress card = *ParseMacAddress(kCard);
    const IpAddress host = *IpAddress::Parse("10.1.2.3");
    const KelVector<WakeSchedule::Packet> one = {{card, host}}, none;
    const WakeSchedule::Clock::time_point start{};
    WakeSchedule schedule;
    schedule.Repeat(card, host, 0, 60s, start);
    EXPECT_FALSE(schedule.NextDue());
    schedule.Repeat(card, host, 5, 10s, start);
    schedule.Repeat(card, host, 2, 60s, start);
    for (const auto& [seconds, packets] :
         {std::pair(59s, none), {60s, one}, {119s, none}, {500s, one}, {600s, none}})
        EXPECT_EQ(schedule.TakeDue(start + seconds), packets) << seconds.count();
    EXPECT_FALSE(schedule.NextDue());
}

}  // namespace
