#include "filestore/transfer_fixture.h"
#include "kel/checksum.h"
#include "kel/file.h"
#include "kel/regex.h"

using namespace filestore;

namespace {

class ReceiveFileTest : public TransferTest {
  protected:
    /// A downstream offer that names no path, as the parent sends it.
    static KelContainer Announcement(const KelString& type = "t") {
        KelContainer offer = Offer(type);
        offer.SetString("FileURL", "/FileStore/downstream/x");
        offer.SetInt64("FileSize", 3);
        return offer;
    }
};

TEST_F(ReceiveFileTest, DownstreamOffersAreTakenFromTheParentAndTrustedAddressesOnly) {
    struct Case {
        const char* name;
        const char* type;
        const char* sender;  ///< null: no network call
        const char* trusted;
        bool upstream;
        bool taken;
    };
    const KelVector<Case> cases = {
        {"parent", "t", "127.0.1.1", "", false, true},
        {"stranger", "t", "127.0.1.2", "", false, false},
        {"stranger in the trusted range", "t", "127.0.1.2", "127.0.1.2-127.0.1.4", false, true},
        {"stranger beside the trusted range", "t", "127.0.1.5", "127.0.1.2-127.0.1.4", false, false},
        {"self-healing file from a stranger", "SelfHealingRecoveredFile", "127.0.1.2", "", false, true},
        {"upstream offer from a stranger", "t", "127.0.1.2", "", true, true},
        {"no address at all", "t", nullptr, "", false, false},
        {"no parsable address", "t", "somewhere", "0.0.0.0-255.255.255.255", false, false},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        Rows(Downstream(), "DELETE FROM Files");
        Rows(Upstream(), "DELETE FROM Files");
        FileStore::strTrustedAddressRange = test.trusted;
        ASSERT_TRUE(FileStore::TrustedIpRange.Parse(test.trusted));
        KelContainer offer = Announcement(test.type);
        offer.SetBool("Upstream", test.upstream);
        if (test.sender != nullptr) offer = From(offer, test.sender);
        ClearLog();
        EXPECT_EQ(Receive(offer), 0U);
        EXPECT_EQ(Count(test.upstream ? Upstream() : Downstream(), "Files"), test.taken ? "1" : "0");
        EXPECT_EQ(HasLogged(KelDebugLevel::Warning, "from a relay ("), !test.taken);
    }
}

TEST_F(ReceiveFileTest, ParentThatCannotBeResolvedIsNobody) {
    SetParent("", 1);
    KelContainer offer = From(Announcement(), "127.0.1.1");
    EXPECT_EQ(Receive(offer), 0U);
    EXPECT_EQ(Count(Downstream(), "Files"), "0");
}

TEST_F(ReceiveFileTest, HostileValuesChangeNothing) {
    struct Case {
        const char* name;
        KelString value;
    };
    const KelString longName(256, 'x');
    const KelVector<Case> cases = {
        {"FileType", ""},
        {"FileType", ".."},
        {"FileType", "a/b"},
        {"FileType", "a'b"},
        {"FileLabel", ""},
        {"FileLabel", "."},
        {"FileLabel", "a\\b"},
        {"FileName", "../../x"},
        {"FileName", "a\nb"},
        {"FileName", longName},
        {"FileChecksum", ""},
        {"FileChecksum", "a'b"},
        {"FileChecksum", ".."},
        {"SourceDevice", "a'b/c"},
        {"FirstRelay", "a'b"},
        {"TransportMode", "a'b"},
        {"MulticastAddress", "'"},
        {"FileURL", "http://elsewhere/x"},
        {"FileURL", "/a\r\nb"},
        {"FileSize", "-1"},
        {"MulticastPort", "65536"},
        {"MulticastPort", "-1"},
        {"FilePath", "/etc/passwd"},
        {"CopyPath", "/etc/passwd"},
        {"MovePath", "/etc/passwd"},
    };
    const KelString before = Everything();
    for (const bool upstream : {false, true}) {
        for (const Case& test : cases) {
            SCOPED_TRACE(KelString(test.name) + "=" + test.value);
            KelContainer offer = From(Announcement(), "127.0.1.1");
            offer.SetBool("Upstream", upstream);
            const KelString name = test.name;
            if (name == "FileSize" || name.starts_with("MulticastP"))
                offer.SetInt64(name, std::stoll(test.value));
            else
                offer.SetString(name, test.value);
            ClearLog();
            EXPECT_EQ(Receive(offer), 1U);
            EXPECT_TRUE(HasLogged(KelDebugLevel::Warning, "Refusing an offer"));
            EXPECT_EQ(Everything(), before);
        }
    }
}

TEST_F(ReceiveFileTest, HostileNamesAnywhereInTheTargetTreeChangeNothing) {
    const KelString before = Everything();
    for (const char* bad : {"a'b", "a\nb"}) {
        KelContainer leaf, child, level, tree;
        leaf.SetContainer(bad, {});
        level.SetContainer("127.0.1.8:1/G", leaf);
        tree.SetContainer(kOwnPathName, level);
        KelContainer offer = From(Announcement(), "127.0.1.1");
        offer.SetContainer("DevicePath", tree);
        EXPECT_EQ(Receive(offer), 1U);
        EXPECT_EQ(Everything(), before);
    }
}

TEST_F(ReceiveFileTest, OwnAddressMayNameLocalPaths) {
    const KelString source = MakeFile("source", "abc");
    for (const char* address : {"127.0.1.7", "127.0.0.1"}) {
        KelContainer offer = From(Offer("t", ""), address);
        offer.SetString("CopyPath", source);
        EXPECT_EQ(Receive(offer), 0U) << address;
    }
    EXPECT_EQ(OnlyRow(false).FileChecksum, TextMd5("abc"));
}

TEST_F(ReceiveFileTest, MissingNameIsMadeOfHostNameRandomNumberAndTime) {
    KelContainer offer = Offer("t", "");
    offer.SetString("FileName", "");
    offer.SetString("CopyPath", MakeFile("source", "abc"));
    EXPECT_EQ(Receive(offer), 0U);
    KelVector<KelString> captures;
    EXPECT_TRUE(FindPcre("^device7_[0-9]+_[0-9]{10}$", OnlyRow(false).FileName, captures));
}

TEST_F(ReceiveFileTest, PriorityIsForcedForUrgentTypes) {
    const KelVector<std::pair<const char*, std::uint32_t>> cases = {{"IdentityIdentity", 500U},
                                                                    {"OperationalRuleSyncInfo", 500U},
                                                                    {"OperationalRuleStatus", 500U},
                                                                    {"PatchConfiguration", 500U},
                                                                    {"t", 10U}};
    for (const auto& [type, priority] : cases) {
        Rows(Downstream(), "DELETE FROM Files");
        KelContainer offer = From(Announcement(type), "127.0.1.1");
        offer.SetInt32("Priority", 10);
        EXPECT_EQ(Receive(offer), 0U);
        EXPECT_EQ(OnlyRow(false).Priority, priority) << type;
    }
}

TEST_F(ReceiveFileTest, UnconnectedWinsOverEveryOtherRoute) {
    KelContainer info;
    info.SetString("Fact", "x");
    const KelString source = Root() + "/info.xml";
    ASSERT_TRUE(static_cast<bool>(info.SaveToFile(source)));
    KelContainer offer = Offer("IdentityIdentity", "");
    offer.SetBool("Unconnected", true);
    offer.SetString("MovePath", source);
    EXPECT_EQ(Receive(offer), 0U);
    EXPECT_EQ(Count(Upstream(), "Files"), "0");
    EXPECT_EQ(Count(Downstream(), "Files"), "0");

    KelContainer kept;
    ASSERT_TRUE(
        static_cast<bool>(kept.LoadFromFile(FileStore::strModuleDataPath + "/unconnected/identity/n")));
    EXPECT_EQ(kept.GetString("SourceDevice"), kOwnUrl);
    EXPECT_EQ(kept.GetContainer("FileInfo"), info);
    EXPECT_FALSE(FileExists(source));
}

TEST_F(ReceiveFileTest, UnconnectedOfferWithoutContentCannotChangeOurGuid) {
    KelContainer offer = From(Offer("t"), "127.0.1.2");
    offer.SetBool("Unconnected", true);
    offer.SetBool("Upstream", true);
    offer.SetString("GUID", "FFFF0000-0000-4000-8000-00000000000F");
    EXPECT_EQ(Receive(offer), 1U);
    KelString guid;
    FileStore::GetOurDeviceGUID(guid, false);
    EXPECT_EQ(guid, kGuid);
}

TEST_F(ReceiveFileTest, UnconnectedActionStoresContentAndSetsTheNextStatus) {
    KelContainer info;
    info.SetString("Fact", "it's");
    KelContainer offer = Offer("IdentityIdentity", "");
    offer.SetContainer("FileInfo", info);
    EXPECT_EQ(FileStore::ActionHandler_FileStoreReceiveUnconnectedFile(&offer), 0U);
    FileStoreEntry row = OnlyRow(true);
    EXPECT_EQ(row.FileStatus, kStatusToBeUploaded);
    EXPECT_EQ(row.LastStatusChangeTime, 0);
    EXPECT_EQ(row.FirstRelay, "0");
    EXPECT_EQ(row.Priority, 500U);
    KelContainer stored;
    ASSERT_TRUE(static_cast<bool>(stored.LoadFromFile(row.FilePath)));
    EXPECT_EQ(stored, info);
    EXPECT_EQ(row.FileSize, FileGetSize64(row.FilePath));

    BecomeMaster();
    Rows(Upstream(), "DELETE FROM Files");
    const KelString source = MakeFile("source", "abc");
    offer = Offer("Inventory");
    offer.SetString("FilePath", source);
    EXPECT_EQ(FileStore::ActionHandler_FileStoreReceiveUnconnectedFile(&offer), 0U);
    row = OnlyRow(true);
    EXPECT_EQ(row.FileStatus, kStatusToBeHandled);
    EXPECT_EQ(row.Priority, 100U);
    EXPECT_EQ(Content(row.FilePath), "abc");
    EXPECT_TRUE(FileExists(source));
}

TEST_F(ReceiveFileTest, UnconnectedActionWithoutContentIsRefused) {
    KelContainer offer = Offer();
    const KelString before = Everything();
    EXPECT_EQ(FileStore::ActionHandler_FileStoreReceiveUnconnectedFile(&offer), 13U);
    EXPECT_TRUE(
        HasLogged(KelDebugLevel::Warning, "Missing info or path for received unconnected file of type 't'"));
    EXPECT_EQ(Everything(), before);
}

}  // namespace
