#include <sys/socket.h>
#include <future>
#include <list>

#include "http_server_fixture.h"

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

TEST_F(LimitsTest, AnUploadThatIsHeldOpenWithFewBytesIsCutOff) {
    Start("MinUploadRate=1000\nMinUploadRateTime=2\n");
    HttpTestClient slow = Connect();
    slow.Send(slow.Head("PUT", "/Files/in/x", "Content-Length: 5000000\r\n"));
    EXPECT_TRUE(Eventually([&slow] { return !slow.Send("a"); }));
}

TEST_F(LimitsTest, ConnectionsBeyondTheLimitOfAnAddressAreClosed) {
    Start("MaxConnectionsPerAddress=3\n");
    std::list<HttpTestClient> held;
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(held.emplace_back(Port()).Ask("GET", "/").status, 401);
    EXPECT_EQ(Connect().Ask("GET", "/").status, 0);
    held.pop_back();
    EXPECT_TRUE(Eventually([this] { return Connect().Ask("GET", "/").status == 401; }))
        << "a place came free";
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
