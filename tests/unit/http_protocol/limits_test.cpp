#include <arpa/inet.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <chrono>
#include <future>
#include <list>
#include <thread>

#include "http_server_fixture.h"

namespace {

using LimitsTest = HttpServerFixture;

TEST_F(LimitsTest, SlowHeadsSlowBodiesAndIdleConnectionsAreClosed) {
    Start("HeaderTimeout=1\nIdleTimeout=1\nMinBodyRateTime=1\n");
    HttpTestClient silent = Connect();
    HttpTestClient head = Connect();
    head.Send("GET / HTTP/1.1\r\nHos");
    HttpTestClient idle = Connect();
    EXPECT_EQ(idle.Ask("GET", "/").status, 401);
    HttpTestClient body = Connect();
    body.FetchNonce();
    body.Send("PUT /Files/in/x HTTP/1.1\r\nHost: x\r\nContent-Length: 5000\r\n" +
              body.Authorization("PUT", "/Files/in/x") + "\r\nslow");
    EXPECT_TRUE(silent.WaitForClose());
    EXPECT_TRUE(head.WaitForClose());
    EXPECT_TRUE(idle.WaitForClose());
    EXPECT_TRUE(body.WaitForClose());
    EXPECT_EQ(CountFilesIn("in"), 0U);
}

TEST_F(LimitsTest, ConnectionsBeyondTheLimitOfAnAddressAreClosed) {
    Start("MaxConnectionsPerAddress=3\n");
    std::list<HttpTestClient> held;
    for (int i = 0; i < 3; ++i) {
        held.emplace_back(module->Port());
        EXPECT_EQ(held.back().Ask("GET", "/").status, 401);
    }
    EXPECT_EQ(Connect().Ask("GET", "/").status, 0);
    held.pop_back();
    int status = 0;
    for (int i = 0; i < 1000 && status == 0; ++i)
        status = Connect().Ask("GET", "/").status;
    EXPECT_EQ(status, 401) << "a place came free";
}

TEST_F(LimitsTest, ThousandsOfIdleConnectionsLeaveRoomForARequest) {
    constexpr std::size_t kIdle = 3000;
    rlimit limit{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    if (limit.rlim_max < 2 * kIdle + 100) GTEST_SKIP() << "both ends of the connections need descriptors";
    limit.rlim_cur = limit.rlim_max;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    Start();
    WriteFile("data", "content");
    std::list<HttpTestClient> idle;
    while (idle.size() < kIdle) {
        idle.emplace_back(module->Port());
        ASSERT_EQ(idle.back().Ask("GET", "/").status, 401);
    }
    EXPECT_EQ(Connect().AskGranted("GET", "/Files/data").body, "content");
    EXPECT_EQ(idle.front().AskGranted("GET", "/Files/data").body, "content");
}

/// A port that was free a moment ago.
std::uint16_t FreePort() {
    const UniqueFd probe(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    EXPECT_EQ(::bind(probe.Get(), reinterpret_cast<sockaddr*>(&address), length), 0);
    ::getsockname(probe.Get(), reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

TEST_F(LimitsTest, TheProbePortTakesEverythingAndAnswersNothing) {
    const std::uint16_t port = FreePort();
    Start("BwPort=" + std::to_string(port) + "\nBwPingFrequency=60\n");
    KelContainer container;
    container.SetBool("FirstTime", true);
    ASSERT_EQ(ActionDbInvokeLocal("HttpProtocolGetThreadCount", container), 0U);
    EXPECT_EQ(container.GetInt32("BwPort"), port);
    EXPECT_EQ(container.GetInt32("BwPingFrequency"), 60);
    HttpTestClient probe(port);
    EXPECT_TRUE(probe.Send(PatternBytes(30 << 20))) << "more than fits the sockets";
    ::shutdown(probe.Fd(), SHUT_WR);
    char byte = 0;
    EXPECT_EQ(::recv(probe.Fd(), &byte, 1, 0), 0);
}

TEST_F(LimitsTest, BusyWorkersTurnFurtherCallsAway) {
    Start("Workers=1\nWorkerQueue=0\n");
    std::promise<void> entered, leave;
    ActionDbRegisterAction(
        "TestWait ()",
        [&](KelContainer*) -> unsigned int {
            entered.set_value();
            leave.get_future().wait();
            return 0;
        },
        "test");
    HttpTestClient first = Connect();
    first.FetchNonce();
    first.Send("POST /Action/TestWait HTTP/1.1\r\nHost: x\r\nContent-Length: 0\r\n" +
               first.Authorization("POST", "/Action/TestWait") + "\r\n");
    entered.get_future().wait();
    HttpTestClient second = Connect();
    EXPECT_EQ(second.AskGranted("POST", "/Action/HttpProtocolGetParams").status, 503);
    leave.set_value();
    EXPECT_EQ(first.Receive().status, 200);
}

TEST_F(LimitsTest, StopEndsTransfersInFlight) {
    Start();
    WriteFile("large", PatternBytes(64 << 20));
    std::promise<void> entered, leave;
    ActionDbRegisterAction(
        "TestWait ()",
        [&](KelContainer*) -> unsigned int {
            entered.set_value();
            leave.get_future().wait();
            return 0;
        },
        "test");
    HttpTestClient action = Connect();
    HttpTestClient download = Connect();
    HttpTestClient upload = Connect();
    HttpTestClient idle = Connect();
    for (HttpTestClient* client : {&action, &download, &upload, &idle})
        client->FetchNonce();
    download.Send("GET /Files/large HTTP/1.1\r\nHost: x\r\n" + download.Authorization("GET", "/Files/large") +
                  "\r\n");
    upload.Send("PUT /Files/in/x HTTP/1.1\r\nHost: x\r\nContent-Length: 5000000\r\n" +
                upload.Authorization("PUT", "/Files/in/x") + "\r\n" + PatternBytes(2000000));
    action.Send("POST /Action/TestWait HTTP/1.1\r\nHost: x\r\nContent-Length: 0\r\n" +
                action.Authorization("POST", "/Action/TestWait") + "\r\n");
    entered.get_future().wait();
    const auto start = std::chrono::steady_clock::now();
    Stop();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    for (HttpTestClient* client : {&action, &download, &upload, &idle})
        EXPECT_TRUE(client->WaitForClose());

    KelContainer container;
    EXPECT_EQ(ActionDbInvokeLocal("HttpProtocolGetParams", container), 0U);
    EXPECT_EQ(container.GetContainer("Values").GetInt32("Port"), module->Port());
    leave.set_value();
    module.reset();
    EXPECT_EQ(CountFilesIn("in"), 0U);
}

}  // namespace
