#include <regex>

#include "filestore/file_store_fixture.h"

namespace {

constexpr const char* kParent = "127.0.1.1";
constexpr const char* kStranger = "127.0.1.2";
constexpr const char* kTarget = "127.0.1.8:1611/0A1B0000-0000-4000-8000-0000000000C1/02/127.0.1.8/255.0.0.0";

struct ReceiveFileTest : StoreTest {
    /// A downstream offer as the parent sends it.
    static KelContainer Announcement(const KelString& type = "t", const char* sender = kParent) {
        return With(From(Offer(type), sender), {{"FileURL", "/FileStore/downstream/t/l/c/n"},
                                                {"FileSize", 3},
                                                {"DevicePath", TargetTree({kTarget})}});
    }
    static void SetStatus(const char* status, int time = 0) {
        Rows(kDown, KelFormat("UPDATE Files SET FileStatus = #%s#, LastStatusChangeTime = %d, "
                              "TransferredBytes = 2",
                              status, time));
    }
    /// An order of the parent concerning the package of this name and content.
    static void Order(const KelString& type, const KelString& package, const KelString& checksum) {
        Accept(From(Offer(type), kParent),
               {{"FileInfo", Make({{"PackageName", package}, {"PackageChecksum", checksum}})}});
    }
};

TEST_F(ReceiveFileTest, DownstreamOffersAreTakenFromTheParentAndTrustedAddressesOnly) {
    const KelString near = "127.0.1.2-127.0.1.4";
    for (const auto& [name, type, sender, parent, trusted, side, taken] :
         Table<const char*, const char*, const char*, const char*, KelString, Side, const char*>{
             {"parent", "t", kParent, kParent, "", kDown, "1"},
             {"stranger", "t", kStranger, kParent, "", kDown, "0"},
             {"stranger in the trusted range", "t", kStranger, kParent, near, kDown, "1"},
             {"stranger beside the trusted range", "t", "127.0.1.5", kParent, near, kDown, "0"},
             {"self-healing file", "SelfHealingRecoveredFile", kStranger, kParent, "", kDown, "1"},
             {"upstream offer", "t", kStranger, kParent, "", kUp, "1"},
             {"no address at all", "t", "", kParent, "", kDown, "0"},
             {"no parsable address", "t", "somewhere", kParent, "0.0.0.0-255.255.255.255", kDown, "0"},
             {"no parent", "t", kParent, "", "", kDown, "0"}}) {
        const auto trace = Begin(name);
        SetParent(parent, 1);
        Ask("FileStoreSetValues", Make({{"Values", Make({{"TrustedAddressRange", trusted}})}}));
        KelContainer offer = Announcement(type, sender);
        if (*sender == '\0') offer.Remove("HttpProtocolRequestInfo");
        Accept(offer, {{"Upstream", side == kUp}});
        EXPECT_EQ(Count(side), taken);
    }
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

TEST_F(ReceiveFileTest, AbsentAndFixedValuesAreFilledIn) {
    const KelString source = MakeFile("source", "abc");
    Accept(From(Offer("t", ""), "127.0.0.1"),
           {{"FileName", ""}, {"SourceDevice", "whatever"}, {"CopyPath", source}});
    EXPECT_TRUE(std::regex_match(OnlyFields(kDown, "FileName"), std::regex("device7_[0-9]+_[0-9]{10}")));
    EXPECT_EQ(OnlyFields(kDown, "SourceDevice, FileChecksum"), KelString(kOwnUrl) + "|" + TextMd5("abc"));
    for (const char* type : {"IdentityIdentity", "OperationalRuleSyncInfo", "OperationalRuleStatus",
                             "PatchConfiguration", "t"}) {
        DeleteRows();
        Accept(Announcement(type), {{"Priority", 10}});
        EXPECT_EQ(OnlyFields(kDown, "Priority"), KelString(type) == "t" ? "10" : "500") << type;
    }
}

TEST_F(ReceiveFileTest, UpstreamOfferOfAChildAnswersTheUrlToPutTo) {
    for (int i = 0; i < 2; ++i) {
        KelContainer offer = With(Offer(), {{"Upstream", true}, {"FileSize", 12}, {"SourceDevice", kChild}});
        EXPECT_EQ(Ask("FileStoreReceiveFile", offer), Make({{"FileURL", "/FileStore/upstream/t/l/c/n"}}));
        EXPECT_EQ(OnlyFields(kUp, "FileStatus, FirstRelay, FileSize"), KelFormat("RECEIVING|%s|12", kOwnUrl));
        Rows(kUp, "UPDATE Files SET FileStatus = #MISSING#");
    }
    DeleteRows();
    EXPECT_EQ(Receive(Offer(), {{"Upstream", true}}), 1U) << "no size";
    const char* other = "127.0.1.8:1611/FFFF0000-0000-4000-8000-0000000000C1";
    EXPECT_EQ(Receive(Offer(), {{"Upstream", true}, {"FileSize", 12}, {"SourceDevice", other}}), 44005U);
    EXPECT_EQ(Count(kUp), "0");
}

TEST_F(ReceiveFileTest, AnnouncedFileIsRecordedWithItsTargets) {
    for (const auto& [address, port, mode] : Table<const char*, int, const char*>{
             {"", 0, "Unicast"}, {"224.2.0.1", 1500, "Multicast"}, {"", 1500, "Unicast"}}) {
        DeleteRows();
        Accept(Announcement(), {{"MulticastAddress", address}, {"MulticastPort", port}});
        EXPECT_EQ(OnlyFields(kDown, "FileStatus, TransportMode, Acknowledged, FileSize"),
                  KelFormat("DOWNLOADING|%s|0|3", mode));
        EXPECT_EQ(Targets("FileId, DeviceGUID"), Texts{OnlyFields(kDown, "FileId") + "|" + kTarget});
    }
}

TEST_F(ReceiveFileTest, KnownFileIsDownloadedAgainAsTheNewOfferSaysUnlessItIsHere) {
    Accept(Announcement());
    // a requested file is downloaded at once, a failed download waits
    for (const auto& [status, mode, port, row] : Table<const char*, const char*, int, const char*>{
             {"TOBEREQUESTED", "Multicast", 0, "DOWNLOADING|UnicastRecovery|0|0|/other|7"},
             {"MISSING", "Unicast", 0, "DOWNLOADING|Unicast|2|0|/other|7"},
             {"DOWNLOADING", "Multicast", 1500, "DOWNLOADING|Multicast|2|77|/other|7"}}) {
        SCOPED_TRACE(status);
        SetStatus(status, 77);
        const KelContainer offer = With(Announcement(), {{"FileURL", "/other"}, {"Priority", 7}});
        Accept(With(offer, {{"TransportMode", mode}}),
               {{"MulticastAddress", "224.2.0.1"}, {"MulticastPort", port}});
        EXPECT_EQ(OnlyFields(kDown,
                             "FileStatus, TransportMode, TransferredBytes, LastStatusChangeTime, "
                             "FileURL, Priority"),
                  row);
    }
    for (const char* content : {"", "abc"}) {
        SetStatus(*content == '\0' ? "AVAILABLE" : "DOWNLOADING");
        if (*content != '\0') WriteFile(FileStore::StorePath(kDown, {"t", "l", "n", "c"}), content);
        const KelString before = Everything();
        Accept(Announcement(), {{"FileURL", "/third"}});
        EXPECT_EQ(Everything(), before);
    }
}

TEST_F(ReceiveFileTest, HeldPackageIsPublishedAgain) {
    Order("PackagerCopyAdministratedPackage", "pack", "p1");  // not held: an ordinary announcement
    EXPECT_EQ(OnlyFields(kDown, "FileType"), "PackagerCopyAdministratedPackage");
    DeleteRows();
    WriteFile(FileStore::StorePath(kDown, {"OperationalRulePackage", "pack", "n", "p1"}), "abc");
    Order("PackagerCopyAdministratedPackage", "pack", "p1");
    const FileStoreEntry row = OnlyRow(kDown);
    EXPECT_EQ(row.FileType, "SentPackage");
    EXPECT_TRUE(row.FileName.starts_with("pack_"));
    EXPECT_EQ(Content(row.FilePath), "abc");

    Order("PackagerPublishPackageToMaster", "pack", "p1");
    EXPECT_EQ(OnlyFields(kUp, "FileType, FileName, FileChecksum"),
              "PackagerZIPPackage|pack|" + TextMd5("abc"));
    EXPECT_EQ(
        Read(FromXml(OnlyRow(kUp).FileInfo), "PackageName WasAdministratedRelay AdministratedRelayGUID"),
        "pack|true|");
    DeleteRows();
    MakeFile("secret/n", "abc");
    Order("PackagerPublishPackageToMaster", "..", "../../../secret");
    EXPECT_EQ(Count(kUp), "0") << "an order reached outside the store";
}

/// The receivers can be called with the parts of an offer, too.
TEST_F(ReceiveFileTest, ReceiversTakeThePartsOfAnOffer) {
    const KelContainer local = Make({{"CopyPath", MakeFile("source", "abc")}});
    const KelContainer remote = Make({{"FileSize", 3}, {"SourceDevice", kChild}});
    using Receiver = decltype(&FileStore::ReceiveUpstreamLocalFile);
    for (const auto& [receiver, values, side, status] : Table<Receiver, KelContainer, Side, const char*>{
             {&FileStore::ReceiveUpstreamLocalFile, local, kUp, "TOBEHANDLED"},
             {&FileStore::ReceiveUpstreamRemoteFile, remote, kUp, "RECEIVING"},
             {&FileStore::ReceiveDownstreamLocalFile, local, kDown, "AVAILABLE"},
             {&FileStore::ReceiveDownstreamRemoteFile, remote, kDown, "DOWNLOADING"}}) {
        const auto trace = Begin(status);
        KelContainer arguments = values;
        KelString checksum = arguments.Has("CopyPath") ? "" : "c";
        EXPECT_EQ(receiver(arguments, "t", "l", "n", checksum, 6, true, 0, 77), 0);
        EXPECT_EQ(OnlyFields(side,
                             "FileStatus, FileType, FileLabel, FileName, FileChecksum, KeepCopy, Bypass, "
                             "Priority"),
                  KelFormat("%s|t|l|n|%S|6|1|77", status, checksum));
        EXPECT_FALSE(checksum.empty());
    }
}

}  // namespace
