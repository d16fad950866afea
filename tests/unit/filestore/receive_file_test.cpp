#include <regex>

#include "filestore/file_store_fixture.h"

namespace {

constexpr const char* kParent = "127.0.1.1";
constexpr const char* kStranger = "127.0.1.2";
constexpr const char* kPackage = "OperationalRulePackage";

struct ReceiveFileTest : StoreTest {
    /// A downstream offer as the parent sends it.
    static KelContainer Announcement(const KelString& type = "t", const char* sender = kParent) {
        return With(From(Offer(type), sender), {{"FileURL", "/FileStore/downstream/t/l/c/n"},
                                                {"FileSize", 3},
                                                {"DevicePath", TargetTree({kChild})}});
    }
    static void SetStatus(const KelString& status) {
        Rows(kDown, "UPDATE Files SET LastStatusChangeTime = 77, TransferredBytes = 2, FileStatus = #" +
                        status + "#");
    }
    /// An order of the parent concerning the package of this name and content.
    static void Order(const KelString& type, const KelString& package = "pack",
                      const KelString& checksum = "p1") {
        const KelContainer info = Make({{"PackageName", package}, {"PackageChecksum", checksum}});
        Accept(From(Offer(type), kParent), {{"FileInfo", info}});
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
             {"self-healing file", "SelfHealingRecoveredFile", kStranger, kParent, "", kDown, "0"},
             {"trusted self-healing file", "SelfHealingRecoveredFile", kStranger, kParent, near, kDown, "1"},
             {"upstream offer", "t", kStranger, kParent, "", kUp, "1"},
             {"no address at all", "t", "", kParent, "", kDown, "0"},
             {"no parent", "t", kParent, "", "", kDown, "0"}}) {
        const auto trace = Begin(name);
        SetParent(parent, 1);
        Ask("FileStoreSetValues", Make({{"Values", Make({{"TrustedAddressRange", trusted}})}}));
        KelContainer offer = Announcement(type, sender);
        if (*sender == '\0') offer.Remove(kActionRequestInfo);
        const KelString source = side == kUp ? KelString(sender) + ":1610/" + kGuid : KelString();
        Accept(offer, {{"Upstream", side == kUp}, {"SourceDevice", source}});
        EXPECT_EQ(Count(side), taken);
    }
}

TEST_F(ReceiveFileTest, WithACertificateADeviceIsItsGuidAndAClientPassesNothingOn) {
    constexpr auto kClient = KelDeviceRole::Client, kRelay = KelDeviceRole::Relay;
    const KelString guid = "0A1B0000-0000-4000-8000-00000000000B", relay = "127.0.1.3:1610/" + guid;
    const KelString own = "127.0.1.9:1610/" + guid, other = KelString(kStranger) + ":1610/" + kGuid;
    for (const auto& [name, role, source, firstRelay, result] :
         Table<const char*, KelDeviceRole, KelString, KelString, unsigned int>{
             {"its own, from another address", kClient, own, "", kKelOk},
             {"that of the device whose address it has", kClient, other, "", kKelErrorBadInput},
             {"passed on by a client", kClient, other, relay, kKelErrorBadInput},
             {"passed on by a relay", kRelay, other, relay, kKelOk}}) {
        const auto trace = Begin(name);
        KelContainer offer =
            With(Offer(name),
                 {{"FileSize", 3}, {"Upstream", true}, {"SourceDevice", source}, {"FirstRelay", firstRelay}});
        const KelPeer peer{KelPeer::Proof::Certificate, *IpAddress::Parse(kStranger), guid, role};
        EXPECT_EQ(CallLocalFor(peer, {}, "FileStoreReceiveFile", offer), result);
        EXPECT_EQ(Count(kUp), result == kKelOk ? "1" : "0");
        if (result != kKelOk) continue;
        offer = With(Offer("FileStorePackedFiles", "d"),
                     {{"FileSize", 3}, {"Upstream", true}, {"SourceDevice", own}});
        EXPECT_EQ(CallLocalFor(peer, {}, "FileStoreReceiveFile", offer), kKelOk);
        EXPECT_EQ(Rows(kUp, "SELECT count(*) FROM Files WHERE FileInfo LIKE '%OwnFilesOnly%'"),
                  Texts{role == kClient ? "1" : "0"});
    }
}

TEST_F(ReceiveFileTest, HostileValuesChangeNothing) {
    const auto tree = [](const char* leaf) {
        return Make({{kOwnPathName, Make({{"127.0.1.8:1/G", Make({{leaf, KelContainer()}})}})}});
    };
    const KelString local = MakeFile("local", "of this device");
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
        {"FilePath", {local}},
        {"CopyPath", {local}},
        {"MovePath", {local}}};
    const KelString before = Everything();
    for (const bool upstream : {false, true})
        for (const auto& [name, values] : cases)
            for (const Value& value : values) {
                EXPECT_EQ(Receive(Announcement(), {{"Upstream", upstream}, {name, value}}), 1U) << name;
                EXPECT_EQ(Everything(), before) << name;
            }
}

TEST_F(ReceiveFileTest, AbsentAndFixedValuesAreFilledIn) {
    const KelString source = MakeFile("source", "abc");
    Accept(From(Offer("t", ""), ""), {{"FileName", ""}, {"SourceDevice", "any"}, {"CopyPath", source}});
    EXPECT_TRUE(std::regex_match(Names(kDown).at(0), std::regex("device7_[0-9]+_[0-9]{10}")));
    EXPECT_EQ(OnlyFields(kDown, "SourceDevice, FileChecksum"), KelString(kOwnUrl) + "|" + TextMd5("abc"));
    for (const char* type : {"IdentityIdentity", "OperationalRuleSyncInfo", "OperationalRuleStatus",
                             "PatchConfiguration", "t"}) {
        DeleteRows();
        Accept(Announcement(type), {{"Priority", 10}});
        EXPECT_EQ(OnlyFields(kDown, "Priority"), KelString(type) == "t" ? "10" : "500") << type;
    }
}

TEST_F(ReceiveFileTest, UpstreamOfferOfAChildAnswersTheUrlToPutToUnlessItIsRefused) {
    const KelContainer offer =
        With(Offer(), {{"Upstream", true}, {"FileSize", 12}, {"SourceDevice", kChild}});
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(Ask("FileStoreReceiveFile", offer),
                  Make({{"FileURL", "/FileStore/upstream/t/l/c/n"}, {"TakesContents", true}}));
        EXPECT_EQ(OnlyFields(kUp, "FileStatus, FirstRelay, FileSize"), KelFormat("RECEIVING|%s|12", kOwnUrl));
        Rows(kUp, "UPDATE Files SET FileStatus = #MISSING#");
    }
    DeleteRows();
    const char* other = "127.0.1.8:1611/FFFF0000-0000-4000-8000-0000000000C1";
    EXPECT_EQ(Receive(Offer(), {{"Upstream", true}}), 1U) << "no size";
    EXPECT_EQ(Receive(offer, {{"SourceDevice", other}}), kKelErrorGuidScheme);
    DirDelete(InStore("upstream/t"), true);
    WriteFile(InStore("upstream/t"), "a file where the folder should be");
    EXPECT_EQ(Receive(offer), kKelErrorNotAvailable);
    EXPECT_EQ(Count(kUp), "0");
}

TEST_F(ReceiveFileTest, AnnouncedFileIsRecordedWithItsTargets) {
    for (const auto& [address, port, mode] : Table<const char*, int, const char*>{
             {"", 0, "Unicast"}, {"224.2.0.1", 1500, "Multicast"}, {"", 1500, "Unicast"}}) {
        DeleteRows();
        Accept(Announcement(), {{"MulticastAddress", address}, {"MulticastPort", port}});
        EXPECT_EQ(OnlyFields(kDown, "FileStatus, TransportMode, Acknowledged, FileSize"),
                  KelFormat("DOWNLOADING|%s|0|3", mode));
        EXPECT_EQ(Targets("FileId, DeviceGUID"), Texts{OnlyFields(kDown, "FileId") + "|" + kChild});
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
        SetStatus(status);
        Accept(With(Announcement(), {{"FileURL", "/other"}, {"Priority", 7}, {"TransportMode", mode}}),
               {{"MulticastAddress", "224.2.0.1"}, {"MulticastPort", port}});
        EXPECT_EQ(OnlyFields(kDown,
                             "FileStatus, TransportMode, TransferredBytes, LastStatusChangeTime, "
                             "FileURL, Priority"),
                  row);
    }
    for (const char* status : {"AVAILABLE", "DOWNLOADING"}) {
        SetStatus(status);
        const KelString before = Everything();
        Accept(Announcement(), {{"FileURL", "/third"}});
        EXPECT_EQ(Everything(), before);
        WriteFile(FileStore::StorePath(kDown, {"t", "l", "n", "c"}), "abc");
    }
}

TEST_F(ReceiveFileTest, HeldPackageIsPublishedAgainWhereverItLiesAndTheOrderAcknowledgedThen) {
    const KelString copy = "PackagerCopyAdministratedPackage", publish = "PackagerPublishPackageToMaster";
    Order(copy);  // not held: an ordinary announcement
    EXPECT_EQ(OnlyFields(kDown, "FileType"), copy);
    DeleteRows();
    const KelString path = FileStore::StorePath(kDown, {kPackage, "pack", "n", "p1"});
    WriteFile(path, "abc");
    for (const auto& [type, side] : {std::pair(copy, kDown), {publish, kUp}}) {
        AnswerAsParent(0);
        auto refusal = Refuse(side, "INSERT ON Files");
        Order(type);
        EXPECT_TRUE(Parent().Requests().empty()) << type;
        refusal.reset();
        Order(type);
        EXPECT_EQ(Read(OnlyCallTo(Parent(), "FileStoreAcknowledgeFile"), "FileType FileName"), type + "|n");
    }
    EXPECT_EQ(OnlyFields(kDown, "FileType, substr(FileName, 1, 5)"), "SentPackage|pack_");
    EXPECT_EQ(Content(OnlyRow(kDown).FilePath), "abc");
    const KelString published = "PackagerZIPPackage|pack|" + TextMd5("abc");
    EXPECT_EQ(OnlyFields(kUp, "FileType, FileName, FileChecksum"), published);
    EXPECT_EQ(
        Read(FromXml(OnlyRow(kUp).FileInfo), "PackageName WasAdministratedRelay AdministratedRelayGUID"),
        "pack|true|");

    DeleteRows();
    MakeFile("secret/n", "abc");
    Order(publish, "pack", "../../../../../secret");
    EXPECT_EQ(Count(kUp), "0") << "an order reached outside the store";
    FileDelete(path);
    AddFile(
        kDown, "n", "AVAILABLE",
        KelFormat("FileType = '%s', FileLabel = 'pack', FileChecksum = 'p1', ExternalFile = 1, FilePath = "
                  "'%S/secret/n'",
                  kPackage, Root()));
    Order(publish);
    EXPECT_EQ(OnlyFields(kUp, "FileType, FileName, FileChecksum"), published);
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
        EXPECT_FALSE(checksum.empty());
        EXPECT_EQ(
            OnlyFields(side,
                       "FileType, FileLabel, FileName, FileChecksum, FileStatus, KeepCopy, Bypass, Priority"),
            KelFormat("t|l|n|%S|%s|6|1|77", checksum, status));
    }
}

}  // namespace
