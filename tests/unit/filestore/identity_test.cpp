#include "filestore/file_store_fixture.h"
#include "kelcore/http/url.h"
#include "kelcore/net/socket.h"

namespace {

struct DeviceIdentity : StoreTest {
    static constexpr const char* kNewGuid = "0A1B0000-0000-4000-8000-00000000000B";

    static KelString DeviceUrl() {
        KelString url;
        FileStore::GetOurDeviceGUID(url, true);
        return url;
    }
};

TEST_F(DeviceIdentity, DeviceUrlFollowsTheNeighbours) {
    for (const char* guid : {"", "it's", "a/b"}) {
        identityValues.SetString("GUID", guid);
        EXPECT_EQ(DeviceUrl(), "") << guid;
    }
    identityValues.SetString("GUID", kGuid);
    for (const auto& [port, expected] : Table<int, const char*>{{-1, "4294967295"}, {1999, "1999"}}) {
        httpValues.SetInt32("Port", port);
        EXPECT_EQ(DeviceUrl(), KelFormat("127.0.1.7:%s/%s", expected, kGuid));
    }
    identityValues = Make({{"GUID", kNewGuid}, {"PreferIPAddresses", false}});
    KelString host = GetLocalHostName();
    if (!GetLocalDomainName().empty()) host += "." + GetLocalDomainName();
    EXPECT_EQ(DeviceUrl(), host + ":1999/" + kGuid);
    FileStore::UpdateGuidScheme();
    EXPECT_EQ(CallsOf("IdentityValidateGUIDScheme").size(), 1U);
    EXPECT_EQ(DeviceUrl(), host + ":1999/" + kNewGuid);
    FakeResult("IdentityGetGUID ()", 5);
    FileStore::UpdateGuidScheme();
    EXPECT_EQ(DeviceUrl(), "");
}

TEST_F(DeviceIdentity, ParentIsReachedByItsNameFirstWhenItIsInSync) {
    for (const auto& [name, address, sync, host] :
         Table<const char*, const char*, bool, KelString>{{"parent", "127.0.1.1", true, "parent"},
                                                          {"", "127.0.1.1", true, "127.0.1.1"},
                                                          {"", "", true, ""},  // no host: no URL
                                                          {"parent", "127.0.1.1", false, ""}}) {
        relayValues = Make({{"ParentName", name}, {"ParentIPAddress", address}, {"ParentPort", 1611}});
        relayValues = With(relayValues, {{"ParentGuid", kParentGuid}, {"ParentSync", sync}});
        KelString text = "left over", guid;
        FileStore::GetRelayUrl(text, guid);
        EXPECT_EQ(guid, kParentGuid);
        EXPECT_EQ(text, host.empty() ? "" : UrlForAgent(kAgentName, kPassword, host + ":1611"));
    }
    FakeResult("RelayGetValues ()", 1);
    KelString text = "left over", guid;
    FileStore::GetRelayUrl(text, guid);
    EXPECT_EQ(text, "");
}

TEST_F(DeviceIdentity, PathNamesGiveCallUrlAndGuidAndAreCheckedAgainstTheOwnGuid) {
    for (const char* path : {"", "/02-00/10.1.2.3/255.0.0.0"}) {
        KelString text, guid;
        FileStore::GetDeviceUrl(KelString("10.1.2.3:1610/0A1B-X") + path, text, guid);
        EXPECT_EQ(text, UrlForAgent(kAgentName, kPassword, "10.1.2.3:1610/0A1B-X"));
        EXPECT_EQ(guid, "0A1B-X");
    }
    const KelString ours = kGuid;
    EXPECT_FALSE(FileStore::CheckDevicePath({}));
    EXPECT_TRUE(FileStore::CheckDevicePath(Make({{"host:1/" + ours + "/02/10.0.0.1", KelContainer()}})));
    EXPECT_TRUE(FileStore::CheckDeviceGuid("/0a1b0000-0000-4000-8000-00000000000a/X"));
    EXPECT_FALSE(FileStore::CheckDeviceGuid("/X/" + ours));
    EXPECT_FALSE(FileStore::CheckDeviceGuid(""));
    EXPECT_TRUE(FileStore::CheckGuidScheme("h:1/0a1bFFFF-0000"));
    for (const char* foreign : {"h:1/0A1C0000-0000", "h:1/ZZZZ", "h:1/0A1", "0A1", ""})
        EXPECT_FALSE(FileStore::CheckGuidScheme(foreign)) << foreign;
}

TEST_F(DeviceIdentity, NewGuidNamesTheSourceOfWaitingFilesAndOutlivesAnOlderAnswer) {
    Fake("IdentityGetGUID ()", [](KelContainer& container) {
        Ask("FileStoreGUIDCallback", Make({{"GUID", kNewGuid}}));
        container = Make({{"GUID", kGuid}});
        return 0U;
    });
    EXPECT_EQ(DeviceUrl(), KelString("127.0.1.7:1610/") + kNewGuid);
    AddFile(kUp, "nameless", "TOBEUPLOADED");
    AddFile(kUp, "named", "TOBEUPLOADED", "SourceDevice = 'h:1/G'");
    for (int repetition = 0; repetition < 2; ++repetition) {
        Ask("FileStoreGUIDCallback", Make({{"GUID", kGuid}}));
        EXPECT_EQ(Files(kUp, "SourceDevice"), (Texts{kOwnUrl, "h:1/G"}));
    }
}

TEST_F(DeviceIdentity, EventsFromOtherDevicesAndUnusableOnesChangeNothing) {
    EXPECT_EQ(DeviceUrl(), kOwnUrl);
    const KelContainer event = Make({{"GUID", kNewGuid}, {"NewIPAddress", "127.0.1.8"}});
    const KelContainer unusable = Make({{"GUID", "x'; DROP TABLE Files --"}, {"NewIPAddress", "somewhere"}});
    for (const char* action : {"FileStoreGUIDCallback", "FileStoreIPCallback"}) {
        Ask(action, From(event, "127.0.1.9"), kKelErrorNotAvailable);
        Ask(action, unusable, kKelErrorBadInput);
    }
    EXPECT_EQ(DeviceUrl(), kOwnUrl);
    Ask("FileStoreIPCallback", event);
    EXPECT_EQ(DeviceUrl(), KelString("127.0.1.8:1610/") + kGuid);
}

}  // namespace
