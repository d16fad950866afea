#include <filesystem>
#include <thread>

#include "filestore/down/notify_thread.h"
#include "filestore/file_store_fixture.h"

namespace {

struct RequestFileActionTest : StoreTest {
    /// What `device` is answered that asks for the file t/l/n; the pairs replace or add arguments.
    static KelContainer AskAs(const KelString& device, Values change = {}, unsigned int result = kKelOk) {
        const KelContainer request = With(Offer(), {{"DeviceGUID", device}, {"FileInfo", Info()}});
        return Ask("FileStoreRequestFile", With(request, change), result);
    }
    static Texts Requesters() { return Targets("DeviceGUID, LastNotifyTime"); }
};

TEST_F(RequestFileActionTest, UnknownFileIsRecordedAsMissingForItsRequester) {
    for (const KelString device : {kChild, ""}) {
        const auto trace = Begin(device);
        const KelContainer answer = AskAs(device, {{"FileName", "it's"}, {"Bypass", "1"}});
        EXPECT_EQ(Read(answer, "FileURL FileObsolete"), "|(none)");
        EXPECT_EQ(OnlyFields(kDown, "FileStatus, FileName, TransportMode, Bypass, LastRequestTime, FileInfo"),
                  "MISSING|it's|Unknown|1|now|" + Info().SaveToXML());
        EXPECT_EQ(Requesters(), Texts{device + "|0"});
    }
}

TEST_F(RequestFileActionTest, RowOfAKnownFileDecidesTheAnswer) {
    const KelString store = "/FileStore/downstream/t/l/c/n", none = "|6|(none)|(none)";
    const KelString external = ", ExternalFile = 1, FileURL = '/QuarnelDatabase/it''s'";
    const Texts child = {KelString(kChild) + "|8"}, soon = {KelString(kChild) + "|0"};
    enum { Alone, OnTheMaster, BesideMulticast };
    for (const auto& [status, set, where, checksum, answer, row, targets] :
         Table<const char*, KelString, int, const char*, KelString, const char*, Texts>{
             {"AVAILABLE", "", Alone, "c", store + none, "AVAILABLE|now", child},
             {"AVAILABLE", "", Alone, "", store + "|6|(none)|c", "AVAILABLE|now", child},
             {"DOWNLOADING", "", Alone, "c", none, "DOWNLOADING|0", child},
             {"MISSING", "", Alone, "c", none, "MISSING|0", child},
             {"OBSOLETE", "", Alone, "c", "(none)|(none)|true|(none)", "OBSOLETE|0", {}},
             {"AVAILABLE", external, Alone, "c", "/QuarnelDatabase/it's" + none, "AVAILABLE|now", child},
             {"AVAILABLE", "", BesideMulticast, "c", "|(none)|(none)|(none)", "AVAILABLE|now", soon},
             {"AVAILABLE", ", FileURL = '/x'", OnTheMaster, "c", "/x" + none, "AVAILABLE|now", child},
             {"AVAILABLE", "", OnTheMaster, "c", store + none, "AVAILABLE|now", child}}) {
        const auto trace = Begin(status + set);
        if (where == OnTheMaster) BecomeMaster();
        if (where == BesideMulticast) LimitWindow(FileStore::bmTrackUsageMulticast, "100");
        AddFile(kDown, "n", status, "KeepCopy = 6" + set);
        for (int repetition = 0; repetition < 2; ++repetition)
            EXPECT_EQ(Read(AskAs(kChild, {{"FileChecksum", checksum}}),
                           "FileURL KeepCopy FileObsolete FileChecksum"),
                      answer);
        EXPECT_EQ(OnlyFields(kDown, "FileStatus, LastRequestTime"), row);
        EXPECT_EQ(Requesters(), targets);
        FileStore::bmTrackUsageMulticast.ClearWindow();
    }
}

/// In a tree with keys. A relay names the client for which it asks.
TEST_F(RequestFileActionTest, WithoutTheChecksumAClientGetsNothingThatWasPublishedForOthers) {
    const KelString client = "0A1B0000-0000-4000-8000-00000000000B",
                    other = "0A1B0000-0000-4000-8000-00000000000C";
    const KelString available = "AVAILABLE", missing = "MISSING";
    const auto signedFor = [](const KelString& guid) {
        KelContainer publication = Make({{"Size", 3}});
        if (!guid.empty()) publication.SetString("Device", guid);
        return Make({{"Signed", publication}});
    };
    const auto requested = [](const KelString& guid) { return Make({{"RequestedFor", guid}}); };
    for (const auto& [status, info, isOpen, isRelay, served] :
         Table<KelString, KelContainer, bool, bool, bool>{{available, signedFor(other), true, false, false},
                                                          {available, signedFor(other), false, false, true},
                                                          {available, signedFor(client), true, false, true},
                                                          {available, signedFor(""), true, false, true},
                                                          {available, KelContainer(), true, false, true},
                                                          {available, signedFor(other), true, true, false},
                                                          {available, signedFor(client), true, true, true},
                                                          {missing, signedFor(other), true, false, false},
                                                          {missing, requested(other), true, false, false},
                                                          {missing, requested(client), true, false, true}}) {
        const auto trace =
            Begin(KelFormat("%S %S %d %d", status, info.SaveToXML(), int{isOpen}, int{isRelay}));
        AddFile(kDown, "n", available, "FileChecksum = 'b', " + SetInfo(signedFor(other)));
        AddFile(kDown, "n", status, SetInfo(info));
        const KelPeer peer{KelPeer::Proof::Certificate, *IpAddress::Parse("127.0.1.77"),
                           isRelay ? kGuid : client.c_str(),
                           isRelay ? KelDeviceRole::Relay : KelDeviceRole::Client};
        KelContainer request =
            With(Offer(), {{"FileChecksum", isOpen ? "" : "c"},
                           {"DeviceGUID", "127.0.1.9:1610/" + peer.deviceGuid},
                           {"FileInfo", requested(isRelay ? client : peer.deviceGuid + "x")}});
        EXPECT_EQ(CallLocalFor(peer, {}, "FileStoreRequestFile", request), kKelOk);
        EXPECT_EQ(!Requesters().empty(), served);
        EXPECT_EQ(!request.GetString("FileURL").empty(), served && status == available);
    }
}

TEST_F(RequestFileActionTest, ModuleOfThisDeviceIsATargetBesideTheOthers) {
    AddTarget(AddFile(kDown, "n", "AVAILABLE"), 1000, kChild, 1);
    AskAs("");
    EXPECT_EQ(Requesters(), (Texts{KelString(kChild) + "|1", "|8"}));
}

TEST_F(RequestFileActionTest, ForeignSchemesAndHostileValuesChangeNothing) {
    AddFile(kDown, "n", "AVAILABLE");
    const KelString before = Everything();
    for (const auto& [name, value, result] : Table<const char*, const char*, unsigned int>{
             {"DeviceGUID", "127.0.1.9:1610/FFFF0000-0000-4000-8000-0000000000C1", kKelErrorGuidScheme},
             {"DeviceGUID", "nonsense", kKelErrorGuidScheme},
             {"DeviceGUID", "x' OR 1=1 --", kKelErrorBadInput},
             {"FileName", "", kKelErrorBadInput},
             {"FileChecksum", "c'", kKelErrorBadInput}}) {
        EXPECT_TRUE(AskAs(kChild, {{name, value}}, result).IsEmpty());
        EXPECT_EQ(Everything(), before) << name << " = " << value;
    }
}

TEST_F(RequestFileActionTest, NetworkPackageIsServedAndAnnouncedFromTheRulePackage) {
    FakeResult("TestConsume ()", 0);
    const auto receiver = Consume("FileStoreCallbackReceivedFile", "TestConsume ()");
    const KelString path = FileStore::StorePath(kDown, {"OperationalRulePackage", "l", "n", "c"});
    const KelString url = "/FileStore/downstream/OperationalRulePackage/l/c/n";
    for (const KelString type : {"OperationalRuleNetworkPackage", "OperationalRelayPackage"}) {
        const auto trace = Begin(type);
        AddStored(kDown, "n", "AVAILABLE", "FileType = 'OperationalRulePackage', Acknowledged = 1");
        for (int repetition = 0; repetition < 2; ++repetition)
            EXPECT_EQ(AskAs("", {{"FileType", type}}).GetString("FileURL"), url);
        EXPECT_EQ(FileStore::threadNotify.NotifyUnicastTargets(0, 0), 1);
        EXPECT_EQ(CallsOf("TestConsume").back().GetString("FilePath"), path);
        EXPECT_EQ(Files(kDown, "FileType, FileURL, ExternalFile"),
                  (Texts{"OperationalRulePackage||0", type + "|" + url + "|1"}));
    }
}

TEST_F(RequestFileActionTest, FileSizeComesFromTheOwnStoreOnlyWhileAvailable) {
    AddStored(kDown, "n", "AVAILABLE");
    Rows(kDown, "UPDATE Files SET FilePath = '/former/place/n'");
    EXPECT_EQ(Ask("FileStoreRequestFileSize", Offer()).GetInt64("FileSize"), 1);
    Rows(kDown, "UPDATE Files SET FileStatus = #DOWNLOADING#");
    EXPECT_NE(Call("FileStoreRequestFileSize", Offer()), kKelOk);
}

struct PackageRepositoryTest : RequestFileActionTest {
    PackageRepositoryTest() { Configure(Root() + "/repository", true); }
    ~PackageRepositoryTest() override { Configure("", true); }
    static void Configure(const KelString& folders, bool copies) {
        const KelLock lock(FileStore::mutexSettings);
        FileStore::strPackagesRepositoryPath = folders;
        FileStore::fPackagesRepositoryCopy = copies;
    }
    static KelString UrlFor(const KelString& checksum) {
        return AskAs(kChild, {{"FileChecksum", checksum}}).GetString("FileURL", "none");
    }

    const KelString source_ = MakeFile("repository/n", "content");
    const KelString checksum_ = TextMd5("content");
};

TEST_F(PackageRepositoryTest, FileIsCopiedOrReferredToAndServedFromTheNextRequestOn) {
    const KelString one = Root() + "/repository";
    for (const auto& [folders, copies, copied] :
         Table<KelString, bool, bool>{{one, true, true},
                                      {one, false, false},
                                      {" " + one, false, true},  // no alias serves what comes from these
                                      {Root() + "/absent , " + one, false, true}}) {
        const auto trace = Begin(KelFormat("'%S' %u", folders, copies));
        Configure(folders, copies);
        EXPECT_EQ(UrlFor(checksum_), "");
        const KelString path = OnlyFields(kDown, "FilePath");
        EXPECT_EQ(path, copied ? FileStore::StorePath(kDown, {"t", "l", "n", checksum_}) : source_);
        EXPECT_EQ(OnlyFields(kDown, "FileStatus, ExternalFile, FileSize"),
                  KelFormat("AVAILABLE|%d|7", !copied));
        EXPECT_EQ(Content(path) + Content(source_), "contentcontent");
        EXPECT_TRUE(Requesters().empty());
        EXPECT_EQ(Content(OnlyFields(kUp, "FilePath")), "content");
        const KelContainer info = FromXml(OnlyFields(kUp, "FileInfo"));
        EXPECT_EQ(Read(info.GetContainer("PackagerAdministratedPackage"),
                       "AdministratedRelayGUID AdministratedRelayAddrPort SendingToMaster"),
                  KelString(kGuid) + "|127.0.1.7:1610|1");
        EXPECT_EQ(UrlFor(checksum_), copied ? "/FileStore/downstream/t/l/" + checksum_ + "/n"
                                            : "/AlternativePackagesRepositoryPath/n");
    }
}

TEST_F(PackageRepositoryTest, CallsSideBySideEnterAFileOnce) {
    std::filesystem::resize_file(source_, 16 << 20);  // long enough to be read by all of them at once
    KelString checksum;
    ASSERT_TRUE(FileMd5(source_, checksum));
    // what was announced is still to be acknowledged
    for (const auto& [status, acknowledged] :
         Table<KelString, const char*>{{"", "1"}, {"MISSING", "1"}, {"DOWNLOADING", "0"}}) {
        const auto trace = Begin(status);
        if (!status.empty()) AddFile(kDown, "n", status, "FileChecksum = '" + checksum + "'");
        KelVector<std::jthread> callers;
        for (int i = 0; i < 4; ++i)
            callers.emplace_back([&checksum] { UrlFor(checksum); });
        callers.clear();
        EXPECT_EQ(OnlyFields(kDown, "FileStatus, Acknowledged"), KelString("AVAILABLE|") + acknowledged);
        EXPECT_EQ(Count(kUp), "1");
    }
}

TEST_F(PackageRepositoryTest, OtherContentAndAFailedCopyCountAsAbsent) {
    for (const KelString& checksum : {KelString("0123"), checksum_}) {
        DeleteRows();
        if (checksum == checksum_) WriteFile(InStore("downstream/t"), "a file where the folder should be");
        EXPECT_EQ(UrlFor(checksum), "");
        EXPECT_EQ(OnlyFields(kDown), "MISSING");
        EXPECT_EQ(Requesters(), Texts{KelString(kChild) + "|0"});
        EXPECT_EQ(Count(kUp), "0");
    }
}

}  // namespace
