#include "kelcore/audit.h"

#include <filesystem>
#include <fstream>

#include "kel/file.h"
#include "kelcore/action_db.h"
#include "module_fixture.h"

namespace {

class Audit : public ModuleFixture {
  protected:
    KelString Folder() const { return root_ / "data/Agent"; }
};

TEST_F(Audit, OnlyChangesThatAreAskedForOverTheNetworkAreRecordedWithoutSecrets) {
    for (const bool changes : {true, false})
        ActionDbRegisterAction(
            {.signature = changes ? "Change" : "Read",
             .purpose = "Serves a test.",
             .callers = KelCallers::Child,
             .changes = changes},
            [](KelContainer* container) {
                *container = Values({"Message=the secret is wrong"});
                return 1U;
            },
            "neighbours");
    const KelContainer asked = With(Values({"Name=n", "UserPassword=abc", "Url=http://tree:secret@h"}), "In",
                                    Values({"Token=7", std::string("Text=") + std::string(5000, 'x')}));
    Call("Change", KelContainer(asked));
    Call("Read", From(asked, "127.0.3.2"));
    EXPECT_TRUE(AuditRead(0, 10).empty());
    Call("Change", From(asked, "127.0.3.2"));
    const KelVector<KelContainer> lines = AuditRead(0, 10);
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].GetString("Action"), "Change");
    EXPECT_EQ(lines[0].GetString("Address"), "127.0.3.2");
    EXPECT_EQ(lines[0].GetString("Message"), "the *** is wrong");
    const KelContainer& shown = lines[0].GetContainer("Arguments");
    EXPECT_EQ(shown.GetString("Name"), "n");
    EXPECT_EQ(shown.GetString("UserPassword"), "***");
    EXPECT_EQ(shown.GetString("Url"), "http://tree:***@h");
    EXPECT_EQ(shown.GetContainer("In").GetString("Token"), "***");
    EXPECT_LT(shown.GetContainer("In").GetString("Text").size(), 1100U);
    EXPECT_FALSE(shown.Has("HttpProtocolRequestInfo"));
    EXPECT_EQ(std::filesystem::status(Folder() + "/audit.jsonl").permissions(), std::filesystem::perms(0600));
}

TEST_F(Audit, KeepsTheLatestLinesInAFewFilesAndSkipsTornOnes) {
    const auto append = [this](const KelString& text) {
        std::ofstream(Folder() + "/audit.jsonl", std::ios::app) << text;
    };
    const auto record = [](const KelString& action, const KelContainer& arguments) {
        AuditedCall(action, arguments).End(0, {});
    };
    record("First", {});
    for (int i = 0; i < 6; ++i) {
        append(KelString(1 << 20, '{'));
        record("Change", Values({"N=" + std::to_string(i)}));
    }
    append("{\"Time\":5,\"Action\":\"Old\"}\n{\"Time\":1");
    AuditedCall("Last", {}, "desk");  // a kill follows
    const auto names = [](std::int64_t since, std::size_t limit) {
        Texts found;
        for (const KelContainer& line : AuditRead(since, limit))
            found.push_back(line.GetString("Action") + line.GetContainer("Arguments").GetString("N"));
        return found;
    };
    EXPECT_EQ(names(0, 2), (Texts{"Old", "Last"}));
    const KelVector<KelContainer> lines = AuditRead(6, 2);
    EXPECT_EQ(lines[0].GetInt64("Result", -1), 0);
    EXPECT_EQ(lines[1].GetString("Device"), "desk");
    EXPECT_FALSE(lines[1].Has("Result"));
    EXPECT_EQ(names(6, 9), (Texts{"Change1", "Change2", "Change3", "Change4", "Change5", "Last"}));
    EXPECT_FALSE(FileExists(Folder() + "/audit.5.jsonl"));
}

}  // namespace
