#include "filestore/state/contact.h"

#include "filestore/down/notify_thread.h"
#include "filestore/file_store_fixture.h"
#include "filestore/state/device.h"
#include "filestore/state/parent.h"
#include "kelcore/http/client.h"

namespace {

using Contact = StoreTest;

TEST_F(Contact, WhatFailedToMoveToOrFromTheParentIsDueWhenItAnswersAgain) {
    const std::int64_t tried = std::time(nullptr) - 5;
    const auto add = [tried](Side side, const char* status, const char* set) {
        return AddFile(side, KelFormat("%s %s", status, set), status,
                       KelFormat("LastStatusChangeTime = %ld, %s", tried, set));
    };
    const auto time = [](Side side, std::uint64_t id) { return Fields(side, id, "LastStatusChangeTime"); };
    for (const auto& [side, status, set, isDue] :
         Table<Side, const char*, const char*, bool>{{kDown, "DOWNLOADING", "Priority = 1", true},
                                                     {kDown, "DOWNLOADING", "SourceDevice = 'other'", false},
                                                     {kDown, "TOBEREQUESTED", "Priority = 1", true},
                                                     {kDown, "AVAILABLE", "Acknowledged = 0", true},
                                                     {kDown, "AVAILABLE", "Acknowledged = 1", false},
                                                     {kUp, "TOBEUPLOADED", "Priority = 1", true},
                                                     {kUp, "UPLOADING", "Priority = 1", true},
                                                     {kUp, "RECEIVING", "Priority = 1", false}}) {
        SCOPED_TRACE(KelFormat("%s %s", status, set));
        const std::uint64_t id = add(side, status, set);
        const KelString before = time(side, id);
        AnswerAsParent(0);
        Ask("FileStoreParentInSync");
        EXPECT_EQ(time(side, id), isDue ? KelString("0") : before);
        EXPECT_EQ(OnlyCallTo(Parent(), "FileStoreDeviceContact").GetString("DeviceGUID"), kOwnUrl);
    }
}

TEST_F(Contact, AnotherParentIsAskedForWhatTheFormerOneHasBegun) {
    for (const auto& [side, status, set, expected] : Table<Side, const char*, const char*, const char*>{
             {kDown, "DOWNLOADING", "TransferredBytes = 5, MulticastPort = 9", "TOBEREQUESTED"},
             {kDown, "DOWNLOADING", "SourceDevice = 'other'", "DOWNLOADING"},
             {kDown, "AVAILABLE", "Acknowledged = 0", "AVAILABLE"},
             {kUp, "UPLOADING", "Priority = 1", "TOBEUPLOADED"},
             {kUp, "RECEIVING", "Priority = 1", "RECEIVING"}}) {
        const std::uint64_t id = AddFile(side, KelFormat("%s %s", status, set), status, set);
        const filestore::ParentWatch watch;
        Ask("FileStoreParentChange");
        EXPECT_TRUE(watch.HasChanged());
        EXPECT_EQ(Fields(side, id), expected) << status << set;
    }
    EXPECT_EQ(Rows(kDown, "SELECT FileId FROM Files WHERE MulticastPort <> 0"), Texts{});
}

/// By its call, and by its answer to an announcement.
TEST_F(Contact, NothingWaitsAnyLongerForADeviceThatHasAnotherParent) {
    const KelString guid = "/0A1B0000-0000-4000-8000-0000000000C7",
                    rest = "/02-00-7F-00-01-08/127.0.1.1/255.0.0.0";
    KelString parentGuid;
    const TestHttpServer child([&parentGuid](const auto&) {
        return TestHttpServer::ActionResult(0, Make({{"ParentGuid", parentGuid}}));
    });
    const std::uint64_t fileId = AddFile(kDown, "n", "AVAILABLE", "Acknowledged = 1");
    const auto targets = [] { return Cell(kDown, "SELECT COUNT(*) FROM Targets"); };
    FileStoreNotifyThread thread;
    for (const auto& [parent, left] :
         Table<KelString, const char*>{{KelString(), "2"},
                                       {filestore::OurGuid(), "2"},
                                       {"0A1B0000-0000-4000-8000-0000000000D1", "1"}}) {
        parentGuid = parent;
        Rows(kDown, "DELETE FROM Targets");
        AddTarget(fileId, 1, child.HostAndPort() + guid + rest);
        AddTarget(fileId, 2, kChild, std::time(nullptr) + 1200);
        EXPECT_TRUE(Eventually([&thread] {
            thread.NotifyUnicastTargets(0, 0);
            return Cell(kDown, "SELECT LastNotifyTime FROM Targets WHERE TargetId = 1") != "0";
        }));
        EXPECT_EQ(targets(), left) << parent;
        AddTarget(fileId, 3, "127.0.1.7:1610" + guid + rest, std::time(nullptr) + 1200);
        Ask("FileStoreDeviceContact",
            Make({{"DeviceGUID", child.HostAndPort() + guid}, {"ParentGuid", parent}}));
        EXPECT_EQ(targets(), left == KelString("1") ? "1" : "3") << parent;
    }
}

TEST_F(Contact, CallOfADeviceMakesItsFailedAnnouncementsDueButNotTooOften) {
    const KelString device = "127.0.1.9:1610/0A1B0000-0000-4000-8000-0000000000D1";
    const std::int64_t now = std::time(nullptr);
    const std::uint64_t fileId = AddFile(kDown, "n", "AVAILABLE", "Acknowledged = 1");
    AddTarget(fileId, 1, device + "/02-00-7F-00-01-09/127.0.1.9/255.0.0.0", now - 5);
    AddTarget(fileId, 2, device + "/02-00-7F-00-01-09/127.0.1.9/255.0.0.0", now + 1200);  // was taken
    AddTarget(fileId, 3, kChild, now - 5);
    const auto due = [] { return Rows(kDown, "SELECT TargetId FROM Targets WHERE LastNotifyTime = 0"); };
    Ask("FileStoreDeviceContact", Make({{"DeviceGUID", "' OR 1 --"}}), kKelErrorBadInput);
    EXPECT_EQ(due(), Texts{});
    Ask("FileStoreDeviceContact", Make({{"DeviceGUID", device}}));
    EXPECT_EQ(due(), Texts{"1"});
    // One that can call but not be called.
    for (const auto& [call, expected] : Table<int, Texts>{{1, {"1"}}, {2, {}}}) {
        Rows(kDown, KelFormat("UPDATE Targets SET LastNotifyTime = %ld WHERE TargetId = 1", now - 5));
        filestore::NoteSignOfLife(device);
        EXPECT_EQ(due(), expected) << call;
    }
}

TEST_F(Contact, CallThatFailedBeforeTheDeviceWasHeardFromIsRepeatedAtOnce) {
    const KelString guid = "/0A1B0000-0000-4000-8000-0000000000C1";
    KelString name;
    int calls = 0;
    const TestHttpServer device([&](const auto&) {
        if (++calls == 1) Ask("FileStoreDeviceContact", Make({{"DeviceGUID", name + guid}}));
        return TestHttpServer::Answer{.status = 0};
    });
    name = device.HostAndPort();
    AddTarget(AddFile(kDown, "n", "AVAILABLE", "Acknowledged = 1"), 1,
              name + guid + "/02-00-7F-00-01-09/127.0.1.1/255.0.0.0");
    FileStoreNotifyThread thread;
    EXPECT_TRUE(Eventually([&thread] {
        thread.NotifyUnicastTargets(0, 0);
        return Cell(kDown, "SELECT LastNotifyTime FROM Targets") != "0";
    }));
    EXPECT_EQ(device.Requests().size(), 2U);
}

TEST_F(Contact, SilentDeviceDelaysNeitherOthersNorTargetsOnThisDevice) {
    const KelString path = "/0A1B0000-0000-4000-8000-0000000000C1/02-00-7F-00-01-08/127.0.1.1/255.0.0.0";
    const auto consumer = Consume("FileStoreCallbackReceivedFile", "TestConsume ()");
    FakeResult("TestConsume ()", 0);
    const TestHttpServer prompt(TestHttpServer::ActionScript(0));
    auto silent = std::make_unique<TestHttpServer>(
        [](const auto&) { return TestHttpServer::Answer{.status = 0, .stalls = true}; });
    FileStoreNotifyThread::patience = std::chrono::milliseconds(10);
    FileStoreNotifyThread thread;
    std::uint64_t targetId = 0;
    Texts waiting;
    for (const char* name : {"1", "2", "3"}) {
        const std::uint64_t fileId = AddFile(kDown, name, "AVAILABLE", "Acknowledged = 1");
        for (const KelString& device :
             {silent->HostAndPort() + path, prompt.HostAndPort() + path, KelString()})
            AddTarget(fileId, ++targetId, device);
        waiting.push_back(std::to_string(targetId - 2));
        EXPECT_TRUE(Eventually([&] {
            thread.NotifyUnicastTargets(0, 0);
            return Rows(kDown, "SELECT TargetId FROM Targets WHERE LastNotifyTime = 0") == waiting;
        }));
        EXPECT_EQ(CallsOf("TestConsume").size(), targetId / 3);
        EXPECT_EQ(prompt.Requests().size(), targetId / 3);
    }
    EXPECT_EQ(silent->Requests().size(), 1U);
    silent.reset();
    while (Cell(kDown, "SELECT LastNotifyTime FROM Targets WHERE TargetId = 1") == "0")
        thread.NotifyUnicastTargets(0, 0);
    EXPECT_EQ(Rows(kDown, "SELECT TargetId FROM Targets WHERE LastNotifyTime = 0"), Texts{});
}

}  // namespace
