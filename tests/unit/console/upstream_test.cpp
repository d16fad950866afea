#include <ctime>

#include "console_fixture.h"
#include "kel/format.h"

namespace {

constexpr char kDesk[] = "ABCD0000-0000-0000-0000-00000000000A";
constexpr unsigned int kNotReady = 44001;
constexpr unsigned int kStaysHere = 44003;

class ConsoleUpstreamTest : public ConsoleTest {
  protected:
    /// The identity file of a client below the master.
    static KelContainer Identity(const std::string& guid, const std::string& name, std::int64_t time) {
        KelContainer identity;
        identity.SetString("GUID", guid);
        identity.SetString("HostName", name);
        identity.SetString("Role", "client");
        identity.SetInt32("Port", 1610);
        identity.SetString("ParentGuid", kMaster);
        identity.SetString("DeviceUrl", "10.0.0.9:1610/" + guid);
        identity.SetString("PathName", "10.0.0.9:1610/" + guid + "/02-00-0A-00-00-09/10.0.0.9/255.0.0.0");
        identity.SetInt64("Time", time);
        return identity;
    }

    static KelContainer Receipt(const KelContainer& offer, const std::string& guid, const std::string& status,
                                std::int64_t time) {
        KelContainer receipt;
        receipt.SetString("GUID", guid);
        for (const char* name : {"FileType", "FileLabel", "FileName", "FileChecksum"})
            receipt.SetString(name, offer.GetString(name));
        receipt.SetString("Status", status);
        receipt.SetString("Message", "it's " + status);
        receipt.SetInt64("Time", time);
        return receipt;
    }

    /// What the file store announces.
    KelContainer Arrived(const std::string& type, const std::string& content, const std::string& source) {
        KelContainer file;
        file.SetString("FileType", type);
        file.SetString("FileLabel", "label");
        file.SetString("SourceDevice", source);
        file.SetString("FilePath", root_ / "arrived.xml");
        TempFolder::Write(root_ / "arrived.xml", content);
        return file;
    }
    unsigned int Take(const std::string& type, const KelContainer& content, const std::string& source = {}) {
        KelContainer results;
        return CallbackDbTrigger("FileStoreCallbackCopyUpstream", Arrived(type, content.SaveToXML(), source),
                                 results);
    }
    unsigned int TakeIdentity(const KelContainer& identity) {
        return Take("IdentityIdentity", identity, identity.GetString("DeviceUrl"));
    }

    static KelContainer DeviceNamed(const std::string& guid) {
        const KelContainer devices = Call("ConsoleListDevices");
        for (std::uint32_t i = 0; i < devices.Count("Values"); ++i) {
            if (devices.GetContainer("Values", i).GetString("GUID") == guid)
                return devices.GetContainer("Values", i);
        }
        return {};
    }
    KelContainer Publish(const std::string& device) {
        KelContainer request = Request(device);
        EXPECT_EQ(Call("ConsolePublish", request), 0U) << request.GetString("Message");
        return request;
    }
    static KelContainer Publication(const KelString& id) {
        KelContainer publication;
        publication.SetString("PublicationId", id);
        EXPECT_EQ(Call("ConsoleListPublications", publication), 0U);
        return publication;
    }
    /// "delivered/failed/pending of targets"
    static std::string Counts(const KelString& id) {
        const KelContainer publication = Publication(id);
        const KelContainer& values = publication.GetContainer("Values");
        return values.GetString("Delivered") + "/" + values.GetString("Failed") + "/" +
               values.GetString("Pending") + " of " + values.GetString("Targets");
    }
};

TEST_F(ConsoleUpstreamTest, DevicesAppearAndChangeByTheirIdentityFiles) {
    const std::int64_t now = std::time(nullptr);
    {
        RunningModule<Console> module;
        ASSERT_TRUE(module.Initialise());
        EXPECT_EQ(TakeIdentity(Identity(kDesk, "desk-9", now - 100)), kStaysHere);
        const KelContainer device = DeviceNamed(kDesk);
        EXPECT_EQ(device.GetString("Name"), "desk-9");
        EXPECT_EQ(device.GetString("Role"), "client");
        EXPECT_EQ(device.GetString("Address"), "10.0.0.9:1610");
        EXPECT_EQ(device.GetString("Parent"), kMaster);
        EXPECT_GE(device.GetInt64("LastSeen"), now);
        EXPECT_GE(device.GetInt64("FirstSeen"), now);
    }
    RunningModule<Console> module;
    ASSERT_TRUE(module.Initialise());
    EXPECT_EQ(DeviceNamed(kDesk).GetString("Name"), "desk-9") << "after a restart";
    TakeIdentity(Identity(kDesk, "older", now - 200));
    EXPECT_EQ(DeviceNamed(kDesk).GetString("Name"), "desk-9");
    TakeIdentity(Identity(kDesk, "future", now + 1000000));
    EXPECT_EQ(DeviceNamed(kDesk).GetString("Name"), "future");
    TakeIdentity(Identity(kDesk, "corrected", std::time(nullptr) + 1));
    EXPECT_EQ(DeviceNamed(kDesk).GetString("Name"), "corrected")
        << "a wrong clock must not outlast its correction";
    EXPECT_EQ(Publish("corrected").GetInt32("Targets"), 1);
}

TEST_F(ConsoleUpstreamTest, AReportWinsOverTheIniFileAndTheMasterStaysFirst) {
    RunningModule<Console> module;
    ASSERT_TRUE(module.Initialise());
    const std::int64_t now = std::time(nullptr);
    TakeIdentity(Identity(kClient, "moved", now));
    KelContainer master = Identity(kMaster, "boss", now);
    master.SetString("Role", "master");
    master.SetString("ParentGuid", "");
    TakeIdentity(master);
    KelContainer impostor = master;
    impostor.SetString("GUID", kDesk);
    TakeIdentity(impostor);
    const KelContainer devices = Call("ConsoleListDevices");
    EXPECT_EQ(devices.Count("Values"), 3U);
    EXPECT_EQ(devices.GetContainer("Values").GetString("PathName"), kMasterPath);
    EXPECT_GE(devices.GetContainer("Values").GetInt64("LastSeen"), now);
    EXPECT_EQ(DeviceNamed(kClient).GetString("Name"), "moved");
    EXPECT_EQ(DeviceNamed(kClient).GetString("Parent"), kMaster);
    EXPECT_EQ(DeviceNamed(kNorth).GetString("Name"), "north");
}

TEST_F(ConsoleUpstreamTest, UnusableReportsChangeNothing) {
    struct Case {
        const char* value;
        std::string text;
    };
    RunningModule<Console> module;
    ASSERT_TRUE(module.Initialise());
    const std::string other = "ABCD0000-0000-0000-0000-00000000000B";
    int refused = 0;
    for (const Case& bad :
         {Case{"GUID", ""}, Case{"GUID", "abcd0000-0000-0000-0000-00000000000a"}, Case{"GUID", other},
          Case{"HostName", ""}, Case{"HostName", "a'b"}, Case{"HostName", "a\nb"},
          Case{"HostName", std::string(254, 'a')}, Case{"Role", "boss"}, Case{"Role", "master"},
          Case{"Port", "0"}, Case{"Port", "1611"}, Case{"ParentGuid", ""}, Case{"ParentGuid", kDesk},
          Case{"ParentGuid", "x"}, Case{"PathName", ""}, Case{"PathName", kNorthPath},
          Case{"DeviceUrl", "10.0.0.8:1610/" + std::string(kDesk)}, Case{"Time", "0"},
          Case{"Time", "soon"}}) {
        KelContainer identity = Identity(kDesk, "desk-9", 1800000000);
        identity.SetString(bad.value, bad.text);
        EXPECT_EQ(Take("IdentityIdentity", identity), kStaysHere) << bad.value << " " << bad.text;
        EXPECT_EQ(log_->Count(KelDebugLevel::Warning, "is ignored"), ++refused)
            << bad.value << " " << bad.text;
    }
    const KelContainer good = Identity(kDesk, "desk-9", 1800000000);
    EXPECT_EQ(Take("IdentityIdentity", good, "10.0.0.9:1610/" + other), kStaysHere)
        << "speaks for another device";
    KelContainer results;
    for (const std::string& content :
         {std::string("<Container"), std::string((1 << 20) + 1, ' '), std::string()}) {
        EXPECT_EQ(CallbackDbTrigger("FileStoreCallbackCopyUpstream", Arrived("IdentityIdentity", content, {}),
                                    results),
                  kStaysHere);
    }
    EXPECT_EQ(log_->Count(KelDebugLevel::Warning, "is ignored"), refused + 4);
    EXPECT_EQ(Call("ConsoleListDevices").Count("Values"), 3U);

    KelContainer remote = From(Arrived("IdentityIdentity", good.SaveToXML(), {}), "127.0.3.9");
    EXPECT_EQ(Call("ConsoleReceiveUpstream", remote), kKelErrorBadInput);
    EXPECT_EQ(Take("Inventory", good), 0U) << "other types are not the console's";
    EXPECT_EQ(Call("ConsoleListDevices").Count("Values"), 3U);
}

TEST_F(ConsoleUpstreamTest, ReceiptsBringAPublicationForward) {
    RunningModule<Console> module;
    ASSERT_TRUE(module.Initialise());
    TakeIdentity(Identity(kDesk, "desk-9", 1700000000));
    const KelString id = Publish("all").GetString("PublicationId");
    EXPECT_EQ(Counts(id), "0/0/3 of 3");
    const KelContainer offer = offers_.at(0);
    EXPECT_EQ(Take("DeliveryReceipt", Receipt(offer, kNorth, "failed", 100), kNorth), kStaysHere);
    EXPECT_EQ(Take("DeliveryReceipt", Receipt(offer, kDesk, "delivered", 200)), kStaysHere);
    EXPECT_EQ(Counts(id), "1/1/1 of 3");
    Take("DeliveryReceipt", Receipt(offer, kDesk, "failed", 150));
    EXPECT_EQ(Counts(id), "1/1/1 of 3") << "an older receipt changes nothing";
    Take("DeliveryReceipt", Receipt(offer, kNorth, "delivered", 300));
    EXPECT_EQ(Counts(id), "2/0/1 of 3");

    KelContainer bad = Receipt(offer, kClient, "done", 100);
    Take("DeliveryReceipt", bad);
    bad = Receipt(offer, kClient, "delivered", 100);
    bad.SetString("FileChecksum", "0' OR '1'='1");
    Take("DeliveryReceipt", bad);
    Take("DeliveryReceipt", Receipt(offer, kClient, "delivered", 100), kNorth);
    EXPECT_EQ(Counts(id), "2/0/1 of 3");

    const KelContainer publication = Publication(id);
    ASSERT_EQ(publication.Count("Devices"), 3U);
    const KelContainer& north = publication.GetContainer("Devices", 0);
    EXPECT_EQ(north.GetString("GUID"), kNorth);
    EXPECT_EQ(north.GetString("Name"), "north");
    EXPECT_EQ(north.GetString("Status"), "delivered");
    EXPECT_EQ(north.GetInt64("Time"), 300);
    EXPECT_EQ(north.GetString("Message"), "it's delivered");
    EXPECT_EQ(publication.GetContainer("Devices", 1).GetString("Status"), "pending");
    EXPECT_EQ(publication.GetContainer("Values").GetString("FileName"), "setup.bin");
    EXPECT_EQ(publication.GetContainer("Values").GetInt64("FileSize"), 7);
    EXPECT_GT(publication.GetContainer("Values").GetInt64("CreateTime"), 1700000000);
    KelContainer unknown;
    unknown.SetString("PublicationId", "nothing' OR '1'='1");
    EXPECT_EQ(Call("ConsoleListPublications", unknown), kKelErrorBadInput);
}

TEST_F(ConsoleUpstreamTest, WhatADeviceHasAlreadyCountsAtOnce) {
    RunningModule<Console> module;
    ASSERT_TRUE(module.Initialise());
    Publish("north");
    Take("DeliveryReceipt", Receipt(offers_.at(0), kNorth, "delivered", 100));
    EXPECT_EQ(Counts(Publish("all").GetString("PublicationId")), "1/0/1 of 2");
    KelContainer other = Request("north");
    other.SetString("FileLabel", "other");
    ASSERT_EQ(Call("ConsolePublish", other), 0U);
    EXPECT_EQ(Counts(other.GetString("PublicationId")), "0/0/1 of 1");
    EXPECT_EQ(Call("ConsoleListPublications").Count("Values"), 3U);
}

TEST_F(ConsoleUpstreamTest, NoneIsNoTarget) {
    RunningModule<Console> module;
    ASSERT_TRUE(module.Initialise());
    const KelContainer result = Publish("none");
    EXPECT_EQ(result.GetInt32("Targets", -1), 0);
    EXPECT_FALSE(offers_.at(0).Has("DevicePath"));
    EXPECT_EQ(Counts(result.GetString("PublicationId")), "0/0/0 of 0");
}

TEST_F(ConsoleUpstreamTest, AllLeavesOutDevicesThatNobodyLeadsTo) {
    RunningModule<Console> module;
    ASSERT_TRUE(module.Initialise());
    KelContainer lost = Identity(kDesk, "lost", 1700000000);
    lost.SetString("ParentGuid", "ABCD0000-0000-0000-0000-0000000000FF");
    TakeIdentity(lost);
    const KelContainer result = Publish("all");
    EXPECT_EQ(result.GetInt32("Targets"), 2);
    EXPECT_EQ(result.GetInt32("LeftOut"), 1);
    KelContainer request = Request("lost");
    EXPECT_EQ(Call("ConsolePublish", request), kKelErrorBadInput);
}

TEST_F(ConsoleUpstreamTest, ManyDevicesAreManyTargets) {
    RunningModule<Console> module;
    ASSERT_TRUE(module.Initialise());
    WriteDevices([] {
        std::string lines;
        for (int i = 0; i < 3000; ++i) {
            const KelString guid = KelFormat("ABCD0000-0000-0000-0000-%ld", 100000000000 + i);
            lines += KelFormat("%S=d%d:1610/%S/02-00-0A-00-00-09/10.0.0.9/255.0.0.0 %s client\n", guid, i,
                               guid, kMaster);
        }
        return lines;
    }());
    KelContainer request = Request("d0");
    for (std::uint32_t i = 1; i < 3000; ++i)
        request.SetString("Device", KelFormat("D%u", i), i);
    request.SetString("Device", "d7", 3000);
    ASSERT_EQ(Call("ConsolePublish", request), 0U) << request.GetString("Message");
    EXPECT_EQ(request.GetInt32("Targets"), 3000);
    EXPECT_EQ(Counts(request.GetString("PublicationId")), "0/0/3000 of 3000");
}

TEST_F(ConsoleUpstreamTest, WithoutItsDatabaseNothingIsAcknowledged) {
    {
        WriteIni("Console", "[Devices]\n");
        RunningModule<Console> module;
        EXPECT_FALSE(module.Initialise());
        EXPECT_EQ(log_->Count(KelDebugLevel::Error, "SqlUpgrade"), 1);
    }
    WriteDevices({});
    RunningModule<Console> module;
    ASSERT_TRUE(module.Initialise());
    module.Cleanup();
    EXPECT_EQ(TakeIdentity(Identity(kDesk, "desk-9", 1700000000)), kNotReady);
    KelContainer request = Request("none");
    EXPECT_NE(Call("ConsolePublish", request), 0U);
    EXPECT_TRUE(offers_.empty());
}

}  // namespace
