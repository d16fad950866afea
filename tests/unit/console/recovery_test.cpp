#include "console_fixture.h"
#include "kelcore/action_db.h"

namespace {

using ConsoleRecoveryTest = ConsoleTest;

/// A folder exists and cannot be read, as a file on a failing disk.
TEST_F(ConsoleRecoveryTest, ReportThatCannotBeReadNowIsAskedForAgain) {
    const RunningModule<Console> console;
    for (const auto& [path, answer] :
         {std::pair("data", kKelAnswerTryLater), {"absent", kKelAnswerStaysHere}})
        EXPECT_EQ(Trigger("FileStoreCallbackCopyUpstream",
                          Values({"FileType=DeliveryReceipt", "FilePath=" + root_ / path})),
                  static_cast<unsigned int>(answer));
}

TEST_F(ConsoleRecoveryTest, NewDatabaseHasAnotherIdentifierThanTheLostOne) {
    KelVector<KelString> ids;
    FakeAction("IdentitySetConsole (string ConsoleId)", [&ids](KelContainer* container) {
        ids.push_back(container->GetString("ConsoleId"));
        return 0U;
    });
    const auto start = [] { const ActiveModule<Console> console; };
    start();
    start();
    std::filesystem::remove(root_ / "data/Console/Console.sqlite");
    start();
    EXPECT_EQ(ids[0], ids[1]);
    EXPECT_NE(ids[1], ids[2]);
    EXPECT_FALSE(ids[0].empty() || ids[2].empty());
}

}  // namespace
