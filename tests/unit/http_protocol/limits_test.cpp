#include <sys/socket.h>
#include <future>
#include <list>

#include "http_server_fixture.h"
#include "modules/http_protocol/guess_limit.h"
#include "modules/http_protocol/peer_table.h"

using kelhttp::GuessLimit;
using kelhttp::PeerTable;

namespace {

class LimitsTest : public HttpServerFixture {
  protected:
    /// Begins an action call that lasts until `leave_` is set.
    HttpTestClient BeginLongCall() {
        FakeAction("TestWait ()", [this](KelContainer*) {
            entered_.set_value();
            leave_.get_future().wait();
            return 0U;
        });
        HttpTestClient client = Connect();
        client.Send(client.Head("POST", "/Action/TestWait", "Content-Length: 0\r\n"));
        entered_.get_future().wait();
        return client;
    }
    std::promise<void> entered_, leave_;
};

TEST_F(LimitsTest, SlowHeadsSlowBodiesAndIdleConnectionsAreClosed) {
    Start("HeaderTimeout=1\nIdleTimeout=1\nMinBodyRateTime=1\n");
    HttpTestClient silent = Connect(), head = Connect(), idle = Connect(), body = Connect();
    head.Send("GET / HTTP/1.1\r\nHos");
    EXPECT_EQ(idle.Ask("GET", "/").status, 401);
    body.Send(body.Head("PUT", "/Files/in/x", "Content-Length: 5000\r\n") + "slow");
    for (HttpTestClient* client : {&silent, &head, &idle, &body})
        EXPECT_TRUE(client->WaitForClose());
    EXPECT_EQ(CountFilesIn("in"), 0);
    HttpTestClient blank = Connect();
    EXPECT_TRUE(Eventually([&blank] { return !blank.Send("\r\n"); })) << "empty lines are no head";
}

TEST_F(LimitsTest, ConnectionsBeyondTheLimitOfAnAddressAreClosed) {
    Start("MaxConnectionsPerAddress=3\n");
    std::list<HttpTestClient> held;
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(held.emplace_back(Port()).AskGranted("GET", "/").status, 404);
    EXPECT_EQ(Connect().AskGranted("GET", "/").status, 503);
    held.pop_back();
    EXPECT_TRUE(Eventually([this] { return Connect().AskGranted("GET", "/").status == 404; }))
        << "a place came free";
}

/// Who keeps a place: strangers of unknown addresses, of known ones and of the device itself are apart.
TEST(PeerTableTest, AFloodOfStrangersClosesStrangersOnly) {
    const IpAddress own(0x7F000001), child(1);
    PeerTable table({.all = 20, .perAddress = 4, .strangers = 5, .strangersPerAddress = 3, .own = {}});
    std::map<IpAddress, int> closed;
    std::vector<PeerTable::Place> places;
    const auto connect = [&](IpAddress peer) {
        places.push_back(table.Admit(peer));
        EXPECT_TRUE(!places.back() || table.SetClose(places.back(), [&, peer] { ++closed[peer]; }));
        return places.back();
    };
    for (int i = 0; i < 4; ++i)
        EXPECT_TRUE(table.Authenticated(connect(child)));
    EXPECT_FALSE(table.Authenticated(connect(child))) << "its address has all that it may have";
    connect(own);
    for (std::uint32_t i = 0; i < 1000; ++i)
        connect(IpAddress(2 + i % 100));
    EXPECT_EQ(closed[child] + closed[own], 0);
    EXPECT_FALSE(table.Authenticated(places[6])) << "the first of the flood has been closed";
    for (int i = 0; i < 10; ++i)
        connect(child);
    EXPECT_EQ(closed[child], 8) << "three strangers are left of eleven";
    places.clear();
    for (std::uint32_t i = 0; i < 20; ++i)
        EXPECT_TRUE(table.Authenticated(connect(IpAddress(200 + i))));
    EXPECT_FALSE(connect(IpAddress(300))) << "all places are taken by peers with credentials";
    EXPECT_TRUE(connect(own)) << "but for those of the device itself";
}

TEST(GuessLimitTest, AnAddressRecoversAndManyTakeNoMemory) {
    const GuessLimit::Clock::time_point begin{};
    GuessLimit limit;
    for (int i = 1; i < 100'000; ++i) {
        EXPECT_EQ(limit.IsExceeded(IpAddress(1), begin), i > GuessLimit::kFailures);
        limit.NoteFailure(IpAddress(1), begin);
    }
    EXPECT_FALSE(limit.IsExceeded(IpAddress(1), begin + GuessLimit::kPause)) << "one more is allowed";
    for (std::uint32_t i = 0; i < 3 * GuessLimit::kMaxAddresses; ++i)
        limit.NoteFailure(IpAddress(i), begin);
    EXPECT_LE(limit.CountAddresses(), GuessLimit::kMaxAddresses);
}

TEST_F(LimitsTest, TheProbePortTakesEverythingAndAnswersNothing) {
    Start();
    const std::uint16_t port = Port();  // a free one, once the server has left it
    module_.reset();
    Start("BwPort=" + std::to_string(port) + "\nBwPingFrequency=60\n");
    KelContainer result = Values({"FirstTime=true"});
    EXPECT_EQ(Call("HttpProtocolGetThreadCount", result), 0U);
    ExpectValues(result, {"BwPort=" + std::to_string(port), "BwPingFrequency=60"});
    HttpTestClient probe(port);
    EXPECT_TRUE(probe.Send(PatternBytes(30 << 20))) << "more than fits the sockets";
    ::shutdown(probe.Fd(), SHUT_WR);
    char byte = 0;
    EXPECT_EQ(::recv(probe.Fd(), &byte, 1, 0), 0);
}

TEST_F(LimitsTest, BusyWorkersTurnFurtherCallsAwayAndStopEndsTransfersInFlight) {
    Start("Workers=1\nWorkerQueue=0\n");
    WriteFile("large", PatternBytes(64 << 20));
    HttpTestClient download = Connect(), upload = Connect(), idle = Connect();
    download.Send(download.Head("GET", "/Files/large"));
    upload.Send(upload.Head("PUT", "/Files/in/x", "Content-Length: 5000000\r\n") + PatternBytes(2000000));
    idle.FetchNonce();
    HttpTestClient action = BeginLongCall();
    EXPECT_EQ(Connect().AskGranted("POST", "/Action/HttpProtocolGetParams").status, 503);
    Stop();  // would never end if it waited for them
    for (HttpTestClient* client : {&action, &download, &upload, &idle})
        EXPECT_TRUE(client->WaitForClose());

    EXPECT_EQ(Call("HttpProtocolGetParams").GetContainer("Values").GetInt32("Port"), Port());
    leave_.set_value();
    module_.reset();
    EXPECT_EQ(CountFilesIn("in"), 0);
}

}  // namespace
