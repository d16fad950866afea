#include "agent/agent_config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "agent/agent_options.h"
#include "agent/root_lock.h"
#include "kel/directory.h"
#include "kel/file.h"
#include "kel/path.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr const char* kGoodIni =
    "[Agent]\nName=tree\nHttpPassword=a;b#c\nAddress=127.0.9.1\n"
    "[Modules]\nModule10=Last\nModule2=Second\nModule1=First\n";

class AgentConfigTest : public testing::Test {
  protected:
    AgentConfigTest() {
        root_ = testing::TempDir() + "agent_config_" + std::to_string(getpid()) + "/";
        PathCreate(root_ + "config");
    }
    ~AgentConfigTest() override { DirDelete(root_, true); }

    void WriteIni(const KelString& name, const KelString& text, unsigned int mode = 0600) {
        ASSERT_TRUE(FileWriteText(root_ + "config/" + name, text, mode));
    }
    KelString ErrorOf(const KelString& ini) {
        WriteIni("Agent.ini", ini);
        const auto config = LoadAgentConfig(root_);
        return config ? "" : config.Error().message;
    }

    KelString root_;
};

TEST_F(AgentConfigTest, ModulesComeInTheOrderOfTheirNumbersAndThePasswordUnchanged) {
    WriteIni("Agent.ini", kGoodIni);
    const auto config = LoadAgentConfig(root_);
    ASSERT_TRUE(config) << config.Error().message;
    EXPECT_THAT(config->modules, ElementsAre("First", "Second", "Last"));
    EXPECT_EQ(config->httpPassword, "a;b#c");
    EXPECT_EQ(config->DataDir(), root_ + "data/");
}

TEST_F(AgentConfigTest, UnusableEntriesAreRefusedByName) {
    const KelString modules = "[Modules]\nModule1=A\n";
    const struct {
        const char* name;
        KelString ini;
        const char* expected;
    } cases[] = {
        {"no password", "[Agent]\nName=t\n" + modules, "HttpPassword"},
        {"empty password", "[Agent]\nName=t\nHttpPassword=\n" + modules, "HttpPassword"},
        {"name with colon", "[Agent]\nName=a:b\nHttpPassword=p\n" + modules, "Name"},
        {"address", "[Agent]\nName=t\nHttpPassword=p\nAddress=1.2.3\n" + modules, "1.2.3"},
        {"log level", "[Agent]\nName=t\nHttpPassword=p\nLogLevel=loud\n" + modules, "loud"},
        {"module outside the folder", "[Agent]\nName=t\nHttpPassword=p\n[Modules]\nModule1=../x\n", "../x"},
        {"no modules", "[Agent]\nName=t\nHttpPassword=p\n", "Modules"},
        {"no certificate", "[Agent]\nName=t\nHttpPassword=p\n" + modules + "[Security]\nSslCaFile=no.pem\n",
         "config/no.pem"},
        {"proxy without script", "[Agent]\nName=t\nHttpPassword=p\n" + modules + "[Security]\nPacForce=1\n",
         "PacScript"},
    };
    for (const auto& test : cases)
        EXPECT_THAT(ErrorOf(test.ini), HasSubstr(test.expected)) << test.name;
    EXPECT_EQ(ErrorOf(kGoodIni), "");
}

TEST_F(AgentConfigTest, FaultsNameTheReadablePasswordThePortAndTheMissingModule) {
    WriteIni("Agent.ini", kGoodIni, 0644);
    WriteIni("HttpProtocol.ini", "[HttpProtocol]\nPort=80a\n");
    WriteIni("Relay.ini", "[Relay]\nParentPort=65536\n");
    const auto config = LoadAgentConfig(root_);
    ASSERT_TRUE(config);
    const auto faults = FindConfigFaults(*config, root_);
    EXPECT_THAT(faults, Contains(HasSubstr("chmod 600")));
    EXPECT_THAT(faults, Contains(HasSubstr("'80a'")));
    EXPECT_THAT(faults, Contains(HasSubstr("'65536'")));
    EXPECT_THAT(faults, Contains(HasSubstr("First.so")));

    ASSERT_EQ(chmod((root_ + "config/Agent.ini").c_str(), 0600), 0);
    EXPECT_THAT(FindConfigFaults(*config, root_), Not(Contains(HasSubstr("chmod 600"))));
}

TEST_F(AgentConfigTest, ALibraryWithoutEntryFunctionIsNoModule) {
    WriteIni("Agent.ini", "[Agent]\nName=t\nHttpPassword=p\n[Modules]\nModule1=Text\n");
    ASSERT_TRUE(FileWriteText(root_ + "Text.so", "no library"));
    const auto faults = FindConfigFaults(*LoadAgentConfig(root_), root_);
    EXPECT_THAT(faults, Contains(HasSubstr("module Text: cannot be loaded")));
}

TEST_F(AgentConfigTest, OneLockOnARoot) {
    auto first = LockRoot(root_);
    ASSERT_TRUE(first);
    const auto second = LockRoot(root_);
    ASSERT_FALSE(second);
    EXPECT_EQ(second.Error().code, kRootLocked);
    first->Reset();
    EXPECT_TRUE(LockRoot(root_));
}

TEST(AgentOptionsTest, UnusableArgumentsEndWithUsage) {
    const std::vector<std::vector<const char*>> cases = {{"kelagent"},
                                                         {"kelagent", "--root"},
                                                         {"kelagent", "--root", "d", "extra"},
                                                         {"kelagent", "--unknown"}};
    for (auto arguments : cases) {
        int exitCode = 0;
        EXPECT_FALSE(ParseAgentOptions(static_cast<int>(arguments.size()),
                                       const_cast<char**>(arguments.data()), exitCode));
        EXPECT_EQ(exitCode, kExitUsage);
    }
}

TEST(AgentOptionsTest, FoldersAreCompleteAndEndWithASlash) {
    const char* arguments[] = {"kelagent", "--modules", "/m/x/..", "--root", "/r", "--check"};
    int exitCode = kExitFailure;
    const auto options = ParseAgentOptions(6, const_cast<char**>(arguments), exitCode);
    ASSERT_TRUE(options);
    EXPECT_EQ(options->root, "/r/");
    EXPECT_EQ(options->modulesDir, "/m/");
    EXPECT_TRUE(options->check);
}

}  // namespace
