#include "filestore/file_store_fixture.h"
#include "kelcore/error_codes.h"
#include "kelcore/http/url.h"
#include "kelcore/net/socket.h"

namespace {

class DeviceIdentity : public FileStoreTest {
  protected:
    static KelString DeviceUrl() {
        KelString url;
        FileStore::GetOurDeviceGUID(url, true);
        return url;
    }
    KelString RelayUrl() {
        KelString url = "left over";
        parentGuid_.clear();
        FileStore::GetRelayUrl(url, parentGuid_);
        return url;
    }
    void SetParent(const char* name, const char* address, bool sync) {
        relayValues.SetString("ParentName", name);
        relayValues.SetString("ParentIPAddress", address);
        relayValues.SetString("ParentGuid", kParentGuid);
        relayValues.SetInt32("ParentPort", 1611);
        relayValues.SetBool("ParentSync", sync);
    }

    KelString parentGuid_;
};

TEST_F(DeviceIdentity, DeviceUrlFollowsThePreferenceAtOnce) {
    EXPECT_EQ(DeviceUrl(), "127.0.1.7:1610/0A1B0000-0000-4000-8000-00000000000A");
    identityValues.SetBool("PreferIPAddresses", false);
    KelString host = GetLocalHostName();
    if (!GetLocalDomainName().empty()) host += "." + GetLocalDomainName();
    EXPECT_EQ(DeviceUrl(), host + ":1610/0A1B0000-0000-4000-8000-00000000000A");
    EXPECT_EQ(CallsOf("IdentityGetGUID").size(), 1U);
    EXPECT_EQ(CallsOf("IdentityGetValues").size(), 2U);
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
    FakeResult("HttpProtocolGetParams ()", 1);
    EXPECT_EQ(DeviceUrl(), "127.0.1.7:4294967295/0A1B0000-0000-4000-8000-00000000000A");
    Fake("HttpProtocolGetParams ()", [](KelContainer& container) {
        KelContainer values;
        values.SetInt32("Port", 1999);
        container.SetContainer("Values", std::move(values));
        return 0U;
    });
    EXPECT_EQ(DeviceUrl(), "127.0.1.7:1999/0A1B0000-0000-4000-8000-00000000000A");
}

TEST_F(DeviceIdentity, ParentIsReachedByItsNameFirst) {
    struct Case {
        const char* name;
        const char* address;
        const char* host;
    };
    for (const Case& tested : {Case{"parent", "127.0.1.1", "parent"}, Case{"parent", "", "parent"},
                               Case{"", "127.0.1.1", "127.0.1.1"}}) {
        SetParent(tested.name, tested.address, true);
        UrlInet url;
        ASSERT_TRUE(UrlParseInet(RelayUrl(), url));
        EXPECT_EQ(url.host, tested.host);
        EXPECT_EQ(url.port, 1611);
        EXPECT_EQ(url.user, kAgentName);
        EXPECT_EQ(url.password, kPassword);
        EXPECT_EQ(parentGuid_, kParentGuid);
    }
}

TEST_F(DeviceIdentity, ParentThatIsOutOfSyncOrNamelessHasNoUrl) {
    SetParent("parent", "127.0.1.1", false);
    EXPECT_EQ(RelayUrl(), "");
    EXPECT_TRUE(HasLogged(KelDebugLevel::Warning, "Current parent is undefined or out of sync"));
    SetParent("", "", true);
    EXPECT_EQ(RelayUrl(), "");
    FakeResult("RelayGetValues ()", 1);
    EXPECT_EQ(RelayUrl(), "");
    EXPECT_TRUE(HasLogged(KelDebugLevel::Error, "Could not read relay info"));
}

TEST_F(DeviceIdentity, DeviceUrlsAndPathNamesGiveCallUrlAndGuid) {
    for (const char* device : {"10.1.2.3:1610/0A1B-X", "10.1.2.3:1610/0A1B-X/02-00/10.1.2.3/255.0.0.0"}) {
        KelString text;
        KelString guid;
        FileStore::GetDeviceUrl(device, text, guid);
        UrlInet url;
        ASSERT_TRUE(UrlParseInet(text, url)) << text;
        EXPECT_EQ(url.host, "10.1.2.3");
        EXPECT_EQ(url.port, 1610);
        EXPECT_EQ(url.password, kPassword);
        EXPECT_EQ(guid, "0A1B-X");
    }
}

TEST_F(DeviceIdentity, ChecksPathsAgainstTheOwnGuid) {
    const KelString ours = kGuid;
    KelContainer targets;
    EXPECT_FALSE(FileStore::CheckDevicePath(targets));
    targets.SetContainer("host:1/" + ours + "/02-00/10.0.0.1/255.0.0.0", {});
    EXPECT_TRUE(FileStore::CheckDevicePath(targets));
    EXPECT_TRUE(FileStore::CheckDeviceGuid("/0a1b0000-0000-4000-8000-00000000000a/X"));
    EXPECT_FALSE(FileStore::CheckDeviceGuid("/X/" + ours));
    EXPECT_FALSE(FileStore::CheckDeviceGuid(""));

    EXPECT_TRUE(FileStore::CheckGuidScheme("h:1/0a1bFFFF-0000"));
    EXPECT_FALSE(FileStore::CheckGuidScheme("h:1/0A1C0000-0000"));
    EXPECT_FALSE(FileStore::CheckGuidScheme("h:1/ZZZZ"));
    EXPECT_FALSE(FileStore::CheckGuidScheme("0A1"));
    EXPECT_FALSE(FileStore::CheckGuidScheme(""));
}

TEST_F(DeviceIdentity, GuidSchemeUpdateAsksTheIdentityModuleAgain) {
    DeviceUrl();
    identityValues.SetString("GUID", "FFFF0000-0000-4000-8000-00000000000A");
    FileStore::UpdateGuidScheme();
    EXPECT_EQ(CallsOf("IdentityValidateGUIDScheme").size(), 1U);
    EXPECT_EQ(DeviceUrl(), "127.0.1.7:1610/FFFF0000-0000-4000-8000-00000000000A");
}

TEST_F(DeviceIdentity, GuidCallbackNamesTheSourceOfWaitingFiles) {
    Initialise();
    AddFile(true, "nameless", filestore::kStatusToBeUploaded);
    AddFile(true, "named", filestore::kStatusToBeUploaded,
            [](FileStoreEntry& e) { e.SourceDevice = "h:1/G"; });
    KelContainer arguments;
    arguments.SetString("GUID", "0A1B0000-0000-4000-8000-00000000000B");
    EXPECT_EQ(Call("FileStoreGUIDCallback", arguments), kKelOk);
    const KelVector<KelString> expected = {"127.0.1.7:1610/0A1B0000-0000-4000-8000-00000000000B", "h:1/G"};
    EXPECT_EQ(Rows(Upstream(), "SELECT SourceDevice FROM Files ORDER BY FileId"), expected);

    EXPECT_EQ(Call("FileStoreGUIDCallback", arguments), kKelOk);
    EXPECT_TRUE(HasLogged(KelDebugLevel::Detail, "GUID has not really changed"));
}

TEST_F(DeviceIdentity, EventsFromOtherDevicesAndUnusableOnesChangeNothing) {
    Initialise();
    DeviceUrl();
    KelContainer request;
    request.SetString("HttpProtocolRequestAddress", "127.0.1.9");
    KelContainer foreign;
    foreign.SetString("GUID", "0A1B0000-0000-4000-8000-00000000000B");
    foreign.SetString("NewIPAddress", "127.0.1.8");
    foreign.SetContainer("HttpProtocolRequestInfo", request);
    KelContainer unusable;
    unusable.SetString("GUID", "x'; DROP TABLE Files --");
    unusable.SetString("NewIPAddress", "somewhere");
    for (KelContainer* arguments : {&foreign, &unusable}) {
        EXPECT_EQ(Call("FileStoreGUIDCallback", *arguments), kKelErrorBadInput);
        EXPECT_EQ(Call("FileStoreIPCallback", *arguments), kKelErrorBadInput);
    }
    EXPECT_EQ(DeviceUrl(), "127.0.1.7:1610/0A1B0000-0000-4000-8000-00000000000A");
    KelContainer local;
    local.SetString("NewIPAddress", "127.0.1.8");
    EXPECT_EQ(Call("FileStoreIPCallback", local), kKelOk);
    EXPECT_EQ(DeviceUrl(), "127.0.1.8:1610/0A1B0000-0000-4000-8000-00000000000A");
}

TEST_F(DeviceIdentity, HandlerResultsAreSearchedForACode) {
    KelContainer results;
    results.SetInt32("FirstAction", 0);
    results.SetInt32("SecondAction", 15);
    EXPECT_TRUE(FileStore::CheckHandlerResult(results, 15));
    EXPECT_FALSE(FileStore::CheckHandlerResult(results, 16154));
    results.SetString("Third", "no number");
    EXPECT_TRUE(FileStore::CheckHandlerResult(results, 0xFFFFFFFF));
}

TEST_F(DeviceIdentity, FileSizeComesFromTheOwnStoreOnlyWhileAvailable) {
    Initialise();
    const KelString path = Root() + "/file";
    WriteFile(path, "12345");
    const unsigned long fileId =
        AddFile(false, "n", filestore::kStatusAvailable, [&](FileStoreEntry& e) { e.FilePath = path; });
    KelContainer arguments;
    arguments.SetString("FileType", "Type");
    arguments.SetString("FileLabel", "Label");
    arguments.SetString("FileName", "n");
    arguments.SetString("FileChecksum", "");
    EXPECT_EQ(Call("FileStoreRequestFileSize", arguments), kKelOk);
    EXPECT_EQ(arguments.GetInt64("FileSize"), 5);
    FileStore::UpdateFileStatus(Downstream(), fileId, filestore::kStatusDownloading, 0, 0);
    EXPECT_NE(Call("FileStoreRequestFileSize", arguments), kKelOk);
    EXPECT_TRUE(
        HasLogged(KelDebugLevel::Error, "unable to retrieve file size for type 'Type', label 'Label'"));
}

}  // namespace
