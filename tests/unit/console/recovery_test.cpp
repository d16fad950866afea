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

}  // namespace
