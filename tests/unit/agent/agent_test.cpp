#include "agent/agent_config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>

#include "agent/service_manager.h"
#include "agent/stop_signals.h"
#include "kel/temp_folder.h"
#include "kel/unique_fd.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr const char* kGoodIni =
    "[Agent]\nName=tree\nHttpPassword=a;b#c and more\nAddress=127.0.9.1\n"
    "[Modules]\nModule10=Last\nModule2=Second\nModule1=First\n";

class AgentConfigTest : public testing::Test {
  protected:
    AgentConfigTest() { std::filesystem::create_directory(folder_ / "config"); }

    void WriteIni(const std::string& name, const std::string& text) {
        const std::string path = folder_ / ("config/" + name);
        TempFolder::Write(path, text);
        std::filesystem::permissions(path, std::filesystem::perms(0600));
    }
    std::string ErrorOf(const std::string& ini) {
        WriteIni("Agent.ini", ini);
        const auto config = LoadAgentConfig(root_);
        return config ? "" : config.Error().message;
    }
    KelVector<KelString> Faults() {
        KelVector<KelString> texts;
        for (const IniFault& fault : FindConfigFaults(*LoadAgentConfig(root_), root_))
            texts.push_back(fault.text);
        return texts;
    }

    TempFolder folder_;
    const std::string root_ = folder_.Path() + "/";
};

TEST_F(AgentConfigTest, ModulesComeInTheOrderOfTheirNumbersAndThePasswordUnchanged) {
    WriteIni("Agent.ini", kGoodIni);
    const auto config = LoadAgentConfig(root_);
    ASSERT_TRUE(config) << config.Error().message;
    EXPECT_THAT(config->modules, ElementsAre("First", "Second", "Last"));
    EXPECT_EQ(config->httpPassword, "a;b#c and more");
}

TEST_F(AgentConfigTest, UnusableEntriesAreRefusedByName) {
    const std::string agent = "[Agent]\nName=t\nHttpPassword=p\n";
    const std::string modules = "[Modules]\nModule1=A\n";
    for (const auto& [ini, named] : std::vector<std::pair<std::string, std::string>>{
             {"[Agent]\nName=t\n" + modules, "HttpPassword"},
             {"[Agent]\nName=t\nHttpPassword=\n" + modules, "HttpPassword"},
             {"[Agent]\nName=a:b\nHttpPassword=p\n" + modules, "Name"},
             {agent + "Address=1.2.3\n" + modules, "1.2.3"},
             {agent + modules + "[Security]\nSslForce=maybe\n", "maybe"},
             {agent + "[Modules]\nModule1=../x\n", "../x"},
             {agent, "Modules"},
             {agent + modules + "[Security]\nSslCaFile=no.pem\n", "config/no.pem"},
             {agent + modules + "[Security]\nPacForce=1\n", "PacScript"}})
        EXPECT_THAT(ErrorOf(ini), HasSubstr(named)) << ini;
}

TEST_F(AgentConfigTest, FaultsNameTheReadablePasswordTheEntriesAndTheModulesThatCannotBeLoaded) {
    WriteIni("Agent.ini", KelString(kGoodIni) + "[Agent]\nLogLevel=loud\nLogFiles=0\nAdress=1.2.3.4\n");
    TempFolder::Write(folder_ / "Last.so", "no library");
    EXPECT_EQ(LoadAgentConfig(root_)->logLevel, KelDebugLevel::Print);
    EXPECT_EQ(Faults().size(), 6U) << "three entries, three modules";
    for (const char* fault : {"print is used", "LogFiles in section Agent is 0; it is raised to 1",
                              "did you mean Address?", "First.so", "module Last: cannot be loaded"})
        EXPECT_THAT(Faults(), Contains(HasSubstr(fault)));

    WriteIni("Agent.ini", "[Agent]\nName=t\nHttpPassword=aaaaaaaaaaaa\n[Modules]\nModule1=A\n");
    EXPECT_THAT(Faults(), Contains(HasSubstr("password repeats")));
}

TEST_F(AgentConfigTest, SecretsThatOthersMayOpenAreRefusedAndFoldersClosed) {
    WriteIni("key.pem", "key");
    WriteIni("Agent.ini", KelString(kGoodIni) + "[Security]\nSslKeyFile=key.pem\n");
    const auto load = [this](unsigned int mode, unsigned int keyMode) {
        std::filesystem::permissions(folder_ / "config/Agent.ini", std::filesystem::perms(mode));
        std::filesystem::permissions(folder_ / "config/key.pem", std::filesystem::perms(keyMode));
        return LoadAgentConfig(root_);
    };
    for (const auto& [mode, keyMode] :
         std::initializer_list<std::pair<int, int>>{{0640, 0600}, {0602, 0600}, {0600, 0604}, {0600, 0660}})
        EXPECT_THAT(load(mode, keyMode).Error().message, HasSubstr("chmod 600")) << mode << " " << keyMode;
    const auto config = load(0400, 0640);
    ASSERT_TRUE(config);
    std::filesystem::permissions(folder_ / "config", std::filesystem::perms(0755));
    EXPECT_EQ(CloseRoot(*config).size(), 1U);
    EXPECT_EQ(CloseRoot(*config).size(), 0U);
}

/// Two signals together, as for the process and its group, and one later than a stop takes to come twice;
/// exits with 0 when that was not heard.
void StopTwice() {
    const KelDebug log("Test", "Test");  // without a context, warnings go to stderr
    StopSignals stop([] {}, log);
    for (const int number : {SIGTERM, SIGINT})
        kill(getpid(), number);
    while (!stop.WaitFor(std::chrono::seconds(1))) {
    }
    std::this_thread::sleep_for(StopSignals::kSameStop);
    std::fputs("stopping;", stderr);
    kill(getpid(), SIGINT);
    std::this_thread::sleep_for(std::chrono::seconds(StopSignals::kStopSeconds - 1));
    std::_Exit(EXIT_SUCCESS);
}

TEST(StopSignalsDeathTest, ALaterSignalEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(StopTwice(), testing::ExitedWithCode(EXIT_FAILURE), "^stopping;.*second signal");
}

/// What the service manager would receive; empty when nothing has come.
KelString Received(int socket) {
    char text[256];
    const ssize_t length = recv(socket, text, sizeof text, MSG_DONTWAIT);
    return length > 0 ? KelString(text, static_cast<std::size_t>(length)) : KelString();
}

TEST(ServiceManager, HearsOfAnAgentOnlyWhileItIsAlive) {
    const TempFolder folder;
    const UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{AF_UNIX, {}};
    const KelString path = folder / "notify";
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(socket.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    bool isAlive = true;
    for (const bool isWatched : {false, true}) {
        if (isWatched) setenv("NOTIFY_SOCKET", path.c_str(), 1);
        if (isWatched) setenv("WATCHDOG_USEC", "120000000", 1);
        ServiceManager service([&isAlive] { return isAlive; });
        const std::chrono::seconds longest(60);
        EXPECT_EQ(service.Pause(longest), isWatched ? longest / 2 : longest);
        service.Ready("Ready\nWATCHDOG=1");
        EXPECT_EQ(Received(socket.Get()), isWatched ? "READY=1\nSTATUS=Ready WATCHDOG=1" : "");
        service.Step();
        EXPECT_EQ(Received(socket.Get()), isWatched ? "WATCHDOG=1" : "");
        isAlive = !isAlive;
        service.Step();
        EXPECT_EQ(Received(socket.Get()), isAlive && isWatched ? "WATCHDOG=1" : "");
        isAlive = true;
    }
    unsetenv("NOTIFY_SOCKET");
    unsetenv("WATCHDOG_USEC");
}

}  // namespace
