#include <gtest/gtest.h>
#include "console_fixture.h"
#include "kel/format.h"
#include "kel/text.h"
#include "modules/console/device.h"
#include "modules/console/device_tree.h"
#include "modules/console/stage_plan.h"
#include "modules/console/target_choice.h"
#include "on_threads.h"

namespace {

TEST_F(ConsoleTest, ListsTheTreeAsTheIniFileHasItNow) {
    RunningModule<Console> module;
    ExpectValues(DeviceNamed(kClient),
                 {"Name=desk", "Parent=" + kNorth, "Address=127.0.3.3:1610", "LastSeen=0"});

    WriteDevices(kNorth + "=nonsense\n");
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(Call("ConsoleListDevices").Count("Values"), 1U);
    EXPECT_EQ(log_->Count(KelDebugLevel::Warning, "nonsense"), 1);
}

TEST_F(ConsoleTest, PublishCopiesTheFileIntoTheServedFolderAndOffersItToTheStore) {
    KelContainer alias;
    FakeAction("HttpProtocolAddAlias (string AliasName, string AliasPath)",
               [&alias](KelContainer* container) {
                   alias = *container;
                   return 0U;
               });
    ActiveModule<Console> module;
    ExpectValues(alias, {"AliasName=QuarnelDatabase", "AliasPath=" + root_ / "data/Console"});

    const Texts passedOn = {"Priority=7", "WakeOnLan=true"};
    const KelContainer info = Values({"Note=x"});
    const KelContainer request = With(With(Request("DESK"), passedOn), "FileInfo", info);
    const KelContainer result = Publish(From(request, ""));
    const KelString checksum = TextMd5("content");
    ExpectValues(result, {"FileChecksum=" + checksum, "FileSize=7", "Targets=1"});
    ASSERT_EQ(OfferCount(), 1U);
    const KelContainer offer = Offers()[0];
    const std::string below = "Packages/tools/" + checksum + "/setup.bin";
    ExpectValues(offer,
                 {"FileName=setup.bin", "FileChecksum=" + checksum, "FileURL=/QuarnelDatabase/" + below,
                  "FilePath=" + root_ / ("data/Console/" + below)});
    EXPECT_EQ(TempFolder::Read(offer.GetString("FilePath")), "content");
    ExpectValues(offer, passedOn);
    ExpectValues(offer.GetContainer("FileInfo"),
                 {"Note=x", "PublicationId=" + result.GetString("PublicationId")});
    EXPECT_FALSE(offer.Has("HttpProtocolRequestInfo"));
    const KelContainer north = With({}, kNorthPath, With({}, kClientPath, {}));
    EXPECT_EQ(offer.GetContainer("DevicePath"), With({}, kMasterPath, north));
}

TEST_F(ConsoleTest, WhatIsPublishedAgainIsOrderedAndADamagedCopyReplaced) {
    TempFolder::Write(root_ / "data/Console/Incoming/.kel-stale", "left by a kill");
    RunningModule<Console> module;
    KelContainer published;
    for (int i = 0; i < 3; ++i) {
        published = Publish(Request("all"));
        EXPECT_EQ(published.GetInt32("Targets"), 2);
        EXPECT_EQ(TempFolder::Read(Offers().at(0).GetString("FilePath")), "content");
        TempFolder::Write(Offers()[0].GetString("FilePath"), "damaged");
    }
    const KelContainer order = Offers().at(2);
    EXPECT_EQ(order.GetContainer("DevicePath"), Offers()[0].GetContainer("DevicePath"));
    ExpectValues(order, {"FileType=DeliveryOrder", "FileName=" + published.GetString("PublicationId")});
    ExpectValues(order.GetContainer("FileInfo"), {"FileType=Package", "FileLabel=tools", "FileName=setup.bin",
                                                  "FileChecksum=" + TextMd5("content")});
    EXPECT_GT(order.GetContainer("FileInfo").GetInt64("PublicationTime"),
              Offers()[1].GetContainer("FileInfo").GetInt64("PublicationTime"))
        << "within one second, too";
    OnThreads(8, [this](int) { Publish(Request("north")); });
    ASSERT_EQ(OfferCount(), 11U);
    EXPECT_EQ(TempFolder::Read(Offers()[0].GetString("FilePath")), "content");
    Publish(With(Request("all"), {"FileLabel=other"}));
    EXPECT_TRUE(std::filesystem::equivalent(Offers().back().GetString("FilePath").c_str(),
                                            Offers()[0].GetString("FilePath").c_str()));
    EXPECT_TRUE(std::filesystem::is_empty(root_ / "data/Console/Incoming"));
    const std::string packages = root_ / "data/Console/Packages", orphan = packages + "/tools/0123/setup.bin";
    TempFolder::Write(orphan, "content");
    EXPECT_TRUE(Eventually([&] { return KelLeftOverFolder::IsLeftOver(packages, orphan, true); }));
    EXPECT_FALSE(std::filesystem::exists(orphan));
    for (const std::string& path : {packages + "/note", std::string(Offers()[0].GetString("FilePath"))})
        EXPECT_FALSE(KelLeftOverFolder::IsLeftOver(packages, path, true)) << path;
}

TEST_F(ConsoleTest, UnusableRequestsAreRefusedAndPublishNothing) {
    WriteDevices(BothDevices() +
                 "ABCD0000-0000-0000-0000-000000000004=127.0.3.4:1/ABCD0000-0000-0000-0000-000000000004/0/"
                 "127.0.3.4/255.0.0.0 " +
                 kMaster + " client desk\n");
    RunningModule<Console> module;
    for (const std::string& bad :
         Texts{"FilePath=" + root_ / "absent", "FilePath=" + root_ / "data", "FilePath=setup.bin",
               "FilePath=", "FileType=..", "FileType=a'b", "FileType=", "FileLabel=a/b",
               "FileLabel=", "FileName=../x", "FileName=.kel-x", "Device=nobody", "Device=desk", "Device="}) {
        KelContainer request = With(Request(kNorth), {bad});
        EXPECT_EQ(Call("ConsolePublish", request), kKelErrorBadInput) << bad;
        const KelString named = bad.starts_with("Device=") ? "\"" + bad.substr(7) + "\"" : "";
        EXPECT_NE(request.GetString("Message", {}).find(named), KelString::npos) << bad;
    }
    EXPECT_EQ(Call("ConsolePublish", From(Request(kNorth), "127.0.3.9")), kKelErrorNotAvailable);
    EXPECT_TRUE(Offers().empty());
    EXPECT_FALSE(std::filesystem::exists(root_ / "data/Console/Packages"));
}

TEST_F(ConsoleTest, GroupsOutliveARestartAndOnlyThisDeviceChangesThem) {
    const auto change = [](const char* action, const std::string& name, const Texts& members) {
        KelContainer call = Values({"Name=" + name});
        for (std::uint32_t i = 0; i < members.size(); ++i)
            call.SetString("Member", members[i], i);
        return Call(action, call);
    };
    const auto members = [](const std::string& name) {
        KelContainer list = Values({"Name=" + name});
        EXPECT_EQ(Call("ConsoleListGroups", list), 0U);
        std::string text;
        for (std::uint32_t i = 0; list.Has("Values") && i < list.Count("Values"); ++i)
            text += list.GetContainer("Values", i).GetString("Member") + "=" +
                    list.GetContainer("Values", i).GetString("Devices") + " ";
        return text;
    };
    {
        const RunningModule<Console> module;
        EXPECT_EQ(change("ConsoleSetGroup", "Shop pilots", {"absent", "desk"}), 0U);
        EXPECT_EQ(change("ConsoleAddToGroup", "SHOP PILOTS", {"DESK", "nor*", "x*"}), 0U);
        EXPECT_EQ(change("ConsoleRemoveFromGroup", "shop pilots", {"Absent", "X*"}), 0U);
        for (const char* bad : {"", "all", "None", "a*", "@a", "a,b", "it's", "desk", kNorth.c_str()})
            EXPECT_EQ(change("ConsoleSetGroup", bad, {"desk"}), kKelErrorBadInput) << bad;
        for (const char* bad : {"", "all", "@a", "a,b", "it's", "shop Pilots", "new"})
            EXPECT_EQ(change("ConsoleAddToGroup", "new", {"desk", bad}), kKelErrorBadInput) << bad;
        EXPECT_EQ(change("ConsoleRemoveFromGroup", "shop pilots", {"desk", "absent"}), kKelErrorBadInput);
        EXPECT_EQ(change("ConsoleDeleteGroup", "new", {}), kKelErrorBadInput) << "nothing was made";
        const KelContainer foreign = From(Values({"Name=shop pilots", "Member=x"}), "127.0.3.9");
        for (const char* action :
             {"ConsoleSetGroup", "ConsoleAddToGroup", "ConsoleRemoveFromGroup", "ConsoleDeleteGroup"})
            EXPECT_EQ(Call(action, KelContainer(foreign)), kKelErrorNotAvailable) << action;
    }
    const RunningModule<Console> module;
    EXPECT_EQ(members("shop pilots"), "desk=1 nor*=1 ");
    EXPECT_EQ(Publish(Request("Shop Pilots")).GetInt32("Targets"), 2);
    EXPECT_EQ(change("ConsoleRemoveFromGroup", "shop pilots", {"nor*", "desk"}), 0U);
    EXPECT_FALSE(Call("ConsoleListGroups").Has("Values"));
}

KelString Guid(int number) {
    return KelFormat("ABCD0000-0000-0000-0000-%ld", 100000000000 + number);
}

KelString PathName(const KelString& name, int number) {
    return KelFormat("%S:%d/%S/02-00-0A-00-00-01/10.0.0.%d/255.255.255.0", name, 1000 + number, Guid(number),
                     number);
}

Device MakeDevice(const char* name, const char* role, int number, int parent) {
    Device device;
    EXPECT_TRUE(ParsePathName(PathName(name, number), device));
    device.name = name;
    device.role = role;
    if (parent >= 0) device.parentGuid = Guid(parent);
    return device;
}

/// master 0, relay 1 below it with client 2 and relay 3, client 4 below relay 3, client 5 below the master.
KelVector<Device> Tree() {
    return {MakeDevice("master", "master", 0, -1), MakeDevice("north", "relay", 1, 0),
            MakeDevice("n1", "client", 2, 1),      MakeDevice("far", "relay", 3, 1),
            MakeDevice("f1", "client", 4, 3),      MakeDevice("m1", "client", 5, 0)};
}

/// "north(n1 far())": each name with what is below it, for comparing with expected texts.
KelString Shape(const KelContainer& container) {
    KelString text;
    for (std::size_t i = 0; i < container.GetNameCount(); ++i) {
        const KelString& pathName = container.GetName(i);
        const KelContainer& below = container.GetContainer(pathName);
        if (!text.empty()) text += ' ';
        text += pathName.substr(0, pathName.find(':'));
        if (!below.IsEmpty()) text += "(" + Shape(below) + ")";
    }
    return text;
}

/// The fake file store knows the file that was published before.
TEST_F(ConsoleTest, PreviewNamesTheWaysAndBytesAndChangesNothing) {
    FakeResults("FileStoreExplainFile ()", Values({"Known=true"}));
    const RunningModule<Console> module;
    KelContainer preview = Values({"FileType=T", "FileLabel=l", "Device=desk", "Stage=50"});
    preview.SetString("Device", "north", 1);
    preview.SetInt32("Stage", 100, 1);
    TempFolder::Write(root_ / "more", "123");
    for (const std::uint32_t i : {0U, 1U})
        preview.SetString("FilePath", root_ / (i == 0 ? "setup.bin" : "more"), i);
    for (const char* bad : {"Device=nobody", "FileType=..", "FilePath=absent", "Stage=100", "Device="})
        EXPECT_EQ(Call("ConsolePreview", With(preview, {bad})), kKelErrorBadInput) << bad;
    EXPECT_EQ(Call("ConsolePreview", From(preview, "127.0.3.9")), kKelErrorNotAvailable);
    ASSERT_EQ(Call("ConsolePreview", preview), 0U);
    ExpectValues(preview.GetContainer("PreviewFiles", 1), {"FileName=more", "FileSize=3", "Held=true"});
    ExpectValues(preview.GetContainer("Targets", 0), {"Name=desk", "Via=north", "Stage=1"});
    ExpectValues(preview.GetContainer("Targets", 1), {"Name=north", "Via=", "Stage=2"});
    ExpectValues(preview.GetContainer("Links", 0), {"From=boss", "To=north", "Targets=2", "Bytes=10"});
    ExpectValues(preview.GetContainer("Links", 1), {"From=north", "To=desk", "Targets=1", "Bytes=10"});
    EXPECT_EQ(preview.Count("Links"), 2U);
    EXPECT_FALSE(Call("ConsoleListPublications").Has("Values"));
    EXPECT_EQ(OfferCount(), 0U);
    EXPECT_FALSE(std::filesystem::exists(root_ / "data/Console/Packages"));
}

TEST(StagePlan, EveryStageHasATargetAndTheLastHasAll) {
    const std::tuple<KelVector<std::int32_t>, std::size_t, KelVector<std::size_t>> cases[] = {
        {{5, 50, 100}, 100, {5, 50, 100}},
        {{5, 50, 100}, 3, {1, 2, 3}},
        {{5, 10, 100}, 7, {1, 7}},
        {{5, 50, 100}, 1, {1}},
        {{100}, 9, {9}},
        {{}, 9, {9}},
        {{}, 0, {0}},
        {{50, 100}, 0, {0}}};
    for (const auto& [percents, targets, ends] : cases) {
        EXPECT_EQ(StageEnds(percents, targets), ends);
        for (std::size_t i = 0; i < targets; ++i)
            EXPECT_LT(i, ends[StageOf(ends, i) - 1]);
    }
    EXPECT_EQ(StageOf({1, 2, 4}, 0) * 100 + StageOf({1, 2, 4}, 1) * 10 + StageOf({1, 2, 4}, 3), 123);
}

TEST(TargetChoice, NamesAndPatternsGiveEachDeviceOnceInTheirOrder) {
    auto devices = Tree();
    devices.push_back(MakeDevice("lost-1", "client", 6, 77));
    devices.push_back(MakeDevice("odd", "client", 7, 0));
    devices.back().name = "N*";
    const KelVector<DeviceGroup> groups = {{"Pilots", {"m1", "?1"}}, {"gone", {"m1", "m2"}}, {"far", {"m1"}}};
    const auto chosen = [&](const KelVector<KelString>& wanted) {
        const auto targets = ChooseTargets(devices, groups, wanted);
        if (!targets) return targets.Error().message;
        KelString text;
        for (const std::size_t index : targets->indexes)
            text += devices[index].name + " ";
        return text + KelFormat("%lu", targets->leftOut.size());
    };
    const std::pair<KelVector<KelString>, const char*> cases[] = {
        {{"none"}, "0"},
        {{"all"}, "north n1 far f1 m1 N* 1"},
        {{"f1", "?1", "F1", Guid(4)}, "f1 n1 m1 0"},
        {{"[a-f]*", "north"}, "far f1 north 0"},
        {{"n*"}, "N* 0"},
        {{"*"}, "north n1 far f1 m1 N* 1"},
        {{"master", "*1"}, "master n1 f1 m1 1"},
        {{"pilots", "f1", "n1"}, "m1 n1 f1 0"},
        {{"gone"}, "Group \"gone\": There is no device \"m2\""},
        {{"FAR"},
         "\"FAR\" is the name of a device and of a group; give the device's GUID, or the group another "
         "name"},
        {{"m1", "x*"}, "No name of a device matches the pattern \"x*\""},
        {{"all", "m1"}, "There is no device \"all\""}};
    for (const auto& [wanted, expected] : cases)
        EXPECT_EQ(chosen(wanted), expected);
    for (const char* wanted : {"lost-1", "lost*"})
        EXPECT_NE(chosen({"m1", wanted}).find("lost-1 cannot be reached"), KelString::npos) << wanted;
}

TEST(DeviceTree, ContainsTheWayToEachTarget) {
    const std::pair<KelVector<std::size_t>, const char*> cases[] = {
        {{5, 5, 5}, "master(m1)"},
        {{1}, "master(north)"},
        {{4, 2, 5}, "master(north(far(f1) n1) m1)"},
        {{2, 1}, "master(north(north n1))"},
        {{3, 4, 1}, "master(north(north far(far f1)))"},
        {{0}, "master"},
        {{0, 5}, "master(master m1)"},
        {{1, 2, 3, 4, 5}, "master(north(north n1 far(far f1)) m1)"}};
    for (const auto& [targets, shape] : cases) {
        const auto path = BuildDevicePath(Tree(), targets);
        ASSERT_TRUE(path) << shape;
        EXPECT_EQ(Shape(*path), shape);
        EXPECT_EQ(path->GetName(0), PathName("master", 0));
    }
}

TEST(DeviceTree, DevicesThatCannotBeReachedAreErrorsThatNameThem) {
    const std::tuple<std::size_t, int, KelString> cases[] = {
        {4, 77, Guid(77)}, {1, 3, "circle"}, {4, 2, "n1 above it is a client"}};
    for (const auto& [device, newParent, named] : cases) {
        auto devices = Tree();
        devices[device].parentGuid = Guid(newParent);
        const auto path = BuildDevicePath(devices, {5, 4});
        ASSERT_FALSE(path) << named;
        EXPECT_NE(path.Error().message.find(named), KelString::npos) << path.Error().message;
    }
    EXPECT_FALSE(BuildDevicePath(Tree(), {}));
}

TEST(DeviceTree, DepthIsLimitedSoThatTheOfferStillSerialises) {
    KelVector<Device> devices = {Tree()[0]};
    for (int number = 1; number <= 60; ++number)
        devices.push_back(MakeDevice("d", "relay", number, number - 1));
    EXPECT_FALSE(BuildDevicePath(devices, {60}));
    const auto deepest = BuildDevicePath(devices, {kMaxTreeLevels - 1});
    ASSERT_TRUE(deepest);
    KelContainer offer;
    offer.SetContainer("DevicePath", *deepest);
    KelContainer read;
    ASSERT_TRUE(read.LoadFromXML(offer.SaveToXML()));
    EXPECT_EQ(read, offer);
}

TEST(DeviceList, EntriesAreChecked) {
    const KelString good = PathName("host-1.example", 7);
    const auto device = ParseDeviceEntry(Guid(7), good + "  " + Guid(1) + " relay North");
    ASSERT_TRUE(device);
    EXPECT_EQ(device->name, "North");
    EXPECT_EQ(ParseDeviceEntry(Guid(7), good + " " + Guid(1) + " client")->name, "host-1.example");

    const KelString rest = " " + Guid(1) + " client";
    const auto with = [&](const char* from, const char* to) { return ReplaceAll(good, from, to) + rest; };
    for (const KelString& bad : {KelString(), good, good + " " + Guid(1), good + " " + Guid(1) + " boss",
                                 good + " " + Guid(7) + " client", good + " nobody client",
                                 good + rest + " two names", good + rest + " o'hara", with(":1007", ":0"),
                                 with("10.0.0.7", "300.0.0.7"), PathName("host", 8) + rest})
        EXPECT_FALSE(ParseDeviceEntry(Guid(7), bad)) << bad;
}

/// A folder exists and cannot be read, as a file on a failing disk.
TEST_F(ConsoleTest, ReportThatCannotBeReadNowIsAskedForAgain) {
    const RunningModule<Console> console;
    for (const auto& [path, answer] :
         {std::pair("data", kKelAnswerTryLater), {"absent", kKelAnswerStaysHere}})
        EXPECT_EQ(Trigger("FileStoreCallbackCopyUpstream",
                          Values({"FileType=DeliveryReceipt", "FilePath=" + root_ / path})),
                  static_cast<unsigned int>(answer));
}

TEST_F(ConsoleTest, NewDatabaseHasAnotherIdentifierThanTheLostOne) {
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

/// The identities of devices and of their stores. The master may have been started from a backup.
TEST_F(ConsoleTest,
       WhatIsPendingBelowALostStoreOrADeviceThatMovedOrWasAwayOrLongAfterTheLastOrderIsOrderedAgain) {
    std::optional<RunningModule<Console>> console(std::in_place);
    const auto restart = [&](const KelString& change) {
        console.reset();
        KelDebug log("Test", "Test");
        ConsoleDatabase database(log);
        EXPECT_TRUE(database.Open(root_ / "data/Console", root_ / "config/Console.ini"));
        EXPECT_TRUE(database.Write({change}));
        database.Close();
        console.emplace();
    };
    const auto ordered = [](int secondsAgo, int intervalBefore) {
        return KelFormat(
            "UPDATE Publications SET OrderTime = OrderTime - %d, CreateTime = OrderTime - %d - %d",
            secondsAgo, secondsAgo, intervalBefore);
    };
    const KelString away = "UPDATE Devices SET ReportTime = ReportTime - 100000";
    Publish(Request(kClient));
    std::int64_t time = std::time(nullptr) - 1000;
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
    const std::string movedPath = "127.0.3.8:1610/" + kNorth + "/02-00-7F-00-03-08/127.0.3.8/255.0.0.0";
    for (const auto& [guid, path, storeId, refusal, offers] : {std::tuple(kNorth, kNorthPath, "1", 0U, 1U),
                                                               {kNorth, kNorthPath, "2", 1U, 1U},
                                                               {kNorth, kNorthPath, "2", 0U, 2U},
                                                               {kNorth, kNorthPath, "2", 0U, 2U},
                                                               {kNorth, kNorthPath, "", 0U, 2U},
                                                               {std::string(other), otherPath, "1", 0U, 2U},
                                                               {std::string(other), otherPath, "2", 0U, 2U},
                                                               {kMaster, kMasterPath, "1", 0U, 2U},
                                                               {"restart", ordered(0, 600), "", 0U, 2U},
                                                               {kMaster, kMasterPath, "1", 0U, 2U},
                                                               {"restart", ordered(1000, 400), "", 0U, 2U},
                                                               {kMaster, kMasterPath, "1", 1U, 2U},
                                                               {kMaster, kMasterPath, "1", 0U, 3U},
                                                               {kMaster, kMasterPath, "1", 0U, 3U},
                                                               {kMaster, kMasterPath, "2", 0U, 4U},
                                                               {"restart", ordered(100, 400), "", 0U, 4U},
                                                               {kMaster, kMasterPath, "2", 0U, 4U},
                                                               {kNorth, movedPath, "2", 1U, 4U},
                                                               {kNorth, movedPath, "2", 0U, 5U},
                                                               {kNorth, movedPath, "2", 0U, 5U},
                                                               {"restart", away, "", 0U, 5U},
                                                               {kMaster, kMasterPath, "2", 0U, 5U},
                                                               {kNorth, movedPath, "2", 1U, 5U},
                                                               {kNorth, movedPath, "2", 0U, 6U},
                                                               {kNorth, movedPath, "2", 0U, 6U}}) {
        if (guid == "restart") {
            restart(path);
            continue;
        }
        SetStoreResult(refusal);
        EXPECT_EQ(report(guid, path, storeId),
                  static_cast<unsigned int>(refusal != 0 ? kKelAnswerTryLater : kKelAnswerStaysHere));
        EXPECT_EQ(OfferCount(), offers) << guid << " " << storeId;
    }
    const KelVector<KelContainer> offered = Offers();
    const KelContainer wanted = offered.back().GetContainer("FileInfo");
    for (const char* name : {"FileType", "FileName", "FileChecksum"})
        EXPECT_EQ(wanted.GetString(name), offered.front().GetString(name));
    const KelContainer path = offered.front().GetContainer("DevicePath");
    EXPECT_EQ(offered[3].GetContainer("DevicePath"), path);
    EXPECT_EQ(offered.back().GetContainer("DevicePath").GetContainer(kMasterPath).GetName(0), movedPath);
}

}  // namespace
