#include "filestore/file_store_fixture.h"
#include "kelcore/error_codes.h"
#include "kelcore/http/url.h"
#include "kelcore/net/socket.h"

namespace {

class DeviceIdentity : public FileStoreTest {
  protected:
    static constexpr const char* kOurUrl = "127.0.1.7:1610/0A1B0000-0000-4000-8000-00000000000A";
    static constexpr const char* kNewGuid = "0A1B0000-0000-4000-8000-00000000000B";

    static KelString DeviceUrl() {
        KelString url;
        FileStore::GetOurDeviceGUID(url, true);
        return url;
    }
};

TEST_F(DeviceIdentity, DeviceUrlFollowsThePreferenceAtOnce) {
    EXPECT_EQ(DeviceUrl(), kOurUrl);
    identityValues.SetBool("PreferIPAddresses", false);
    KelString host = GetLocalHostName();
    if (!GetLocalDomainName().empty()) host += "." + GetLocalDomainName();
    EXPECT_EQ(DeviceUrl(), host + ":1610/" + kGuid);
}

TEST_F(DeviceIdentity, UnknownOrUnusableGuidGivesNothing) {
    for (const char* guid : {"", "it's", "a/b"}) {
        identityValues.SetString("GUID", guid);
        EXPECT_EQ(DeviceUrl(), "") << guid;
    }
    FakeResult("IdentityGetGUID ()", 5);
    EXPECT_EQ(DeviceUrl(), "");
}

TEST_F(DeviceIdentity, PortIsAskedForAgainUntilItIsKnown) {
    httpValues.SetInt32("Port", -1);
    EXPECT_EQ(DeviceUrl(), KelString("127.0.1.7:4294967295/") + kGuid);
    httpValues.SetInt32("Port", 1999);
    EXPECT_EQ(DeviceUrl(), KelString("127.0.1.7:1999/") + kGuid);
}

TEST_F(DeviceIdentity, ParentIsReachedByItsNameFirstWhenItIsInSync) {
    for (const auto& [name, address, sync, host] : {std::tuple{"parent", "127.0.1.1", true, "parent"},
                                                    {"parent", "", true, "parent"},
                                                    {"", "127.0.1.1", true, "127.0.1.1"},
                                                    {"", "", true, ""},  // no host: no URL
                                                    {"parent", "127.0.1.1", false, ""}}) {
        SCOPED_TRACE(KelFormat("'%s' at '%s'", name, address));
        relayValues = Make({{"ParentName", name}, {"ParentIPAddress", address}, {"ParentPort", 1611}});
        relayValues = With(relayValues, {{"ParentGuid", kParentGuid}, {"ParentSync", sync}});
        KelString text = "left over", guid;
        FileStore::GetRelayUrl(text, guid);
        EXPECT_EQ(guid, kParentGuid);
        UrlInet url;
        EXPECT_EQ(UrlParseInet(text, url), *host != '\0') << text;
        EXPECT_EQ(url.host, host);
        if (url.host.empty()) continue;
        EXPECT_EQ(url.port, 1611);
        EXPECT_EQ(url.user, kAgentName);
        EXPECT_EQ(url.password, kPassword);
    }
    FakeResult("RelayGetValues ()", 1);
    KelString text = "left over", guid;
    FileStore::GetRelayUrl(text, guid);
    EXPECT_EQ(text, "");
}

TEST_F(DeviceIdentity, DeviceUrlsAndPathNamesGiveCallUrlAndGuid) {
    for (const char* device : {"10.1.2.3:1610/0A1B-X", "10.1.2.3:1610/0A1B-X/02-00/10.1.2.3/255.0.0.0"}) {
        KelString text, guid;
        FileStore::GetDeviceUrl(device, text, guid);
        UrlInet url;
        ASSERT_TRUE(UrlParseInet(text, url)) << text;
        EXPECT_EQ(url.host, "10.1.2.3");
        EXPECT_EQ(url.port, 1610);
        EXPECT_EQ(url.password, kPassword);
        EXPECT_EQ(guid, "0A1B-X");
    }
}

TEST_F(DeviceIdentity, PathsAreCheckedAgainstTheOwnGuid) {
    const KelString ours = kGuid;
    EXPECT_FALSE(FileStore::CheckDevicePath({}));
    EXPECT_TRUE(
        FileStore::CheckDevicePath(Make({{"host:1/" + ours + "/02/10.0.0.1/255.0.0.0", KelContainer()}})));
    EXPECT_TRUE(FileStore::CheckDeviceGuid("/0a1b0000-0000-4000-8000-00000000000a/X"));
    EXPECT_FALSE(FileStore::CheckDeviceGuid("/X/" + ours));
    EXPECT_FALSE(FileStore::CheckDeviceGuid(""));

    EXPECT_TRUE(FileStore::CheckGuidScheme("h:1/0a1bFFFF-0000"));
    for (const char* foreign : {"h:1/0A1C0000-0000", "h:1/ZZZZ", "h:1/0A1", "0A1", ""})
        EXPECT_FALSE(FileStore::CheckGuidScheme(foreign)) << foreign;
}

TEST_F(DeviceIdentity, GuidSchemeUpdateAsksTheIdentityModuleAgain) {
    DeviceUrl();
    identityValues.SetString("GUID", kNewGuid);
    FileStore::UpdateGuidScheme();
    EXPECT_EQ(CallsOf("IdentityValidateGUIDScheme").size(), 1U);
    EXPECT_EQ(DeviceUrl(), KelString("127.0.1.7:1610/") + kNewGuid);
}

TEST_F(DeviceIdentity, AGuidThatChangesWhileItIsAskedForIsTheNewOne) {
    Initialise();
    Fake("IdentityGetGUID ()", [](KelContainer& container) {
        Ask("FileStoreGUIDCallback", Make({{"GUID", kNewGuid}}));
        container = Make({{"GUID", kGuid}});
        return 0U;
    });
    EXPECT_EQ(DeviceUrl(), KelString("127.0.1.7:1610/") + kNewGuid);
}

TEST_F(DeviceIdentity, NewGuidNamesTheSourceOfWaitingFiles) {
    Initialise();
    AddFile(true, "nameless", filestore::kStatusToBeUploaded);
    AddFile(true, "named", filestore::kStatusToBeUploaded, "SourceDevice = 'h:1/G'");
    const KelVector<KelString> expected = {KelString("127.0.1.7:1610/") + kNewGuid, "h:1/G"};
    for (int i = 0; i < 2; ++i) {
        Ask("FileStoreGUIDCallback", Make({{"GUID", kNewGuid}}));
        EXPECT_EQ(Rows(Upstream(), "SELECT SourceDevice FROM Files ORDER BY FileId"), expected);
    }
}

TEST_F(DeviceIdentity, EventsFromOtherDevicesAndUnusableOnesChangeNothing) {
    Initialise();
    EXPECT_EQ(DeviceUrl(), kOurUrl);
    const KelContainer request = Make({{"HttpProtocolRequestAddress", "127.0.1.9"}});
    for (KelContainer arguments :
         {Make({{"GUID", kNewGuid}, {"NewIPAddress", "127.0.1.8"}, {"HttpProtocolRequestInfo", request}}),
          Make({{"GUID", "x'; DROP TABLE Files --"}, {"NewIPAddress", "somewhere"}})}) {
        EXPECT_EQ(Call("FileStoreGUIDCallback", arguments), kKelErrorBadInput);
        EXPECT_EQ(Call("FileStoreIPCallback", arguments), kKelErrorBadInput);
    }
    EXPECT_EQ(DeviceUrl(), kOurUrl);
    Ask("FileStoreIPCallback", Make({{"NewIPAddress", "127.0.1.8"}}));
    EXPECT_EQ(DeviceUrl(), KelString("127.0.1.8:1610/") + kGuid);
}

TEST_F(DeviceIdentity, FileSizeComesFromTheOwnStoreOnlyWhileAvailable) {
    Initialise();
    const KelString path = Root() + "/file";
    WriteFile(path, "12345");
    const unsigned long fileId =
        AddFile(false, "n", filestore::kStatusAvailable, "FilePath = '" + path + "'");
    KelContainer arguments = Make({{"FileType", "Type"}, {"FileLabel", "Label"}, {"FileName", "n"}});
    EXPECT_EQ(Ask("FileStoreRequestFileSize", arguments).GetInt64("FileSize"), 5);
    FileStore::UpdateFileStatus(Downstream(), fileId, filestore::kStatusDownloading, 0, 0);
    EXPECT_NE(Call("FileStoreRequestFileSize", arguments), kKelOk);
}

}  // namespace
