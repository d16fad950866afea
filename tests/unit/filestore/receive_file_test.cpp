#include <regex>

#include "filestore/transfer_fixture.h"
#include "kel/checksum.h"
#include "kel/file.h"

using namespace filestore;

namespace {

constexpr const char* kParent = "127.0.1.1";
constexpr const char* kStranger = "127.0.1.2";
constexpr const char* kChild = "127.0.1.8:1611/0A1B0000-0000-4000-8000-0000000000C1/02/127.0.1.8/255.0.0.0";
constexpr const char* kPaths[] = {"MovePath", "CopyPath", "FilePath"};

class ReceiveFileTest : public TransferTest {
  protected:
    /// A downstream offer as the parent sends it.
    static KelContainer Announcement(const KelString& type = "t", const char* sender = kParent) {
        return With(From(Offer(type), sender), {{"FileURL", "/FileStore/downstream/t/l/c/n"},
                                                {"FileSize", 3},
                                                {"DevicePath", TargetTree({kChild})}});
    }
    /// The code that an offer with changed values gets.
    static unsigned int Receive(KelContainer offer, Values values = {}) {
        offer = With(std::move(offer), values);
        return TransferTest::Receive(offer);
    }
    static void Accept(KelContainer offer, Values values = {}) {
        EXPECT_EQ(Receive(std::move(offer), values), 0U);
    }
    static void Forget() {
        Rows(Downstream(), "DELETE FROM Files");
        Rows(Downstream(), "DELETE FROM Targets");
        Rows(Upstream(), "DELETE FROM Files");
    }
    static void SetStatus(bool upstream, const char* status, int time = 0) {
        Rows(upstream ? Upstream() : Downstream(),
             KelFormat("UPDATE Files SET FileStatus = '%s', LastStatusChangeTime = %d", status, time));
    }
};

TEST_F(ReceiveFileTest, DownstreamOffersAreTakenFromTheParentAndTrustedAddressesOnly) {
    constexpr const char* kLocalCall = nullptr;
    const KelString near = "127.0.1.2-127.0.1.4";
    for (const auto& [name, type, sender, trusted, upstream, taken] :
         {std::tuple{"parent", "t", kParent, KelString(), false, true},
          {"stranger", "t", kStranger, "", false, false},
          {"stranger in the trusted range", "t", kStranger, near, false, true},
          {"stranger beside the trusted range", "t", "127.0.1.5", near, false, false},
          {"self-healing file from a stranger", "SelfHealingRecoveredFile", kStranger, "", false, true},
          {"upstream offer from a stranger", "t", kStranger, "", true, true},
          {"no address at all", "t", kLocalCall, "", false, false},
          {"no parsable address", "t", "somewhere", "0.0.0.0-255.255.255.255", false, false}}) {
        SCOPED_TRACE(name);
        Forget();
        FileStore::strTrustedAddressRange = trusted;
        ASSERT_TRUE(FileStore::TrustedIpRange.Parse(trusted));
        KelContainer offer = Announcement(type, sender == kLocalCall ? "" : sender);
        if (sender == kLocalCall) offer.Remove("HttpProtocolRequestInfo");
        Accept(offer, {{"Upstream", upstream}});
        EXPECT_EQ(Count(upstream ? Upstream() : Downstream(), "Files"), taken ? "1" : "0");
    }
    Forget();
    FileStore::strTrustedAddressRange.clear();
    relayValues.SetString("ParentName", "");  // cannot be resolved: it is nobody
    Accept(Announcement());
    EXPECT_EQ(Count(Downstream(), "Files"), "0");
}

TEST_F(ReceiveFileTest, HostileValuesChangeNothing) {
    const auto tree = [](const char* leaf) {
        return Make({{kOwnPathName, Make({{"127.0.1.8:1/G", Make({{leaf, KelContainer()}})}})}});
    };
    const std::pair<const char*, KelVector<Value>> cases[] = {
        {"FileType", {"", "..", "a/b", "a'b"}},
        {"FileLabel", {"", ".", "a\\b"}},
        {"FileName", {"../../x", ".kel-x", "a\nb", KelString(256, 'x')}},
        {"FileChecksum", {"", "..", "a'b"}},
        {"SourceDevice", {"a'b/c"}},
        {"FirstRelay", {"a'b"}},
        {"TransportMode", {"a'b"}},
        {"MulticastAddress", {"'"}},
        {"FileURL", {"http://elsewhere/x", "/a\r\nb"}},
        {"FileSize", {-1}},
        {"MulticastPort", {-1, 65536}},
        {"MulticastBlockSize", {-1, 65536}},
        {"DevicePath", {tree("a'b"), tree("a\nb")}},
        {"FilePath", {"/etc/passwd"}},
        {"CopyPath", {"/etc/passwd"}},
        {"MovePath", {"/etc/passwd"}}};
    const KelString before = Everything();
    for (const bool upstream : {false, true})
        for (const auto& [name, values] : cases)
            for (std::size_t i = 0; i < values.size(); ++i) {
                SCOPED_TRACE(KelFormat("%s, value %lu", name, i));
                EXPECT_EQ(Receive(Announcement(), {{"Upstream", upstream}, {name, values[i]}}), 1U);
                EXPECT_EQ(Everything(), before);
            }
}

TEST_F(ReceiveFileTest, OwnAddressMayNameLocalPaths) {
    const KelString source = MakeFile("source", "abc");
    for (const char* address : {"127.0.1.7", "127.0.0.1"})
        EXPECT_EQ(Receive(From(Offer("t", ""), address), {{"CopyPath", source}}), 0U) << address;
    EXPECT_EQ(OnlyRow(false).FileChecksum, TextMd5("abc"));
}

TEST_F(ReceiveFileTest, MissingNameIsMadeUpAndNamedSourceBecomesThisDevice) {
    Accept(Offer(),
           {{"FileName", ""}, {"SourceDevice", "whatever"}, {"CopyPath", MakeFile("source", "abc")}});
    EXPECT_TRUE(std::regex_match(OnlyRow(false).FileName, std::regex("device7_[0-9]+_[0-9]{10}")));
    EXPECT_EQ(OnlyRow(false).SourceDevice, kOwnUrl);
}

TEST_F(ReceiveFileTest, PriorityIsForcedForUrgentTypes) {
    for (const char* type : {"IdentityIdentity", "OperationalRuleSyncInfo", "OperationalRuleStatus",
                             "PatchConfiguration", "t"}) {
        Forget();
        Accept(Announcement(type), {{"Priority", 10}});
        EXPECT_EQ(OnlyRow(false).Priority, KelString(type) == "t" ? 10U : 500U) << type;
    }
}

// ---- files of this device

TEST_F(ReceiveFileTest, LocalSourcesAreMovedCopiedOrLeft) {
    for (const bool upstream : {true, false})
        for (const KelString value : kPaths) {
            SCOPED_TRACE(value + (upstream ? " up" : " down"));
            Forget();
            const bool isExternal = value == "FilePath";
            const KelString content = value + (upstream ? "1" : "0");
            const KelString source = MakeFile("source", content);
            Accept(Offer("t", ""), {{"Upstream", upstream}, {value, source}, {"FileURL", "/Alias/source"}});
            EXPECT_EQ(FileExists(source), value != "MovePath");
            const FileStoreEntry row = OnlyRow(upstream);
            EXPECT_EQ(row.FileChecksum, TextMd5(content));
            EXPECT_EQ(Content(row.FilePath), content);
            EXPECT_EQ(row.FilePath == source, isExternal);
            EXPECT_EQ(row.ExternalFile, isExternal);
            EXPECT_EQ(row.FileSize, static_cast<std::int64_t>(content.size()));
            EXPECT_EQ(row.TransportMode, kTransportLocal);
            EXPECT_EQ(row.FileStatus, upstream ? kStatusToBeHandled : kStatusAvailable);
            EXPECT_EQ(row.SourceDevice, upstream ? kOwnUrl : "");
            EXPECT_EQ(row.FileURL, !upstream && isExternal ? "/Alias/source" : "");
        }
}

/// No device above would take an empty file: it would be offered for ever.
TEST_F(ReceiveFileTest, UnreadableAndEmptySourcesAreRefusedAndNothingIsRecorded) {
    const KelString empty = MakeFile("empty", "");
    const KelString before = Everything();
    for (const char* value : kPaths) {
        SCOPED_TRACE(value);
        for (const char* checksum : {"", "c"})
            for (const bool upstream : {false, true})
                EXPECT_EQ(
                    Receive(Offer("t", checksum), {{"Upstream", upstream}, {value, Root() + "/absent"}}), 1U);
        for (const char* route : {"Upstream", "Unconnected"})
            EXPECT_EQ(Receive(Offer("t", ""), {{route, true}, {value, empty}}), 1U) << route;
        EXPECT_EQ(Everything(), before);
    }
}

TEST_F(ReceiveFileTest, KnownUpstreamFileIsHandledAgainOnlyWhenAvailable) {
    const auto offer = [&] {
        const KelString source = MakeFile("source", "abc");
        Accept(Offer(), {{"Upstream", true}, {"MovePath", source}});
        EXPECT_FALSE(FileExists(source));
    };
    offer();
    for (const auto& [status, expected] :
         {std::pair{kStatusAvailable, kStatusToBeHandled}, {kStatusUploading, kStatusUploading}}) {
        SetStatus(true, status);
        offer();
        EXPECT_EQ(OnlyRow(true).FileStatus, expected);
    }
}

TEST_F(ReceiveFileTest, LocalOfferReplacesAPartialDownload) {
    Accept(Announcement());
    WriteFile(FileStore::StorePath(false, "t", "l", "c", "n"), "a");
    Accept(Offer(), {{"CopyPath", MakeFile("source", "abc")}});
    const FileStoreEntry row = OnlyRow(false);
    EXPECT_EQ(row.FileStatus, kStatusAvailable);
    EXPECT_TRUE(row.Acknowledged);
    EXPECT_EQ(Content(row.FilePath), "abc");
}

TEST_F(ReceiveFileTest, LocalOfferThatCannotBeStoredLeavesNoTrace) {
    WriteFile(FileStore::strStorageLocationToUse + "downstream/t", "a file where the folder should be");
    const KelString source = MakeFile("source", "abc");
    for (const char* status : {"", kStatusDownloading, kStatusAvailable}) {
        SCOPED_TRACE(status);
        if (*status != '\0') {
            Accept(Announcement());
            SetStatus(false, status, 77);
        }
        const KelString before = Everything();
        EXPECT_EQ(Receive(Offer(), {{"CopyPath", source}, {"DevicePath", TargetTree({kChild})}}), 1U);
        EXPECT_EQ(Everything(), before);
    }
}

// ---- offers of other devices

TEST_F(ReceiveFileTest, UpstreamRemoteOfferAnswersTheUrlToPutTo) {
    for (int i = 0; i < 2; ++i) {
        KelContainer offer = With(Offer(), {{"Upstream", true}, {"FileSize", 12}, {"SourceDevice", kChild}});
        EXPECT_EQ(TransferTest::Receive(offer), 0U);
        EXPECT_EQ(offer, Make({{"FileURL", "/FileStore/upstream/t/l/c/n"}}));
        const FileStoreEntry row = OnlyRow(true);
        EXPECT_EQ(row.FileStatus, kStatusReceiving);
        EXPECT_EQ(row.FirstRelay, kOwnUrl);
        EXPECT_EQ(row.FileSize, 12);
        SetStatus(true, kStatusMissing);
    }
}

TEST_F(ReceiveFileTest, UpstreamRemoteOfferWithoutSizeOrOfAnotherTreeIsRefused) {
    EXPECT_EQ(Receive(Offer(), {{"Upstream", true}}), 1U);
    const char* other = "127.0.1.8:1611/FFFF0000-0000-4000-8000-0000000000C1";
    EXPECT_EQ(Receive(Offer(), {{"Upstream", true}, {"FileSize", 12}, {"SourceDevice", other}}), 44005U);
    EXPECT_EQ(Count(Upstream(), "Files"), "0");
}

TEST_F(ReceiveFileTest, AnnouncedFileIsRecordedWithItsTargets) {
    for (const auto& [address, port, mode] : {std::tuple{"", 0, kTransportUnicast},
                                              {"224.2.0.1", 1500, kTransportMulticast},
                                              {"", 1500, kTransportUnicast}}) {
        Forget();
        Accept(Announcement(), {{"MulticastAddress", address}, {"MulticastPort", port}});
        const FileStoreEntry row = OnlyRow(false);
        EXPECT_EQ(row.FileStatus, kStatusDownloading);
        EXPECT_EQ(row.TransportMode, mode);
        EXPECT_FALSE(row.Acknowledged);
        EXPECT_EQ(row.FileSize, 3);
        EXPECT_EQ(Rows(Downstream(), "SELECT FileId, DeviceGUID FROM Targets"),
                  KelVector<KelString>{std::to_string(row.FileId) + "|" + kChild});
    }
}

TEST_F(ReceiveFileTest, KnownFileThatIsHereIsLeftAlone) {
    const auto expectNoChange = [this] {
        const KelString before = Everything();
        Accept(Announcement(), {{"FileURL", "/other"}});
        EXPECT_EQ(Everything(), before);
    };
    Accept(Announcement());
    SetStatus(false, kStatusAvailable);
    expectNoChange();
    SetStatus(false, kStatusDownloading);
    WriteFile(FileStore::StorePath(false, "t", "l", "c", "n"), "abc");
    expectNoChange();
}

TEST_F(ReceiveFileTest, KnownFileIsTakenUpAgainAsTheNewOfferSays) {
    Accept(Announcement());
    // a requested file is downloaded at once, a failed download waits
    for (const auto& [status, mode, port, row] :
         {std::tuple{kStatusToBeRequested, "Multicast", 0, "UnicastRecovery|0|0|/other|7"},
          {kStatusMissing, "Unicast", 0, "Unicast|2|0|/other|7"},
          {kStatusDownloading, "Multicast", 1500, "Multicast|2|77|/other|7"}}) {
        SCOPED_TRACE(status);
        SetStatus(false, status, 77);
        Rows(Downstream(), "UPDATE Files SET TransferredBytes = 2");
        const KelContainer offer = With(Announcement(), {{"FileURL", "/other"}, {"Priority", 7}});
        Accept(With(offer, {{"TransportMode", mode}}),
               {{"MulticastAddress", "224.2.0.1"}, {"MulticastPort", port}});
        EXPECT_EQ(OnlyRow(false).FileStatus, kStatusDownloading);
        EXPECT_EQ(Cell(Downstream(),
                       "SELECT TransportMode, TransferredBytes, LastStatusChangeTime, FileURL, "
                       "Priority FROM Files"),
                  row);
    }
}

// ---- package orders

TEST_F(ReceiveFileTest, HeldPackageIsPublishedAgain) {
    const KelContainer info = Make({{"PackageName", "pack"}, {"PackageChecksum", "p1"}});
    const KelContainer copy = From(Offer("PackagerCopyAdministratedPackage"), kParent);
    Accept(copy, {{"FileInfo", info}});  // not held: an ordinary announcement
    EXPECT_EQ(OnlyRow(false).FileType, "PackagerCopyAdministratedPackage");

    Forget();
    WriteFile(FileStore::StorePath(false, "OperationalRulePackage", "pack", "p1", "n"), "abc");
    Accept(copy, {{"FileInfo", info}});
    FileStoreEntry row = OnlyRow(false);
    EXPECT_EQ(row.FileType, "SentPackage");
    EXPECT_TRUE(row.FileName.starts_with("pack_"));
    EXPECT_EQ(Content(row.FilePath), "abc");

    Accept(From(Offer("PackagerPublishPackageToMaster"), kParent), {{"FileInfo", info}});
    row = OnlyRow(true);
    EXPECT_EQ(row.FileType, "PackagerZIPPackage");
    EXPECT_EQ(row.FileName, "pack");
    EXPECT_EQ(row.FileChecksum, TextMd5("abc"));
    EXPECT_EQ(row.FileInfo,
              With(info, {{"WasAdministratedRelay", true}, {"AdministratedRelayGUID", ""}}).SaveToXML());
}

TEST_F(ReceiveFileTest, PackageOrderCannotReachOutsideTheStore) {
    MakeFile("secret/n", "abc");
    const KelContainer info = Make({{"PackageName", ".."}, {"PackageChecksum", "../../../secret"}});
    Accept(From(Offer("PackagerPublishPackageToMaster"), kParent), {{"FileInfo", info}});
    EXPECT_EQ(Count(Upstream(), "Files"), "0");
}

// ---- files of devices that are not connected

TEST_F(ReceiveFileTest, UnconnectedWinsOverEveryOtherRoute) {
    const KelContainer info = Make({{"Fact", "x"}});
    const KelString source = MakeFile("info.xml", info.SaveToXML());
    Accept(Offer("IdentityIdentity", ""), {{"Unconnected", true}, {"MovePath", source}});
    EXPECT_EQ(Count(Upstream(), "Files"), "0");
    EXPECT_EQ(Count(Downstream(), "Files"), "0");
    KelContainer kept;
    ASSERT_TRUE(
        static_cast<bool>(kept.LoadFromFile(FileStore::strModuleDataPath + "/unconnected/identity/n")));
    EXPECT_EQ(kept.GetString("SourceDevice"), kOwnUrl);
    EXPECT_EQ(kept.GetContainer("FileInfo"), info);
    EXPECT_FALSE(FileExists(source));
}

TEST_F(ReceiveFileTest, UnconnectedOfferWithoutContentIsRefusedAndCannotChangeOurGuid) {
    const KelContainer offer = With(From(Offer(), kStranger), {{"Unconnected", true}, {"Upstream", true}});
    EXPECT_EQ(Receive(offer, {{"GUID", "FFFF0000-0000-4000-8000-00000000000F"}}), 1U);
    KelString guid;
    FileStore::GetOurDeviceGUID(guid, false);
    EXPECT_EQ(guid, kGuid);

    const KelString before = Everything();
    KelContainer empty = Offer();
    EXPECT_EQ(FileStore::ActionHandler_FileStoreReceiveUnconnectedFile(&empty), 13U);
    EXPECT_EQ(Everything(), before);
}

TEST_F(ReceiveFileTest, UnconnectedActionStoresContentAndSetsTheNextStatus) {
    const KelContainer info = Make({{"Fact", "it's"}});
    KelContainer offer = With(Offer("IdentityIdentity", ""), {{"FileInfo", info}});
    EXPECT_EQ(FileStore::ActionHandler_FileStoreReceiveUnconnectedFile(&offer), 0U);
    FileStoreEntry row = OnlyRow(true);
    EXPECT_EQ(Cell(Upstream(), "SELECT FileStatus, LastStatusChangeTime, FirstRelay, Priority FROM Files"),
              KelString(kStatusToBeUploaded) + "|0|0|500");
    KelContainer stored;
    ASSERT_TRUE(static_cast<bool>(stored.LoadFromFile(row.FilePath)));
    EXPECT_EQ(stored, info);
    EXPECT_EQ(row.FileSize, FileGetSize64(row.FilePath));

    BecomeMaster();
    Forget();
    const KelString source = MakeFile("source", "abc");
    offer = With(Offer("Inventory"), {{"FilePath", source}});
    EXPECT_EQ(FileStore::ActionHandler_FileStoreReceiveUnconnectedFile(&offer), 0U);
    row = OnlyRow(true);
    EXPECT_EQ(row.FileStatus, kStatusToBeHandled);
    EXPECT_EQ(row.Priority, 100U);
    EXPECT_EQ(Content(row.FilePath), "abc");
    EXPECT_TRUE(FileExists(source));
}

}  // namespace
