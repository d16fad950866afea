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

/// The identities of devices and of their stores. The first one of the master follows its start, perhaps from
/// a backup.
TEST_F(ConsoleRecoveryTest, WhatIsPendingBelowALostStoreOrAfterAStartIsOrderedAgain) {
    const RunningModule<Console> console;
    Publish(Request(kClient));
    int time = 1000;
    const auto report = [&](const std::string& guid, const std::string& pathName,
                            const std::string& storeId) {
        const std::string url = pathName.substr(0, pathName.find('/')) + "/" + guid;
        KelContainer identity =
            Values({"GUID=" + guid, "HostName=north", "Port=1610", "StoreId=" + storeId, "DeviceUrl=" + url,
                    "PathName=" + pathName, "Time=" + std::to_string(++time)});
        identity.SetString("Role", guid == kMaster ? "master" : "relay");
        identity.SetString("ParentGuid", guid == kMaster ? "" : kMaster);
        TempFolder::Write(root_ / "identity.xml", identity.SaveToXML());
        return Trigger("FileStoreCallbackCopyUpstream",
                       Values({"FileType=IdentityIdentity", "FilePath=" + root_ / "identity.xml"}));
    };
    const auto other = "ABCD0000-0000-0000-0000-00000000000B";
    const std::string otherPath =
        std::string("127.0.3.9:1610/") + other + "/02-00-7F-00-03-09/127.0.3.9/255.0.0.0";
    for (const auto& [guid, path, storeId, refusal, offers] : {std::tuple(kNorth, kNorthPath, "1", 0U, 1U),
                                                               {kNorth, kNorthPath, "2", 1U, 1U},
                                                               {kNorth, kNorthPath, "2", 0U, 2U},
                                                               {kNorth, kNorthPath, "2", 0U, 2U},
                                                               {kNorth, kNorthPath, "", 0U, 2U},
                                                               {std::string(other), otherPath, "1", 0U, 2U},
                                                               {std::string(other), otherPath, "2", 0U, 2U},
                                                               {kMaster, kMasterPath, "1", 1U, 2U},
                                                               {kMaster, kMasterPath, "1", 0U, 3U},
                                                               {kMaster, kMasterPath, "1", 0U, 3U},
                                                               {kMaster, kMasterPath, "2", 0U, 4U}}) {
        SetStoreResult(refusal);
        EXPECT_EQ(report(guid, path, storeId),
                  static_cast<unsigned int>(refusal != 0 ? kKelAnswerTryLater : kKelAnswerStaysHere));
        EXPECT_EQ(OfferCount(), offers) << guid << " " << storeId;
    }
    const KelVector<KelContainer> offered = Offers();
    const KelContainer wanted = offered.back().GetContainer("FileInfo");
    for (const char* name : {"FileType", "FileName", "FileChecksum"})
        EXPECT_EQ(wanted.GetString(name), offered.front().GetString(name));
    EXPECT_EQ(offered.back().GetContainer("DevicePath"), offered.front().GetContainer("DevicePath"));
}

}  // namespace
